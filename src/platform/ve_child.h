// Running a program in the terminal's foreground. Main thread only.
#pragma once

/// Runs `command` with the system's shell and waits for its end. Ctrl-C and Ctrl-\ meanwhile are the child's. Returns
/// its status as waitpid gives it, or -1 with errno when it could not be started. A Ctrl-C that came before is used up:
/// nothing is started then, and the status is that of a command which it ended. Call it with SIGINT blocked.
int ve_child_run(const char *command);
