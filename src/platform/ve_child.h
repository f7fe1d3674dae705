// Running programs with the system's shell. Main thread only.
#pragma once

#include <sys/types.h>

#include <cstdint>

/// Runs `command` in the terminal's foreground, where it finds what was typed ahead, and waits for its end. Ctrl-C and
/// Ctrl-\ meanwhile are the child's.
/// Returns its status as waitpid gives it, or -1 with errno when it could not be started. A Ctrl-C that came before is
/// used up: nothing is started then, and the status is that of a command which it ended. Call it with SIGINT blocked.
int ve_child_run(const char *command);

/// Starts `command` with `*fd` at the other end of its standard output (`reads`) or input; the caller closes it.
/// Returns the child, or -1 with errno.
pid_t ve_child_start(const char *command, bool reads, int *fd);
/// Waits for the child's end until `deadline` (of ve_wait_deadline, -1 never). Returns its status as waitpid gives it,
/// or -1 with errno: EINTR after Ctrl-C or at the deadline, which leave the child to itself. A wait point.
int ve_child_wait(pid_t child, int64_t deadline);
/// Nobody will wait for the child.
void ve_child_leave(pid_t child);
