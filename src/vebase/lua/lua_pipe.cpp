// Pipes that Lua code reads or writes: what waits for the other end waits interruptibly, and one that has left is an
// error. io.open and io.output make such of the named pipes that they open.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/ve_wait.h"
#include "vebase/lua/lua_impl.h"

namespace
{

/// A pipe that polls writable takes this much without blocking.
constexpr size_t pipe_piece = 4096;

bool wait_ready(int fd, short events)
{
    pollfd end{.fd = fd, .events = events, .revents = 0};
    // Where code has a limited time, nothing waits longer.
    const bool ready = ve_wait_poll(&end, 1, ve_wait_deadline(ve_lua_time_left(-1))) > 0;
    errno = EINTR;
    return ready;
}

/// As write(), but where nobody reads any more it is only an error: no signal ends the session for that.
ssize_t write_without_signal(int fd, const char *data, size_t size)
{
    sigset_t only;
    sigset_t before;
    sigemptyset(&only);
    sigaddset(&only, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &only, &before);
    const ssize_t count = write(fd, data, size);
    const int error = errno;
    if (count < 0 && error == EPIPE && sigismember(&before, SIGPIPE) == 0) {
        const timespec none = {.tv_sec = 0, .tv_nsec = 0};
        while (sigtimedwait(&only, nullptr, &none) < 0 && errno == EINTR)
            ;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return count;
}

// --- the stream around that of a named pipe ---

ssize_t named_read(void *cookie, char *data, size_t size)
{
    return ve_lua_pipe_read(fileno(static_cast<FILE *>(cookie)), data, size);
}

ssize_t named_write(void *cookie, const char *data, size_t size)
{
    return ve_lua_pipe_write(fileno(static_cast<FILE *>(cookie)), data, size);
}

int named_close(void *cookie)
{
    return fclose(static_cast<FILE *>(cookie));
}

/// The stream to use for one that was just opened: itself, unless it writes into a pipe. Null without memory.
FILE *wrapped(FILE *file, const char *mode)
{
    struct stat about;
    if (strpbrk(mode, "wa+") == nullptr || fstat(fileno(file), &about) < 0 || !S_ISFIFO(about.st_mode))
        return file;
    return fopencookie(file, mode, {named_read, named_write, ve_lua_no_seek, named_close});
}

bool is_mode(const char *mode)
{
    if (*mode == '\0' || strchr("rwa", *mode) == nullptr)
        return false;
    mode += mode[1] == '+' ? 2 : 1;
    return mode[strspn(mode, "b")] == '\0';
}

int close_named(lua_State *L)
{
    auto *stream = static_cast<luaL_Stream *>(luaL_checkudata(L, 1, LUA_FILEHANDLE));
    return luaL_fileresult(L, static_cast<int>(fclose(stream->f) == 0), nullptr);
}

/// Pushes the file and returns it; its stream is null where it could not be opened, and `errno` says why.
luaL_Stream *push_opened(lua_State *L, const char *path, const char *mode)
{
    auto *stream = static_cast<luaL_Stream *>(lua_newuserdata(L, sizeof(luaL_Stream)));
    *stream = {}; // closed
    luaL_setmetatable(L, LUA_FILEHANDLE);
    FILE *file = fopen(path, mode);
    if (file == nullptr)
        return stream;
    stream->f = wrapped(file, mode);
    if (stream->f != nullptr)
        stream->closef = close_named;
    else
        fclose(file);
    return stream;
}

int lua_open(lua_State *L)
{
    const char *path = luaL_checkstring(L, 1);
    const char *mode = luaL_optstring(L, 2, "r");
    luaL_argcheck(L, is_mode(mode), 2, "invalid mode");
    return push_opened(L, path, mode)->f != nullptr ? 1 : luaL_fileresult(L, 0, path);
}

/// io.output, which has the one before as its upvalue: that gets what a name stands for. It would not know its own name
/// and place in an error.
int lua_output(lua_State *L)
{
    const char *path = lua_tostring(L, 1);
    if (path != nullptr) {
        if (push_opened(L, path, "w")->f == nullptr)
            return luaL_error(L, "cannot open file '%s' (%s)", path, strerror(errno));
        lua_replace(L, 1);
    } else if (!lua_isnoneornil(L, 1) &&
               static_cast<luaL_Stream *>(luaL_checkudata(L, 1, LUA_FILEHANDLE))->closef == nullptr) {
        return luaL_error(L, "attempt to use a closed file");
    }
    return ve_lua_call_original(L);
}

} // namespace

ssize_t ve_lua_pipe_read(int fd, char *data, size_t size)
{
    const ve_lua_sigint_blocked blocked;
    return wait_ready(fd, POLLIN) ? read(fd, data, size) : -1;
}

ssize_t ve_lua_pipe_write(int fd, const char *data, size_t size)
{
    const ve_lua_sigint_blocked blocked;
    size_t written = 0;
    while (written < size && wait_ready(fd, POLLOUT)) {
        const ssize_t count = write_without_signal(fd, data + written, std::min(size - written, pipe_piece));
        if (count < 0)
            break;
        written += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(written);
}

void ve_lua_open_pipes(lua_State *L)
{
    lua_pushcfunction(L, lua_open);
    lua_setfield(L, -2, "open");
    ve_lua_replace(L, "output", lua_output);
}
