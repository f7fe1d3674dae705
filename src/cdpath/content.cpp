#include <cstring>
#include <string>
#include <string_view>

#include "cdpath/cdpath.h"
#include "event/request.h"
#include "platform/ve_json.h"
#include "platform/ve_tr.h"

namespace
{

/// Appends ":" (absolute), the prefix and "." (when there is one), the name, and "." (dot).
void cdpath_list_add(json_t *list, std::string_view name, const char *prefix, bool absolute, bool dot)
{
    dot = dot && !name.ends_with('.');
    if (!absolute && prefix == nullptr && !dot) {
        json_array_append_new(list, json_stringn(name.data(), name.size()));
        return;
    }
    std::string item;
    item.reserve(name.size() + 2 + (prefix != nullptr ? strlen(prefix) + 1 : 0));
    if (absolute)
        item += ':';
    if (prefix != nullptr)
        item.append(prefix).append(1, '.');
    item += name;
    if (dot)
        item += '.';
    json_array_append_new(list, json_stringn(item.data(), item.size()));
}

/// Whether nodes have a type, asked for one node after another: neighbours mostly share their attributes.
class typed_reader
{
public:
    bool operator()(const json_t *node)
    {
        const json_t *attributes = ve_tr_dm_node_attr_get(node);
        if (attributes == nullptr || attributes != last_) {
            last_ = attributes;
            typed_ = ve_tr_dm_node_type_get(node) != ve_tr_object;
        }
        return typed_;
    }

private:
    const json_t *last_ = nullptr;
    bool typed_ = false;
};

/// The children as the cache holds them.
json_t *list_cached(const cdpath *record, const char *text, unsigned flags)
{
    const bool filtering = (flags & CDPATH_FILTER_PREFIX) != 0 && text != nullptr;
    const char *prefix = (flags & CDPATH_FILTER_PREFIX) != 0 ? nullptr : text;
    const size_t filter_size = filtering ? strlen(text) : 0;
    typed_reader is_typed;
    json_t *list = json_array();
    const char *key;
    json_t *child;
    json_object_foreach(record->node, key, child)
    {
        if (*key == '#' || (filtering && strncmp(key, text, filter_size) != 0))
            continue;
        const bool typed = is_typed(child);
        if (typed && (flags & CDPATH_OBJECTS_ONLY) != 0)
            continue;
        cdpath_list_add(list, key, prefix, (flags & CDPATH_ABSOLUTE) != 0, !typed && (flags & CDPATH_OBJECT_DOT) != 0);
    }
    return list;
}

/// "max_instance" and "order" for a word that is no instance; null when it begins neither.
json_t *list_own_parameters(const char *text, unsigned flags)
{
    json_ref list;
    for (const char *name : {"max_instance", "order"}) {
        if (strncmp(name, text, strlen(text)) != 0)
            continue;
        if (!list)
            list.reset(json_array());
        cdpath_list_add(list.get(), name, nullptr, (flags & CDPATH_ABSOLUTE) != 0, false);
    }
    return list.release();
}

/// `name` without the object's path in front and the final dot.
std::string_view relative_name(std::string_view name, std::string_view object)
{
    if (name.starts_with(object))
        name.remove_prefix(object.size());
    if (name.ends_with('.'))
        name.remove_suffix(1);
    return name;
}

} // namespace

json_t *cdpath_content_fast(cdpath *record, const char *text, unsigned flags)
{
    if (!json_is_true(json_object_get(record->node, "#fetched")))
        cdpath_fetch(record);
    return list_cached(record, text, flags);
}

json_t *cdpath_content(cdpath *record, const char *text, unsigned flags)
{
    if (record->is_multi == 0)
        return list_cached(record, text, flags);

    const char *dot = strrchr(record->path, '.');
    const bool typed = ve_tr_dm_node_type_get(json_object_get(record->node, "#template")) != ve_tr_object;
    if (strcmp(dot != nullptr ? dot + 1 : record->path, "max_instance") == 0 ||
        (typed && (flags & CDPATH_OBJECTS_ONLY) != 0))
        return nullptr;

    const bool filtering = (flags & CDPATH_FILTER_PREFIX) != 0 && text != nullptr;
    if (filtering && *text != '\0' && *text != '[' && !ve_tr_str_is_instance(text))
        return list_own_parameters(text, flags);

    const bool ordered = record->is_ordered != 0;
    std::string object(record->path);
    object += '.';
    msg_ref message(ve_jrpcmsg_cmd_get_parameter_names(object.c_str(), 1));
    msg_exec(message.get(), -1);
    if (ve_jrpcmsg_result(message.get()) == nullptr)
        return nullptr;

    const std::string_view filter = filtering ? text : "";
    const char *prefix = (flags & CDPATH_FILTER_PREFIX) != 0 ? nullptr : text;
    json_t *list = json_array();
    size_t index;
    json_t *entry;
    json_array_foreach(ve_jrpcmsg_parameter_list(message.get()), index, entry)
    {
        const json_t *text_of_name = json_object_get(entry, "Name");
        if (!json_is_string(text_of_name))
            continue;
        const std::string_view name =
            relative_name(std::string_view(json_string_value(text_of_name), json_string_length(text_of_name)), object);
        const bool maximum = name == "max_instance";
        const bool order = name == "order";
        if (name.empty() || !name.starts_with(filter) || ((maximum || order) && (flags & CDPATH_OBJECTS_ONLY) != 0))
            continue;
        const bool dotted = (flags & CDPATH_OBJECT_DOT) != 0 && !typed && !maximum && !(ordered && order);
        cdpath_list_add(list, name, prefix, (flags & CDPATH_ABSOLUTE) != 0, dotted);
    }
    return list;
}

json_t *cdpath_get_input(cdpath *record)
{
    if (ve_tr_dm_node_type_get(record->node) != ve_tr_method)
        return nullptr;
    std::string method(record->path);
    msg_ref message(ve_jrpcmsg_cmd_get_parameter_attributes_new(nullptr));
    {
        const std::string name = method + (ve_tr_path_is_full(method.c_str()) ? "." : "");
        ve_jrpcmsg_cmd_get_parameter_attributes_add(message.get(), name.c_str());
    }
    msg_exec(message.get(), -1);

    const json_ref inputs{json_array()};
    size_t index;
    json_t *entry;
    json_array_foreach(ve_jrpcmsg_parameter_list(message.get()), index, entry)
    {
        const json_t *direction = json_object_get(json_object_get(entry, "Attributes"), "Direction");
        if (json_is_string(direction) && strcmp(json_string_value(direction), "input") == 0)
            json_array_append(inputs.get(), entry);
    }
    const json_ref tree{ve_tr_names_to_config(inputs.get(), nullptr)};
    json_ref input = json_ref::share(ve_tr_node_find_path_config(tree.get(), method.c_str()));
    cdpath_info_to_attr(input.get());
    return input.release();
}
