#include "platform/ve_rl.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "vebase/editor/rl_control.h"
#include "vebase/editor/rl_edit.h"
#include "vebase/editor/rl_plain.h"

rl_settings rl_set;

namespace
{

bool ended = false; // the last read ended with the input

/// Writes out what was printed so far. A Ctrl-C that comes meanwhile was meant for what printed it, and must not end a
/// program that is about to read it as a key.
void flush_printed()
{
    struct sigaction before = {};
    sigaction(SIGINT, nullptr, &before);
    const bool shield = (before.sa_flags & SA_SIGINFO) == 0 && before.sa_handler == SIG_DFL && rl_edit_possible();
    if (shield)
        signal(SIGINT, [](int) {});
    ve_out_flush();
    if (shield) {
        ve_wait_discard_sigint();
        sigaction(SIGINT, &before, nullptr);
    }
}

} // namespace

char *ve_rl(const char *prompt, int timeout_ms)
{
    flush_printed();
    ended = false;
    const int64_t deadline = ve_wait_deadline(timeout_ms);
    std::string line;
    while (!ve_wait_interrupted()) {
        int signal = 0;
        const bool edits = rl_edit_possible();
        const rl_outcome outcome =
            edits ? rl_edit_line(prompt, deadline, line, &signal) : rl_plain_line(deadline, line);
        if (outcome == rl_outcome::interrupt)
            signal = SIGINT;
        if (signal != 0)
            rl_raise(signal);
        switch (outcome) {
        case rl_outcome::line:
            return strdup(line.c_str());
        case rl_outcome::end:
            ended = true;
            return nullptr;
        case rl_outcome::interrupt:
            // Nobody noted it: the line is dropped all the same.
            if (!ve_wait_interrupted())
                ve_out_draw("\r\n", 2);
            break;
        case rl_outcome::none:
        case rl_outcome::signal:
            break;
        case rl_outcome::stop:
        case rl_outcome::timeout:
            return nullptr;
        }
    }
    return nullptr;
}

bool ve_rl_ctrld_is_pressed()
{
    return ended;
}

ve_rl_autocomplete_cb ve_rl_set_autocomplete_cb(ve_rl_autocomplete_cb callback)
{
    return std::exchange(rl_set.autocomplete, callback);
}

ve_rl_hint_cb ve_rl_set_hint_cb(ve_rl_hint_cb callback)
{
    return std::exchange(rl_set.hint, callback);
}

void ve_rl_set_history(const ve_history *history)
{
    rl_set.history = history != nullptr ? history : &rl_no_history;
}

void ve_rl_set_completion_start(size_t offset)
{
    rl_set.completion_start = offset;
    rl_set.completion_start_set = true;
}

size_t ve_rl_completion_start()
{
    return rl_set.completion_start;
}

void ve_rl_set_completion_verbatim()
{
    rl_set.completion_verbatim = true;
}

void ve_rl_set_colors(const hsv_color &prompt, const hsv_color &hint, const hsv_color &autocomplete)
{
    rl_set.prompt_color = ve_colors_sequence(prompt);
    rl_set.hint_color = ve_colors_sequence(hint);
    rl_set.autocomplete_color = ve_colors_sequence(autocomplete);
}
