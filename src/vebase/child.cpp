#include "platform/ve_child.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <vector>

#include "base/shell_child.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"

namespace
{

/// Starts the system's shell with the signals as they were before this program arranged them for itself; `quit` is the
/// disposition that SIGQUIT had. Returns 0 or an error number.
int start(pid_t *child, const char *command, const struct sigaction &quit, const posix_spawn_file_actions_t *actions)
{
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    sigdelset(&blocked, SIGINT);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGXFSZ);
    if (quit.sa_handler != SIG_IGN)
        sigaddset(&defaults, SIGQUIT);
    return shell_start(child, command, blocked, defaults, actions);
}

std::vector<pid_t> left; // children that nobody waits for, and that may run still

void reap_left()
{
    std::erase_if(left, [](pid_t child) { return waitpid(child, nullptr, WNOHANG) != 0; });
}

bool sigint_is_pending()
{
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGINT) == 1;
}

} // namespace

int ve_child_run(const char *command)
{
    reap_left();
    if (sigint_is_pending()) {
        // A key that came before there was a child cannot reach what that starts.
        ve_wait_discard_sigint();
        return SIGINT; // the status of a child that it ended
    }
    // The terminal's Ctrl-C and Ctrl-\ are for the child, as system(3) has it; SIGINT is blocked here anyway.
    ve_rl_put_back_ahead();
    struct sigaction ignore = {};
    struct sigaction before;
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGQUIT, &ignore, &before);
    int status = -1;
    pid_t child;
    const int error = start(&child, command, before, nullptr);
    if (error == 0) {
        // A key between that look and the start reached nobody; a child that has it already minds no second one.
        if (sigint_is_pending())
            kill(child, SIGINT);
        while (waitpid(child, &status, 0) < 0 && errno == EINTR && !ve_wait_ended())
            ;
        ve_out_row_unknown();
    }
    sigaction(SIGQUIT, &before, nullptr);
    ve_wait_discard_sigint();
    errno = error;
    return status;
}

pid_t ve_child_start(const char *command, bool reads, int *fd)
{
    reap_left();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        return -1;
    if (reads)
        ve_rl_put_back_ahead();
    *fd = ends[reads ? 0 : 1];
    const int childs = ends[reads ? 1 : 0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childs, reads ? STDOUT_FILENO : STDIN_FILENO);
    struct sigaction quit;
    sigaction(SIGQUIT, nullptr, &quit);
    pid_t child = -1;
    const int error = start(&child, command, quit, &actions);
    posix_spawn_file_actions_destroy(&actions);
    close(childs);
    if (error == 0)
        return child;
    close(*fd);
    errno = error;
    return -1;
}

int ve_child_wait(pid_t child, int64_t deadline)
{
    pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
    const bool waited = ended.fd < 0 || ve_wait_poll(&ended, 1, deadline) > 0;
    if (ended.fd >= 0)
        close(ended.fd);
    if (!waited) {
        ve_child_leave(child);
        errno = EINTR;
        return -1;
    }
    int status = -1;
    return waitpid(child, &status, 0) < 0 ? -1 : status;
}

void ve_child_leave(pid_t child)
{
    left.push_back(child);
    reap_left();
}
