#include "state/session_guard.h"

#include <csignal>
#include <initializer_list>
#include <sys/time.h>

#include "event/listener.h"
#include "platform/ve_wait.h"

namespace
{

// After the signal the program is reminded so often: one that came right before a call that waits ends the call then.
constexpr itimerval reminders = {.it_interval = {0, 100'000}, .it_value = {0, 100'000}};
constexpr int reminders_max = 50;

struct {
    bool guarded = false;
    volatile sig_atomic_t ended_by = 0; // the signal
    volatile sig_atomic_t reminders = 0;
} session;

void end(int signal)
{
    session.ended_by = signal;
    end_run();
    ve_wait_note_end();
    setitimer(ITIMER_REAL, &reminders, nullptr);
}

void remind(int)
{
    session.reminders = session.reminders + 1;
    if (session.reminders < reminders_max)
        return;
    signal(session.ended_by, SIG_DFL);
    raise(session.ended_by);
}

/// Unless it is ignored. Calls that wait end.
void handle(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN)
        return;
    action.sa_handler = handler;
    action.sa_flags = 0;
    sigaction(signal, &action, nullptr);
}

} // namespace

session_guard::session_guard() : guards_(!session.guarded)
{
    if (!guards_)
        return;
    session.guarded = true;
    handle(SIGALRM, remind);
    handle(SIGHUP, end);
    handle(SIGTERM, end);
}

session_guard::~session_guard()
{
    if (!guards_)
        return;
    session.guarded = false;
    for (const int signal : {SIGHUP, SIGTERM})
        handle(signal, SIG_DFL);
    if (session.ended_by != 0)
        raise(session.ended_by);
}
