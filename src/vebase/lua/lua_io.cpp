// Input and output of Lua code: print, the streams of the io library, and what ends or suspends the program.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/ve_child.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "vebase/editor/rl_plain.h"
#include "vebase/lua/lua_impl.h"

namespace
{

/// What a terminal takes without blocking for long once it polls writable.
constexpr size_t piece_size = 1024;
/// What is copied to the output between two looks at Ctrl-C.
constexpr size_t slice_size = size_t{256} << 10;

// --- the streams behind io.stdin, io.stdout, io.stderr ---

ssize_t stream_write(void *cookie, const char *data, size_t size)
{
    ve_lua_emit(static_cast<ve_lua_state *>(cookie), data, size);
    return static_cast<ssize_t>(size);
}

ssize_t stream_write_error(void *, const char *data, size_t size)
{
    ve_lua_write_error(data, size);
    return static_cast<ssize_t>(size);
}

/// Takes one line at most: those that follow are the console's.
ssize_t stream_read(void *cookie, char *data, size_t size)
{
    // Code that has no time to lose is not to take keys away from the line that is being typed.
    if (ve_lua_time_left(-1) >= 0)
        return 0;
    ve_lua_show_output(static_cast<ve_lua_state *>(cookie));
    const ve_lua_sigint_blocked blocked;
    return rl_plain_read(data, size);
}

/// Only where descriptor 0 is a file.
int stream_seek(void *, off_t *offset, int whence)
{
    const off_t reached = lseek(STDIN_FILENO, *offset, whence);
    if (reached < 0)
        return -1;
    *offset = reached;
    return 0;
}

void set_stream(lua_State *L, const char *name, FILE *stream)
{
    lua_getfield(L, -1, name);
    static_cast<luaL_Stream *>(luaL_checkudata(L, -1, LUA_FILEHANDLE))->f = stream;
    lua_pop(L, 1);
}

// --- functions that stand in for the library's own ---

int lua_print(lua_State *L)
{
    ve_lua_state *context = ve_lua_of(L);
    const int count = lua_gettop(L);
    lua_getglobal(L, "tostring");
    for (int i = 1; i <= count; ++i) {
        lua_pushvalue(L, -1);
        lua_pushvalue(L, i);
        lua_call(L, 1, 1);
        size_t size = 0;
        const char *text = lua_tolstring(L, -1, &size);
        if (text == nullptr)
            return luaL_error(L, "'tostring' must return a string to 'print'");
        if (i > 1)
            ve_lua_emit(context, "\t", 1);
        ve_lua_emit(context, text, size);
        lua_pop(L, 1);
    }
    ve_lua_emit(context, "\n", 1);
    return 0;
}

/// os.exit: what was printed is shown first.
int lua_exit(lua_State *L)
{
    ve_lua_state *context = ve_lua_of(L);
    const int status = lua_isboolean(L, 1) ? (lua_toboolean(L, 1) ? EXIT_SUCCESS : EXIT_FAILURE)
                                           : static_cast<int>(luaL_optinteger(L, 1, EXIT_SUCCESS));
    if (lua_toboolean(L, 2))
        lua_close(L);
    ve_lua_flush_streams(context);
    if (context->collecting)
        ve_out_write(context->output.data(), context->output.size());
    const ve_lua_sigint_blocked blocked;
    ve_out_flush();
    if (ve_lua_installed_hooks().leaving != nullptr)
        ve_lua_installed_hooks().leaving();
    exit(ve_out_end_status(status));
}

/// Runs a command unless Ctrl-C was pressed before. Returns its status.
int run_command(const char *command)
{
    const ve_lua_sigint_blocked blocked;
    return ve_wait_interrupted() ? 0 : ve_child_run(command);
}

/// os.execute: a child that Ctrl-C ended stops the Lua code too; while it runs, the parent does not see the key.
int lua_execute(lua_State *L)
{
    const char *command = luaL_optstring(L, 1, nullptr);
    if (command == nullptr) {
        lua_pushboolean(L, 1);
        return 1;
    }
    ve_lua_refuse_children(L);
    ve_lua_show_output(ve_lua_of(L));
    const int status = run_command(command);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGINT)
        ve_wait_note_interrupt();
    ve_lua_check_interrupt(L);
    return luaL_execresult(L, status);
}

/// io.flush and file:flush: behind the streams stands the program's own output.
int lua_flush(lua_State *L)
{
    const int count = ve_lua_call_original(L);
    ve_lua_show_output(ve_lua_of(L));
    ve_lua_check_interrupt(L);
    return count;
}

} // namespace

