// Setting the line editor up for the shell, and tidying it away. Main thread only.
#pragma once

#include "platform/ve_rl.h"

/// The callbacks that kest_set_autocomplete and kest_set_hint install; filled by start-up.
void kest_readline_set_callbacks(ve_rl_autocomplete_cb autocomplete, ve_rl_hint_cb hint);
void kest_set_autocomplete(int on);
void kest_set_hint(int on);
/// Callbacks on, history loaded.
void kest_readline_prepare();
/// Callbacks off, history written back.
void kest_readline_cleanup();
