// Running a program in the terminal's foreground.
#pragma once

/// Runs `command` with the system's shell and waits for its end. Ctrl-C meanwhile is the child's. What keeps it from
/// starting is printed under the command's `name`.
void child_run_shell(const char *name, const char *command);
