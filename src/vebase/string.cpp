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
