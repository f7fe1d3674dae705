// What stands in columns.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/ve_rl.h"

/// How wide a column has to be for `text`, in columns of the terminal. What is wider than 1,024 stands in none: one
/// name would fill all rows with its width of blanks.
inline size_t column_width(std::string_view text)
{
    constexpr size_t aligned_max = 1024;
    const size_t taken = ve_rl_width(text);
    return taken <= aligned_max ? taken : 0;
}
