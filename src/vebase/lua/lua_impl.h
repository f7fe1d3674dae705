// What the pieces of the Lua contexts share.
#pragma once

#include <lua.hpp>

#include <csignal>
#include <cstdio>

#include "platform/ve_lua.h"

class ve_lua_events;

/// The context as its own library sees it. No code here keeps an owner (a std::string, a message) in a local across a
/// call that can raise: Lua leaves by longjmp.
struct ve_lua_state : ve_lua_context {
    bool collecting = false;          ///< prints go to `output`
    bool finishes_children = false;   ///< a child that nobody closed is waited for; set while it makes a script
    bool in_gc = false;               ///< a file is being closed that nobody closed
    int child_status = 0;             ///< of the child that was waited for last
    FILE *standard[3] = {};           ///< the streams behind io.stdin, io.stdout and io.stderr; owned
    const void *null_value = nullptr; ///< identity of dm.null
    ve_lua_events *events = nullptr;  ///< what dm.wait listens on, once it was called; owned
};

/// The context of a state or of any of its coroutines.
ve_lua_state *ve_lua_of(lua_State *L);

/// SIGINT blocked for a scope, so that a wait cannot miss it.
class ve_lua_sigint_blocked
{
public:
    ve_lua_sigint_blocked();
    ve_lua_sigint_blocked(const ve_lua_sigint_blocked &) = delete;
    ve_lua_sigint_blocked &operator=(const ve_lua_sigint_blocked &) = delete;
    ~ve_lua_sigint_blocked();

private:
    sigset_t before_;
};

const ve_lua_hooks &ve_lua_installed_hooks();

/// Whether ve_lua_check_interrupt would raise; for C code that holds owners. It ends early then, and its caller lets
/// the error come.
bool ve_lua_stop_is_due();
/// `timeout_ms` (-1 none), shortened to the time that code may still run.
int ve_lua_time_left(int timeout_ms);

/// Lets our hook look for Ctrl-C in a thread that has no other.
void ve_lua_watch(lua_State *L);

/// Set-up of a state, in a protected call: may raise.
void ve_lua_open_interrupts(lua_State *L);
void ve_lua_open_io(lua_State *L);
void ve_lua_open_long(lua_State *L);
void ve_lua_open_hook(lua_State *L);
/// With the table "io" on top.
void ve_lua_open_popen(lua_State *L);
void ve_lua_open_pipes(lua_State *L);
void ve_lua_open_dm(lua_State *L);
/// With the table "dm" on top.
void ve_lua_open_tools(lua_State *L);

/// Raises an error while the time that code may run is limited: a child does not end with it.
void ve_lua_refuse_children(lua_State *L);
/// What code prints: collected, or written to the terminal.
void ve_lua_emit(ve_lua_state *context, const char *data, size_t size);
/// A stream's seek (fopencookie) where there is none.
int ve_lua_no_seek(void *, off_t *, int);
/// As read(2), when there is something, or EINTR when Ctrl-C came or the time of the code is over.
ssize_t ve_lua_pipe_read(int fd, char *data, size_t size);
/// Writes all of it, or as much as could be written: `errno` then says why, EPIPE where nobody reads any more, and
/// EINTR as above.
ssize_t ve_lua_pipe_write(int fd, const char *data, size_t size);
/// Before somebody else uses the terminal: shows what was printed.
void ve_lua_show_output(ve_lua_state *context);
/// Calls the function that is the first upvalue with the same arguments. Returns the number of its results.
int ve_lua_call_original(lua_State *L);
/// Replaces a function of the table on top by `function`, which gets the one before as its upvalue.
void ve_lua_replace(lua_State *L, const char *name, lua_CFunction function);

/// Opens the context's streams. False when there is no memory for them.
bool ve_lua_open_streams(ve_lua_state *context);
/// Writes out what user code left in the streams' own buffers.
void ve_lua_flush_streams(ve_lua_state *context);
void ve_lua_close_streams(ve_lua_state *context);
