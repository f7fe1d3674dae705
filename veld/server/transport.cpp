#include "veld/server/transport.h"

#include <cerrno>
#include <sys/socket.h>

namespace veld
{

io_result transport::receive(char *into, size_t room)
{
    ssize_t count = 0;
    do
        count = recv(fd(), into, room, 0);
    while (count < 0 && errno == EINTR);
    if (count > 0)
        return {io_state::done, static_cast<size_t>(count)};
    if (count == 0)
        return {io_state::closed};
    return {errno == EAGAIN || errno == EWOULDBLOCK ? io_state::want_read : io_state::failed};
}

io_result transport::send(const char *from, size_t count)
{
    ssize_t written = 0;
    do
        written = ::send(fd(), from, count, MSG_NOSIGNAL);
    while (written < 0 && errno == EINTR);
    if (written >= 0)
        return {io_state::done, static_cast<size_t>(written)};
    return {errno == EAGAIN || errno == EWOULDBLOCK ? io_state::want_write : io_state::failed};
}

} // namespace veld
