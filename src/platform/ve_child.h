// Running a program in the terminal's foreground. Main thread only.
#pragma once

/// Runs `command` with the system's shell and waits for its end. Ctrl-C and Ctrl-\ meanwhile are the child's, also a
/// Ctrl-C that comes while it is being started. Returns its status as waitpid gives it, or -1 with errno when it could
/// not be started. Call it with SIGINT blocked, after a look at Ctrl-C.
int ve_child_run(const char *command);
