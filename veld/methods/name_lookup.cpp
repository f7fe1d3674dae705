#include "veld/methods/name_lookup.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/eventfd.h>

#include <atomic>
#include <cstring>
#include <utility>

#include "base/thread.h"

namespace veld
{

namespace
{

constexpr int most_lookups = 16;
std::atomic<int> lookups{0}; // threads under way; written by the daemon's thread and by them

std::vector<host_address> take(const addrinfo *list)
{
    std::vector<host_address> found;
    for (; list != nullptr; list = list->ai_next) {
        if (list->ai_addrlen > sizeof(sockaddr_storage))
            continue;
        host_address address;
        memcpy(&address.bytes, list->ai_addr, list->ai_addrlen);
        address.length = list->ai_addrlen;
        found.push_back(address);
    }
    return found;
}

std::vector<host_address> resolve(const std::string &host, int family, int flags)
{
    addrinfo wanted = {};
    wanted.ai_family = family;
    wanted.ai_socktype = SOCK_DGRAM;
    wanted.ai_flags = flags;
    addrinfo *list = nullptr;
    std::vector<host_address> found;
    if (getaddrinfo(host.c_str(), nullptr, &wanted, &list) == 0) {
        found = take(list);
        freeaddrinfo(list);
    }
    return found;
}

} // namespace

std::string address_text(const host_address &address)
{
    char text[NI_MAXHOST];
    if (getnameinfo(reinterpret_cast<const sockaddr *>(&address.bytes), address.length, text, sizeof text, nullptr, 0,
                    NI_NUMERICHOST) != 0)
        return "";
    return text;
}

bool parse_address(const std::string &text, int family, host_address *address)
{
    std::vector<host_address> found = resolve(text, family, AI_NUMERICHOST);
    if (found.empty())
        return false;
    *address = found[0];
    return true;
}

struct name_lookup::shared {
    std::string host;
    int family;
    fd_owner done;
    std::atomic<bool> ended{false};
    std::vector<host_address> found; // the thread's until `ended`, then nobody writes it
};

void name_lookup::run(std::shared_ptr<shared> of)
{
    of->found = resolve(of->host, of->family, 0);
    of->ended = true;
    eventfd_write(of->done.get(), 1);
    of.reset();
    lookups--;
}

std::unique_ptr<name_lookup> name_lookup::start(const std::string &host, int family)
{
    if (lookups >= most_lookups)
        return nullptr;
    auto state = std::make_shared<shared>();
    state->host = host;
    state->family = family;
    state->done.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!state->done)
        return nullptr;

    lookups++;
    if (!thread_start(size_t{512} << 10, [state]() mutable { run(std::move(state)); })) {
        lookups--;
        return nullptr;
    }
    return std::unique_ptr<name_lookup>(new name_lookup(std::move(state)));
}

name_lookup::name_lookup(std::shared_ptr<shared> state) : state_(std::move(state)) {}

name_lookup::~name_lookup() = default;

int name_lookup::fd() const
{
    return state_->done.get();
}

bool name_lookup::ended() const
{
    return state_->ended;
}

std::vector<host_address> name_lookup::found() const
{
    return state_->ended ? state_->found : std::vector<host_address>{};
}

} // namespace veld
