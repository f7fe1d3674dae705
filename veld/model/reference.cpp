#include "veld/model/reference.h"

#include "veld/model/check.h"

#include <algorithm>

namespace veld
{

namespace
{

// "Device.X.{i}.Y."
std::string scheme_path(const scheme *of)
{
    if (of->parent == nullptr)
        return "";
    return scheme_path(of->parent) + (of->name.empty() ? "{i}" : of->name) + ".";
}

bool is_of_kind(const node *found, std::string_view wanted)
{
    if (wanted == "row")
        return found->is_instance();
    if (wanted == "table")
        return found->what->kind == node_kind::table;
    if (wanted == "single")
        return found->what->kind == node_kind::object && !found->is_instance();
    if (wanted == "parameter")
        return found->what->kind == node_kind::parameter;
    return wanted.empty() || found->what->is_object();
}

std::string path_problem(tree *in, role who, const value_rules &rules, std::string_view path)
{
    const place found = in->find(path);
    if (!found || found.at->what != found.what || found.what->parent == nullptr || who < found.what->reach)
        return "leads to nothing that is there: " + std::string(path);
    const auto &parents = rules.parents;
    if (is_of_kind(found.at, rules.target) &&
        (parents.empty() ||
         std::find(parents.begin(), parents.end(), scheme_path(found.what->parent)) != parents.end()))
        return "";
    std::string wanted = "must lead to " + (rules.target.empty() ? "something" : "a " + rules.target);
    for (const std::string &parent : parents)
        wanted += (&parent == parents.data() ? " in " : " or ") + parent;
    return wanted;
}

} // namespace

std::string reference_problem(tree *in, role who, const scheme &what, const json_t *value)
{
    if (!what.rules || !what.rules->leads)
        return "";
    const std::string_view text{json_string_value(value), json_string_length(value)};
    const std::vector<std::string_view> paths =
        what.type == value_type::path ? std::vector<std::string_view>{text} : list_items(text);
    for (const std::string_view path : paths) {
        std::string problem = path.empty() ? "" : path_problem(in, who, *what.rules, path);
        if (!problem.empty())
            return problem;
    }
    return "";
}

} // namespace veld
