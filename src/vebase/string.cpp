#include "base/number.h"
#include "platform/ve_string.h"

#include <cmath>

namespace
{

template <class T> int convert(const char *text, int base, T *out)
{
    if (text == nullptr)
        return -1;
    const std::optional<T> value = number_of<T>(text, base);
    *out = value.value_or(*out);
    return value ? 0 : -1;
}

/// People type it.
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
    const std::optional<double> value = number_of<double>(text);
    if (!value || !std::isfinite(*value))
        return -1;
    *out = *value;
    return 0;
}
