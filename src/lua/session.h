// The Lua session: the results table "_", statements that are compiled in two steps, and what is shown of them. One
// session at a time. Main thread only. Errors that code raises never leave these functions.
#pragma once

#include <cstddef>

struct lua_State;

/// Begins a session with a new state: its completion looks into it, nothing was shown yet.
void kest_lua_init(lua_State *L);
/// Before every execution: makes the results table visible as the global "_" when that is nil.
void kest_lua_prepare(lua_State *L);
/// After every complete execution: takes "_" away again.
void kest_lua_cleanup(lua_State *L);
/// Compiles and runs one piece of text, as an expression list where it is one. Returns 0 when it ran (whether or not it
/// raised an error), 1 when it is incomplete, -1 when it does not compile.
int kest_lua_execute(lua_State *L, const char *text, size_t length);
/// Whether the piece that ran last raised an error.
bool kest_lua_failed();
/// How many values were shown in the session so far: their numbers in "_".
unsigned kest_lua_shown();
/// Runs the function on top of the stack; shows every value that it returns and stores it in the results table.
void kest_lua_run_chunk(lua_State *L);

/// Calls the function below `nargs` arguments, all results kept; an error is written, with its trace, to standard error
/// and leaves nothing on the stack. Returns the status of lua_pcallk.
int luap_call(lua_State *L, int nargs);