int ve_lua_no_seek(void *, off_t *, int)
{
    errno = ESPIPE;
    return -1;
}

void ve_lua_refuse_children(lua_State *L)
{
    if (ve_lua_time_left(-1) >= 0)
        luaL_error(L, "no time to wait for a child");
}

void ve_lua_emit(ve_lua_state *context, const char *data, size_t size)
{
    if (context->collecting)
        context->output.append(data, size);
    else
        ve_lua_write(data, size);
}

void ve_lua_show_output(ve_lua_state *context)
{
    ve_lua_flush_streams(context);
    const ve_lua_sigint_blocked blocked;
    ve_out_flush();
}

int ve_lua_call_original(lua_State *L)
{
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_insert(L, 1);
    lua_call(L, lua_gettop(L) - 1, LUA_MULTRET);
    return lua_gettop(L);
}

void ve_lua_replace(lua_State *L, const char *name, lua_CFunction function)
{
    lua_getfield(L, -1, name);
    lua_pushcclosure(L, function, 1);
    lua_setfield(L, -2, name);
}

bool ve_lua_open_streams(ve_lua_state *context)
{
    const cookie_io_functions_t in = {.read = stream_read, .write = nullptr, .seek = stream_seek, .close = nullptr};
    const cookie_io_functions_t out = {
        .read = nullptr, .write = stream_write, .seek = ve_lua_no_seek, .close = nullptr};
    const cookie_io_functions_t err = {
        .read = nullptr, .write = stream_write_error, .seek = ve_lua_no_seek, .close = nullptr};
    context->standard[0] = fopencookie(context, "r", in);
    context->standard[1] = fopencookie(context, "w", out);
    context->standard[2] = fopencookie(context, "w", err);
    for (FILE *stream : context->standard) {
        if (stream == nullptr)
            return false;
    }
    setvbuf(context->standard[1], nullptr, _IONBF, 0);
    setvbuf(context->standard[2], nullptr, _IONBF, 0);
    return true;
}

void ve_lua_flush_streams(ve_lua_state *context)
{
    fflush(context->standard[1]);
    fflush(context->standard[2]);
    fflush(stdout); // a C module may have used it
}

void ve_lua_close_streams(ve_lua_state *context)
{
    for (FILE *stream : context->standard) {
        if (stream != nullptr)
            fclose(stream);
    }
}

void ve_lua_open_io(lua_State *L)
{
    const ve_lua_state *context = ve_lua_of(L);
    lua_pushcfunction(L, lua_print);
    lua_setglobal(L, "print");
    lua_getglobal(L, "io");
    set_stream(L, "stdin", context->standard[0]);
    set_stream(L, "stdout", context->standard[1]);
    set_stream(L, "stderr", context->standard[2]);
    ve_lua_open_popen(L);
    ve_lua_open_pipes(L);
    ve_lua_replace(L, "flush", lua_flush);
    luaL_getmetatable(L, LUA_FILEHANDLE);
    ve_lua_replace(L, "flush", lua_flush);
    lua_pop(L, 2);
    lua_getglobal(L, "os");
    ve_lua_replace(L, "exit", lua_exit);
    lua_pushcfunction(L, lua_execute);
    lua_setfield(L, -2, "execute");
    lua_pop(L, 1);
}

void ve_lua_write(const char *data, size_t size)
{
    const ve_lua_sigint_blocked blocked;
    while (size > 0 && !ve_wait_interrupted()) {
        const size_t piece = size < slice_size ? size : slice_size;
        ve_out_write(data, piece);
        const bool row_ends = ve_out_is_terminal() && memchr(data, '\n', piece) != nullptr;
        if ((row_ends ? ve_out_flush() : ve_out_relieve()) < 0)
            break;
        data += piece;
        size -= piece;
    }
}

void ve_lua_write_error(const char *data, size_t size)
{
    {
        const ve_lua_sigint_blocked blocked;
        ve_out_flush();
    }
    while (size > 0 && !ve_wait_interrupted()) {
        {
            const ve_lua_sigint_blocked blocked;
            pollfd err{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
            if (ve_wait_poll(&err, 1, -1) < 0)
                return;
        }
        // Where Lua code runs, Ctrl-C also ends a write that the terminal holds up.
        const ssize_t count = ve_out_write_error(data, size < piece_size ? size : piece_size);
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            return;
        if (count > 0) {
            data += count;
            size -= static_cast<size_t>(count);
        }
    }
}
