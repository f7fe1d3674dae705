// Script files: one command a line.
#pragma once

#include "platform/ve_input.h"

/// Runs the file: shell commands when bit 0 of `flags` is set, else requests. Returns the last result, which ends the
/// script when it is negative; -1 when the file cannot be opened.
int run_script(const char *path, int flags);
/// The same for a file that is open already; `path` is its name for messages.
int run_script(ve_input reader, const char *path, int flags);
