// Lua values as text that can be read and mostly typed back: the descriptions that the console shows. Main thread only.
#pragma once

#include <cstddef>

struct lua_State;

/// Whether texts around descriptions carry colours. Written by luap_describe alone, which clears it while it runs, and
/// by whoever catches an error that left a description halfway.
extern bool luap_colours;

/// The text of the value at `index`, NUL-terminated and valid until the next call; null when no value was ever
/// described. A value that has no text (a light userdata) gives the text of the description before. Raises what a
/// metamethod of the value raises, and when Ctrl-C was noted.
const char *luap_describe(lua_State *L, int index);
/// Pushes the text of the value at `index` (none for a light userdata), apart from any description under way. Raises as
/// above.
void luap_push_description(lua_State *L, int index);
/// The text that luap_describe returned last, with what was appended since, and its bytes (a text may hold NULs).
const char *luap_describe_text();
size_t luap_description_length();

/// Appends the text of the value at `index` to the description under way.
void luap_describe_value(lua_State *L, int index);
