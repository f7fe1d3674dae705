// Where lines go that nobody may wait for: a file, or whatever standard error is.
#pragma once

#include "base/fd.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace veld
{

/// Writes lines whole or not at all, and never waits, whatever the descriptor is: a pipe that nobody reads, a terminal
/// that stands still.
class line_sink
{
public:
    /// A file of its own, which writing does not block on.
    explicit line_sink(fd_owner file) : own_(std::move(file)) {}
    /// Standard error, as it is when this is called. Others may share it: how they write to it is not changed.
    static line_sink of_standard_error();

    /// One line or several. What does not fit is lost, and counted.
    void write(std::string_view lines);
    /// How many pieces were lost since the last that was written.
    uint64_t lost() const { return lost_; }

private:
    line_sink() = default;
    ssize_t put(std::string_view bytes) const;
    bool put_rest();

    fd_owner own_;
    int fd_ = -1;            // of somebody else, where there is no own one
    bool is_socket_ = false; // of that
    std::string rest_;       // of a line that was begun
    uint64_t lost_ = 0;
};

} // namespace veld
