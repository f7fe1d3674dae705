// The interactive shell.
#pragma once

/// Greets, logs in, loads the scheme and runs lines until the end. Returns 0, or -1 when the scheme could not be
/// loaded, or when the input could not be read, which it says.
int shell_loop();
