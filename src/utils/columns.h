// What stands in columns.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "platform/ve_rl.h"

/// The width that a column gets from its texts, in columns of the terminal.
class column
{
public:
    explicit column(size_t least = 0) : widest_(least), usual_(least) {}

    void add(std::string_view text)
    {
        const size_t taken = ve_rl_width(text);
        widest_ = std::max(widest_, taken);
        if (taken <= usual_max)
            usual_ = std::max(usual_, taken);
        ++rows_;
    }
    /// That of the widest text. But one text could fill all rows with its width of blanks: when that is too much, those
    /// of more than a thousand columns stand out.
    size_t width() const { return widest_ * rows_ <= blanks_max ? widest_ : usual_; }

private:
    static constexpr size_t usual_max = 1024;
    static constexpr size_t blanks_max = size_t{16} << 20;

    size_t widest_;
    size_t usual_; // of those that are no wider than usual_max
    size_t rows_ = 0;
};
