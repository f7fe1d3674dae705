// How keys reach the library: from the terminal byte by byte, between them whatever else happens. The line is drawn
// only when no key waits.
#include <cerrno>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

#include "platform/ve_out.h"
#include "vebase/editor/rl_session.h"
#include "vebase/editor/rl_text.h"

namespace
{

constexpr int hint_pause_ms = 40;     // without a key for so long, a hint is looked for
constexpr int escape_pause_ms = 100;  // an ESC alone that ends a search
constexpr wchar_t nothing_key = 0x0f; // bound to no effect
constexpr int patience_ms = 1000;     // how long another thread may keep the screen

/// The byte that stands for a terminal's control character, or `usual` when the terminal has none.
bool is_control_key(unsigned char byte, const termios &terminal, unsigned index)
{
    return byte == terminal.c_cc[index] && terminal.c_cc[index] != _POSIX_VDISABLE;
}

} // namespace

/// Control codes and signals; may end the read.
void rl_session::serve_outside()
{
    if (rl_control_hidden())
        screen_.erase();
    if (rl_control_take_stop())
        outcome_ = rl_outcome::stop;
    for (const int signal : rl_signals::fatal) {
        if (!rl_signals::take(signal) || outcome_ != rl_outcome::none)
            continue;
        signal_ = signal;
        outcome_ = rl_outcome::signal;
    }
    if (rl_signals::take_typed_interrupt() && outcome_ == rl_outcome::none)
        outcome_ = rl_outcome::interrupt;
    if (rl_signals::take(SIGWINCH))
        screen_.resized();
    if (running_ != callback::none || outcome_ != rl_outcome::none)
        return;
    if (rl_signals::take(SIGTSTP)) {
        suspend();
    } else if (rl_signals::take(SIGCONT)) {
        // Whoever stopped us may have set the terminal up for himself, and read from it.
        forget_input();
        el_wset(el_, EL_PREP_TERM, 0);
        el_wset(el_, EL_PREP_TERM, 1);
        screen_.resized();
        screen_.forget();
    }
}

/// Waits until the other thread gives the screen back.
void rl_session::wait_hidden()
{
    pollfd fds[] = {{rl_control_fd(), POLLIN, 0}, {rl_signals::fd(), POLLIN, 0}};
    const int64_t deadline = ve_wait_deadline(patience_ms);
    while (rl_control_hidden() && outcome_ == rl_outcome::none) {
        if (ve_wait_poll(fds, 2, deadline) <= 0) {
            rl_control_unhide();
            return;
        }
        rl_control_drain();
        rl_signals::drain();
        serve_outside();
    }
}

/// What the terminal was known to hold may be gone: it is asked again before the next byte is read.
void rl_session::forget_input()
{
    pending_ = 0;
    readable_ = false;
}

/// Reads one byte if there is one without waiting. More are left to whoever reads the terminal next: a child process
/// or a password's prompt.
bool rl_session::take_byte()
{
    if (typed_used_ < typed_.size()) {
        const auto byte = static_cast<unsigned char>(typed_[typed_used_++]);
        if (typed_used_ == typed_.size()) {
            typed_.clear();
            typed_used_ = 0;
        }
        handle_byte(byte);
        return true;
    }
    if (pending_ <= 0 && ioctl(STDIN_FILENO, FIONREAD, &pending_) < 0)
        pending_ = 0;
    if (pending_ <= 0 && !readable_)
        return false;
    readable_ = false;
    unsigned char byte = 0;
    const ssize_t count = read(STDIN_FILENO, &byte, 1);
    if (count == 1) {
        --pending_;
        handle_byte(byte);
        return true;
    }
    pending_ = 0;
    if (count == 0 || (errno != EINTR && errno != EAGAIN))
        outcome_ = rl_outcome::end;
    return true;
}

void rl_session::handle_byte(unsigned char byte)
{
    if (literal_) {
        keys_.feed_text(byte);
    } else if (is_control_key(byte, original_, VINTR)) {
        keys_.reset();
        outcome_ = rl_outcome::interrupt;
    } else if (is_control_key(byte, original_, VQUIT)) {
        if (!signals_.is_default(SIGQUIT))
            return;
        signal_ = SIGQUIT;
        outcome_ = rl_outcome::signal;
    } else if (is_control_key(byte, original_, VSUSP)) {
        suspend();
    } else {
        keys_.feed(byte, searching());
    }
}

/// Waits for a key, until `until` at most, and notes what came.
void rl_session::wait_for_input(int64_t until)
{
    pollfd fds[] = {{STDIN_FILENO, POLLIN, 0}, {rl_control_fd(), POLLIN, 0}, {rl_signals::fd(), POLLIN, 0}};
    if (deadline_ >= 0 && (until < 0 || deadline_ < until))
        until = deadline_;
    const int ready = ve_wait_poll(fds, 3, until);
    if (ready < 0) {
        if (!ve_wait_interrupted())
            outcome_ = rl_outcome::end;
        ve_wait_clear_interrupt();
        return;
    }
    if (ready == 0) {
        if (deadline_ >= 0 && until == deadline_)
            outcome_ = rl_outcome::timeout;
        return;
    }
    readable_ = fds[0].revents != 0;
    if (fds[1].revents != 0)
        rl_control_drain();
    if (fds[2].revents != 0)
        rl_signals::drain();
}

