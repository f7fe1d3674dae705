// The editor on a terminal: one read after the other, each with its keys, its line, its end. Main thread only.
#pragma once

#include <cstdint>
#include <string>

#include "platform/ve_rl.h"

/// How a read ended.
enum class rl_outcome {
    none,
    line,      ///< Enter
    end,       ///< Ctrl-D on an empty line, the end of input, a terminal that is gone
    interrupt, ///< Ctrl-C while SIGINT has a handler, which is to be raised
    stop,      ///< ve_rl_stop
    timeout,
    signal ///< a fatal signal, to be raised
};

/// What the callers of the editor have set.
inline const ve_history rl_no_history;

struct rl_settings {
    const ve_history *history = &rl_no_history;
    ve_rl_autocomplete_cb autocomplete = nullptr;
    ve_rl_hint_cb hint = nullptr;
    std::string prompt_color;
    std::string hint_color;
    std::string autocomplete_color;
    size_t completion_start = 0;
    bool completion_start_set = false;
    bool completion_verbatim = false;
};
extern rl_settings rl_set;

/// True when the terminal, which descriptors 0 and 1 are, can be edited on: when it understands escape sequences.
bool rl_edit_possible();

/// Reads one line into `line`, with the terminal prepared and brought back around it. `deadline` is one of
/// ve_wait_deadline. `signal` receives the signal of rl_outcome::signal, or one that came at the very end, else 0.
/// Ctrl-C with the default disposition of SIGINT begins the line anew.
rl_outcome rl_edit_line(const char *prompt, int64_t deadline, std::string &line, int *signal);

/// What was typed ahead and is not in the terminal any more, for others that read it: at most a line of `size` bytes.
size_t rl_edit_take_ahead(char *data, size_t size);
bool rl_edit_has_ahead();

/// Takes the end of a paste, of which the editor read a part, out of what somebody else has read. Returns how many
/// bytes are left of `data`.
size_t rl_edit_take_paste_end(char *data, size_t size);
