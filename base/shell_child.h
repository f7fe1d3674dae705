// Children that the system's shell runs.
#pragma once

#include <csignal>
#include <spawn.h>
#include <sys/types.h>

/// Starts `sh -c command`, which begins with the signals of `blocked` blocked, and those of `defaults` as they are
/// where nobody has arranged them for himself. `actions` may be null. Returns 0, or an error number.
[[nodiscard]] int shell_start(pid_t *child, const char *command, const sigset_t &blocked, const sigset_t &defaults,
                              const posix_spawn_file_actions_t *actions);
