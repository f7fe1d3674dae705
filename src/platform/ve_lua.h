// Lua contexts: a Lua state with the standard libraries and the bindings to the device (global table "dm").
#pragma once

#include <jansson.h>

#include <cstddef>
#include <string>

struct lua_State;
struct ve_jrpcapi;

struct ve_lua_context {
    lua_State *state;        ///< owned
    std::string output;      ///< what the executed chunk printed
    std::string error;       ///< message of a failed ve_lua_exec
    ve_jrpcapi *request_ctx; ///< borrowed: the link that the bindings use
};

/// A new context, owned by the caller until ve_lua_free; null when there is no memory for it. `flags` 0.
ve_lua_context *ve_lua_init(int flags);
/// Runs `text`; `chunk_name` null names it "stdin", else it is a file's path. `arguments` (borrowed array of texts, or
/// null) become the global "arg" and "...". Returns 0, else non-zero with the error text set. What it prints goes to
/// `output`.
int ve_lua_exec(ve_lua_context *context, const char *text, size_t length, const char *chunk_name,
                const json_t *arguments);
void ve_lua_free(ve_lua_context *context);
