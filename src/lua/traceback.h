// The message handler of the console: an error's message with the calls that led to it.
#pragma once

#include <string>
#include <string_view>

struct lua_State;

/// A Lua C function: takes the error value, returns its text and the stack trace. Bold where standard error is a
/// terminal and colours are on.
int luap_traceback(lua_State *L);

/// `text` as it is safe to show on standard error: on a terminal with visible escapes for what would steer it.
std::string luap_error_visible(std::string_view text);

/// Whether what goes to standard error is coloured.
bool luap_error_colours();
