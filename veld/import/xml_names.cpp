#include "veld/import/xml_names.h"

#include <algorithm>

namespace veld
{

namespace
{

constexpr std::string_view blanks = " \t\r\n";

std::string_view prefix_of(std::string_view name)
{
    size_t colon = name.find(':');
    return colon == std::string_view::npos ? std::string_view{} : name.substr(0, colon);
}

} // namespace

std::string xml_token(std::string_view text)
{
    std::string out;
    for (size_t at = text.find_first_not_of(blanks); at != std::string_view::npos;) {
        size_t end = std::min(text.find_first_of(blanks, at), text.size());
        out += (out.empty() ? "" : " ") + std::string(text.substr(at, end - at));
        at = text.find_first_not_of(blanks, end);
    }
    return out;
}

std::string xml_unindented(std::string_view text)
{
    std::vector<std::string_view> lines;
    size_t common = std::string_view::npos;
    while (!text.empty()) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        size_t last = line.find_last_not_of(blanks);
        line = line.substr(0, last == std::string_view::npos ? 0 : last + 1);
        // The first line begins right behind the tag as a rule, where no indentation is.
        if (!line.empty() && !(lines.empty() && line.find_first_of(blanks) != 0))
            common = std::min(common, line.find_first_not_of(blanks));
        lines.push_back(line);
    }
    std::string out;
    for (std::string_view line : lines) {
        line.remove_prefix(std::min({common, line.size(), std::min(line.find_first_not_of(blanks), line.size())}));
        out.append(line) += '\n';
    }
    size_t first = out.find_first_not_of('\n');
    return first == std::string::npos ? "" : out.substr(first, out.find_last_not_of('\n') + 1 - first);
}

void xml_names::open(const char **attributes)
{
    depth_++;
    for (const char **at = attributes; at[0] != nullptr; at += 2) {
        std::string_view name = at[0];
        if (name == "xmlns")
            declared_.push_back({depth_, "", at[1]});
        else if (name.starts_with("xmlns:"))
            declared_.push_back({depth_, std::string(name.substr(6)), at[1]});
    }
}

void xml_names::close()
{
    while (!declared_.empty() && declared_.back().depth == depth_)
        declared_.pop_back();
    depth_--;
}

const xml_names::declaration *xml_names::find(std::string_view prefix) const
{
    auto found = std::find_if(declared_.rbegin(), declared_.rend(),
                              [&](const declaration &one) { return one.prefix == prefix; });
    return found == declared_.rend() ? nullptr : &*found;
}

std::optional<std::string_view> xml_names::space_of(std::string_view name) const
{
    const declaration *found = find(prefix_of(name));
    return found != nullptr ? std::optional<std::string_view>(found->space) : std::nullopt;
}

std::optional<std::string_view> xml_names::local_name(std::string_view name) const
{
    std::string_view prefix = prefix_of(name);
    std::optional<std::string_view> space = space_of(name);
    if (space ? !space->empty() && !space->starts_with(document_namespace) : !prefix.empty())
        return std::nullopt;
    return prefix.empty() ? name : name.substr(prefix.size() + 1);
}

std::optional<std::string> xml_names::undeclared(std::string_view name)
{
    std::string_view prefix = prefix_of(name);
    if (prefix.empty() || prefix == "xml" || prefix == "xmlns" || find(prefix) != nullptr ||
        reported_.count(prefix) != 0)
        return std::nullopt;
    return *reported_.emplace(prefix).first;
}

} // namespace veld
