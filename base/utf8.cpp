#include "base/utf8.h"

#include <algorithm>

namespace
{

constexpr size_t size_max = 4;

} // namespace

utf8_step utf8_last(std::string_view text)
{
    for (size_t size = std::min(text.size(), size_max); size > 0; --size) {
        const utf8_step step = utf8_first(text.substr(text.size() - size));
        if (step.size == size)
            return step;
    }
    return {};
}

bool utf8_valid(std::string_view text)
{
    while (!text.empty()) {
        const utf8_step step = utf8_first(text);
        if (!step.well_formed)
            return false;
        text.remove_prefix(step.size);
    }
    return true;
}

size_t utf8_cut(std::string_view text, size_t most)
{
    if (most >= text.size())
        return text.size();
    for (size_t before = 1; before < size_max && before <= most; ++before)
        if (utf8_first(text.substr(most - before)).size > before)
            return most - before;
    return most;
}

void utf8_append(std::string *out, char32_t code)
{
    const size_t size = utf8_size(code);
    if (size == 1) {
        out->push_back(static_cast<char>(code));
        return;
    }
    out->push_back(static_cast<char>((0xf00U >> size & 0xffU) | code >> 6 * (size - 1)));
    for (size_t i = size - 1; i > 0; --i)
        out->push_back(static_cast<char>(0x80 | (code >> 6 * (i - 1) & 0x3f)));
}
