#include "base/visible.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "base/utf8.h"

namespace
{

struct code_range {
    char32_t first;
    char32_t last;
};

/// In rising order.
constexpr code_range invisible[] = {
    {0, 0x1f},          {0x7f, 0x9f},       {0xad, 0xad},       {0x34f, 0x34f},     {0x600, 0x605},
    {0x61c, 0x61c},     {0x6dd, 0x6dd},     {0x70f, 0x70f},     {0x890, 0x891},     {0x8e2, 0x8e2},
    {0x115f, 0x1160},   {0x17b4, 0x17b5},   {0x180b, 0x180f},   {0x200b, 0x200f},   {0x2028, 0x202e},
    {0x2060, 0x206f},   {0x3164, 0x3164},   {0xfe00, 0xfe0f},   {0xfeff, 0xfeff},   {0xffa0, 0xffa0},
    {0xfff0, 0xfffb},   {0x110bd, 0x110bd}, {0x110cd, 0x110cd}, {0x13430, 0x1343f}, {0x1bca0, 0x1bca3},
    {0x1d173, 0x1d17a}, {0xe0000, 0xe0fff},
};

bool plain_ascii(char byte)
{
    return byte >= 0x20 && byte < 0x7f;
}

} // namespace

bool is_visible(char32_t code)
{
    const auto *range = std::lower_bound(std::begin(invisible), std::end(invisible), code,
                                         [](const code_range &each, char32_t wanted) { return each.last < wanted; });
    return range == std::end(invisible) || code < range->first;
}

std::string escape_of(char32_t code)
{
    char escape[16];
    snprintf(escape, sizeof escape,
             code < 0x80      ? "\\x%02x"
             : code < 0x10000 ? "\\u%04x"
                              : "\\U%08x",
             static_cast<unsigned>(code));
    return escape;
}

std::string escape_of_byte(unsigned char byte)
{
    char escape[8];
    snprintf(escape, sizeof escape, "\\x%02x", byte);
    return escape;
}

std::string visible(std::string_view text, std::string_view kept)
{
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        // Most of nearly every text.
        const auto *end = std::find_if_not(text.begin(), text.end(), plain_ascii);
        shown.append(text.begin(), end);
        text.remove_prefix(static_cast<size_t>(end - text.begin()));
        const utf8_step step = utf8_first(text);
        if (step.size == 0)
            break;
        if (!step.well_formed)
            shown += escape_of_byte(static_cast<unsigned char>(step.code));
        else if (is_visible(step.code) || (step.size == 1 && kept.find(text[0]) != std::string_view::npos))
            shown.append(text, 0, step.size);
        else
            shown += escape_of(step.code);
        text.remove_prefix(step.size);
    }
    return shown;
}
