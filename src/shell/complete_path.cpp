#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "cdpath/cdpath.h"
#include "event/listener.h"
#include "platform/ve_json.h"
#include "platform/ve_tr.h"
#include "shell/completers.h"
#include "utils/json_util.h"

namespace
{

/// A node for a new instance: empty, to be fetched when walked into, but for an instance that is a plain parameter.
json_t *new_instance(const json_t *branch)
{
    json_t *node = json_object();
    const json_t *instance_template = json_object_get(branch, "#template");
    if (ve_tr_dm_node_type_get(instance_template) != ve_tr_object)
        json_object_set(node, "#attr", ve_tr_dm_node_attr_get(instance_template));
    return node;
}

/// Brings the cache up to date with the instances that were added and deleted since the last completion. Tables that
/// nobody has looked at stay unfetched.
void apply_instance_notices()
{
    const json_ref queue(fetch_instance_queue());
    const char *branch_path = nullptr;
    json_t *branch = nullptr;
    size_t index;
    json_t *notice;
    json_array_foreach(queue.get(), index, notice)
    {
        const char *action;
        const char *path;
        json_int_t instance;
        if (json_unpack(notice, "{s:s,s:s,s:I}", "Action", &action, "Path", &path, "InstanceNumber", &instance) != 0)
            continue;
        if (instance < 1 || instance > UINT32_MAX) // no instance has such a number
            continue;
        // Notices come in runs for one table.
        if (branch_path == nullptr || strcmp(branch_path, path) != 0) {
            branch_path = path;
            branch = ve_conf_find_branch(dm, path, 0);
        }
        if (branch == nullptr)
            continue;
        const std::string key = std::to_string(instance);
        if (strcmp(action, "Add") == 0)
            json_object_set_new(branch, key.c_str(), new_instance(branch));
        else
            json_object_del(branch, key.c_str());
    }
}

/// The children of the place; asks the daemon for a level that nobody has looked at. An instance that is known by its
/// table's template alone is listed from that: it may not exist, and a refusal would wipe the template out.
json_t *list_children(cdpath *here, const char *text, unsigned flags)
{
    const json_t *table = json_array_get(here->parents, 0);
    if (here->node != nullptr && here->node == json_object_get(table, "#template")) {
        json_t *names = cdpath_content(here, text, flags);
        if (json_array_size(names) > 0 || ve_tr_dm_node_type_get(here->node) != ve_tr_object)
            return names;
        json_decref(names);
    }
    return cdpath_content_fast(here, text, flags);
}

/// Appends the nodes that the last component of `text` may become, from `here` on. Returns where that component begins.
size_t complete_node(cdpath *here, const std::string &text, json_t *candidates, bool objects_only)
{
    unsigned flags = CDPATH_FILTER_PREFIX | CDPATH_OBJECT_DOT;
    if (objects_only)
        flags |= CDPATH_OBJECTS_ONLY;
    const size_t dot = text.rfind('.');
    const size_t begin = dot != std::string::npos ? dot + 1 : 0;
    size_t filter = begin;
    if (dot != std::string::npos) {
        if (cdpath_parse(here, text.substr(0, dot).c_str(), true) != 0)
            return begin;
    } else if (text.starts_with(':')) {
        cdpath_clear(here);
        flags |= CDPATH_ABSOLUTE;
        filter = 1;
    }
    const json_ref names(list_children(here, text.c_str() + filter, flags));
    json_array_extend(candidates, names.get());
    return begin;
}

void append_if_prefix(const std::string &prefix, const char *text, json_t *candidates)
{
    if (strncmp(text, prefix.c_str(), prefix.size()) == 0)
        json_array_append_new(candidates, json_string(text));
}

/// The allowed values in the daemon's order; what is no text as JSON.
void complete_enum(const json_t *node, const std::string &typed, json_t *candidates)
{
    size_t index;
    json_t *entry;
    json_array_foreach(json_object_get(ve_tr_dm_node_attr_get(node), "enum"), index, entry)
    {
        if (json_is_string(entry)) {
            append_if_prefix(typed, json_string_value(entry), candidates);
        } else {
            append_if_prefix(typed, json_compact(entry).c_str(), candidates);
        }
    }
}

/// Completes the value behind the last "=", which stands at `equals`.
completed_part complete_value(cdpath *here, const std::string &text, size_t equals, json_t *candidates,
                              bool objects_only)
{
    const size_t begin = equals + 1;
    if (cdpath_parse(here, text.substr(0, equals).c_str(), true) != 0)
        return {begin, false};
    const std::string typed = text.substr(begin);
    switch (ve_tr_dm_node_type_get(here->node)) {
    case ve_tr_object:
        break;
    case ve_tr_boolean:
    case ve_tr_switch:
        append_if_prefix(typed, "true", candidates);
        append_if_prefix(typed, "false", candidates);
        break;
    case ve_tr_path:
        cdpath_clear(here);
        return {begin + complete_node(here, typed, candidates, objects_only), true};
    default:
        complete_enum(here->node, typed, candidates);
        break;
    }
    return {begin, false};
}

} // namespace

completed_part complete_path(const char *text, json_t *candidates, bool objects_only)
{
    apply_instance_notices();
    cdpath_local here(cwd);
    const std::string word(text != nullptr ? text : "");
    const size_t equals = word.rfind('=');
    if (equals != std::string::npos)
        return complete_value(&here, word, equals, candidates, objects_only);
    return {complete_node(&here, word, candidates, objects_only), true};
}
