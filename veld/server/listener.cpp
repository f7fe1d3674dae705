#include "veld/server/listener.h"

#include "base/endpoint.h"
#include "veld/base/log.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace veld
{

namespace
{

constexpr int backlog = 4096; // the system cuts it to what it allows
constexpr int accepts_at_once = 32;

std::string because(const std::string &what)
{
    return what + ": " + strerror(errno);
}

bool takes_clients(int fd)
{
    int listens = 0;
    int type = 0;
    socklen_t size = sizeof listens;
    return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens != 0 &&
           getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM;
}

// True when nobody listens on the socket file any more.
bool is_stale(const sockaddr_un &address)
{
    const fd_owner probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 &&
           errno == ECONNREFUSED;
}

std::string lock_name(const std::string &path)
{
    return path + ".lock";
}

// A name beside the socket's own; one that is shorter than its own when room is scarce.
std::string private_name(const std::string &path)
{
    const std::string number = std::to_string(getpid());
    const std::string usual = path + "." + number;
    return usual.size() <= unix_path_max ? usual : path.substr(0, path.find_last_of('/') + 1) + ".v" + number;
}

} // namespace

listener::listener(loop &events, std::string address, socket_rights rights, accept_handler call)
    : loop_(events), address_(std::move(address)), rights_(rights), call_(std::move(call))
{
}

listener::listener(loop &events, fd_owner opened, accept_handler call)
    : loop_(events), call_(std::move(call)), fd_(std::move(opened)), kept_(true), turning_away_(true)
{
    host_address own;
    own.length = sizeof own.bytes;
    if (getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&own.bytes), &own.length) != 0)
        return;
    if (own.bytes.ss_family != AF_UNIX)
        address_ = std::string(tcp_scheme) + host_port_text({address_text(own), own.port()});
    else if (own.length > sizeof(sa_family_t))
        address_ = reinterpret_cast<const sockaddr_un *>(&own.bytes)->sun_path;
}

bool listener::watch(std::string *error)
{
    if (!reserve_)
        reserve_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (watch_ == 0)
        watch_ = loop_.watch(fd_.get(), EPOLLIN, [this](uint32_t) { arrived(); });
    if (watch_ == 0)
        *error = because(address_);
    return watch_ != 0;
}

listener::~listener()
{
    kept_ = false;
    close();
    if (place_)
        unlink(lock_name(address_).c_str());
}

// Of several daemons that are started at once for one place, one has it. The lock is on a file beside the socket, which
// whoever holds it may remove.
bool listener::take_place(std::string *error)
{
    const std::string name = lock_name(address_);
    while (!place_) {
        fd_owner fd(::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
        struct stat locked {
        };
        struct stat named {
        };
        if (!fd || fstat(fd.get(), &locked) != 0) {
            *error = because(address_);
            return false;
        }
        if (!S_ISREG(locked.st_mode) || flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
            *error =
                S_ISREG(locked.st_mode) ? address_ + ": another daemon listens there" : name + ": not a regular file";
            return false;
        }
        // It may have been removed in between, and locked by another under its name.
        if (stat(name.c_str(), &named) == 0 && named.st_dev == locked.st_dev && named.st_ino == locked.st_ino)
            place_ = std::move(fd);
    }
    return true;
}

bool listener::open(std::string *error)
{
    if (fd_ && turning_away_) {
        // Nobody can be accepted on anything else, and what comes there would be told of again and again.
        if (!takes_clients(fd_.get())) {
            *error = (address_.empty() ? "descriptor " + std::to_string(fd_.get()) : address_) +
                     ": no listening stream socket was handed over";
            return false;
        }
        turning_away_ = !watch(error);
        return !turning_away_;
    }
    if ((is_tcp() ? open_tcp(error) : open_unix(error)) && watch(error))
        return true;
    remove();
    return false;
}

void listener::close()
{
    if (!fd_)
        return;
    turning_away_ = kept_;
    if (!kept_)
        remove();
}

void listener::remove()
{
    loop_.forget(watch_);
    watch_ = 0;
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
    // Bound under a private name first: the path itself never leads to a socket with other rights than it is to have.
    const std::string fresh = private_name(address_);
    sockaddr_un address;
    sockaddr_un taken;
    if (!unix_address(fresh, &address) || !unix_address(address_, &taken)) {
        *error = address_ + ": the path is too long for a socket";
        return false;
    }
    if (!take_place(error))
        return false;
    struct stat present {
    };
    if (lstat(address_.c_str(), &present) == 0) {
        if (!S_ISSOCK(present.st_mode)) {
            *error = address_ + ": something that is no socket is there";
            return false;
        }
        if (!is_stale(taken)) {
            *error = address_ + ": another daemon listens there";
            return false;
        }
    }
    fd_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    unlink(fresh.c_str());
    const mode_t before = umask(0177);
    const int bound = fd_ ? bind(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) : -1;
    umask(before);
    if (bound != 0) {
        *error = because(address_);
        return false;
    }
    if (listen(fd_.get(), backlog) != 0 || lstat(fresh.c_str(), &present) != 0 ||
        (rights_.group && chown(fresh.c_str(), static_cast<uid_t>(-1), *rights_.group) != 0) ||
        chmod(fresh.c_str(), rights_.mode) != 0 || rename(fresh.c_str(), address_.c_str()) != 0) {
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
    auto place = host_port_parse(std::string_view(address_).substr(tcp_scheme.size()));
    if (!place) {
        *error = address_ + ": an address has the form tcp://HOST:PORT";
        return false;
    }
    // A name is looked up at the start alone: later that would keep the clients waiting.
    std::vector<host_address> found;
    if (!own_) {
        if (const int outcome = addresses_of(place->host, AF_UNSPEC, &found); outcome != 0 || found.empty()) {
            *error = address_ + ": " + gai_strerror(outcome);
            return false;
        }
        own_ = found.front();
    }
    host_address &own = *own_;
    own.set_port(place->port);
    const int on = 1;
    fd_.reset(socket(own.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd_ || setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd_.get(), own.get(), own.length) != 0 || listen(fd_.get(), backlog) != 0) {
        *error = because(address_);
        return false;
    }
    // The system may have chosen the port.
    if (getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&own.bytes), &own.length) == 0) {
        place->port = own.port();
        address_ = std::string(tcp_scheme) + host_port_text(*place);
    }
    return true;
}

void listener::arrived()
{
    for (int i = 0; i < accepts_at_once && fd_; ++i) {
        host_address from;
        from.length = sizeof from.bytes;
        fd_owner fd(
            accept4(fd_.get(), reinterpret_cast<sockaddr *>(&from.bytes), &from.length, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd && (errno == EMFILE || errno == ENFILE)) {
            reserve_.reset();
            fd.reset(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (fd) // one had come
                LOG_WARNING("no descriptors left: a client is turned away");
            fd.reset();
            reserve_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
            return;
        }
        if (!fd && (errno == ECONNABORTED || errno == EINTR))
            continue;
        if (!fd)
            return;
        if (turning_away_)
            continue;
        arrival who;
        if (is_tcp()) {
            const int on = 1;
            setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            setsockopt(fd.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
            who.peer = address_text(from);
        } else {
            ucred identity{};
            socklen_t size = sizeof identity;
            if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &identity, &size) == 0)
                who.identity = peer_identity{identity.uid, identity.pid};
            who.peer = "uid " + std::to_string(identity.uid);
        }
        who.fd = std::move(fd);
        call_(std::move(who));
    }
}

} // namespace veld