/// Hands a decoded key out, or a character of text that the library waits for. Other text goes into the line right
/// here: the library's own insertion would draw it. False when nothing is there.
bool rl_session::deliver(wchar_t *c)
{
    if (held_ != 0) {
        *c = std::exchange(held_, 0);
        return true;
    }
    bool is_text = false;
    while (keys_.take(c, &is_text)) {
        ++served_;
        if (literal_ || (searching() && pass_searched(*c)))
            return true;
        if (searching()) {
            bell();
        } else if (is_text) {
            const wchar_t inserted[] = {*c, 0};
            el_winsertstr(el_, inserted);
            inserted_ = true;
        } else {
            prepare_key(c);
            return true;
        }
    }
    return false;
}

/// Before a key is handed out.
void rl_session::prepare_key(wchar_t *c)
{
    // Ctrl-P, Ctrl-R, Ctrl-S and what begins with ESC may leave the line for the history.
    if (*c == 0x10 || *c == 0x12 || *c == 0x13 || *c == 0x1b) {
        remember_line();
        asked_to_search_ = asked_to_search_ || *c == 0x12 || *c == 0x13;
    }
    ensure_capacity(false);
    // A command that does nothing tells the library that its last command is not the last thing that happened.
    if (inserted_ && *c == 0x1b)
        held_ = std::exchange(*c, nothing_key);
    inserted_ = false;
}

bool rl_session::next_character(wchar_t *c)
{
    rebind_key();
    if (first_) {
        first_ = false;
        // On a small screen the library's display, which nobody sees, writes beyond its end.
        el_wset(el_, EL_SETTC, L"li", L"16", static_cast<const wchar_t *>(nullptr));
        el_wset(el_, EL_SETTC, L"co", L"4000", static_cast<const wchar_t *>(nullptr));
        if (!carry_.empty())
            el_winsertstr(el_, carry_.c_str());
        carry_.clear();
    }
    if (!searching()) {
        asked_to_search_ = false;
        follow_history();
        ensure_capacity(false);
    }
    while (outcome_ == rl_outcome::none) {
        serve_outside();
        if (outcome_ != rl_outcome::none)
            break;
        if (rl_control_hidden()) {
            wait_hidden();
            continue;
        }
        if (deliver(c))
            return true;
        if (take_byte())
            continue;
        refresh_hint();
        draw();
        int64_t until = -1;
        const bool wants_hint = !hint_known_ && rl_set.hint != nullptr && !literal_ && !searching() &&
                                !text().empty() && cursor() == text().size();
        if (keys_.holds_escape() && searching())
            until = ve_wait_deadline(escape_pause_ms);
        else if (wants_hint)
            until = ve_wait_deadline(hint_pause_ms);
        wait_for_input(until);
        if (until < 0 || readable_ || ve_wait_deadline(0) < until)
            continue;
        if (keys_.holds_escape() && searching())
            keys_.release_escape();
        else if (wants_hint)
            find_hint();
    }
    return false;
}

unsigned rl_session::watch(pollfd *fds)
{
    fds[0] = {STDIN_FILENO, POLLIN, 0};
    fds[1] = {rl_control_fd(), POLLIN, 0};
    fds[2] = {rl_signals::fd(), POLLIN, 0};
    return 3;
}

/// Moves what the terminal has to the kept keys. Ctrl-C among it abandons the callback.
void rl_session::collect_typed()
{
    char bytes[1024];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
    if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) {
        outcome_ = rl_outcome::end;
        abandoned_ = true;
    }
    pending_ = 0;
    for (ssize_t i = 0; i < count; ++i) {
        if (is_control_key(static_cast<unsigned char>(bytes[i]), original_, VINTR))
            abandoned_ = true;
        else
            typed_.push_back(bytes[i]);
    }
    // A hint is not worth waiting for when the user types on.
    if (count > 0 && running_ == callback::hint)
        abandoned_ = true;
}

bool rl_session::serve(const pollfd *fds, unsigned count)
{
    (void)count;
    if (fds[1].revents != 0)
        rl_control_drain();
    if (fds[2].revents != 0)
        rl_signals::drain();
    if (fds[0].revents != 0)
        collect_typed();
    serve_outside();
    if (outcome_ != rl_outcome::none)
        abandoned_ = true;
    // Every later wait of the callback ends at once too.
    if (abandoned_)
        ve_wait_note_interrupt();
    return abandoned_;
}
