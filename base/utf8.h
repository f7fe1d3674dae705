// UTF-8, one step at a time. Well-formed is what the standard calls so: no surrogates, nothing longer than it need be,
// nothing behind U+10FFFF. A byte that is no part of a well-formed character is a step of its own.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

struct utf8_step {
    size_t size = 0;          ///< bytes that it takes: 1 to 4, 0 where the text is empty
    char32_t code = 0;        ///< the character, or the byte that is none
    bool well_formed = false; ///< it is a character
    bool unfinished = false;  ///< it is none, but further bytes behind the text would make it one
};

/// The first step of `text`.
inline utf8_step utf8_first(std::string_view text)
{
    if (text.empty())
        return {};
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80)
        return {.size = 1, .code = lead, .well_formed = true};
    const size_t size = lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    char32_t code = lead & (0x7fU >> size);
    for (size_t i = 1; i < size; ++i) {
        if (i == text.size())
            return {.size = 1, .code = lead, .unfinished = true};
        // The second byte also decides about overlong forms, surrogates and the end of the range.
        const unsigned low = i > 1 ? 0x80 : lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
        const unsigned high = i > 1 ? 0xbf : lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
        if (byte(i) < low || byte(i) > high)
            return {.size = 1, .code = lead};
        code = code << 6 | (byte(i) & 0x3fU);
    }
    return size == 0 ? utf8_step{.size = 1, .code = lead} : utf8_step{.size = size, .code = code, .well_formed = true};
}

/// The last step of `text`: what going forward from its beginning would end with.
utf8_step utf8_last(std::string_view text);

/// Whether `text` holds well-formed characters alone.
bool utf8_valid(std::string_view text);

/// The length of the longest part of `text` from its beginning that takes at most `most` bytes and ends between steps.
size_t utf8_cut(std::string_view text, size_t most);

/// Bytes that a character takes.
constexpr size_t utf8_size(char32_t code)
{
    return code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
}

/// Appends a character.
void utf8_append(std::string *out, char32_t code);
