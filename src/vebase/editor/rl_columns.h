// Names in columns, read downwards.
#pragma once

#include <string>
#include <vector>

class rl_columns
{
public:
    /// `names` as they are to be shown, for a screen of `width` cells.
    rl_columns(std::vector<std::string> names, int width);
    size_t rows() const { return rows_; }
    /// Rows of the screen that all of it takes.
    size_t screen_rows() const { return screen_rows_; }
    /// Appends row `index`, without a line end.
    void append_row(size_t index, std::string &out) const;

private:
    std::vector<std::string> names_;
    std::vector<size_t> widths_;
    size_t column_width_ = 1;
    size_t rows_ = 0;
    size_t screen_rows_ = 0;
};
