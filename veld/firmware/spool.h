// A file that is being received: bytes in, a checksum and a file out.
#pragma once

#include "base/fd.h"

#include <cstdint>
#include <md5.h>
#include <string>
#include <string_view>

namespace veld
{

class spool
{
public:
    /// Creates a file with an unguessable name in a directory, mode 0600. False on failure, see error().
    bool create(const std::string &directory, uint64_t limit);
    spool() = default;
    spool(const spool &) = delete;
    spool &operator=(const spool &) = delete;
    /// Removes the file unless it was kept.
    ~spool();

    /// Appends. False when the limit is passed or the disk is full, see error().
    bool append(std::string_view bytes);
    /// The MD5 of everything appended, 32 lower-case hex digits; call it once, at the end.
    std::string md5();
    /// The first bytes, so many where there are.
    std::string beginning(size_t most) const;
    std::string content() const;

    /// Moves the file to another name in the same directory, replacing what is there. False on failure.
    bool keep_as(const std::string &name);

    const std::string &path() const { return path_; }
    uint64_t size() const { return size_; }
    const std::string &error() const { return error_; }

    /// Removes what a daemon that was killed left unfinished in a directory.
    static void sweep(const std::string &directory);

private:
    bool fail(const std::string &what);

    fd_owner fd_;
    std::string directory_;
    std::string path_;
    std::string error_;
    uint64_t limit_ = 0;
    uint64_t size_ = 0;
    MD5_CTX digest_{};
};

} // namespace veld
