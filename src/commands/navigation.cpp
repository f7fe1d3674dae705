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
#include "platform/ve_wait.h"
#include "state/prompt.h"
#include "utils/json_util.h"
#include "utils/tree_print.h"

namespace
{

// A table repeats what every instance looks like: a short list can become a tree of any size.
constexpr size_t tree_cost_max = size_t{128} << 20;

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

/// Puts what the scheme holds below the path into the tree, as far as that may grow.
void tree_build(drawn_tree *tree, drawn_tree::node at, const dm_path &path, const dm_node *node, bool of_table)
{
    if (node == nullptr || (!path.is_root() && !node->is_object()))
        return;
    if (of_table && (path.last() == "max_instance" || path.last() == "order"))
        return;
    const json_ref names(cdpath_content(path, node, nullptr, 0));
    size_t index;
    json_t *word;
    json_array_foreach(names.get(), index, word)
    {
        if (tree->cost() > tree_cost_max || ve_wait_interrupted())
            return;
        const char *name = json_string_value(word);
        dm_node leaf;
        const dm_node *child = scheme_of(*node, name, &leaf);
        if (dm_path below = path; below.push(name))
            tree_build(tree, tree->child(at, name), below, child, node->is_multi());
    }
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
    drawn_tree tree(root);
    tree_build(&tree, drawn_tree::root, place.path, place.node.get(), false);
    if (tree.cost() > tree_cost_max) {
        ve_printf("%s: the tree would take too much memory.\n", name);
        return -1;
    }
    tree.draw();
    return 0;
}
