#include "vebase/editor/rl_text.h"

#include <clocale>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <langinfo.h>

namespace
{

constexpr wchar_t bad_byte_base = 0xdc00;

bool is_bad_byte(wchar_t c)
{
    return c >= bad_byte_base + 0x80 && c <= bad_byte_base + 0xff;
}

/// Characters that show nothing of themselves: joiners, directions, variation selectors. Terminals disagree about their
/// width, and a line must not hide them.
bool is_invisible(wchar_t c)
{
    return c == 0xad || (c >= 0x600 && c <= 0x605) || c == 0x61c || c == 0x6dd || c == 0x70f || c == 0x180e ||
           (c >= 0x200b && c <= 0x200f) || (c >= 0x2028 && c <= 0x202e) || (c >= 0x2060 && c <= 0x206f) ||
           (c >= 0xfe00 && c <= 0xfe0f) || c == 0xfeff || (c >= 0xfff9 && c <= 0xfffb) ||
           (c >= 0x1bca0 && c <= 0x1bca3) || (c >= 0x1d173 && c <= 0x1d17a) || (c >= 0xe0000 && c <= 0xe0fff);
}

unsigned sequence_length(unsigned char lead)
{
    if (lead < 0x80)
        return 1;
    if (lead < 0xc2)
        return 0;
    return lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
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
    if (have_ > 0) {
        // The second byte also decides about overlong forms, surrogates and the end of the range.
        const unsigned char lead = bytes_[0];
        const unsigned char low = have_ > 1 ? 0x80 : lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
        const unsigned char high = have_ > 1 ? 0xbf : lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
        if (byte >= low && byte <= high) {
            bytes_[have_++] = byte;
            if (have_ < need_)
                return;
            wchar_t c = bytes_[0] & (0xff >> (need_ + 1));
            for (unsigned i = 1; i < need_; ++i)
                c = c << 6 | (bytes_[i] & 0x3f);
            have_ = 0;
            out.push_back(c);
            return;
        }
        flush(out);
    }
    need_ = sequence_length(byte);
    if (need_ == 1)
        out.push_back(byte);
    else if (need_ == 0)
        out.push_back(bad_byte_base + byte);
    else
        bytes_[have_++] = byte;
}

void rl_utf8_decoder::flush(std::wstring &out)
{
    for (unsigned i = 0; i < have_; ++i)
        out.push_back(bad_byte_base + bytes_[i]);
    have_ = 0;
}

std::wstring rl_widen(std::string_view text)
{
    std::wstring out;
    out.reserve(text.size());
    rl_utf8_decoder decoder;
    for (const char byte : text)
        decoder.feed(static_cast<unsigned char>(byte), out);
    decoder.flush(out);
    return out;
}

void rl_append_narrow(std::string &out, wchar_t c)
{
    const auto code = static_cast<char32_t>(c);
    const auto put = [&](unsigned byte) { out.push_back(static_cast<char>(byte)); };
    if (code < 0x80) {
        put(code);
    } else if (is_bad_byte(c)) {
        put(code & 0xff);
    } else if (code < 0x800) {
        put(0xc0 | code >> 6);
        put(0x80 | (code & 0x3f));
    } else if (code < 0x10000) {
        put(0xe0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3f));
        put(0x80 | (code & 0x3f));
    } else {
        put(0xf0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3f));
        put(0x80 | (code >> 6 & 0x3f));
        put(0x80 | (code & 0x3f));
    }
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
        size += c < 0x80 || is_bad_byte(c) ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
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
        const int width = c < 0x7f ? 1 : is_invisible(c) ? -1 : wcwidth(c);
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
