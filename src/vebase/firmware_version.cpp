#include <algorithm>
#include <climits>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/ve_fs.h"

namespace
{

struct version {
    std::string_view product;
    std::vector<std::string_view> parts; // digits without leading zeros
};

std::optional<version> read_version(const char *text)
{
    if (text == nullptr)
        return std::nullopt;
    version result;
    std::string_view numbers(text);
    if (const size_t dash = numbers.rfind('-'); dash != std::string_view::npos) {
        result.product = numbers.substr(0, dash);
        numbers.remove_prefix(dash + 1);
    }
    for (;;) {
        const size_t dot = numbers.find('.');
        std::string_view part = numbers.substr(0, dot);
        if (part.empty() || part.find_first_not_of("0123456789") != std::string_view::npos)
            return std::nullopt;
        part.remove_prefix(std::min(part.find_first_not_of('0'), part.size()));
        result.parts.push_back(part);
        if (dot == std::string_view::npos)
            break;
        numbers.remove_prefix(dot + 1);
    }
    if (result.parts.size() < 3)
        return std::nullopt;
    return result;
}

/// Digits of any length without leading zeros, as numbers.
int compare(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return a.size() < b.size() ? -1 : 1;
    const int order = a.compare(b);
    return (order > 0) - (order < 0);
}

} // namespace

int ve_firmware_version_cmp(const char *current, const char *next)
{
    const std::optional<version> from = read_version(current);
    const std::optional<version> to = read_version(next);
    if (!from || !to)
        return ve_firmware_version_unreadable;
    int result = 0;
    for (size_t i = 0; result == 0 && i < std::max(from->parts.size(), to->parts.size()); ++i) {
        const auto part = [i](const version &v) { return i < v.parts.size() ? v.parts[i] : std::string_view(); };
        const int weight = i == 0 ? 3 : i == 1 ? 2 : 1;
        result = weight * compare(part(*to), part(*from));
    }
    if (from->product != to->product)
        return result < 0 ? -INT_MAX : INT_MAX;
    return result;
}
