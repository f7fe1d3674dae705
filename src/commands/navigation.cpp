#include "commands/navigation.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands/handler.h"
#include "commands/listing.h"
#include "commands/place.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_tr.h"
#include "state/prompt.h"
#include "utils/json_util.h"
#include "utils/tree_print.h"

namespace
{

enum ls_options : unsigned { ls_long = 1, ls_all = 2 };

void stand(cdpath *record, const cdpath &where)
{
    cdpath_free(record);
    cdpath_copy(record, &where);
}

/// A new array of the one text.
json_t *list_of(const char *text)
{
    json_t *list = json_array();
    json_array_append_new(list, json_string(text));
    return list;
}

/// The children's names behind the typed text, or the parameter itself.
json_t *short_list(cdpath *place, const char *path_text, bool all)
{
    if (!cdpath_is_root(place) && ve_tr_dm_node_type_get(place->node) != ve_tr_object) {
        const char *dot = strrchr(place->path, '.');
        return list_of(path_text != nullptr ? path_text : dot != nullptr ? dot + 1 : place->path);
    }
    std::string prefix(path_text != nullptr ? path_text : "");
    if (prefix.ends_with('.'))
        prefix.pop_back();
    json_t *names = cdpath_content_fast(place, path_text != nullptr ? prefix.c_str() : nullptr, CDPATH_OBJECT_DOT);
    json_array_sort(names);
    if (all)
        json_array_insert_new(names, 0, json_string("."));
    return names;
}

int ls_repack_list(const char *name, const char *path_text, unsigned options)
{
    cdpath_local place(cwd);
    if (!place_go(&place, path_text)) {
        ve_printf("%s: %s: no such node\n", name, path_text);
        return -1;
    }
    if ((options & ls_long) != 0) {
        list_long(&place);
        return 0;
    }
    json_ref names(short_list(&place, path_text, (options & ls_all) != 0));
    ve_rl_show_list(names.get());
    return 0;
}

json_t *tree_build(cdpath *place, const char *name, bool parent_multi);

/// The trees of the children `names` of the place.
void build_children(const cdpath &place, const json_t *names, bool multi, json_t *content)
{
    size_t index;
    json_t *word;
    json_array_foreach(names, index, word)
    {
        const char *name = json_string_value(word);
        json_t *child = json_object_get(place.node, multi ? "#template" : name);
        cdpath_local below(place);
        if (cdpath_push(&below, child, name, ve_tr_dm_node_is_multi(child), ve_tr_dm_node_is_ordered(child)) == 0)
            json_array_append_new(content, tree_build(&below, name, multi));
    }
}

/// A new tree description of what the scheme holds below the place.
json_t *tree_build(cdpath *place, const char *name, bool parent_multi)
{
    json_ref tree(json_object());
    json_object_set_new(tree.get(), "name", json_string(name));
    if (!cdpath_is_root(place) && ve_tr_dm_node_type_get(place->node) != ve_tr_object)
        return tree.release();
    if (parent_multi && (strcmp(name, "max_instance") == 0 || strcmp(name, "order") == 0))
        return tree.release();
    const bool multi = ve_tr_dm_node_is_multi(place->node);
    json_ref names(cdpath_content(place, nullptr, 0));
    json_t *content = json_array();
    json_object_set_new(tree.get(), "from_multi", json_boolean(multi));
    json_object_set_new(tree.get(), "content", content);
    build_children(*place, names.get(), multi, content);
    return tree.release();
}

} // namespace

int process_cd(const char *name, command_args args)
{
    if (args.size() > 1) {
        ve_printf("syntax: %s [<path>]", name);
        return -1;
    }
    const char *path = arg_text(args, 0);
    cdpath_local target(cwd);
    cdpath_local before(cwd);
    if (path == nullptr) {
        cdpath_clear(&target);
    } else if (!place_go(&target, path)) {
        ve_printf("%s: %s: no such node\n", name, path);
        return -2;
    }
    stand(&cwd, target);
    stand(&old_cwd, before);
    prompt_update_path();
    return 0;
}

int process_up(const char *name, command_args args)
{
    const char *word = arg_text(args, 0);
    long levels = word != nullptr ? strtol(word, nullptr, 10) : 1;
    if (levels == 0)
        levels = 1;
    // No place is deeper than its text is long.
    levels = std::clamp(levels, 0L, static_cast<long>(cdpath_text_max));
    const std::string path(static_cast<size_t>(levels), '<');
    return process_cd(name, {&path, 1});
}

int process_pwd(const char *, command_args)
{
    ve_printf(":%s\n", ve_visible(cwd.path));
    return 0;
}

int process_ls(const char *name, command_args args)
{
    unsigned options = 0;
    std::vector<const char *> paths;
    for (const std::string &word : args) {
        if (!word.starts_with('-')) {
            paths.push_back(word.c_str());
            continue;
        }
        if (word.find('l') != std::string::npos)
            options |= ls_long;
        if (word.find('a') != std::string::npos)
            options |= ls_all;
    }
    if (paths.size() < 2)
        return ls_repack_list(name, paths.empty() ? nullptr : paths[0], options);
    for (const char *path : paths) {
        ve_printf("%s:\n", path);
        ls_repack_list(name, path, options);
        ve_puts("");
    }
    return 0;
}

int process_tree(const char *name, command_args args)
{
    const char *path = arg_text(args, 0);
    cdpath_local place(cwd);
    if (!place_go(&place, path)) {
        ve_printf("%s: %s: no such node\n", name, path);
        return -1;
    }
    std::string root(place.path[0] != '\0' ? place.path : ":");
    json_ref tree(tree_build(&place, root.c_str(), place.is_multi != 0));
    json_dump_tree(tree.get());
    return 0;
}
