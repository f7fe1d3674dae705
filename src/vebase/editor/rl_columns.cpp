#include "vebase/editor/rl_columns.h"

#include <algorithm>

#include "vebase/editor/rl_text.h"

namespace
{

constexpr size_t gap = 2;

} // namespace

rl_columns::rl_columns(std::vector<std::string> names, int width) : names_(std::move(names))
{
    const size_t screen = static_cast<size_t>(std::max(width, 1));
    size_t widest = 0;
    widths_.reserve(names_.size());
    for (const std::string &name : names_) {
        widths_.push_back(rl_width(name));
        widest = std::max(widest, widths_.back());
    }
    const size_t columns = widest >= screen ? 1 : (screen - widest) / (widest + gap) + 1;
    column_width_ = widest + gap;
    rows_ = (names_.size() + columns - 1) / columns;
    screen_rows_ = rows_;
    if (columns == 1)
        for (const size_t name_width : widths_)
            screen_rows_ += name_width > screen ? (name_width - 1) / screen : 0;
}

void rl_columns::append_row(size_t index, std::string &out) const
{
    for (size_t i = index; i < names_.size(); i += rows_) {
        out += names_[i];
        if (i + rows_ < names_.size())
            out.append(column_width_ - widths_[i], ' ');
    }
}
