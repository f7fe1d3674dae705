#include "veld/base/line_sink.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace veld
{

line_sink line_sink::of_standard_error()
{
    line_sink made;
    struct stat found {
    };
    if (fstat(STDERR_FILENO, &found) != 0)
        return made;
    made.fd_ = STDERR_FILENO;
    made.is_socket_ = S_ISSOCK(found.st_mode);
    // A descriptor of our own does not block, without making those of others that lead to the same place do so.
    if (S_ISFIFO(found.st_mode) || S_ISCHR(found.st_mode))
        made.own_.reset(open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return made;
}

ssize_t line_sink::put(std::string_view bytes) const
{
    ssize_t count = 0;
    do {
        if (own_) {
            count = ::write(own_.get(), bytes.data(), bytes.size());
        } else if (is_socket_) {
            count = send(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        } else {
            pollfd room{fd_, POLLOUT, 0};
            const bool ready = fd_ >= 0 && poll(&room, 1, 0) == 1;
            errno = EAGAIN;
            count = ready ? ::write(fd_, bytes.data(), bytes.size()) : -1;
        }
    } while (count < 0 && errno == EINTR);
    return count;
}

bool line_sink::put_rest()
{
    while (!rest_.empty()) {
        const ssize_t count = put(rest_);
        if (count <= 0)
            return false;
        rest_.erase(0, static_cast<size_t>(count));
    }
    return true;
}

void line_sink::write(std::string_view lines)
{
    const ssize_t count = put_rest() ? put(lines) : -1;
    if (count <= 0) {
        ++lost_;
        return;
    }
    lost_ = 0;
    rest_ = lines.substr(static_cast<size_t>(count));
    (void)put_rest();
}

} // namespace veld
