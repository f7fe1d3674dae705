#include "vebase/editor/rl_edit.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/ve_out.h"
#include "vebase/editor/rl_session.h"
#include "vebase/editor/rl_text.h"

namespace
{

constexpr int hint_pause_ms = 40;    // without a key for so long, a hint is looked for
constexpr int escape_pause_ms = 100; // an ESC alone that ends a search
constexpr int paste_pause_ms = 1000; // a paste that stands still for so long has lost its end

rl_session session;

} // namespace

bool rl_edit_possible()
{
    const char *term = getenv("TERM");
    const std::string_view name = term != nullptr ? term : "";
    return !name.empty() && name != "dumb" && name != "emacs";
}

rl_outcome rl_edit_line(const char *prompt, int64_t deadline, std::string &line, int *signal)
{
    return session.read_line(prompt, deadline, line, signal);
}

size_t rl_edit_take_paste_end(char *data, size_t size)
{
    return session.take_paste_end(data, size);
}

size_t rl_edit_take_ahead(char *data, size_t size)
{
    return session.ahead().take_line(data, size);
}

bool rl_edit_has_ahead()
{
    return !session.ahead().empty();
}

void ve_rl_drop_ahead()
{
    session.drop_ahead_of_interrupt();
}

void ve_rl_put_back_ahead()
{
    session.ahead().put_back();
}

size_t rl_session::take_paste_end(char *data, size_t size)
{
    constexpr std::string_view mark = rl_key_decoder::paste_end;
    const size_t at = keys_.pasting() ? std::string_view{data, size}.find(mark) : std::string_view::npos;
    if (at == std::string_view::npos)
        return size;
    keys_.end_paste();
    std::copy(data + at + mark.size(), data + size, data + at);
    return size - mark.size();
}

void rl_session::begin_terminal()
{
    rl_set_locale();
    modes_.begin();
    signals_.install();
    // A Ctrl-C that is still pending is older than every key that is read from now on.
    ve_wait_checkpoint();
}

int rl_session::end_terminal()
{
    modes_.end();
    const int late = signals_.restore();
    rl_control_release_screen();
    return late;
}

void rl_session::suspend()
{
    screen_.finish(line_.text(), {}, true);
    ahead_.put_back();
    modes_.end();
    const int late = signals_.restore();
    rl_raise(late != 0 ? late : SIGTSTP);
    if (ve_wait_ended()) {
        // It was only woken to end: the terminal is as it was, and somebody else's.
        outcome_ = rl_outcome::stop;
        return;
    }
    // Here the program runs again. Others may have read the terminal meanwhile.
    forget_input();
    modes_.begin();
    signals_.install();
    screen_.resized();
    screen_.forget();
}

/// Shows the line, with a question below it if there is one.
void rl_session::draw(std::string_view message)
{
    const std::string search = line_.searching() ? line_.search_message() : std::string{};
    const bool hints = message.empty() && search.empty() && line_.at_end();
    const std::string hint = hints ? rl_visible(hint_) : std::string{};
    screen_.draw({.text = line_.text(),
                  .cursor = line_.cursor(),
                  .hint = hint,
                  .message = message.empty() ? std::string_view{search} : message,
                  .asks = !message.empty()});
}

void rl_session::clear_screen()
{
    constexpr char clear[] = "\033[H\033[2J";
    ve_out_draw(clear, sizeof clear - 1);
    screen_.forget();
}

void rl_session::handle(const rl_key &key)
{
    const bool forward = key.op == &rl_line::right || key.op == &rl_line::to_end;
    if (forward && !line_.searching() && accept_hint())
        return line_.pass(key.op);
    switch (line_.apply(key)) {
    case rl_done::yes:
        break;
    case rl_done::refused:
        rl_ring_bell();
        break;
    case rl_done::enter:
        outcome_ = rl_outcome::line;
        break;
    case rl_done::end:
        outcome_ = rl_outcome::end;
        break;
    case rl_done::complete:
        complete();
        break;
    case rl_done::clear:
        clear_screen();
        break;
    }
}

