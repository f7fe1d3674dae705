// How histories and recordings reach the disk. Main thread only.
//
// A history file holds one entry a line, oldest first. An entry with a line feed in it is one line too: it begins with
// the mark \001, and its line feeds and backslashes are written as \n and \\. So plain files stay what they are.
#pragma once

#include <string>
#include <string_view>

enum class history_file { read, missing, refused };

/// Reads the file whole into `content`. Only a regular file of this user with one name is read: no symbolic link is
/// followed, a FIFO does not hang. `reason` receives a text when it is refused.
history_file history_read(const char *path, std::string &content, const char **reason);

/// Replaces the history file in one step: what was there stays whole until the new one is complete. Refuses like
/// history_read. Returns 0, or negative with `reason`.
int history_replace(const char *path, std::string_view content, const char **reason);

/// Writes a script: a plain file is replaced in one step, anything else written in place. Returns 0, or negative with
/// errno set.
int history_write_script(const char *path, std::string_view content);

/// Appends `entry` as a line of a history file, its line feed included.
void history_encode(std::string_view entry, std::string &out);
/// The entry that a line (without its line feed) holds, into `out`.
void history_decode(std::string_view line, std::string &out);
