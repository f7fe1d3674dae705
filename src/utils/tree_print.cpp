#include "utils/tree_print.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/ve_colors.h"
#include "platform/ve_out.h"
#include "utils/colorscheme.h"
#include "utils/json_util.h"

namespace
{

/// The children of one node on the way down, and how far they are printed.
struct level {
    std::vector<json_t *> children; // borrowed, in the order to print
    size_t next = 0;
    size_t name_width = 0;

    bool more() const { return next < children.size(); }
};

const char *name_of(const json_t *node)
{
    const char *name = json_text(node, "name");
    return name != nullptr ? name : "";
}

level level_of(const json_t *node)
{
    level result;
    const json_t *content = json_object_get(node, "content");
    const bool multi = json_is_true(json_object_get(node, "multi"));
    bool nested = false;
    size_t index;
    json_t *child;
    result.children.reserve(json_array_size(content));
    json_array_foreach(content, index, child)
    {
        result.children.push_back(child);
        result.name_width = std::max(result.name_width, strlen(name_of(child)));
        nested = nested || json_object_get(child, "content") != nullptr;
    }
    if (nested)
        result.name_width = 0;
    std::stable_sort(result.children.begin(), result.children.end(), [multi](const json_t *a, const json_t *b) {
        return multi ? atoi(name_of(a)) < atoi(name_of(b)) : strcmp(name_of(a), name_of(b)) < 0;
    });
    return result;
}

void print_line(const json_t *node, size_t name_width)
{
    const char *name = name_of(node);
    ve_printf("%s", ve_visible(name));
    if (const json_t *value = json_object_get(node, "value"); value != nullptr) {
        const size_t length = strlen(name);
        ve_printf("%*s = ", static_cast<int>(name_width > length ? name_width - length : 0), "");
        ve_colors_set_hsv2(kest_colorscheme_get().autocomplete);
        const std::string text = json_compact(value);
        ve_printf("%s", ve_visible(text.c_str()));
        ve_colors_reset();
    }
    ve_puts("");
}

} // namespace

void json_dump_tree(const json_t *tree)
{
    print_line(tree, 0);
    // A tree may be deeper than the call stack is.
    std::vector<level> levels;
    levels.push_back(level_of(tree));
    while (!levels.empty()) {
        level &last = levels.back();
        if (!last.more()) {
            levels.pop_back();
            continue;
        }
        const json_t *node = last.children[last.next++];
        for (size_t above = 0; above + 1 < levels.size(); ++above)
            ve_printf("%s", levels[above].more() ? "│   " : "    ");
        ve_printf("%s── ", last.more() ? "├" : "└");
        print_line(node, last.name_width);
        ve_out_relieve();
        if (json_array_size(json_object_get(node, "content")) > 0)
            levels.push_back(level_of(node));
    }
}
