#include "cdpath/cdpath.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "platform/ve_json.h"
#include "platform/ve_log.h"
#include "platform/ve_out.h"
#include "platform/ve_tr.h"

json_t *dm;
cdpath cwd;
cdpath old_cwd;

namespace
{

void let_go(cdpath *record)
{
    json_decref(std::exchange(record->node, nullptr));
    json_decref(std::exchange(record->parents, nullptr));
}

/// A zeroed record: the storage, or one on the heap. What the shell's own places held is given back first; other
/// storage holds nothing yet.
cdpath *blank(cdpath *storage, const char *function, int line)
{
    if (storage == nullptr) {
        auto *record = static_cast<cdpath *>(ve_xcalloc(1, sizeof(cdpath), function, line, "cdpath"));
        record->allocated = 1;
        return record;
    }
    if (storage == &cwd || storage == &old_cwd)
        let_go(storage);
    *storage = cdpath{};
    return storage;
}

/// Makes `record` stand where `source` does, releasing where it stood.
void stand_at(cdpath *record, const cdpath *source)
{
    json_t *node = json_incref(source->node);
    json_t *parents = source->parents != nullptr ? json_copy(source->parents) : json_array();
    json_decref(record->node);
    json_decref(record->parents);
    record->node = node;
    record->parents = parents;
    record->is_multi = source->is_multi;
    record->is_ordered = source->is_ordered;
    memmove(record->path, source->path, sizeof record->path);
}

void set_node(cdpath *record, json_t *node)
{
    json_t *old = record->node;
    record->node = json_incref(node);
    json_decref(old);
}

/// Whether the node's children may still be unknown.
bool is_bare(const json_t *node)
{
    if (node == nullptr)
        return true;
    if (!json_is_object(node))
        return false;
    const size_t size = json_object_size(node);
    return size == 0 || (size == 1 && json_object_get(node, "#attr") != nullptr);
}

/// "<", "<<", ...: false when something else stands among them.
bool climb(cdpath *record, const char *component)
{
    if (component[strspn(component, "<")] != '\0')
        return false;
    for (; *component != '\0'; ++component)
        cdpath_pop(record);
    return true;
}

/// The record's child `name`, or null. A child that the instances of a table have in common becomes the instance's own
/// first: who stands on a node may fill it.
json_t *own_child(const cdpath *record, const char *name)
{
    json_t *child = json_object_get(record->node, name);
    const json_t *shared = json_object_get(json_array_get(record->parents, 0), "#shared");
    if (child == nullptr || json_object_get(shared, name) != child)
        return child;
    json_object_set_new(record->node, name, json_copy(child));
    return json_object_get(record->node, name);
}

bool descend(cdpath *record, const char *name)
{
    if (is_bare(record->node))
        cdpath_fetch(record);
    json_t *child = own_child(record, name);
    if (child == nullptr && ve_tr_str_is_instance(name))
        child = json_object_get(record->node, "#template");
    return child != nullptr &&
           cdpath_push(record, child, name, ve_tr_dm_node_is_multi(child), ve_tr_dm_node_is_ordered(child)) == 0;
}

} // namespace

cdpath *cdpath_new(cdpath *storage)
{
    cdpath *record = blank(storage, "cdpath_new", __LINE__);
    record->node = json_incref(dm);
    record->parents = json_array();
    return record;
}

cdpath *cdpath_copy(cdpath *storage, const cdpath *source)
{
    if (storage == source)
        return storage;
    cdpath *record = blank(storage, "cdpath_copy", __LINE__);
    stand_at(record, source);
    return record;
}

void cdpath_free(cdpath *record)
{
    if (record == nullptr)
        return;
    let_go(record);
    if (record->allocated != 0)
        free(record);
}

void cdpath_clear(cdpath *record)
{
    json_array_clear(record->parents);
    record->path[0] = '\0';
    record->is_multi = 0;
    set_node(record, dm);
}

bool cdpath_is_root(const cdpath *record)
{
    return record->path[0] == '\0' || (dm != nullptr && record->node == dm);
}

int cdpath_push(cdpath *record, json_t *child, const char *name, bool multi, bool ordered)
{
    const size_t above = cdpath_is_root(record) ? 0 : strlen(record->path);
    const size_t dot = above > 0 ? 1 : 0;
    const size_t size = strlen(name);
    if (size > cdpath_text_max || above + dot + size > cdpath_text_max)
        return -1;
    if (dot > 0)
        record->path[above] = '.';
    // The name may be a part of this very path.
    memmove(record->path + above + dot, name, size + 1);
    if (record->parents == nullptr)
        record->parents = json_array();
    if (record->node != nullptr)
        json_array_insert(record->parents, 0, record->node);
    set_node(record, child);
    record->is_multi = multi ? 1 : 0;
    record->is_ordered = ordered ? 1 : 0;
    return 0;
}

int cdpath_pop(cdpath *record)
{
    char *dot = strrchr(record->path, '.');
    *(dot != nullptr ? dot : record->path) = '\0';
    if (json_array_size(record->parents) > 0) {
        set_node(record, json_array_get(record->parents, 0));
        json_array_remove(record->parents, 0);
    }
    record->is_multi = ve_tr_dm_node_is_multi(record->node) ? 1 : 0;
    record->is_ordered = ve_tr_dm_node_is_ordered(record->node) ? 1 : 0;
    return 0;
}

int cdpath_parse(cdpath *record, const char *text, bool quiet)
{
    if (record == nullptr)
        return -1;
    if (text == nullptr)
        return -2;
    std::string rest(text);
    char *next = rest.data();
    if (*next == ':') {
        cdpath_clear(record);
        ++next;
    }
    char *state = nullptr;
    for (char *name = strtok_r(next, ".", &state); name != nullptr; name = strtok_r(nullptr, ".", &state)) {
        switch (*name) {
        case '#':
            return -1;
        case '<':
            if (!climb(record, name))
                return -1;
            break;
        case '-':
            if (!quiet)
                ve_printf(":%s\n", ve_visible(old_cwd.path));
            stand_at(record, &old_cwd);
            break;
        default:
            if (!descend(record, name))
                return -1;
        }
    }
    return 0;
}

void cdpath_info_to_attr(json_t *value)
{
    if (!json_is_object(value))
        return;
    json_t *info = json_object_get(value, "#info");
    if (info != nullptr) {
        json_object_set(value, "#attr", json_object_get(info, "Attributes"));
        json_object_del(value, "#info");
    }
    const char *key;
    json_t *member;
    json_object_foreach(value, key, member) cdpath_info_to_attr(member);
}
