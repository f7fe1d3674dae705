#include "veld/server/listener.h"

#include "veld/base/log.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace veld
{

namespace
{

constexpr int backlog = 4096; // the system cuts it to what it allows
constexpr int accepts_at_once = 32;
constexpr mode_t socket_mode = 0666;

std::string because(const std::string &what)
{
    return what + ": " + strerror(errno);
}

// True when nobody listens on the socket file any more.
bool is_stale(const sockaddr_un &address)
{
    const fd_owner probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe)
        return false;
    return connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 &&
           errno == ECONNREFUSED;
}

// A name beside the socket's own; one that is shorter than its own when room is scarce.
std::string private_name(const std::string &path, size_t room)
{
    const std::string number = std::to_string(getpid());
    const std::string usual = path + "." + number;
    return usual.size() < room ? usual : path.substr(0, path.find_last_of('/') + 1) + ".v" + number;
}

std::string peer_name(const sockaddr_storage &address)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in &>(address).sin_addr, text, sizeof text);
    else if (address.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 &>(address).sin6_addr, text, sizeof text);
    return text;
}

} // namespace

listener::listener(loop &events, std::string address, accept_handler call)
    : loop_(events), address_(std::move(address)), call_(std::move(call))
{
}

listener::~listener()
{
    close();
}

bool listener::open(std::string *error)
{
    if (!(is_tcp() ? open_tcp(error) : open_unix(error))) {
        fd_.reset();
        return false;
    }
    if (!reserve_)
        reserve_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    loop_.watch(fd_.get(), EPOLLIN, [this](uint32_t) { arrived(); });
    return true;
}

void listener::close()
{
    if (!fd_)
        return;
    loop_.forget(fd_.get());
    fd_.reset();
    struct stat now {
    };
    // Only our own socket file: somebody may have put another in its place.
    if (bound_ && lstat(address_.c_str(), &now) == 0 && now.st_dev == device_ && now.st_ino == inode_)
        unlink(address_.c_str());
    bound_ = false;
}

bool listener::open_unix(std::string *error)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // Bound under a private name first: the path itself never leads to a socket with other rights than it is to have.
    const std::string fresh = private_name(address_, sizeof address.sun_path);
    if (fresh.size() >= sizeof address.sun_path || address_.size() >= sizeof address.sun_path) {
        *error = address_ + ": the path is too long for a socket";
        return false;
    }
    struct stat present {
    };
    if (lstat(address_.c_str(), &present) == 0) {
        memcpy(address.sun_path, address_.c_str(), address_.size() + 1);
        if (!S_ISSOCK(present.st_mode)) {
            *error = address_ + ": something that is no socket is there";
            return false;
        }
        if (!is_stale(address)) {
            *error = address_ + ": another daemon listens there";
            return false;
        }
    }
    fd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    memcpy(address.sun_path, fresh.c_str(), fresh.size() + 1);
    unlink(fresh.c_str());
    const mode_t before = umask(0177);
    const int bound = fd_ ? bind(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) : -1;
    umask(before);
    if (bound != 0) {
        *error = because(address_);
        return false;
    }
    if (listen(fd_.get(), backlog) != 0 || lstat(fresh.c_str(), &present) != 0 ||
        chmod(fresh.c_str(), socket_mode) != 0 || rename(fresh.c_str(), address_.c_str()) != 0) {
        *error = because(address_);
        unlink(fresh.c_str());
        return false;
    }
    device_ = present.st_dev;
    inode_ = present.st_ino;
    bound_ = true;
    return true;
}

bool listener::open_tcp(std::string *error)
{
    const std::string rest = address_.substr(strlen("tcp://"));
    const size_t colon = rest.rfind(':');
    std::string host = rest.substr(0, colon == std::string::npos ? 0 : colon);
    if (host.size() > 1 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    if (colon == std::string::npos || host.empty() || colon + 1 == rest.size() ||
        rest.find_first_not_of("0123456789", colon + 1) != std::string::npos) {
        *error = address_ + ": an address has the form tcp://HOST:PORT";
        return false;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo *found = nullptr;
    const int result = getaddrinfo(host.c_str(), rest.c_str() + colon + 1, &hints, &found);
    if (result != 0) {
        *error = address_ + ": " + gai_strerror(result);
        return false;
    }
    const int on = 1;
    fd_.reset(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const bool listening = fd_ && setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                           bind(fd_.get(), found->ai_addr, found->ai_addrlen) == 0 && listen(fd_.get(), backlog) == 0;
    if (!listening)
        *error = because(address_);
    freeaddrinfo(found);
    if (!listening)
        return false;
    sockaddr_storage own{};
    socklen_t size = sizeof own;
    if (getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&own), &size) == 0) {
        const uint16_t port = ntohs(own.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 &>(own).sin6_port
                                                              : reinterpret_cast<sockaddr_in &>(own).sin_port);
        address_ = "tcp://" + rest.substr(0, colon) + ":" + std::to_string(port);
    }
    return true;
}

void listener::arrived()
{
    for (int i = 0; i < accepts_at_once && fd_; ++i) {
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        fd_owner fd(accept4(fd_.get(), reinterpret_cast<sockaddr *>(&address), &size, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd && (errno == EMFILE || errno == ENFILE)) {
            LOG_WARNING("no descriptors left: a client is turned away");
            reserve_.reset();
            fd.reset(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            fd.reset();
            reserve_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
            return;
        }
        if (!fd && (errno == ECONNABORTED || errno == EINTR))
            continue;
        if (!fd)
            return;
        arrival who;
        if (is_tcp()) {
            const int on = 1;
            setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            setsockopt(fd.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
            who.peer = peer_name(address);
        } else {
            ucred identity{};
            size = sizeof identity;
            if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &identity, &size) == 0)
                who.identity = peer_identity{identity.uid, identity.pid};
            who.peer = "uid " + std::to_string(identity.uid);
        }
        who.fd = std::move(fd);
        call_(std::move(who));
    }
}

} // namespace veld
