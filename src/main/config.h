// The configuration file: shell commands that run before the mode.
#pragma once

/// Runs the file with its output hidden; what waits in it shows on standard error. Null stands for the default file,
/// which need not be there; any other that is not used is named on standard error. What became of it does not count.
void run_config(const char *path);
