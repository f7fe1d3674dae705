// io.popen: what waits for the child, for its output or its end, waits interruptibly.
#include <cstring>
#include <new>
#include <unistd.h>

#include "platform/ve_child.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "vebase/lua/lua_impl.h"

namespace
{

/// What is behind the stream of a child.
struct child_pipe {
    ve_lua_state *context;
    pid_t child;
    int fd;
};

/// Where code has a limited time, nothing waits longer.
int64_t deadline()
{
    return ve_wait_deadline(ve_lua_time_left(-1));
}

ssize_t pipe_read(void *cookie, char *data, size_t size)
{
    return ve_lua_pipe_read(static_cast<child_pipe *>(cookie)->fd, data, size);
}

ssize_t pipe_write(void *cookie, const char *data, size_t size)
{
    return ve_lua_pipe_write(static_cast<child_pipe *>(cookie)->fd, data, size);
}

/// The child of a file that nobody closed is not waited for where lines are typed: it may run for as long as it likes.
int pipe_close(void *cookie)
{
    const auto *pipe = static_cast<child_pipe *>(cookie);
    ve_lua_state *context = pipe->context;
    close(pipe->fd);
    const ve_lua_sigint_blocked blocked;
    if (context->in_gc && !context->finishes_children)
        ve_child_leave(pipe->child);
    else
        context->child_status = ve_child_wait(pipe->child, deadline());
    delete pipe;
    return 0;
}

int close_child(lua_State *L)
{
    ve_lua_state *context = ve_lua_of(L);
    fclose(static_cast<luaL_Stream *>(luaL_checkudata(L, 1, LUA_FILEHANDLE))->f);
    if (context->in_gc)
        return 0;
    ve_lua_check_interrupt(L);
    return luaL_execresult(L, context->child_status);
}

int lua_popen(lua_State *L)
{
    const char *command = luaL_checkstring(L, 1);
    const char *mode = luaL_optstring(L, 2, "r");
    const bool reads = strcmp(mode, "r") == 0;
    luaL_argcheck(L, reads || strcmp(mode, "w") == 0, 2, "invalid mode");
    ve_lua_refuse_children(L);
    auto *stream = static_cast<luaL_Stream *>(lua_newuserdata(L, sizeof(luaL_Stream)));
    *stream = {}; // closed
    luaL_setmetatable(L, LUA_FILEHANDLE);
    ve_lua_show_output(ve_lua_of(L));
    fflush(nullptr);
    ve_out_row_unknown(); // from now on
    auto *pipe = new (std::nothrow) child_pipe{ve_lua_of(L), -1, -1};
    if (pipe == nullptr)
        return luaL_error(L, "not enough memory");
    pipe->child = ve_child_start(command, reads, &pipe->fd);
    if (pipe->child < 0) {
        delete pipe;
        return luaL_fileresult(L, 0, command);
    }
    stream->f = fopencookie(pipe, mode, {pipe_read, pipe_write, ve_lua_no_seek, pipe_close});
    if (stream->f == nullptr) {
        pipe_close(pipe);
        return luaL_error(L, "not enough memory");
    }
    stream->closef = close_child;
    return 1;
}

int collect_file(lua_State *L)
{
    ve_lua_state *context = ve_lua_of(L);
    context->in_gc = true;
    ve_lua_call_original(L);
    context->in_gc = false;
    return 0;
}

} // namespace

void ve_lua_open_popen(lua_State *L)
{
    lua_pushcfunction(L, lua_popen);
    lua_setfield(L, -2, "popen");
    luaL_getmetatable(L, LUA_FILEHANDLE);
    ve_lua_replace(L, "__gc", collect_file);
    lua_pop(L, 1);
}
