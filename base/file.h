// Files read and written whole. What fails leaves its reason in errno.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

/// Writes all of `content` to a descriptor that blocks.
[[nodiscard]] bool write_all(int fd, std::string_view content);

/// Reads from where a regular file stands to its end, at most `limit` bytes, and appends them to `*content`. What came
/// before an error is kept.
[[nodiscard]] bool read_all(int fd, size_t limit, std::string *content);

/// How a file is replaced.
struct file_replacement {
    std::optional<mode_t> mode = {}; ///< exactly these rights; without: what the umask leaves of 0666
    bool durable = false;            ///< on the disk, with its name, before the call returns
    const char *suffix = nullptr;    ///< of the new file's name meanwhile, for a single writer; else one nobody has
};

/// Makes `content` the file `path` in one step: at any moment that name holds all of the old content or all of the new.
/// Nothing is left behind when that fails. A symbolic link is itself replaced.
[[nodiscard]] bool replace_file(const std::string &path, std::string_view content, const file_replacement &how);
/// The same for what `write` writes to the descriptor that it is given; it returns false, with the reason in errno,
/// when that fails.
[[nodiscard]] bool replace_file(const std::string &path, const std::function<bool(int fd)> &write,
                                const file_replacement &how);

/// For a result that goes where a user has said: replaces a regular file, writes to whatever else is there (a pipe, a
/// terminal, /dev/null), and to standard output when `path` is empty.
[[nodiscard]] bool write_result(const std::string &path, const std::function<bool(int fd)> &write);

/// Puts on the disk which names a directory holds.
[[nodiscard]] bool sync_directory(const std::string &path);
