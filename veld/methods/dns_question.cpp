#include "veld/methods/dns_question.h"

#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace veld
{

namespace
{

constexpr int datagrams_at_once = 64;
constexpr int longest_datagram = 4096;
constexpr int never_ms = 3600000; // the owner decides how long to wait

void *or_end(void *memory, size_t size)
{
    if (memory == nullptr && size > 0)
        std::get_new_handler()();
    return memory;
}

// Its memory is the daemon's: there is some, or the program ends.
void library_begin()
{
    static const int begun = ares_library_init_mem(
        ARES_LIB_INIT_ALL, [](size_t size) { return or_end(malloc(size), size); }, free,
        [](void *memory, size_t size) { return or_end(realloc(memory, size), size); });
    static_cast<void>(begun);
}

} // namespace

// As c-ares would do it, but for four things: a socket leaves by the interface that was asked for or not at all, it
// leads to the server as it was given (c-ares knows no scopes of addresses), an error ends the question at once, and
// datagrams that cannot be the answer are not shown to c-ares, which would take a mere echo of the question for it.
struct dns_question::functions {
    static dns_question *of(void *me) { return static_cast<dns_question *>(me); }

    static ares_socket_t open(int family, int type, int, void *me)
    {
        dns_question &self = *of(me);
        if (self.unreachable_ || self.no_interface_)
            return -1;
        const bool stream = type == SOCK_STREAM;
        const int fd = socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd >= 0 && !self.interface_.empty() &&
            setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, self.interface_.c_str(),
                       static_cast<socklen_t>(self.interface_.size() + 1)) != 0 &&
            !stream) {
            ::close(fd);
            self.no_interface_ = true;
            return -1;
        }
        if (fd < 0 && !stream)
            self.unreachable_ = true;
        if (fd >= 0 && stream)
            self.streams_.push_back(fd);
        return fd;
    }

    static int close(ares_socket_t fd, void *me)
    {
        std::erase(of(me)->streams_, fd);
        return ::close(fd);
    }

    static int connect(ares_socket_t fd, const sockaddr *, ares_socklen_t, void *me)
    {
        const dns_question &self = *of(me);
        return noted(me, fd, ::connect(fd, self.server_.get(), self.server_.length)) < 0 ? -1 : 0;
    }

    static ares_ssize_t receive(ares_socket_t fd, void *bytes, size_t room, int flags, sockaddr *from,
                                ares_socklen_t *from_length, void *me)
    {
        dns_question &self = *of(me);
        if (self.is_stream(fd))
            return recvfrom(fd, bytes, room, flags, from, from_length);
        const ares_socklen_t from_room = from_length != nullptr ? *from_length : 0;
        while (self.datagrams_left_-- > 0) { // what is still there then wakes the loop again
            if (from_length != nullptr)
                *from_length = from_room;
            const ssize_t got = recvfrom(fd, bytes, room, flags, from, from_length);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                return noted(me, fd, got);
            if (self.carries_answer(bytes, static_cast<size_t>(got)))
                return got;
        }
        errno = EAGAIN;
        return -1;
    }

    static ares_ssize_t send(ares_socket_t fd, const iovec *pieces, int count, void *me)
    {
        msghdr message = {};
        message.msg_iov = const_cast<iovec *>(pieces);
        message.msg_iovlen = static_cast<size_t>(count);
        const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent >= 0 || errno != EAGAIN || of(me)->is_stream(fd))
            return noted(me, fd, sent);
        size_t lost = 0; // as a datagram may be on its way; the question is asked again
        for (int i = 0; i < count; i++)
            lost += pieces[i].iov_len;
        return static_cast<ares_ssize_t>(lost);
    }

    // What a call on a socket gave. What fails over UDP fails for good.
    static ssize_t noted(void *me, int fd, ssize_t outcome)
    {
        if (outcome < 0 && errno != EAGAIN && errno != EINTR && !of(me)->is_stream(fd))
            of(me)->unreachable_ = true;
        return outcome;
    }

    static const ares_socket_functions table;
};

const ares_socket_functions dns_question::functions::table = {open, close, connect, receive, send};

