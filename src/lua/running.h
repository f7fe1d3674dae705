// Ctrl-C while Lua code runs. Main thread only.
//
// SIGINT is unblocked then, and its handler only notes it: a jump out of the interpreter would leave its state half
// done. The note makes the code raise errors until the caller of lua_run_begin is reached, which ends the run and only
// then, below the interpreter, lets the Ctrl-C do what it does elsewhere.
#pragma once

/// From here on Ctrl-C is noted.
void lua_run_begin();
/// From here on it is not. True when it was pressed in between; lua_run_deliver is due then.
[[nodiscard]] bool lua_run_end();
/// Ctrl-C as it is without Lua: jumps to the loop that armed sigint_buf; ends the program where SIGINT has its default
/// disposition; else returns. Locals that own something are jump_safe (ve_landing.h).
void lua_run_deliver();
