// Stream sockets: non-blocking, close-on-exec, every wait a wait point (ve_wait.h), no SIGPIPE.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

struct ve_socket;

enum ve_socket_kind { ve_socket_none = 0, ve_socket_unix = 2, ve_socket_tcp = 3, ve_socket_tcp_server = 4 };
enum ve_socket_status { ve_socket_closed = 0, ve_socket_connecting = 2, ve_socket_connected = 4 };
/// Why nothing was sent or received.
enum ve_socket_error {
    ve_socket_err_none = 0,
    ve_socket_err_closed = -7,      ///< the peer closed the link, or it was never connected
    ve_socket_err_interrupted = -8, ///< woken, or Ctrl-C
    ve_socket_err_timeout = -13
};

int ve_socket_type(const ve_socket *socket);
int ve_socket_state(const ve_socket *socket);

/// A new socket of `kind` (ve_socket_tcp_server: IPv4), owned by the caller; null when the system gives none.
ve_socket *ve_socket_new(int kind);
/// Closes and frees; null is allowed.
void ve_socket_free(ve_socket *socket);
/// Ends both directions of the connection; who waits for it, in another thread perhaps, is woken.
void ve_socket_shutdown(ve_socket *socket);
/// The socket's own address; returns 0, or negative when it has none. `*size` receives the address's length.
int ve_socket_get_addr(const ve_socket *socket, sockaddr_storage *address, socklen_t *size);
/// The peer's address, likewise.
int ve_socket_get_peer(const ve_socket *socket, sockaddr_storage *address, socklen_t *size);
socklen_t ve_socket_addrsize(const ve_socket *socket);
int ve_socket_bind(ve_socket *socket, const sockaddr *address, socklen_t size);
int ve_socket_listen(ve_socket *socket, int backlog);
/// Waits until the socket is readable (`for_read` 1) or writable (0). Returns 1 ready, 0 time-out, negative error.
int ve_socket_wait(ve_socket *socket, int for_read, int timeout_ms);
/// The next connection as a new socket owned by the caller, or null. `*from` receives where it came from, which a peer
/// that has reset it meanwhile no longer tells.
ve_socket *ve_socket_accept(ve_socket *listener, sockaddr_storage *from = nullptr);
/// Sends all of `data`; short sends are continued. `stall_ms` bounds the time without progress (-1 none). Returns the
/// number of bytes sent (fewer than `size` when the peer went away or stalled), or a negative number.
ssize_t ve_socket_send(ve_socket *socket, const void *data, size_t size, int stall_ms);
