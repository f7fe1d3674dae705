#include "veld/model/scheme_rules.h"

#include <algorithm>
#include <iterator>

namespace veld
{

namespace
{

constexpr std::string_view target_types[] = {"row", "table", "object", "single", "parameter"};

std::string quoted(std::string_view key)
{
    return "\"" + std::string(key) + "\"";
}

bool end_load(const json_t *value, std::optional<int64_t> *out)
{
    if (json_is_integer(value))
        *out = json_integer_value(value);
    return json_is_integer(value) || json_is_null(value);
}

bool alternative_load(const json_t *source, alternative *out)
{
    const size_t count = json_array_size(source);
    if (count < 2 || count > 3 || !end_load(json_array_get(source, 0), &out->low) ||
        !end_load(json_array_get(source, 1), &out->high))
        return false;
    if (count == 3)
        out->step = json_integer_value(json_array_get(source, 2));
    return out->step >= 1;
}

std::string alternatives_load(json_t *source, const char *key, alternatives *out)
{
    const json_t *list = json_object_get(source, key);
    if (list == nullptr)
        return "";
    bool fits = json_array_size(list) > 0;
    for (size_t i = 0; fits && i < json_array_size(list); ++i)
        fits = alternative_load(json_array_get(list, i), &out->emplace_back());
    return fits ? "" : quoted(key) + " must be an array of [low, high] or [low, high, step]";
}

std::string targets_load(json_t *source, value_rules *into)
{
    const json_t *list = json_object_get(source, "targets");
    const json_t *type = json_object_get(source, "targetType");
    if (type != nullptr) {
        into->target = json_is_string(type) ? json_string_value(type) : "";
        if (std::find(std::begin(target_types), std::end(target_types), into->target) == std::end(target_types))
            return "\"targetType\" must be \"row\", \"table\", \"object\", \"single\" or \"parameter\"";
    }
    if (list == nullptr)
        return type == nullptr ? "" : "\"targetType\" without \"targets\"";
    into->leads = true;
    for (size_t i = 0; i < json_array_size(list); ++i) {
        const char *parent = json_string_value(json_array_get(list, i));
        if (parent == nullptr || !std::string_view(parent).ends_with('.'))
            return "\"targets\" must be an array of paths of objects";
        into->parents.emplace_back(parent);
    }
    return json_is_array(list) ? "" : "\"targets\" must be an array of paths of objects";
}

std::string values_load(json_t *source, value_rules *into)
{
    const json_t *items = json_object_get(source, "itemsOf");
    const json_t *path = items != nullptr ? items : json_object_get(source, "valuesOf");
    const json_t *beside = json_object_get(source, "nullValue");
    into->of_items = items != nullptr;
    if (path != nullptr)
        into->values_of = json_is_string(path) ? json_string_value(path) : "";
    if (path != nullptr && (into->values_of.empty() || into->values_of.ends_with('.')))
        return quoted(into->of_items ? "itemsOf" : "valuesOf") + " must be the path of a parameter";
    if (beside == nullptr)
        return "";
    if (path == nullptr || !json_is_string(beside))
        return path == nullptr ? "\"nullValue\" without \"valuesOf\" or \"itemsOf\"" : "\"nullValue\" must be a text";
    into->null_value.emplace(json_string_value(beside), json_string_length(beside));
    return "";
}

std::string place_load(const json_t *name, const scheme &element, uint32_t *out)
{
    const int at = json_is_string(name) ? element.find(json_string_value(name)) : -1;
    if (at < 0 || element.children[static_cast<size_t>(at)]->kind != node_kind::parameter)
        return "\"keys\" names no parameter of the template";
    *out = static_cast<uint32_t>(at);
    return "";
}

std::string key_load(const json_t *source, const scheme &element, table_key *out)
{
    const json_t *names = json_object_get(source, "parameters");
    const json_t *enable = json_object_get(source, "enable");
    if (json_array_size(names) == 0 || json_object_size(source) != (enable == nullptr ? 1U : 2U))
        return "\"keys\" must be an array of {\"parameters\": [...]}, perhaps with \"enable\"";
    for (size_t i = 0; i < json_array_size(names); ++i) {
        std::string problem = place_load(json_array_get(names, i), element, &out->parameters.emplace_back());
        if (!problem.empty())
            return problem;
    }
    return enable == nullptr ? "" : place_load(enable, element, &out->enable.emplace());
}

} // namespace

std::string rules_load(json_t *source, scheme *into)
{
    const bool integer = into->type == value_type::int32 || into->type == value_type::uint32 ||
                         into->type == value_type::int64 || into->type == value_type::uint64;
    value_rules rules;
    std::string problem = alternatives_load(source, "ranges", &rules.ranges);
    if (problem.empty())
        problem = alternatives_load(source, "lengths", &rules.lengths);
    if (problem.empty())
        problem = alternatives_load(source, "itemRanges", &rules.item_ranges);
    if (problem.empty())
        problem = alternatives_load(source, "itemLengths", &rules.item_lengths);
    if (problem.empty())
        problem = targets_load(source, &rules);
    if (problem.empty())
        problem = values_load(source, &rules);
    if (!problem.empty())
        return problem;
    if (!rules.ranges.empty() && !integer && into->type != value_type::decimal)
        return "\"ranges\" belongs to a number";
    if (rules.leads && into->type != value_type::path && into->type != value_type::string)
        return "\"targets\" belongs to a path, or to a list of paths";
    if (!rules.values_of.empty() && into->type != value_type::string)
        return quoted(rules.of_items ? "itemsOf" : "valuesOf") + " belongs to a text";
    if (!rules.ranges.empty() || !rules.lengths.empty() || !rules.item_ranges.empty() || !rules.item_lengths.empty() ||
        rules.leads || !rules.values_of.empty())
        into->rules = std::make_unique<value_rules>(std::move(rules));
    return "";
}

std::string keys_load(json_t *source, scheme *into)
{
    const json_t *list = json_object_get(source, "keys");
    if (list != nullptr && (!json_is_array(list) || !into->element->is_object()))
        return "\"keys\" must be an array, of a table of objects";
    for (size_t i = 0; i < json_array_size(list); ++i) {
        std::string problem = key_load(json_array_get(list, i), *into->element, &into->keys.emplace_back());
        if (!problem.empty())
            return problem;
    }
    return "";
}

} // namespace veld
