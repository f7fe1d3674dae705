// Lua contexts: a Lua state with the standard libraries and the bindings to the device (global table "dm"). Main thread
// only, but for what says otherwise.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <span>
#include <string>

struct lua_State;
struct ve_jrpcapi;
struct ve_jrpcmsg;

struct ve_lua_context {
    lua_State *state = nullptr;        ///< owned
    std::string output;                ///< what the executed chunk printed
    std::string error;                 ///< message of a failed ve_lua_exec
    ve_jrpcapi *request_ctx = nullptr; ///< borrowed: the link that the bindings use
};

/// A new context, owned by the caller until ve_lua_free; null when there is no memory for it. `flags` 0. What code in
/// its state prints goes to the terminal (ve_out.h), but for code that ve_lua_exec runs.
ve_lua_context *ve_lua_init(int flags);
/// Runs `text`; `chunk_name` null names it "stdin", else it is a file's path. A file's `arguments`
/// become the global "arg" and "...". Returns 0, else non-zero with the error text set. What it prints goes to
/// `output`. A wait point.
int ve_lua_exec(ve_lua_context *context, const char *text, size_t length, const char *chunk_name,
                std::span<const std::string> arguments = {});
/// Null is allowed.
void ve_lua_free(ve_lua_context *context);

/// What the bindings do through the client above the link. Members may be null: then the context's link is used as it
/// is.
struct ve_lua_hooks {
    int (*exec)(ve_jrpcmsg *message, int timeout_ms);              ///< as ve_jrpcapi_exec, reconnecting
    int (*send)(ve_jrpcmsg *message);                              ///< as ve_jrpcapi_send, reconnecting
    void (*login_changed)(const char *user, const char *password); ///< both null after a logout
    void (*leaving)();                                             ///< os.exit is about to end the program
    bool (*running)() = nullptr;                                   ///< whether somebody still waits for the code
    /// Pushes the console's text of the value at `index`. May raise.
    void (*describe)(lua_State *L, int index) = nullptr;
};
void ve_lua_set_hooks(const ve_lua_hooks &hooks);

/// Ctrl-C: once ve_wait_note_interrupt() was called (from the signal's handler), code in every Lua state soon raises an
/// error, and again whenever it catches it, until ve_wait_clear_interrupt(). SIGINT should be unblocked meanwhile.
/// Raises that error now when it is due; for C code that runs long.
void ve_lua_check_interrupt(lua_State *L);
/// From now on, code in Lua states raises that error when it still runs after `milliseconds`. -1: no limit any more;
/// `L` then runs freely again.
void ve_lua_limit_time(lua_State *L, int milliseconds);

/// Writes to the terminal what code in the console shows: line by line on a terminal, buffered elsewhere. A wait point;
/// ends early on Ctrl-C.
void ve_lua_write(const char *data, size_t size);
/// Writes to standard error, after what standard output holds back. A wait point; ends early on Ctrl-C.
void ve_lua_write_error(const char *data, size_t size);
