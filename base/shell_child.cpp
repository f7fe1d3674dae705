#include "base/shell_child.h"

#include <unistd.h>

int shell_start(pid_t *child, const char *command, const sigset_t &blocked, const sigset_t &defaults,
                const posix_spawn_file_actions_t *actions)
{
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &blocked);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    char shell[] = "sh";
    char option[] = "-c";
    char *const words[] = {shell, option, const_cast<char *>(command), nullptr};
    const int error = posix_spawn(child, "/bin/sh", actions, &attributes, words, environ);
    posix_spawnattr_destroy(&attributes);
    return error;
}
