#include "veld/base/value_size.h"

namespace veld
{

size_t size_as_values(std::string_view json)
{
    constexpr size_t object = 240;
    constexpr size_t array = 128;
    constexpr size_t entry = 8; // a place in an array
    constexpr size_t member = 80;
    constexpr size_t number = 32;
    constexpr size_t text = 48; // and its bytes
    size_t size = 0;
    size_t began = 0;
    bool in_text = false;
    bool in_number = false;
    for (size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (in_text) {
            if (c == '\\')
                ++i;
            in_text = c != '"';
            size += in_text ? 0 : text + ((i - began + 23) & ~size_t{15});
            continue;
        }
        const bool digit = (c >= '0' && c <= '9') || c == '-';
        size += digit && !in_number ? number : 0;
        in_number = digit || (in_number && (c == '.' || c == 'e' || c == 'E' || c == '+'));
        switch (c) {
        case '"':
            in_text = true;
            began = i;
            break;
        case '{':
            size += object;
            break;
        case '[':
            size += array;
            break;
        case ',':
            size += entry;
            break;
        case ':':
            size += member;
            break;
        default:
            break;
        }
    }
    return size;
}

} // namespace veld
