// References to the history in a typed line: "!!", "!7", "!-2".
#pragma once

#include <string>

/// Replaces the references in `line` by the entries they name, also those that a replacement brings in, up to a bound.
/// Returns how many were replaced.
unsigned history_expand(std::string &line);
