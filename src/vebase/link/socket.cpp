#include "platform/ve_socket.h"

#include <algorithm>
#include <cerrno>
#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/ve_wait.h"
#include "vebase/link/socket_impl.h"

namespace
{

using address_fn = int (*)(int, sockaddr *, socklen_t *);

int address_of(const ve_socket *socket, address_fn ask, sockaddr_storage *address, socklen_t *size)
{
    socklen_t length = sizeof *address;
    *address = {};
    if (socket == nullptr || socket->fd < 0 || ask(socket->fd, reinterpret_cast<sockaddr *>(address), &length) < 0)
        return -1;
    *size = std::min<socklen_t>(length, sizeof *address);
    return 0;
}

} // namespace

int ve_socket_open(int family)
{
    return socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

void ve_socket_close(ve_socket *socket)
{
    socket->state.store(ve_socket_closed, std::memory_order_release);
    if (socket->fd >= 0)
        close(socket->fd);
    socket->fd = -1;
}

int ve_socket_type(const ve_socket *socket)
{
    return socket == nullptr ? ve_socket_none : socket->kind;
}

int ve_socket_state(const ve_socket *socket)
{
    return socket == nullptr ? ve_socket_closed : socket->state.load(std::memory_order_acquire);
}

ve_socket *ve_socket_new(int kind)
{
    if (kind != ve_socket_unix && kind != ve_socket_tcp && kind != ve_socket_tcp_server)
        return nullptr;
    const int fd = ve_socket_open(kind == ve_socket_unix ? AF_UNIX : AF_INET);
    if (fd < 0)
        return nullptr;
    auto *made = new ve_socket;
    made->fd = fd;
    made->kind = kind;
    return made;
}

void ve_socket_free(ve_socket *socket)
{
    if (socket == nullptr)
        return;
    ve_socket_close(socket);
    delete socket;
}

void ve_socket_shutdown(ve_socket *socket)
{
    if (socket != nullptr && socket->fd >= 0)
        shutdown(socket->fd, SHUT_RDWR);
}

int ve_socket_get_addr(const ve_socket *socket, sockaddr_storage *address, socklen_t *size)
{
    return address_of(socket, getsockname, address, size);
}

int ve_socket_get_peer(const ve_socket *socket, sockaddr_storage *address, socklen_t *size)
{
    return address_of(socket, getpeername, address, size);
}

socklen_t ve_socket_addrsize(const ve_socket *socket)
{
    return ve_socket_type(socket) == ve_socket_unix ? sizeof(sockaddr_un) : sizeof(sockaddr_in);
}

int ve_socket_bind(ve_socket *socket, const sockaddr *address, socklen_t size)
{
    return socket == nullptr || bind(socket->fd, address, size) < 0 ? -1 : 0;
}

int ve_socket_listen(ve_socket *socket, int backlog)
{
    return socket == nullptr || listen(socket->fd, backlog) < 0 ? -1 : 0;
}

int ve_socket_wait(ve_socket *socket, int for_read, int timeout_ms)
{
    if (socket == nullptr || socket->fd < 0)
        return ve_socket_err_closed;
    pollfd fd{.fd = socket->fd, .events = static_cast<short>(for_read != 0 ? POLLIN : POLLOUT), .revents = 0};
    const int ready = ve_wait_poll(&fd, 1, ve_wait_deadline(timeout_ms));
    return ready < 0 ? ve_socket_err_interrupted : ready;
}

ve_socket *ve_socket_accept(ve_socket *listener, sockaddr_storage *from)
{
    if (listener == nullptr)
        return nullptr;
    sockaddr_storage address;
    int fd;
    do {
        socklen_t size = sizeof address;
        address = {};
        fd = accept4(listener->fd, reinterpret_cast<sockaddr *>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
    } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED));
    if (fd < 0)
        return nullptr;
    if (from != nullptr)
        *from = address;
    auto *made = new ve_socket;
    made->fd = fd;
    made->kind = listener->kind == ve_socket_unix ? ve_socket_unix : ve_socket_tcp;
    made->state = ve_socket_connected;
    return made;
}

ssize_t ve_socket_send(ve_socket *socket, const void *data, size_t size, int stall_ms)
{
    if (socket == nullptr || socket->fd < 0)
        return ve_socket_err_closed;
    const auto *bytes = static_cast<const char *>(data);
    size_t sent = 0;
    while (sent < size) {
        const ssize_t count = send(socket->fd, bytes + sent, size - sent, MSG_NOSIGNAL);
        if (count > 0) {
            sent += static_cast<size_t>(count);
            continue;
        }
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && errno != EAGAIN)
            break;
        if (ve_socket_wait(socket, 0, stall_ms) <= 0)
            break;
    }
    return static_cast<ssize_t>(sent);
}
