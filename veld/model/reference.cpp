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

// The path of `pattern`, "Device.X.{i}.Y", in the instances that `name` is in too; empty when these do not say which.
std::string beside(const std::string &name, std::string_view pattern)
{
    std::string path;
    std::string_view own = name;
    bool same = true; // up to here
    while (!pattern.empty()) {
        std::string_view wanted = pattern.substr(0, pattern.find('.'));
        const std::string_view mine = own.substr(0, own.find('.'));
        pattern.remove_prefix(std::min(wanted.size() + 1, pattern.size()));
        own.remove_prefix(std::min(mine.size() + 1, own.size()));
        if (wanted == "{i}" && !same)
            return "";
        if (wanted == "{i}")
            wanted = mine;
        same = same && wanted == mine;
        path += (path.empty() ? "" : ".") + std::string(wanted);
    }
    return path;
}

std::string values_problem(tree *in, const node *at, json_t *value)
{
    const value_rules &rules = *at->what->rules;
    const std::string path = beside(tree::name(at), rules.values_of);
    const place found = path.empty() ? place{} : in->find(path);
    const std::string_view text{json_string_value(value), json_string_length(value)};
    if (!found || found.at->what != found.what || found.what->kind != node_kind::parameter ||
        (rules.null_value && *rules.null_value == text) || json_equal(at->what->initial.get(), value) != 0)
        return "";
    const json_ref listing = in->value(found.at);
    const std::vector<std::string_view> known =
        list_items({json_string_value(listing.get()), json_string_length(listing.get())});
    if (known.empty()) {
        json_ref kept;
        return value_check(*found.what, value, &kept) ? "must be something that " + path + " could list" : "";
    }
    for (const std::string_view one : rules.of_items ? list_items(text) : std::vector<std::string_view>{text})
        if (std::find(known.begin(), known.end(), one) == known.end())
            return "must be among what " + path + " lists";
    return "";
}

} // namespace

std::string reference_problem(tree *in, role who, const node *at, json_t *value)
{
    const scheme &what = *at->what;
    if (what.rules && !what.rules->values_of.empty())
        return values_problem(in, at, value);
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
