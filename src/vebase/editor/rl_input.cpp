// How keys are fetched: from the terminal byte by byte, between them whatever else happens.
#include <cerrno>
#include <cstdlib>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

#include "vebase/editor/rl_session.h"

namespace
{

constexpr int look_tries = 16; // a paste may bring more and more

} // namespace

/// Control codes and signals; may end the read, or the callback that runs.
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
    if (rl_signals::take(rl_signals::typed_interrupt)) {
        drop_ahead();
        interrupt_typed();
    }
    if (rl_signals::take(SIGWINCH))
        screen_.resized();
    if (running_ != callback::none || outcome_ != rl_outcome::none)
        return;
    if (rl_signals::take(SIGTSTP)) {
        suspend();
    } else if (rl_signals::take(SIGCONT)) {
        // Whoever stopped us may have set the terminal up for himself, and read from it.
        forget_input();
        modes_.make_ctrl_c(rl_modes::ctrl_c::key);
        screen_.resized();
        screen_.forget();
    }
}

/// Ctrl-C leaves a Tab that waits. Else it drops the line: a hint is nobody's wish.
void rl_session::interrupt_typed()
{
    abandoned_ = running_ != callback::none;
    if (running_ != callback::complete && outcome_ == rl_outcome::none)
        outcome_ = rl_outcome::interrupt;
}

/// Waits until the other thread gives the screen back.
void rl_session::wait_hidden()
{
    pollfd fds[] = {{rl_control_fd(), POLLIN, 0}, {rl_signals::fd(), POLLIN, 0}};
    const int64_t deadline = ve_wait_deadline(rl_screen_patience_ms);
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

/// Reads one byte of the terminal if that takes no waiting. More are left to whoever reads it next: a child process or
/// a password's prompt. False when there is none; may end the read.
bool rl_session::fetch_byte(unsigned char *byte)
{
    if (pending_ <= 0 && ioctl(STDIN_FILENO, FIONREAD, &pending_) < 0)
        pending_ = 0;
    if (pending_ <= 0 && !readable_)
        return false;
    readable_ = false;
    const ssize_t count = read(STDIN_FILENO, byte, 1);
    if (count == 1) {
        --pending_;
        return true;
    }
    pending_ = 0;
    if (count < 0 && (errno == EINTR || errno == EAGAIN))
        return false;
    if (count < 0)
        rl_note_input_error(errno);
    outcome_ = rl_outcome::end;
    return false;
}

/// Handles the next byte, if there is one.
bool rl_session::take_byte()
{
    unsigned char byte = 0;
    if (!ahead_.empty()) {
        byte = static_cast<unsigned char>(ahead_.take());
    } else if (!fetch_byte(&byte)) {
        return outcome_ != rl_outcome::none;
    }
    handle_byte(byte);
    return true;
}

void rl_session::handle_byte(unsigned char byte)
{
    const bool text = keys_.wants_text();
    if (!text && modes_.is_control_key(byte, VINTR)) {
        keys_.reset();
        outcome_ = rl_outcome::interrupt;
    } else if (!text && modes_.is_control_key(byte, VQUIT)) {
        if (!signals_.is_default(SIGQUIT))
            return;
        signal_ = SIGQUIT;
        outcome_ = rl_outcome::signal;
    } else if (!text && modes_.is_control_key(byte, VSUSP)) {
        suspend();
    } else {
        keys_.feed(byte);
    }
}

/// Takes out of the terminal what it holds, while Ctrl-C is a key. True when that was typed; what came before it is
/// dropped.
bool rl_session::take_ahead()
{
    bool interrupted = false;
    unsigned char byte = 0;
    while (fetch_byte(&byte)) {
        if (!ahead_keys_.wants_text() && modes_.is_control_key(byte, VINTR)) {
            interrupted = true;
            drop_ahead();
            continue;
        }
        ahead_.add(static_cast<char>(byte));
        ahead_keys_.feed(byte);
        for (rl_key key; ahead_keys_.take(&key);)
            ;
    }
    return interrupted;
}

/// Makes Ctrl-C a signal. True when it was typed as a key before; what came before it is dropped.
bool rl_session::look_ahead()
{
    static const int registered = atexit(ve_rl_put_back_ahead);
    (void)registered;
    if (ahead_.empty())
        ahead_keys_ = keys_;
    forget_input();
    const rl_outcome outcome = outcome_;
    bool interrupted = false;
    for (int tries = 0; tries < look_tries; ++tries) {
        // One that was a signal until now has emptied the terminal of what came before it: what is read now is newer.
        if (rl_signals::take_typed_interrupt()) {
            interrupted = true;
            drop_ahead();
        }
        interrupted = take_ahead() || interrupted;
        modes_.make_ctrl_c(rl_modes::ctrl_c::flushing_signal);
        // From now on it is a signal, and before it was nothing more.
        if (ioctl(STDIN_FILENO, FIONREAD, &pending_) < 0 || pending_ == 0)
            break;
        modes_.make_ctrl_c(rl_modes::ctrl_c::key);
        forget_input();
    }
    modes_.make_ctrl_c(rl_modes::ctrl_c::flushing_signal);
    forget_input();
    outcome_ = outcome; // whoever reads next meets the end, too
    ahead_is_newer_ = interrupted;
    return interrupted;
}

void rl_session::drop_ahead()
{
    if (!ahead_.empty())
        keys_.end_paste();
    ahead_.clear();
    ahead_keys_ = keys_;
    ahead_keys_.reset();
}

void rl_session::drop_ahead_of_interrupt()
{
    if (!std::exchange(ahead_is_newer_, false))
        drop_ahead();
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
        else if (ve_wait_ended())
            outcome_ = rl_outcome::stop;
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

/// A hint is not worth waiting for when the user types on; while Tab waits, only a terminal that is gone is of
/// interest.
unsigned rl_session::watch(pollfd *fds)
{
    fds[0] = {STDIN_FILENO, static_cast<short>(running_ == callback::hint ? POLLIN : 0), 0};
    fds[1] = {rl_control_fd(), POLLIN, 0};
    fds[2] = {rl_signals::fd(), POLLIN, 0};
    return 3;
}

bool rl_session::serve(const pollfd *fds, unsigned count)
{
    (void)count;
    if (fds[1].revents != 0)
        rl_control_drain();
    if (fds[2].revents != 0)
        rl_signals::drain();
    if ((fds[0].revents & ~POLLIN) != 0)
        outcome_ = rl_outcome::end;
    serve_outside();
    if (fds[0].revents != 0 || outcome_ != rl_outcome::none)
        abandoned_ = true;
    // Every later wait of the callback ends at once too.
    if (abandoned_)
        ve_wait_note_interrupt();
    return abandoned_;
}
