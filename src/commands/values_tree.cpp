#include <algorithm>
#include <string_view>
#include <vector>

#include "base/json_bloat.h"
#include "commands/values.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "utils/tree_print.h"

namespace
{

// What stands deeper stays together as one name.
constexpr size_t depth_max = 512;

/// Takes the next component off; empty ones vanish.
bool next(std::string_view *rest, size_t depth, std::string_view *component)
{
    const size_t begin = rest->find_first_not_of('.');
    if (begin == std::string_view::npos)
        return false;
    const size_t end = depth + 1 < depth_max ? rest->find('.', begin) : std::string_view::npos;
    *component = rest->substr(begin, end - begin);
    *rest = end == std::string_view::npos ? std::string_view() : rest->substr(end);
    return true;
}

/// The node that `name` leads to, made where it is missing. `*way` are the nodes to the one before.
drawn_tree::node walk(drawn_tree *tree, std::vector<drawn_tree::node> *way, std::string_view name)
{
    size_t depth = 0;
    for (std::string_view component; next(&name, depth, &component);) {
        const drawn_tree::node parent = (*way)[depth];
        if (component == "max_instance" || component == "order")
            tree->set_multi(parent);
        ++depth;
        // Names mostly share their beginning with the one before.
        if (depth < way->size() && tree->name((*way)[depth]) == component)
            continue;
        way->resize(depth);
        way->push_back(tree->child(parent, component));
    }
    way->resize(depth + 1);
    return way->back();
}

} // namespace

int values_tree(ve_parameters list, std::string_view path)
{
    const size_t allowed = cost_allowed + list.size() * cost_factor;
    drawn_tree tree(path);
    std::vector<drawn_tree::node> way{drawn_tree::root};
    ve_wait_loop loop;
    for (ve_parameter entry; list.next(&entry) && !loop.interrupted();) {
        if (!entry.name)
            continue;
        std::string_view name = entry.name->substr(0, entry.name->find('\0'));
        if (name.starts_with(path))
            name.remove_prefix(path.size());
        if (tree.cost() > allowed) {
            ve_puts("The daemon's answer would take too much memory.");
            return -1;
        }
        const drawn_tree::node node = walk(&tree, &way, name);
        if (entry.value)
            tree.set_value(node, entry.value);
    }
    tree.draw();
    return 0;
}
