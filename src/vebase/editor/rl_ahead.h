// What was typed before its turn and is no longer in the terminal, because a Ctrl-C among it had to be seen: it belongs
// to whoever reads next. Main thread only.
#pragma once

#include <cstddef>
#include <string>

class rl_ahead
{
public:
    bool empty() const { return at_ == text_.size(); }
    void add(char byte) { text_.push_back(byte); }
    void clear();
    /// The next byte; there is one.
    char take();
    /// The next line or the beginning of it, `size` bytes at most. Returns how many were taken.
    size_t take_line(char *data, size_t size);
    /// Puts the bytes back into the terminal of descriptor 0, as if they were typed again, for another program to read.
    /// What the terminal or the system does not take stays.
    void put_back();

private:
    std::string text_;
    size_t at_ = 0; // of what was taken already
};
