// Reading lines where there is no terminal. Main thread only.
#pragma once

#include <sys/types.h>

#include "vebase/editor/rl_edit.h"

/// Reads one line of descriptor 0 into `line` and, where that can be done, not a byte beyond it, so that a child
/// process finds the next line: exact for files, pipes, sockets and terminals, and byte by byte for anything else.
/// What has no line feed at the end of the input is a line too. A NUL becomes \xc0\x80, which is no UTF-8 and so is
/// refused by whoever takes the line for words, where a NUL would cut it short. `prompt` is for a terminal that cannot
/// be edited on, null elsewhere; there Ctrl-C drops the line.
rl_outcome rl_plain_line(const char *prompt, int64_t deadline, std::string &line);

/// Reads descriptor 0 for somebody else than the editor; as read(), but waits, -1 with EINTR when interrupted. Not a
/// byte beyond the line under way once lines were read from it, and never on a terminal.
ssize_t rl_plain_read(char *data, size_t size);
