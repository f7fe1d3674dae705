// Ctrl-C while Lua code runs. Main thread only.
//
// SIGINT is unblocked then, since code may compute without ever waiting; its handler notes it, and the note makes the
// code raise errors until the caller of lua_run_begin is reached, which ends the run. Code that cannot be stopped so is
// left by Ctrl-\, which the third Ctrl-C says; where no command runs, the second one ends the program.
#pragma once

/// From here on Ctrl-C is noted at any moment.
void lua_run_begin();
/// From here on it is not. True when it was pressed in between. It stays noted when a command runs that it ends
/// (interrupt_arm); where none does, it is forgotten and lua_run_deliver is due.
[[nodiscard]] bool lua_run_end();
/// Ctrl-C as it is without Lua: nothing more where a command runs; else it ends the program where SIGINT has its
/// default disposition.
void lua_run_deliver();
