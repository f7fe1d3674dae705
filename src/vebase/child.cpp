#include "platform/ve_child.h"

#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "platform/ve_out.h"
#include "platform/ve_wait.h"

namespace
{

/// What the child starts with: the signals as they were before this program arranged them for itself.
class child_attributes
{
public:
    /// `quit` is the disposition of SIGQUIT to restore.
    explicit child_attributes(const struct sigaction &quit)
    {
        posix_spawnattr_init(&attributes_);
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        sigdelset(&mask, SIGINT);
        posix_spawnattr_setsigmask(&attributes_, &mask);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        if (quit.sa_handler != SIG_IGN)
            sigaddset(&defaults, SIGQUIT);
        posix_spawnattr_setsigdefault(&attributes_, &defaults);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~child_attributes() { posix_spawnattr_destroy(&attributes_); }
    child_attributes(const child_attributes &) = delete;
    child_attributes &operator=(const child_attributes &) = delete;

    const posix_spawnattr_t *get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
};

bool sigint_is_pending()
{
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGINT) == 1;
}

} // namespace

int ve_child_run(const char *command)
{
    char shell[] = "sh";
    char option[] = "-c";
    char *const words[] = {shell, option, const_cast<char *>(command), nullptr};
    if (sigint_is_pending()) {
        // A key that came before there was a child cannot reach what that starts.
        ve_wait_discard_sigint();
        return W_EXITCODE(0, SIGINT);
    }
    // The terminal's Ctrl-C and Ctrl-\ are for the child, as system(3) has it; SIGINT is blocked here anyway.
    struct sigaction ignore = {};
    struct sigaction before;
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGQUIT, &ignore, &before);
    int status = -1;
    pid_t child;
    const int error = posix_spawn(&child, "/bin/sh", nullptr, child_attributes(before).get(), words, environ);
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
