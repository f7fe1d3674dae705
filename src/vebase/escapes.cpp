#include "vebase/escapes.h"

#include <algorithm>

size_t escape_size(std::string_view text)
{
    const char kind = text.size() > 1 ? text[1] : '\0';
    size_t last = 0;
    if (kind == '[') {
        last = 2;
        while (last < text.size() && (text[last] < 0x40 || text[last] > 0x7e))
            ++last;
    } else if (kind != '\0' && std::string_view("]PX^_").find(kind) != std::string_view::npos) {
        // A text for the terminal, such as the title of its window: up to BEL or ESC "\".
        last = text.find_first_of("\a\033", 2);
        if (last != std::string_view::npos && text[last] == '\033')
            ++last;
    } else {
        last = text.find_first_not_of(" !\"#$%&'()*+,-./", 1);
    }
    return std::min(last, text.size() - 1) + 1;
}
