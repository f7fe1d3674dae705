// The messages of the bindings: owned by Lua while they are under way, and raised as error values when refused. All of
// it runs inside a binding, may raise, and holds no owner in a local meanwhile.
#pragma once

#include <lua.hpp>

#include "platform/ve_jrpcmsg.h"

/// Owns a message on behalf of Lua, so that an error raised at any later point leaves nothing behind.
struct ve_lua_box {
    ve_jrpcmsg *message;
};

/// Pushes an empty box.
ve_lua_box *ve_lua_push_box(lua_State *L);
/// Pushes a box with a request of `method` that has no parameters.
ve_lua_box *ve_lua_push_request(lua_State *L, const char *method);

/// Sends the request and waits for its answer. Returns 0 when it was granted, else negative with the message completed;
/// raises nothing but Ctrl-C's error.
int ve_lua_transmit(lua_State *L, const ve_lua_box *box, int timeout_ms);
/// The same, but a refusal is raised.
void ve_lua_exchange(lua_State *L, ve_lua_box *box, int timeout_ms = -1);
/// Sends the box's event; raises why it could not be sent.
void ve_lua_send(lua_State *L, ve_lua_box *box);

/// Raises how the message ended: a table with `code`, `title`, `message`, `where` (the line of Lua that asked) and
/// perhaps `data`. Does not return.
int ve_lua_raise(lua_State *L, ve_lua_box *box);
/// Pushes how such an error reads where nobody caught it: as a text with its place in front. False, with nothing
/// pushed, when the value at `index` (absolute) is none.
bool ve_lua_push_error_text(lua_State *L, int index);

/// Ends a binding whose message is done with: frees it and returns `results` values from the top.
int ve_lua_finish(ve_lua_box *box, int results);
int ve_lua_finish_true(lua_State *L, ve_lua_box *box);

/// Creates the metatables of boxes and errors.
void ve_lua_open_exchange(lua_State *L);
