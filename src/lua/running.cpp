#include "lua/running.h"

#include <csignal>
#include <pthread.h>
#include <string_view>
#include <unistd.h>

#include "platform/ve_wait.h"
#include "state/interrupt.h"

namespace
{

// As they were before the run.
struct {
    struct sigaction action;
    sigset_t mask;
} before;

/// How often Ctrl-C is pressed before the way out is told that always works.
constexpr int presses_told = 3;
constexpr std::string_view way_out = "\r\nThis code cannot be stopped. Ctrl-\\ ends the program.\r\n";

volatile sig_atomic_t presses = 0;

/// Where a loop waits for Ctrl-C: whoever keeps pressing it sees that nothing happens.
void note_and_tell(int number)
{
    before.action.sa_handler(number);
    presses = presses + 1;
    if (presses == presses_told) [[maybe_unused]]
        const ssize_t ignored = write(STDERR_FILENO, way_out.data(), way_out.size());
}

/// Where no loop waits for Ctrl-C: the second one ends the program at once, should the code not stop.
void note_or_end(int)
{
    if (ve_wait_interrupted()) {
        signal(SIGINT, SIG_DFL);
        raise(SIGINT); // delivered when this handler returns
    }
    ve_wait_note_interrupt();
}

sigset_t only_sigint()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    return set;
}

} // namespace

void lua_run_begin()
{
    sigaction(SIGINT, nullptr, &before.action);
    struct sigaction action = before.action;
    action.sa_flags &= ~SA_RESTART; // a read of the code's own ends too
    presses = 0;
    if (before.action.sa_handler == SIG_DFL)
        action.sa_handler = note_or_end;
    else if (before.action.sa_handler != SIG_IGN)
        action.sa_handler = note_and_tell;
    sigaction(SIGINT, &action, nullptr);
    const sigset_t sigint = only_sigint();
    pthread_sigmask(SIG_UNBLOCK, &sigint, &before.mask);
}

bool lua_run_end()
{
    const sigset_t sigint = only_sigint();
    pthread_sigmask(SIG_BLOCK, &sigint, nullptr);
    sigaction(SIGINT, &before.action, nullptr);
    const bool interrupted = ve_wait_interrupted();
    if (!interrupt_is_armed())
        ve_wait_clear_interrupt();
    pthread_sigmask(SIG_SETMASK, &before.mask, nullptr);
    return interrupted;
}

void lua_run_deliver()
{
    if (interrupt_is_armed())
        return;
    raise(SIGINT);
    ve_wait_checkpoint();
}
