// References to the history in a typed line: "!!", "!7", "!-2".
#pragma once

#include <string>

#include "platform/ve_history.h"

/// Replaces the references in `line` by the entries of `history` that they name, also those that a replacement brings
/// in, up to a bound. Returns how many were replaced.
unsigned history_expand(const ve_history &history, std::string &line);
