#include "vebase/editor/rl_text.h"

#include <clocale>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <langinfo.h>

#include "base/utf8.h"
#include "base/visible.h"

namespace
{

constexpr wchar_t bad_byte_base = 0xdc00;

bool is_bad_byte(wchar_t c)
{
    return c >= bad_byte_base + 0x80 && c <= bad_byte_base + 0xff;
}

/// Appends the first character or bad byte of `text` to `out`. Returns its bytes.
size_t widen_first(std::string_view text, std::wstring &out)
{
    const utf8_step step = utf8_first(text);
    out.push_back(static_cast<wchar_t>(step.well_formed ? step.code : bad_byte_base + step.code));
    return step.size;
}

} // namespace

void rl_set_locale()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    if (setlocale(LC_CTYPE, "") == nullptr || strcmp(nl_langinfo(CODESET), "UTF-8") != 0)
        setlocale(LC_CTYPE, "C.UTF-8");
}

void rl_utf8_decoder::feed(unsigned char byte, std::wstring &out)
{
    bytes_.push_back(static_cast<char>(byte));
    while (!bytes_.empty() && !utf8_first(bytes_).unfinished)
        take(out);
}

void rl_utf8_decoder::take(std::wstring &out)
{
    bytes_.erase(0, widen_first(bytes_, out));
}

void rl_utf8_decoder::flush(std::wstring &out)
{
    while (!bytes_.empty())
        take(out);
}

std::wstring rl_widen(std::string_view text)
{
    std::wstring out;
    out.reserve(text.size());
    while (!text.empty())
        text.remove_prefix(widen_first(text, out));
    return out;
}

void rl_append_narrow(std::string &out, wchar_t c)
{
    if (is_bad_byte(c))
        out.push_back(static_cast<char>(c & 0xff));
    else
        utf8_append(&out, static_cast<char32_t>(c));
}

std::string rl_narrow(std::wstring_view text)
{
    std::string out;
    out.reserve(text.size());
    for (const wchar_t c : text)
        rl_append_narrow(out, c);
    return out;
}

size_t rl_narrow_size(std::wstring_view text)
{
    size_t size = 0;
    for (const wchar_t c : text)
        size += is_bad_byte(c) ? 1 : utf8_size(static_cast<char32_t>(c));
    return size;
}

rl_shown rl_spell_character(wchar_t c)
{
    rl_shown shown{};
    shown.spelled = true;
    shown.length =
        snprintf(shown.bytes, sizeof shown.bytes, c < 0x10000 ? "\\u%04x" : "\\U%08x", static_cast<unsigned>(c));
    shown.width = shown.length;
    return shown;
}

rl_shown rl_show_character(wchar_t c)
{
    rl_shown shown{};
    shown.spelled = true;
    if (c < 0x20 || c == 0x7f) {
        shown.length = snprintf(shown.bytes, sizeof shown.bytes, "^%c", static_cast<char>(c ^ 0x40));
    } else if (is_bad_byte(c)) {
        shown.length = snprintf(shown.bytes, sizeof shown.bytes, "\\x%02x", static_cast<unsigned>(c & 0xff));
    } else {
        const int width = c < 0x7f ? 1 : is_visible(static_cast<char32_t>(c)) ? wcwidth(c) : -1;
        if (width >= 0) {
            std::string bytes;
            rl_append_narrow(bytes, c);
            memcpy(shown.bytes, bytes.data(), bytes.size());
            shown.length = static_cast<int>(bytes.size());
            shown.width = width;
            shown.spelled = false;
            return shown;
        }
        shown.length =
            snprintf(shown.bytes, sizeof shown.bytes, c < 0x10000 ? "\\u%04x" : "\\U%08x", static_cast<unsigned>(c));
    }
    shown.width = shown.length;
    return shown;
}

std::string rl_visible(std::string_view text)
{
    std::string out;
    for (const wchar_t c : rl_widen(text)) {
        const rl_shown shown = rl_show_character(c);
        out.append(shown.bytes, static_cast<size_t>(shown.length));
    }
    return out;
}

size_t rl_width(std::string_view text)
{
    size_t width = 0;
    bool plain = true;
    for (const char byte : text)
        plain = plain && byte >= 0x20 && byte < 0x7f;
    if (plain)
        return text.size();
    for (const wchar_t c : rl_widen(text))
        width += static_cast<size_t>(rl_show_character(c).width);
    return width;
}
