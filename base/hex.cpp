#include "base/hex.h"

#include <sys/random.h>

std::string hex_of(const unsigned char *bytes, size_t count)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * count);
    for (size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

std::string random_hex(size_t count)
{
    unsigned char bytes[64];
    if (count > sizeof bytes || getrandom(bytes, count, 0) != static_cast<ssize_t>(count))
        return {};
    return hex_of(bytes, count);
}
