#include "cdpath/dm_path.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

bool dm_path::push(std::string_view name)
{
    const size_t dot = is_root() ? 0 : 1;
    if (text_.size() + dot + name.size() > size_max)
        return false;
    std::string below(name);
    if (dot > 0)
        text_ += '.';
    text_ += below;
    return true;
}

void dm_path::pop()
{
    const size_t dot = text_.rfind('.');
    text_.resize(dot != std::string::npos ? dot : 0);
}

std::string_view dm_path::relative(std::string_view spelled) const
{
    const bool below = !is_root() && spelled.starts_with(text_) && spelled.substr(text_.size()).starts_with('.');
    return below ? spelled.substr(text_.size() + 1) : spelled;
}

std::string_view dm_path::cut_name(std::string_view *rest)
{
    const size_t dot = rest->find('.');
    const std::string_view name = rest->substr(0, dot);
    rest->remove_prefix(std::min(rest->size(), name.size() + 1));
    return name;
}

bool dm_path::is_instance(std::string_view name)
{
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    return error == std::errc() && end == name.data() + name.size() && number > 0;
}
