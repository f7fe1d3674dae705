#include "vebase/editor/rl_control.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "platform/ve_rl.h"
#include "platform/ve_wait.h"

namespace
{

constexpr long hide_wait_ms = 200;

// The codes themselves are here; the pipe only wakes the reader, so that a full pipe loses nothing.
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t released;  // CLOCK_MONOTONIC; made in control_ready()
bool reading = false;     // a read is under way
bool on_screen = false;   // and its line is on the screen
bool hide_wanted = false; // another thread wants the screen
bool stop_wanted = false; // ve_rl_stop, until a read ended by it
int control_fd = -1;      // main thread only

class locked
{
public:
    locked()
    {
        static pthread_once_t once = PTHREAD_ONCE_INIT;
        pthread_once(&once, [] {
            pthread_condattr_t attributes;
            pthread_condattr_init(&attributes);
            pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
            pthread_cond_init(&released, &attributes);
            pthread_condattr_destroy(&attributes);
        });
        pthread_mutex_lock(&lock);
    }
    locked(const locked &) = delete;
    locked &operator=(const locked &) = delete;
    ~locked() { pthread_mutex_unlock(&lock); }
};

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
    control_fd = fd;
    if (fd >= 0)
        set_nonblocking(fd);
}

void ve_rl_write_control_char(int fd, unsigned code)
{
    {
        const locked guard;
        if (code == ve_rl_hide)
            hide_wanted = true;
        else if (code == ve_rl_show)
            hide_wanted = false;
        else if (code == ve_rl_stop)
            stop_wanted = true;
        else
            return;
    }
    if (fd >= 0) {
        set_nonblocking(fd);
        const char wake = 0;
        while (write(fd, &wake, 1) < 0 && errno == EINTR)
            ;
    }
    if (code != ve_rl_hide)
        return;
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += hide_wait_ms * 1000000;
    if (deadline.tv_nsec >= 1000000000) {
        deadline.tv_nsec -= 1000000000;
        ++deadline.tv_sec;
    }
    const locked guard;
    while (reading && on_screen && pthread_cond_timedwait(&released, &lock, &deadline) == 0)
        ;
}

void rl_control_begin()
{
    const locked guard;
    reading = true;
}

void rl_control_end()
{
    const locked guard;
    reading = false;
    on_screen = false;
    pthread_cond_broadcast(&released);
}

int rl_control_fd()
{
    return control_fd;
}

void rl_control_drain()
{
    if (control_fd >= 0)
        drain_fd(control_fd);
}

bool rl_control_claim_screen()
{
    const locked guard;
    if (hide_wanted)
        return false;
    on_screen = true;
    return true;
}

void rl_control_release_screen()
{
    const locked guard;
    on_screen = false;
    pthread_cond_broadcast(&released);
}

bool rl_control_hidden()
{
    const locked guard;
    return hide_wanted;
}

void rl_control_unhide()
{
    const locked guard;
    hide_wanted = false;
}

bool rl_control_take_stop()
{
    const locked guard;
    const bool stop = stop_wanted;
    stop_wanted = false;
    // Who hid the line to end the read does not show it again.
    if (stop)
        hide_wanted = false;
    return stop;
}

namespace
{

volatile sig_atomic_t arrived[NSIG];
volatile sig_atomic_t typed_interrupt;
int signal_pipe[2] = {-1, -1};

void note_signal(int signal, siginfo_t *info, void *)
{
    const int error = errno;
    // Ctrl-C typed just before the terminal became raw is a key, and not the wish to end the program.
    if (signal == SIGINT && info->si_code == SI_KERNEL)
        typed_interrupt = 1;
    else
        arrived[signal] = 1;
    const char wake = 0;
    if (write(signal_pipe[1], &wake, 1) < 0)
        errno = error; // full: it is readable then
    errno = error;
}

} // namespace

void rl_signals::install()
{
    if (installed_)
        return;
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
    typed_interrupt = 0;
    int late = 0;
    for (const int signal : fatal)
        if (take(signal) && late == 0)
            late = signal;
    return late;
}

bool rl_signals::is_default(int signal) const
{
    for (unsigned i = 0; i < count_; ++i)
        if (handled_[i] == signal)
            return (before_[i].sa_flags & SA_SIGINFO) == 0 && before_[i].sa_handler == SIG_DFL;
    return false;
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
    if (typed_interrupt == 0)
        return false;
    typed_interrupt = 0;
    return true;
}

void rl_raise(int signal)
{
    raise(signal);
    if (signal == SIGINT)
        ve_wait_checkpoint();
}
