// A Lua context that is joined to this client: its bindings use the request channel.
#pragma once

#include "platform/ve_lua.h"

/// Owns a context, or nothing when there was no memory for one, which is then said on standard output.
class lua_client
{
public:
    /// `leaving` is called when code ends the program with os.exit; it stops the listener too. `running` says whether
    /// somebody waits for the code's end, null: always.
    explicit lua_client(void (*leaving)(), bool (*running)() = nullptr);
    lua_client(const lua_client &) = delete;
    lua_client &operator=(const lua_client &) = delete;
    ~lua_client() { ve_lua_free(context_); }

    ve_lua_context *get() const { return context_; }
    explicit operator bool() const { return context_ != nullptr; }

private:
    ve_lua_context *context_;
};
