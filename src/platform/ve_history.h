// The history of typed lines: one list in memory, oldest first. Main thread only.
#pragma once

#include <cstddef>

/// Replaces the list by the entries of the file (plain lines, oldest first; encoded line feeds inside an entry are
/// decoded). A missing file is an empty history. What is no plain file of this user is left alone, with one warning on
/// standard error. Returns 0 or negative.
int ve_history_load(const char *path);
/// Writes the newest `count` entries, oldest first. -1: all of them, as a history file (0600, replaced atomically;
/// never over something that ve_history_load refused; multi-line entries encoded). 0: the entries added since the last
/// load, clear or ve_history_mark. A count of 0 or more writes plain text (a script). Returns 0 or negative.
int ve_history_dump(const char *path, int count);
/// Appends an entry. Duplicates are kept.
void ve_history_add(const char *entry);
void ve_history_clear();
/// From here on, ve_history_dump with 0 counts anew.
void ve_history_mark();
size_t ve_history_size();
/// Entry `index`, 0 the oldest; null when there is none. Valid until the list changes.
const char *ve_history_get(size_t index);
