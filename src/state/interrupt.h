// Ctrl-C: where its handler jumps to. Main thread only.
#pragma once

#include <csetjmp>
#include <csignal>

/// The loop that armed the jump, and whether it is armed. Written by the shell loop, Lua mode and sigint_handler.
extern sigjmp_buf sigint_buf;
extern volatile sig_atomic_t sigint_buf_setted;

/// The SIGINT handler while a command runs: stops a reconnect's spinner, releases what the jump skips and jumps to
/// sigint_buf. While Lua code runs (a hook set by interrupt_set_soft) it only notes the interrupt.
void sigint_handler(int signal);

/// While set, sigint_handler calls `note` (async-signal-safe) instead of jumping. Null: jump again.
void interrupt_set_soft(void (*note)());

/// What the landing of a jump does before anything else: brings output and terminal back, on a row of its own. `mark`
/// is the ve_landing_mark() taken right before the jump was armed.
class ve_landing_node;
void interrupt_land(ve_landing_node *mark);
