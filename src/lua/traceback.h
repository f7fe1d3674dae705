// The message handler of the console: an error's message with the calls that led to it.
#pragma once

struct lua_State;

/// A Lua C function: takes the error value, returns its text and the stack trace. Bold where standard error is a
/// terminal and colours are on.
int luap_traceback(lua_State *L);

/// Whether what goes to standard error is coloured.
bool luap_error_colours();
