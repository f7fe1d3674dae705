// What Tab offers in Lua mode: reserved words, modules, and the fields of what stands before the cursor. Main thread
// only.
#pragma once

#include <jansson.h>

#include <cstddef>

struct lua_State;

/// The state that completion looks into (borrowed; null: none, then nothing is offered).
void lua_complete_set_state(lua_State *L);

/// The line editor's completion callback. A candidate stands for the whole word. The word may be evaluated: loading a
/// module of that name, indexing what stands before its last separator. Evaluation that takes longer than a second is
/// given up.
void lua_autocomplete(const char *line, size_t cursor, json_t *candidates);

// --- its parts; these two raise, and run inside one protected call ---

/// Loads the module `word`, or appends the modules that it may become to `candidates`.
void lua_complete_modules(lua_State *L, const char *word, json_t *candidates);

/// Where the fields of an object come from.
enum class lua_field_source { object, metatable };
/// Appends the fields whose names go on from the word `text`. Holds no owner while Lua code can raise.
void lua_complete_fields(lua_State *L, const char *text, lua_field_source source, json_t *candidates);