dns_question::dns_question(std::string name, dns_type type, const host_address &server, std::string interface,
                           watcher watch)
    : name_(std::move(name)), type_(type), server_(server), interface_(std::move(interface)), watch_(std::move(watch))
{
    library_begin();
    // All that c-ares would otherwise look up in the machine's files is said here.
    char lookups[] = "b";
    in_addr placeholder = {};
    ares_options options = {};
    options.flags = ARES_FLAG_NOCHECKRESP | ARES_FLAG_EDNS | ARES_FLAG_NOSEARCH | ARES_FLAG_NOALIASES;
    options.timeout = never_ms;
    options.tries = 1;
    options.ndots = 1;
    options.lookups = lookups;
    options.servers = &placeholder;
    options.nservers = 1;
    options.ednspsz = longest_datagram;
    options.sock_state_cb = socket_state;
    options.sock_state_cb_data = this;
    const int said = ARES_OPT_FLAGS | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_NDOTS | ARES_OPT_LOOKUPS |
                     ARES_OPT_SERVERS | ARES_OPT_DOMAINS | ARES_OPT_SORTLIST | ARES_OPT_EDNSPSZ | ARES_OPT_NOROTATE |
                     ARES_OPT_SOCK_STATE_CB;
    ares_addr_port_node to = {};
    to.family = server.bytes.ss_family;
    to.udp_port = to.tcp_port = server.port();
    if (to.family == AF_INET)
        to.addr.addr4 = reinterpret_cast<const sockaddr_in *>(&server.bytes)->sin_addr;
    else
        memcpy(&to.addr.addr6, &reinterpret_cast<const sockaddr_in6 *>(&server.bytes)->sin6_addr, sizeof to.addr.addr6);
    if (ares_init_options(&channel_, &options, said) != ARES_SUCCESS) {
        channel_ = nullptr;
        unreachable_ = true;
        return;
    }
    ares_set_socket_functions(channel_, &functions::table, this);
    unreachable_ = ares_set_servers_ports(channel_, &to) != ARES_SUCCESS;
}

dns_question::~dns_question()
{
    if (channel_ != nullptr)
        ares_destroy(channel_);
}

void dns_question::ask()
{
    uint16_t id = 0;
    if (getrandom(&id, sizeof id, 0) != sizeof id)
        unreachable_ = true;
    const std::vector<unsigned char> bytes = dns_query(id, name_, type_);
    if (!unreachable_)
        ares_send(channel_, bytes.data(), static_cast<int>(bytes.size()), answered, this);
}

void dns_question::proceed()
{
    datagrams_left_ = datagrams_at_once;
    // Versions of the library differ in how many datagrams they read at once.
    for (int before = 0; datagrams_left_ > 0 && datagrams_left_ != before && !answer_;) {
        before = datagrams_left_;
        serve_ready();
    }
}

void dns_question::serve_ready()
{
    std::vector<pollfd> ready = watched_;
    if (poll(ready.data(), ready.size(), 0) <= 0)
        return;
    for (const pollfd &each : ready) {
        const short failed = POLLERR | POLLHUP;
        const bool readable = (each.revents & (POLLIN | failed)) != 0;
        const bool writable = (each.events & POLLOUT) != 0 && (each.revents & (POLLOUT | failed)) != 0;
        const bool still =
            std::any_of(watched_.begin(), watched_.end(), [&each](const pollfd &other) { return other.fd == each.fd; });
        if (still && (readable || writable))
            ares_process_fd(channel_, readable ? each.fd : ARES_SOCKET_BAD, writable ? each.fd : ARES_SOCKET_BAD);
    }
}

// A failure says nothing here: what matters of it was noted at the sockets. Over TCP it leaves the question open until
// its time is over.
void dns_question::answered(void *me, int status, int, unsigned char *bytes, int size)
{
    dns_question &self = *static_cast<dns_question *>(me);
    if (status == ARES_SUCCESS && !self.answer_)
        self.answer_ = dns_parse(bytes, static_cast<size_t>(size), self.name_, self.type_);
}

void dns_question::socket_state(void *me, int fd, int readable, int writable)
{
    dns_question &self = *static_cast<dns_question *>(me);
    std::erase_if(self.watched_, [fd](const pollfd &each) { return each.fd == fd; });
    const short events = static_cast<short>((readable != 0 ? POLLIN : 0) | (writable != 0 ? POLLOUT : 0));
    if (events != 0)
        self.watched_.push_back({fd, events, 0});
    if (!self.watch_(fd, (readable != 0 ? EPOLLIN : 0U) | (writable != 0 ? EPOLLOUT : 0U)))
        self.unreachable_ = true;
}

bool dns_question::carries_answer(const void *bytes, size_t size) const
{
    return dns_parse(static_cast<const unsigned char *>(bytes), size, name_, type_).has_value();
}

bool dns_question::is_stream(int fd) const
{
    return std::find(streams_.begin(), streams_.end(), fd) != streams_.end();
}

} // namespace veld
