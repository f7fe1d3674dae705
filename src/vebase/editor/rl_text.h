// Text as the editor handles it: UTF-8 outside, wide characters inside, cells on the screen. Needs rl_set_locale().
#pragma once

#include <string>
#include <string_view>

/// Makes sure that the character functions know UTF-8: the user's LC_CTYPE, else C.UTF-8. Done once.
void rl_set_locale();

/// Wide characters of `text`. A byte that is not UTF-8 becomes 0xdc00 + byte, which rl_narrow turns back, so that no
/// text changes by being edited.
std::wstring rl_widen(std::string_view text);
std::string rl_narrow(std::wstring_view text);
void rl_append_narrow(std::string &out, wchar_t c);
/// Bytes of the UTF-8 form of `text`.
size_t rl_narrow_size(std::wstring_view text);

/// How one character is shown.
struct rl_shown {
    char bytes[16]; ///< UTF-8
    int length;     ///< bytes in use
    int width;      ///< cells; more than length says only for wide characters
    bool spelled;   ///< an escape such as ^X or \u009b: every byte is a cell of its own
};
/// Tabs and line feeds are the caller's.
rl_shown rl_show_character(wchar_t c);
/// Its code point as an escape.
rl_shown rl_spell_character(wchar_t c);

/// `text` with everything that is no plain character in its shown form, line feeds and tabs too.
std::string rl_visible(std::string_view text);
/// Cells that a text without line feeds and tabs takes.
size_t rl_width(std::string_view text);

/// Decodes UTF-8 byte by byte.
class rl_utf8_decoder
{
public:
    /// Takes a byte; appends the characters that it completes to `out` (bad bytes as in rl_widen).
    void feed(unsigned char byte, std::wstring &out);
    /// Appends what is incomplete, as bad bytes.
    void flush(std::wstring &out);
    bool pending() const { return !bytes_.empty(); }

private:
    void take(std::wstring &out);

    std::string bytes_; // an unfinished character
};
