#include "platform/ve_string.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace
{

template <class T> int convert(const char *text, int base, T *out)
{
    if (text == nullptr)
        return -1;
    const char *end = text + strlen(text);
    T value{};
    const auto [stop, error] = std::from_chars(text, end, value, base);
    if (error != std::errc{} || stop != end || stop == text)
        return -1;
    *out = value;
    return 0;
}

/// from_chars takes no "+"; people type it.
const char *without_plus(const char *text)
{
    return text != nullptr && text[0] == '+' && text[1] != '-' && text[1] != '+' ? text + 1 : text;
}

} // namespace

int ve_string_strtoul(const char *text, int base, uint32_t *out)
{
    return convert(text, base, out);
}

int ve_string_strtol(const char *text, int base, int32_t *out)
{
    return convert(without_plus(text), base, out);
}

int ve_string_strtod(const char *text, double *out)
{
    text = without_plus(text);
    if (text == nullptr)
        return -1;
    const char *end = text + strlen(text);
    double value = 0;
    const auto [stop, error] = std::from_chars(text, end, value);
    if (error != std::errc{} || stop != end || stop == text || !std::isfinite(value))
        return -1;
    *out = value;
    return 0;
}

bool ve_string_is_utf8(const char *text)
{
    const auto *at = reinterpret_cast<const unsigned char *>(text);
    while (*at != 0) {
        unsigned following;
        uint32_t code;
        if (*at < 0x80) {
            ++at;
            continue;
        }
        if (*at >= 0xc2 && *at < 0xe0) {
            following = 1;
            code = *at & 0x1fU;
        } else if (*at >= 0xe0 && *at < 0xf0) {
            following = 2;
            code = *at & 0x0fU;
        } else if (*at >= 0xf0 && *at < 0xf5) {
            following = 3;
            code = *at & 0x07U;
        } else {
            return false;
        }
        ++at;
        for (unsigned i = 0; i < following; ++i, ++at) {
            if ((*at & 0xc0U) != 0x80)
                return false;
            code = code << 6 | (*at & 0x3fU);
        }
        const bool overlong = (following == 2 && code < 0x800) || (following == 3 && code < 0x10000);
        if (overlong || code > 0x10ffff || (code >= 0xd800 && code < 0xe000))
            return false;
    }
    return true;
}
