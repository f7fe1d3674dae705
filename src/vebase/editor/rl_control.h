// What reaches the editor from outside while it reads: control codes of other threads, signals.
#pragma once

#include <csignal>
#include <cstdint>

// The main thread's side of the control codes.

/// The descriptor that becomes readable when a code arrived, or -1; emptied by rl_control_drain.
int rl_control_fd();
void rl_control_drain();
/// Asks for the right to draw. False while another thread wants the screen for itself.
bool rl_control_claim_screen();
/// The line is off the screen: whoever waits for that goes on.
void rl_control_release_screen();
/// Another thread wants the screen for itself.
bool rl_control_hidden();
/// Takes the screen back from a thread that never gave it back.
void rl_control_unhide();
/// True once after ve_rl_stop.
bool rl_control_take_stop();

/// Signals that the editor handles itself while it reads.
class rl_signals
{
public:
    /// Installs the handlers (signals that are ignored stay ignored) and notes the dispositions. Once, until restore().
    void install();
    /// Brings the dispositions back. Returns a fatal signal that came too late to be handled, or 0.
    int restore();
    /// True when `signal`, which is one of them, has its default disposition outside the read.
    bool is_default(int signal) const;

    /// Becomes readable when a signal arrived.
    static int fd();
    static void drain();
    /// True once for each arrival of `signal`, or of a Ctrl-C that was typed while the terminal made a signal of it.
    static bool take(int signal);
    static constexpr int typed_interrupt = 0;
    /// The same of a typed Ctrl-C, delivered or not.
    static bool take_typed_interrupt();

    static constexpr int fatal[] = {SIGHUP, SIGTERM, SIGQUIT, SIGINT};

private:
    static constexpr int handled_[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT, SIGWINCH};
    static constexpr unsigned count_ = sizeof handled_ / sizeof handled_[0];
    struct sigaction before_[count_] = {};
    bool installed_ = false;
};

/// Notes why the input could not be read, for ve_rl_input_error: nothing more is read of it.
void rl_note_input_error(int error);

/// Raises `signal` in the calling thread so that its disposition takes effect now, blocked or not.
void rl_raise(int signal);
