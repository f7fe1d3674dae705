#include "commands/navigation.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands/handler.h"
#include "commands/listing.h"
#include "commands/place.h"
#include "commands/values.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "state/prompt.h"
#include "utils/json_util.h"
#include "utils/tree_print.h"

namespace
{

enum ls_options : unsigned {
    ls_long = 1,
    ls_all = 2,
    ls_alone = 4, ///< nothing else is listed
};

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
    if (place_is_parameter(*place))
        return list_of(path_text != nullptr ? path_text : std::string(place->path.last()).c_str());
    const std::string prefix(dm_path::without_dot(path_text != nullptr ? path_text : ""));
    json_t *names = cdpath_content_fast(place, path_text != nullptr ? prefix.c_str() : nullptr, CDPATH_OBJECT_DOT);
    json_array_sort(names);
    if (all)
        json_array_insert_new(names, 0, json_string("."));
    return names;
}

int ls_repack_list(const char *name, const char *path_text, unsigned options)
{
    cdpath place = cdpath_here();
    if (!place_go(&place, path_text)) {
        ve_printf("%s: %s: no such node\n", name, ve_visible(place_sought(path_text)).c_str());
        return -1;
    }
    if ((options & ls_long) != 0) {
        list_long(place.path);
        return 0;
    }
    json_ref names(short_list(&place, path_text, (options & ls_all) != 0));
    ve_rl_show_list(names.get());
    if ((options & ls_alone) != 0 && place.node != nullptr && place.node->denied)
        print_denied(*place.node->denied);
    return 0;
}

json_t *tree_build(const dm_path &path, const dm_node *node, const char *name, bool parent_multi);

/// What the scheme says of the child `name`; of an instance what it says of all of them. May be put into `*leaf`.
const dm_node *scheme_of(const dm_node &node, const char *name, dm_node *leaf)
{
    if (node.is_multi())
        return node.pattern.get();
    const size_t place = node.level->find(name);
    if (place < node.below.size() && node.below[place] != nullptr)
        return node.below[place].get();
    leaf->attributes = node.attributes_of(place);
    return leaf;
}

/// The trees of the children `names` of the node.
void build_children(const dm_path &path, const dm_node &node, const json_t *names, json_t *content)
{
    size_t index;
    json_t *word;
    json_array_foreach(names, index, word)
    {
        const char *name = json_string_value(word);
        dm_node leaf;
        const dm_node *child = scheme_of(node, name, &leaf);
        if (dm_path below = path; below.push(name))
            json_array_append_new(content, tree_build(below, child, name, node.is_multi()));
    }
}

/// A new tree description of what the scheme holds below the path.
json_t *tree_build(const dm_path &path, const dm_node *node, const char *name, bool parent_multi)
{
    json_t *tree = json_object();
    json_object_set_new(tree, "name", json_string(name));
    if (!path.is_root() && node != nullptr && !node->is_object())
        return tree;
    if (parent_multi && (strcmp(name, "max_instance") == 0 || strcmp(name, "order") == 0))
        return tree;
    const json_ref names(cdpath_content(path, node, nullptr, 0));
    json_t *content = json_array();
    json_object_set_new(tree, "from_multi", json_boolean(node != nullptr && node->is_multi()));
    json_object_set_new(tree, "content", content);
    if (node != nullptr)
        build_children(path, *node, names.get(), content);
    return tree;
}

} // namespace

int process_cd(const char *name, command_args args)
{
    if (args.size() > 1) {
        ve_printf("syntax: %s [<path>]", name);
        return -1;
    }
    const char *path = arg_text(args, 0);
    const dm_path before = cwd;
    cdpath target = cdpath_here();
    if (path == nullptr) {
        cdpath_clear(&target);
    } else if (place_scheme_loaded() && cdpath_parse(&target, path) != 0) {
        ve_printf("%s: %s: no such node\n", name, ve_visible(path).c_str());
        return -2;
    }
    cwd = target.path;
    old_cwd = before;
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
    levels = std::clamp(levels, 0L, static_cast<long>(dm_path::size_max));
    const std::string path(static_cast<size_t>(levels), '<');
    return process_cd(name, {&path, 1});
}

int process_pwd(const char *, command_args)
{
    ve_printf(":%s\n", ve_visible(cwd.c_str()).c_str());
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
        return ls_repack_list(name, paths.empty() ? nullptr : paths[0], options | ls_alone);
    for (const char *path : paths) {
        ve_printf("%s:\n", ve_visible(path).c_str());
        ls_repack_list(name, path, options);
        ve_puts("");
    }
    return 0;
}

int process_tree(const char *name, command_args args)
{
    const char *path = arg_text(args, 0);
    cdpath place = cdpath_here();
    if (!place_go(&place, path)) {
        ve_printf("%s: %s: no such node\n", name, ve_visible(place_sought(path)).c_str());
        return -1;
    }
    const char *root = place.path.is_root() ? ":" : place.path.c_str();
    const bool multi = place.node != nullptr && place.node->is_multi();
    const json_ref tree(tree_build(place.path, place.node.get(), root, multi));
    json_dump_tree(tree.get());
    return 0;
}
