#include "base/json_bloat.h"

#include <algorithm>

namespace
{

constexpr size_t depth_max = 2048; // of what is read at all

} // namespace

bool json_text_is_bloated(std::string_view text)
{
    // What Jansson allocates for each, by and large.
    constexpr size_t object_cost = 240;
    constexpr size_t array_cost = 120;
    constexpr size_t string_cost = 80; // names, too
    constexpr size_t element_cost = 40;
    // Written over several lines each element stands behind so many blanks a level. Few levels are usual.
    constexpr size_t indentation_cost = 4;
    constexpr size_t usual_depth = 8;
    const auto indentation = [](size_t depth) { return depth > usual_depth ? depth * indentation_cost : 0; };
    const size_t allowed = std::max(cost_factor * text.size(), cost_allowed);
    // Nothing costs more than an object, which is two bytes, at the greatest depth.
    if (text.size() / 2 * (object_cost + depth_max * indentation_cost) <= allowed)
        return false;
    size_t cost = text.size();
    size_t depth = 0;
    for (size_t at = 0; at < text.size() && cost <= allowed; ++at) {
        switch (text[at]) {
        case '{':
        case '[':
            cost += (text[at] == '{' ? object_cost : array_cost) + indentation(depth);
            ++depth;
            break;
        case '}':
        case ']':
            depth -= depth > 0 ? 1 : 0;
            break;
        case ',':
            cost += element_cost + indentation(depth);
            break;
        case '"':
            cost += string_cost;
            while (++at < text.size() && text[at] != '"')
                at += text[at] == '\\' ? 1 : 0;
            break;
        default:
            break;
        }
    }
    return cost > allowed;
}
