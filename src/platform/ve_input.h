// Reading a file, a pipe or a terminal to its end. What keeps one waiting is waited for at a wait point. Main thread
// only.
#pragma once

#include <cstddef>
#include <string>

#include "base/fd.h"

class ve_input
{
public:
    /// A directory cannot be opened, though the system would; nor can null.
    explicit ve_input(const char *path);

    bool is_open() const { return static_cast<bool>(fd_); }
    /// errno of a read that failed, EINTR after Ctrl-C; else 0.
    int error() const { return error_; }
    /// The next line of any length, without its line feed. False at the end.
    bool next(std::string &line);
    /// Appends what is left to `text`.
    void rest(std::string &text);

private:
    bool fill();
    bool wait();

    fd_owner fd_;
    int error_ = 0;
    bool await_writer_ = false;
    std::string block_;
    size_t position_ = 0; // of what was not handed out yet
};
