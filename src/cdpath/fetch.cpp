#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "cdpath/cdpath.h"
#include "event/request.h"
#include "platform/ve_json.h"
#include "platform/ve_tr.h"

namespace
{

/// The record's path as the daemon spells objects.
std::string object_path(const cdpath *record)
{
    std::string path = record->path;
    if (path.empty() || ve_tr_path_is_full(path.c_str()))
        path += '.';
    return path;
}

/// The names of an answer's entries, in order.
json_t *names_of(const ve_jrpcmsg *message)
{
    json_t *names = json_array();
    size_t index;
    json_t *entry;
    json_array_foreach(ve_jrpcmsg_parameter_list(message), index, entry)
    {
        json_t *name = json_object_get(entry, "Name");
        if (json_is_string(name))
            json_array_append(names, name);
    }
    return names;
}

/// Asks for the instances of a multi-instance object and what stands directly below them; a new tree of them, or null
/// when no answer came.
json_t *fetch_instances(const char *base)
{
    msg_ref names(ve_jrpcmsg_cmd_get_parameter_names(base, 1));
    if (msg_exec(names.get(), -1) < 0)
        return nullptr;
    // Without a "Depth": an instance comes with its direct children.
    msg_ref attributes(ve_jrpcmsg_cmd_get_parameter_attributes_new(names_of(names.get())));
    if (msg_exec(attributes.get(), -1) < 0)
        return nullptr;
    return ve_tr_names_to_config(ve_jrpcmsg_parameter_list(attributes.get()), base);
}

/// After a reconnect replaced the cache: lets the record stand in the new one, as far as that is known there already.
void enter_new_cache(cdpath *record)
{
    json_ref parents{json_array()};
    json_t *node = dm;
    const std::string path = record->path;
    for (size_t from = 0; from < path.size();) {
        const size_t dot = std::min(path.find('.', from), path.size());
        const std::string name = path.substr(from, dot - from);
        json_t *child = json_object_get(node, name.c_str());
        if (child == nullptr && ve_tr_str_is_instance(name.c_str()))
            child = json_object_get(node, "#template");
        if (child == nullptr)
            return;
        json_array_insert(parents.get(), 0, node);
        node = child;
        from = dot + 1;
    }
    if (node == record->node)
        return;
    json_decref(std::exchange(record->node, json_incref(node)));
    json_decref(std::exchange(record->parents, parents.release()));
}

/// Whether both hold the same, members in the same order: what one daemon says of two instances.
bool is_alike(json_t *one, json_t *other)
{
    if (one == other)
        return true;
    if (one == nullptr || other == nullptr || json_typeof(one) != json_typeof(other))
        return false;
    switch (json_typeof(one)) {
    case JSON_OBJECT: {
        void *a = json_object_iter(one);
        void *b = json_object_iter(other);
        for (; a != nullptr && b != nullptr; a = json_object_iter_next(one, a), b = json_object_iter_next(other, b)) {
            if (strcmp(json_object_iter_key(a), json_object_iter_key(b)) != 0 ||
                !is_alike(json_object_iter_value(a), json_object_iter_value(b)))
                return false;
        }
        return a == b;
    }
    case JSON_STRING:
        return json_string_length(one) == json_string_length(other) &&
               memcmp(json_string_value(one), json_string_value(other), json_string_length(one)) == 0;
    case JSON_INTEGER:
        return json_integer_value(one) == json_integer_value(other);
    default:
        return json_equal(one, other) != 0;
    }
}

/// A node that holds its attributes alone.
bool is_plain(const json_t *node)
{
    return json_object_size(node) == 1 && ve_tr_dm_node_attr_get(node) != nullptr;
}

/// What the instances of a table may refer to in common: the plain children of `model`, which stands for every
/// instance, that are no objects. A new object.
json_t *shared_children(json_t *model)
{
    json_t *shared = json_object();
    const char *key;
    json_t *child;
    json_object_foreach(model, key, child)
    {
        if (*key != '#' && is_plain(child) && ve_tr_dm_node_type_get(child) != ve_tr_object)
            json_object_set_new(shared, key, json_copy(child));
    }
    return shared;
}

void share_attributes(json_t *node, const json_t *model)
{
    json_t *attr = json_object_get(model, "#attr");
    if (attr != nullptr && is_alike(json_object_get(node, "#attr"), attr))
        json_object_set(node, "#attr", attr);
}

/// Lets an instance refer to what it holds like `model`: the attributes, and whole children out of `shared`. A table
/// of thousands of rows costs a fraction of the memory so.
void share_alike(json_t *instance, json_t *model, json_t *shared)
{
    share_attributes(instance, model);
    const char *key;
    json_t *child;
    json_object_foreach(instance, key, child)
    {
        json_t *common = json_object_get(shared, key);
        if (common != nullptr && is_alike(child, common))
            json_object_set(instance, key, common);
        else if (*key != '#')
            share_attributes(child, json_object_get(model, key));
    }
}

/// Lets children share what they hold alike with one of the last kinds of attributes met before: of thousands of
/// names most are of a few kinds.
void share_among(json_t *content)
{
    constexpr size_t kinds_max = 8;
    json_t *kinds[kinds_max] = {};
    size_t next = 0;
    const char *key;
    json_t *child;
    json_object_foreach(content, key, child)
    {
        json_t *attributes = *key != '#' ? json_object_get(child, "#attr") : nullptr;
        if (attributes == nullptr)
            continue;
        json_t **alike =
            std::find_if(kinds, kinds + kinds_max, [&](json_t *kind) { return is_alike(attributes, kind); });
        if (alike != kinds + kinds_max)
            json_object_set(child, "#attr", *alike);
        else
            kinds[next++ % kinds_max] = attributes;
    }
}

/// Puts what was fetched into the node, which keeps its identity.
void install(json_t *node, json_t *content, json_t *instances)
{
    cdpath_info_to_attr(content);
    share_among(content);
    json_object_clear(node);
    json_object_update(node, content);
    json_object_set_new(node, "#fetched", json_true());
    json_t *model = json_object_get(node, "#template");
    json_t *shared = nullptr;
    if (json_object_size(instances) > 0 && model != nullptr) {
        shared = shared_children(model);
        json_object_set_new(node, "#shared", shared);
    }
    const char *key;
    json_t *instance;
    json_object_foreach(instances, key, instance)
    {
        if (*key == '#')
            continue;
        cdpath_info_to_attr(instance);
        share_alike(instance, model, shared);
        json_object_set_new(instance, "#fetched", json_true());
        json_object_set(node, key, instance);
    }
}

} // namespace

int cdpath_fetch(cdpath *record)
{
    std::string base(object_path(record));
    // Kept, so that a new cache cannot be taken for this one.
    json_ref cache(json_incref(dm));
    const bool multi = record->is_multi != 0;

    msg_ref attributes(ve_jrpcmsg_cmd_get_parameter_attributes_new(nullptr));
    ve_jrpcmsg_cmd_get_parameter_attributes_add(attributes.get(), base.c_str());
    json_object_set_new(ve_jrpcmsg_params(attributes.get()), "Depth", json_integer(1));
    if (msg_exec(attributes.get(), -1) < 0)
        return 0;

    json_ref instances;
    if (multi) {
        instances.reset(fetch_instances(base.c_str()));
        if (!instances)
            return 0;
    }

    // Nothing of the cache was touched so far: what is abandoned or lost leaves no trace.
    if (base != object_path(record))
        return 0; // the reconnect that reloads the cache moved the shell's own place
    if (dm != cache.get())
        enter_new_cache(record);
    if (record->node == nullptr)
        record->node = json_object();
    const json_ref content{ve_tr_names_to_config(ve_jrpcmsg_parameter_list(attributes.get()), base.c_str())};
    install(record->node, content.get(), instances.get());
    return 0;
}
