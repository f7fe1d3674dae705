// The bytes of one connection: plain, or through TLS.
#pragma once

#include "base/fd.h"

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace veld
{

/// What an operation on a non-blocking link came to.
enum class io_state {
    done,       ///< some bytes went through
    want_read,  ///< goes on when the descriptor can be read
    want_write, ///< goes on when the descriptor can be written
    closed,     ///< the peer ended its side in good order
    failed
};

struct io_result {
    io_state state;
    size_t bytes = 0;
};

class transport
{
public:
    explicit transport(fd_owner fd) : fd_(static_cast<fd_owner &&>(fd)) {}
    transport(const transport &) = delete;
    transport &operator=(const transport &) = delete;
    virtual ~transport() = default;

    int fd() const { return fd_.get(); }
    virtual io_result read(char *into, size_t room) { return receive(into, room); }
    virtual io_result write(const char *from, size_t count) { return send(from, count); }
    /// Takes further what must happen before bytes flow; done when nothing is left.
    virtual io_state greet() { return io_state::done; }
    /// True while bytes that were received wait inside, where epoll does not see them.
    virtual bool holds_input() const { return false; }

private:
    io_result receive(char *into, size_t room);
    io_result send(const char *from, size_t count);

    fd_owner fd_;
};

} // namespace veld
