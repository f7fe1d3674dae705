// How histories and recordings reach the disk. Main thread only.
//
// A history file holds one entry a line, oldest first. An entry with a line feed in it is one line too: it begins with
// the mark \001, and its line feeds and backslashes are written as \n and \\. So plain files stay what they are.
#pragma once

#include <string>
#include <string_view>

#include "base/fd.h"

/// Reads the file whole into `content`; a missing one is empty. False, with `reason`, when it is no regular file of
/// this user with one name: no symbolic link is followed, a FIFO does not hang.
bool history_read(const char *path, std::string &content, const char **reason);

/// Replaces the history file in one step: what was there stays whole until the new one is complete. False with errno.
bool history_replace(const char *path, std::string_view content);

/// Removes what saves that were killed have left of this user beside the file. Only while the lock is held: nobody else
/// saves then.
void history_remove_leftovers(const char *path);

/// Held while the file is read and replaced, so that sessions which end at once do so one behind the other. Creates a
/// missing file. Who does not let go in time, or cannot be asked, is not waited for.
class history_lock
{
public:
    explicit history_lock(const char *path);
    bool is_held() const { return held_; }

private:
    fd_owner file_;
    bool held_ = false;
};

/// Appends `entry` as a line of a history file, its line feed included.
void history_encode(std::string_view entry, std::string &out);
/// The entry that a line (without its line feed) holds, into `out`.
void history_decode(std::string_view line, std::string &out);
/// Whether such a line is its entry as it stands, without a NUL in it.
bool history_is_plain(std::string_view line);
/// The last `count` entries of a file's content, as they stand in it; all where there are fewer.
std::string history_newest(const std::string &content, size_t count);
