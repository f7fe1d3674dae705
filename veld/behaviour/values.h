// Values between JSON and Lua.
#pragma once

#include <jansson.h>

struct lua_State;

namespace veld
{

/// Pushes a value, borrowed; the model has no arrays and no null. Raises when memory is short.
void values_push(lua_State *to, const json_t *value);

/// The value at a place of the stack as a new reference; never raises. Null for what has no JSON form (`*problem` then
/// says why) and for nil (`*problem` is null). A table is an array when its keys are 1 to n, else an object, whose
/// keys may be numbers.
json_t *values_take(lua_State *from, int at, const char **problem);

} // namespace veld
