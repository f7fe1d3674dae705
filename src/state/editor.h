// Setting the line editor up for the shell, and tidying it away. Main thread only.
#pragma once

#include "platform/ve_history.h"
#include "platform/ve_rl.h"

struct line_callbacks {
    ve_rl_autocomplete_cb autocomplete = nullptr;
    ve_rl_hint_cb hint = nullptr;
};

/// The callbacks of the shell's lines; filled by start-up.
void kest_readline_set_callbacks(const line_callbacks &shell);
/// What the lines come with that are read from now on (the history is borrowed, null for none). A callback works only
/// while its option is on.
void kest_readline_use(const line_callbacks &callbacks, const ve_history *history);
/// The options: they hold until they are changed, whatever lines are read.
void kest_set_autocomplete(int on);
void kest_set_hint(int on);
/// The shell's callbacks and history; the history is loaded.
void kest_readline_prepare();
/// No callbacks, and the history is saved.
void kest_readline_cleanup();
/// The lines of the shell.
ve_history &shell_history();
