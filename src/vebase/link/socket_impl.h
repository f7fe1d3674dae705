// What a socket is made of, for the parts of the library that work on the descriptor itself.
#pragma once

#include <atomic>

#include "platform/ve_socket.h"

struct ve_socket {
    int fd = -1;
    int kind = ve_socket_none;
    std::atomic<int> state{ve_socket_closed}; // one thread may lose the link while another one sends
};

/// A non-blocking, close-on-exec stream socket of address family `family`; a negative number when there is none.
int ve_socket_open(int family);
/// Closes the descriptor, if there is one.
void ve_socket_close(ve_socket *socket);
