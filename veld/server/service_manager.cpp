#include "veld/server/service_manager.h"

#include "base/clock.h"
#include "base/number.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace veld
{

namespace
{

constexpr int first_handed_over = 3;
constexpr int most_handed_over = 64;

std::string take_variable(const char *name)
{
    const char *value = getenv(name);
    std::string text = value != nullptr ? value : "";
    unsetenv(name);
    return text;
}

// Whether what a variable is about is meant for this process.
bool is_ours(const std::string &pid)
{
    return number_of<int64_t>(pid) == std::optional<int64_t>(getpid());
}

} // namespace

service_manager::service_manager(loop &events) : loop_(events), place_(take_variable("NOTIFY_SOCKET"))
{
    const std::string watchdog = take_variable("WATCHDOG_USEC");
    if (const std::string pid = take_variable("WATCHDOG_PID"); pid.empty() || is_ours(pid))
        watchdog_ms_ = number_of<int64_t>(watchdog).value_or(0) / 1000;
    const std::string count = take_variable("LISTEN_FDS");
    take_variable("LISTEN_FDNAMES");
    if (!is_ours(take_variable("LISTEN_PID")))
        return;
    const int last = first_handed_over + std::clamp(number_of<int>(count).value_or(0), 0, most_handed_over);
    for (int fd = first_handed_over; fd < last; ++fd) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        sockets_.emplace_back(fd);
    }
}

void service_manager::tell(const std::string &state) const
{
    sockaddr_un address{};
    if (place_.empty() || place_.size() >= sizeof address.sun_path)
        return;
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, place_.data(), place_.size());
    if (place_[0] == '@')
        address.sun_path[0] = '\0';
    const fd_owner fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + place_.size());
    if (fd)
        (void)!sendto(fd.get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address),
                      length);
}

void service_manager::feed()
{
    tell("WATCHDOG=1");
    loop_.after(std::max<int64_t>(watchdog_ms_ / 2, 1), [this] { feed(); });
}

void service_manager::ready()
{
    tell("READY=1");
    if (watchdog_ms_ > 0 && !std::exchange(fed_, true))
        feed();
}

void service_manager::reloading()
{
    tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(monotonic_us()));
}

void service_manager::stopping()
{
    tell("STOPPING=1");
}

} // namespace veld
