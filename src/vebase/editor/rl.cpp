#include "platform/ve_rl.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

#include "platform/ve_log.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "vebase/editor/rl_control.h"
#include "vebase/editor/rl_edit.h"
#include "vebase/editor/rl_plain.h"
#include "vebase/editor/rl_text.h"

rl_settings rl_set;

namespace
{

bool ended = false; // the last read ended with the input

/// SIGINT, where it would end the program, calls `handler` instead.
class sigint_instead
{
public:
    sigint_instead(bool wanted, void (*handler)(int))
    {
        sigaction(SIGINT, nullptr, &before_);
        active_ = wanted && (before_.sa_flags & SA_SIGINFO) == 0 && before_.sa_handler == SIG_DFL;
        if (active_)
            signal(SIGINT, handler);
    }
    ~sigint_instead()
    {
        if (!active_)
            return;
        ve_wait_discard_sigint();
        sigaction(SIGINT, &before_, nullptr);
    }
    sigint_instead(const sigint_instead &) = delete;
    sigint_instead &operator=(const sigint_instead &) = delete;
    explicit operator bool() const { return active_; }

private:
    struct sigaction before_ = {};
    bool active_;
};

/// Reads from a terminal that echoes and cuts lines itself.
rl_outcome read_dumb_line(const char *prompt, int64_t deadline, std::string &line)
{
    const std::string shown = rl_visible(prompt != nullptr ? prompt : "");
    ve_out_take_row_unknown();
    if (ve_out_mid_line())
        ve_out_direct(shown.data(), shown.size());
    const sigint_instead drop(true, [](int) { ve_wait_note_interrupt(); });
    const rl_outcome outcome = rl_plain_line(shown.c_str(), deadline, line);
    if (outcome == rl_outcome::line)
        ve_out_row_ended();
    else
        ve_out_direct("\n", 1);
    if (!drop || !ve_wait_interrupted())
        return outcome;
    ve_wait_clear_interrupt();
    return rl_outcome::none;
}

} // namespace

char *ve_rl(const char *prompt, int timeout_ms)
{
    const bool on_terminal = isatty(STDIN_FILENO) != 0 && ve_out_is_terminal();
    {
        // A Ctrl-C that comes meanwhile was meant for what printed this, and must not end a program that is about to
        // read it as a key.
        const sigint_instead shield(on_terminal, [](int) {});
        ve_out_flush();
    }
    ended = ve_rl_input_error() != 0;
    if (ended)
        return nullptr;
    const int64_t deadline = ve_wait_deadline(timeout_ms);
    std::string line;
    while (!ve_wait_interrupted()) {
        int signal = 0;
        const rl_outcome outcome = !on_terminal         ? rl_plain_line(nullptr, deadline, line)
                                   : rl_edit_possible() ? rl_edit_line(prompt, deadline, line, &signal)
                                                        : read_dumb_line(prompt, deadline, line);
        if (outcome == rl_outcome::interrupt)
            signal = SIGINT;
        if (signal != 0)
            rl_raise(signal);
        if (outcome == rl_outcome::line) {
            auto *const copy = static_cast<char *>(ve_xmalloc(line.size() + 1, "ve_rl", __LINE__, "editor"));
            return static_cast<char *>(memcpy(copy, line.c_str(), line.size() + 1));
        }
        ended = outcome == rl_outcome::end;
        if (ended || outcome == rl_outcome::stop || outcome == rl_outcome::timeout)
            return nullptr;
        // Nobody noted it: the line is dropped all the same.
        if (outcome == rl_outcome::interrupt && !ve_wait_interrupted())
            ve_out_draw("\r\n", 2);
    }
    return nullptr;
}

bool ve_rl_ctrld_is_pressed()
{
    return ended;
}

bool ve_rl_take_ahead(char *byte)
{
    return rl_edit_take_ahead(byte, 1) == 1;
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
