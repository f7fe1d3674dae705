#include "vebase/editor/rl_control.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <unistd.h>

#include "platform/ve_rl.h"
#include "platform/ve_wait.h"

namespace
{

// How long the screen is waited for, in steps: while nothing of this machine runs, one of them goes by.
constexpr std::chrono::milliseconds hide_step{10};
constexpr int hide_steps = 50;

/// What the threads agree on about the screen. The codes themselves are here; the pipe only wakes the reader, so that a
/// full pipe loses nothing.
struct screen_claims {
    std::mutex lock;
    std::condition_variable released;
    bool on_screen = false;   // a read is under way, and its line is on the screen
    bool hide_wanted = false; // another thread wants the screen
    bool stop_wanted = false; // ve_rl_stop, until a read ended by it
    int control_fd = -1;      // main thread only
};
int input_error = 0; // main thread only

// Never destroyed: another thread may wait while the program exits.
alignas(screen_claims) char claims_place[sizeof(screen_claims)];
screen_claims &claims = *new (claims_place) screen_claims;

void set_nonblocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0 && (flags & O_NONBLOCK) == 0)
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

void drain_fd(int fd)
{
    char bytes[64];
    ssize_t count;
    do
        count = read(fd, bytes, sizeof bytes);
    while (count == static_cast<ssize_t>(sizeof bytes) || (count < 0 && errno == EINTR));
}

} // namespace

void ve_rl_set_control_fd(int fd)
{
    claims.control_fd = fd;
    if (fd >= 0)
        set_nonblocking(fd);
}

void ve_rl_write_control_char(int fd, unsigned code)
{
    {
        const std::scoped_lock guard(claims.lock);
        if (code == ve_rl_stop)
            claims.stop_wanted = true;
        else
            claims.hide_wanted = code == ve_rl_hide;
    }
    if (fd >= 0) {
        set_nonblocking(fd);
        const char wake = 0;
        while (write(fd, &wake, 1) < 0 && errno == EINTR)
            ;
    }
    std::unique_lock guard(claims.lock);
    if (code == ve_rl_hide)
        for (int i = 0; i < hide_steps && claims.on_screen; ++i)
            claims.released.wait_for(guard, hide_step);
}

int rl_control_fd()
{
    return claims.control_fd;
}

void rl_control_drain()
{
    if (claims.control_fd >= 0)
        drain_fd(claims.control_fd);
}

bool rl_control_claim_screen()
{
    const std::scoped_lock guard(claims.lock);
    if (claims.hide_wanted)
        return false;
    claims.on_screen = true;
    return true;
}

void rl_control_release_screen()
{
    const std::scoped_lock guard(claims.lock);
    claims.on_screen = false;
    claims.released.notify_all();
}

bool rl_control_hidden()
{
    const std::scoped_lock guard(claims.lock);
    return claims.hide_wanted;
}

void rl_control_unhide()
{
    const std::scoped_lock guard(claims.lock);
    claims.hide_wanted = false;
}

bool rl_control_take_stop()
{
    const std::scoped_lock guard(claims.lock);
    const bool stop = claims.stop_wanted;
    claims.stop_wanted = false;
    // Who hid the line to end the read does not show it again.
    if (stop)
        claims.hide_wanted = false;
    return stop;
}

namespace
{

volatile sig_atomic_t arrived[NSIG]; // the first one: a Ctrl-C that was typed
int signal_pipe[2] = {-1, -1};

void note_signal(int signal, siginfo_t *info, void *)
{
    const int error = errno;
    // Ctrl-C typed just before the terminal became raw is a key, and not the wish to end the program.
    arrived[signal == SIGINT && info->si_code == SI_KERNEL ? rl_signals::typed_interrupt : signal] = 1;
    const char wake = 0;
    [[maybe_unused]] const ssize_t ignored = write(signal_pipe[1], &wake, 1); // full: it is readable then
    errno = error;
}

} // namespace

void rl_signals::install()
{
    if (signal_pipe[0] < 0 && pipe2(signal_pipe, O_CLOEXEC | O_NONBLOCK) < 0)
        return;
    struct sigaction action = {};
    action.sa_sigaction = note_signal;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigfillset(&action.sa_mask);
    for (unsigned i = 0; i < count_; ++i) {
        sigaction(handled_[i], nullptr, &before_[i]);
        if ((before_[i].sa_flags & SA_SIGINFO) != 0 || before_[i].sa_handler != SIG_IGN)
            sigaction(handled_[i], &action, nullptr);
    }
    installed_ = true;
}

int rl_signals::restore()
{
    if (!installed_)
        return 0;
    for (unsigned i = 0; i < count_; ++i)
        sigaction(handled_[i], &before_[i], nullptr);
    installed_ = false;
    int late = 0;
    for (const int signal : fatal)
        if (take(signal) && late == 0)
            late = signal;
    return late;
}

bool rl_signals::is_default(int signal) const
{
    const struct sigaction &before = before_[std::find(handled_, handled_ + count_, signal) - handled_];
    return (before.sa_flags & SA_SIGINFO) == 0 && before.sa_handler == SIG_DFL;
}

int rl_signals::fd()
{
    return signal_pipe[0];
}

void rl_signals::drain()
{
    drain_fd(signal_pipe[0]);
}

bool rl_signals::take(int signal)
{
    // Cleared only when it is set: what arrives meanwhile is not lost.
    if (arrived[signal] == 0)
        return false;
    arrived[signal] = 0;
    return true;
}

bool rl_signals::take_typed_interrupt()
{
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, SIGINT);
    const timespec none{};
    siginfo_t info{};
    bool typed = take(typed_interrupt);
    if (sigtimedwait(&only, &info, &none) == SIGINT) {
        typed = typed || info.si_code == SI_KERNEL;
        if (info.si_code != SI_KERNEL)
            raise(SIGINT); // somebody's wish to end the program: it waits on
    }
    return typed;
}

void rl_note_input_error(int error)
{
    input_error = error;
}

int ve_rl_input_error()
{
    return input_error;
}

void rl_raise(int signal)
{
    raise(signal);
    if (signal == SIGINT)
        ve_wait_checkpoint();
}
