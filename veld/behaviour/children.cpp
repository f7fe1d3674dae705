#include "veld/behaviour/children.h"

#include "base/shell_child.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace veld
{

namespace
{

/// A file of Lua's with a child at its other end.
struct child_stream {
    luaL_Stream stream; // first: it is what the library sees
    pid_t child;
};

/// False with errno.
bool start(pid_t *child, const char *command, const posix_spawn_file_actions_t *actions)
{
    sigset_t blocked;
    sigset_t defaults;
    sigemptyset(&blocked);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGXFSZ);
    fflush(nullptr);
    errno = shell_start(child, command, blocked, defaults, actions);
    return errno == 0;
}

/// What waitpid() says of it, or -1 with errno.
int status_of(pid_t child)
{
    int status = -1;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

int execute(lua_State *in)
{
    const char *command = luaL_optstring(in, 1, nullptr);
    if (command == nullptr) {
        lua_pushboolean(in, 1);
        return 1;
    }
    pid_t child = -1;
    return luaL_execresult(in, start(&child, command, nullptr) ? status_of(child) : -1);
}

int close_stream(lua_State *in)
{
    auto *file = static_cast<child_stream *>(luaL_checkudata(in, 1, LUA_FILEHANDLE));
    fclose(file->stream.f);
    return luaL_execresult(in, status_of(file->child));
}

/// False with errno.
bool open_stream(child_stream *file, const char *command, bool reads)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[reads ? 1 : 0], reads ? STDOUT_FILENO : STDIN_FILENO);
    FILE *stream = fdopen(ends[reads ? 0 : 1], reads ? "r" : "w");
    const bool started = stream != nullptr && start(&file->child, command, &actions);
    const int error = errno;
    posix_spawn_file_actions_destroy(&actions);
    close(ends[reads ? 1 : 0]);
    if (started) {
        file->stream = {stream, close_stream};
        return true;
    }
    if (stream != nullptr)
        fclose(stream);
    else
        close(ends[reads ? 0 : 1]);
    errno = error;
    return false;
}

int open(lua_State *in)
{
    const char *command = luaL_checkstring(in, 1);
    const char *mode = luaL_optstring(in, 2, "r");
    const bool reads = strcmp(mode, "r") == 0;
    luaL_argcheck(in, reads || strcmp(mode, "w") == 0, 2, "invalid mode");
    auto *file = static_cast<child_stream *>(lua_newuserdata(in, sizeof(child_stream)));
    *file = {}; // closed
    luaL_setmetatable(in, LUA_FILEHANDLE);
    return open_stream(file, command, reads) ? 1 : luaL_fileresult(in, 0, command);
}

} // namespace

void children_open(lua_State *in)
{
    lua_getglobal(in, "os");
    lua_pushcfunction(in, execute);
    lua_setfield(in, -2, "execute");
    lua_getglobal(in, "io");
    lua_pushcfunction(in, open);
    lua_setfield(in, -2, "popen");
    lua_pop(in, 2);
}

} // namespace veld
