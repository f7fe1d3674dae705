// The list of typed lines behind ve_history.h, for the editor, which walks it. Main thread only.
#pragma once

#include <cstddef>
#include <string_view>

/// Entry `index` (0 the oldest, below ve_history_size()); valid until the list changes.
std::string_view history_entry(size_t index);
/// Bytes of the longest entry so far.
size_t history_longest();
