// Reading a file, a pipe or a terminal to its end. What keeps one waiting is waited for at a wait point. Main thread
// only.
#pragma once

#include <cstddef>
#include <string>

#include "base/fd.h"
#include "base/framing.h"

class ve_input
{
public:
    /// A directory cannot be opened, though the system would; nor can null.
    explicit ve_input(const char *path);
    /// Takes over a descriptor that does not block; none is an input that is not open.
    explicit ve_input(fd_owner fd);

    /// More than this in a line is an error: no request could be made of it. So is more than this at once of what is no
    /// regular file, and may never end.
    static constexpr size_t size_max = wire_line_max;

    bool is_open() const { return static_cast<bool>(fd_); }
    /// errno of a read that failed, EINTR after Ctrl-C, EMSGSIZE where more came than `size_max`; else 0.
    int error() const { return error_; }
    /// The next line, without its line feed. False at the end.
    bool next(std::string &line);
    /// Appends what is left to `text`.
    void rest(std::string &text);

private:
    bool fill();
    bool wait();

    fd_owner fd_;
    int error_ = 0;
    bool await_writer_ = false;
    bool ends_ = false;
    std::string block_;
    size_t position_ = 0; // of what was not handed out yet
};