/// No key is there: shows the line and waits for one.
void rl_session::pause()
{
    // What is being pasted is shown when it is there.
    const bool pasting = keys_.pasting();
    if (!pasting) {
        refresh_hint();
        draw();
    }
    const bool escape = keys_.holds_escape() && line_.searching();
    const bool wants_hint = !hint_known_ && rl_set.hint != nullptr && !keys_.wants_text() && !line_.searching() &&
                            !line_.text().empty() && line_.at_end();
    const int64_t until = ve_wait_deadline(pasting      ? paste_pause_ms
                                           : escape     ? escape_pause_ms
                                           : wants_hint ? hint_pause_ms
                                                        : -1);
    wait_for_input(until);
    if (until < 0 || readable_ || outcome_ != rl_outcome::none || ve_wait_deadline(0) < until)
        return;
    if (pasting)
        keys_.end_paste();
    else if (escape)
        keys_.release_escape();
    else
        find_hint();
}

/// Handles keys until the read ends.
void rl_session::edit()
{
    while (outcome_ == rl_outcome::none) {
        serve_outside();
        if (outcome_ != rl_outcome::none)
            return;
        if (rl_control_hidden()) {
            wait_hidden();
            continue;
        }
        rl_key key;
        if (keys_.take(&key))
            handle(key);
        else if (!take_byte())
            pause();
    }
}

rl_outcome rl_session::read_line(const char *prompt, int64_t deadline, std::string &line, int *signal)
{
    deadline_ = deadline;
    signal_ = 0;
    // Lines that were typed ahead were echoed behind what was printed.
    int typed = 0;
    if (ve_out_mid_line() && ioctl(STDIN_FILENO, FIONREAD, &typed) == 0 && typed > 0)
        ve_out_row_unknown();
    begin_terminal();
    // Others may have read the terminal since the last read, and until now Ctrl-C emptied it.
    forget_input();
    for (;;) {
        outcome_ = rl_outcome::none;
        keys_.reset();
        forget_hint();
        line_.begin(*rl_set.history, keep_text_);
        keep_text_ = false;
        screen_.begin(prompt != nullptr ? prompt : "", rl_set.prompt_color, rl_set.hint_color);
        edit();
        // Before anybody sees that the line has ended: a Ctrl-C that came behind it as a key is not left for later.
        if (outcome_ == rl_outcome::line) {
            if (look_ahead())
                outcome_ = rl_outcome::interrupt;
            modes_.make_ctrl_c(rl_modes::ctrl_c::key); // a signal would empty the terminal of what is drawn now
        }
        if (outcome_ != rl_outcome::interrupt || !signals_.is_default(SIGINT))
            break;
        modes_.make_ctrl_c(rl_modes::ctrl_c::key);
        (void)rl_signals::take_typed_interrupt(); // the same again
        screen_.finish(line_.text(), "^C", true);
    }
    switch (outcome_) {
    case rl_outcome::line:
        line = line_.text();
        [[fallthrough]];
    case rl_outcome::end:
    case rl_outcome::signal:
        screen_.finish(line_.text(), {}, true);
        break;
    case rl_outcome::interrupt:
        screen_.finish(line_.text(), "^C", false);
        break;
    case rl_outcome::timeout:
        keep_text_ = true;
        [[fallthrough]];
    case rl_outcome::stop:
    case rl_outcome::none:
        screen_.leave();
        break;
    }
    const bool drawn_over = outcome_ == rl_outcome::line && look_ahead();
    const int late = end_terminal();
    // Ctrl-C while the end of the line was being drawn: for what the line starts, as when it comes a moment later.
    if ((rl_signals::take(rl_signals::typed_interrupt) && outcome_ == rl_outcome::line) || drawn_over) {
        ve_out_draw("^C", 2); // as the terminal itself shows it then
        raise(SIGINT);
    }
    *signal = signal_ != 0 ? signal_ : late;
    return outcome_;
}
