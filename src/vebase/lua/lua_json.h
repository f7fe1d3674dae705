// JSON values to Lua values and back, losing nothing.
//
// null <-> dm.null, integers <-> integers, reals <-> floats, arrays <-> tables with the mark of an array (so that an
// empty one stays one), objects <-> tables with texts as keys. A table without the mark is an array when its keys are 1
// to n, n at least 1.
#pragma once

#include <jansson.h>

#include <lua.hpp>

/// Levels of tables that a value sent to the daemon may have; a message may have 2,048, its own included.
inline constexpr int ve_lua_json_depth_max = 2040;

/// Pushes the value. Raises when there is no memory. `value` (borrowed) must stay alive in that case too.
void ve_lua_push_json(lua_State *L, const json_t *value);

/// The value at `index` as a new reference; null with `*problem` set (a static text) when it has no JSON form. Never
/// raises, calls no metamethod.
json_t *ve_lua_to_json(lua_State *L, int index, const char **problem);

/// Marks the table on top as an array.
void ve_lua_mark_array(lua_State *L);
/// Creates the mark. May raise.
void ve_lua_open_json(lua_State *L);
