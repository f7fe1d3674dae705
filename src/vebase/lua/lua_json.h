// JSON values to Lua values and back, losing nothing.
//
// null <-> dm.null, integers <-> integers, reals <-> floats, arrays <-> tables with the mark of an array (so that an
// empty one stays one), objects <-> tables with texts as keys. A table without the mark is an array when its keys are 1
// to n, n at least 1.
#pragma once

#include <jansson.h>

#include <string_view>

#include <lua.hpp>

/// Levels of tables that a value sent to the daemon may have; a message may have 2,048, its own included.
inline constexpr int ve_lua_json_depth_max = 2040;

/// Pushes the value. Raises when there is no memory. `value` (borrowed) must stay alive in that case too.
void ve_lua_push_json(lua_State *L, const json_t *value);

/// The value at `index` as a new reference; null with `*problem` set when it has no JSON form: a text that begins with
/// the keys that lead there, those of `place` first, and is valid until the next conversion. Never raises, calls no
/// metamethod.
json_t *ve_lua_to_json(lua_State *L, int index, const char **problem, std::string_view place = {});
/// The table at `index` as the arguments of a method: an array of {"Name", "Value"}, the keys of tables within tables
/// joined by dots. Tables with the mark are values. The rest as above.
json_t *ve_lua_to_arguments(lua_State *L, int index, const char **problem);

/// Marks the table on top as an array.
void ve_lua_mark_array(lua_State *L);
/// Creates the mark. May raise.
void ve_lua_open_json(lua_State *L);
