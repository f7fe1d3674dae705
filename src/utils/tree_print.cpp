#include "utils/tree_print.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <utility>

#include "platform/ve_colors.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"
#include "utils/colorscheme.h"
#include "utils/columns.h"

namespace
{

/// So many are gone through faster than looked up.
constexpr uint32_t few_children = 16;

} // namespace

drawn_tree::node drawn_tree::make(node parent, std::string_view name)
{
    const auto made = static_cast<node>(nodes_.size());
    nodes_.push_back({.name = static_cast<uint32_t>(names_.size()),
                      .name_size = static_cast<uint32_t>(name.size()),
                      .parent = parent,
                      .value = {}});
    names_.append(name).push_back('\0');
    if (made == root)
        return made;
    item &above = nodes_[parent];
    (above.first_child == root ? above.first_child : nodes_[above.last_child].next) = made;
    above.last_child = made;
    ++above.children;
    return made;
}

bool drawn_tree::is_child(node each, node parent, std::string_view wanted) const
{
    return nodes_[each].parent == parent && name(each) == wanted;
}

drawn_tree::slot &drawn_tree::slot_of(node parent, std::string_view wanted)
{
    const auto hash = static_cast<uint32_t>(std::hash<std::string_view>()(wanted) ^ (size_t{parent} * 0x9e3779b1U));
    const size_t mask = index_.size() - 1;
    size_t at = hash & mask;
    while (index_[at].found != root && (index_[at].hash != hash || !is_child(index_[at].found, parent, wanted)))
        at = (at + 1) & mask;
    index_[at].hash = hash;
    return index_[at];
}

void drawn_tree::index_child(node of)
{
    if (++indexed_ * 2 >= index_.size()) {
        std::vector<slot> before(std::max<size_t>(index_.size() * 2, 1024));
        before.swap(index_);
        for (const slot &each : before) {
            if (each.found != root)
                slot_of(nodes_[each.found].parent, name(each.found)).found = each.found;
        }
    }
    slot_of(nodes_[of].parent, name(of)).found = of;
}

drawn_tree::node drawn_tree::child(node parent, std::string_view wanted)
{
    if (nodes_[parent].children > few_children) {
        if (const node found = slot_of(parent, wanted).found; found != root)
            return found;
    } else {
        for (node each = nodes_[parent].first_child; each != root; each = nodes_[each].next) {
            if (name(each) == wanted)
                return each;
        }
    }
    const node made = make(parent, wanted);
    if (nodes_[parent].children > few_children + 1)
        index_child(made);
    else if (nodes_[parent].children == few_children + 1)
        for (node each = nodes_[parent].first_child; each != root; each = nodes_[each].next)
            index_child(each);
    return made;
}

drawn_tree::level drawn_tree::level_of(node of) const
{
    level result;
    const bool multi = nodes_[of].multi;
    bool nested = false;
    column names;
    for (node each = nodes_[of].first_child; each != root; each = nodes_[each].next) {
        result.children.emplace_back(multi ? atoi(&names_[nodes_[each].name]) : 0, each);
        names.add(name(each));
        nested = nested || nodes_[each].first_child != root;
    }
    result.name_width = nested ? 0 : names.width();
    std::stable_sort(result.children.begin(), result.children.end(), [this, multi](const auto &a, const auto &b) {
        return multi ? a.first < b.first : name(a.second) < name(b.second);
    });
    return result;
}

void drawn_tree::draw_line(std::string *row, node of, size_t name_width) const
{
    const item &drawn = nodes_[of];
    row->append(ve_visible(&names_[drawn.name]));
    if (drawn.value) {
        const size_t taken = ve_rl_width(name(of));
        row->append(name_width > taken ? name_width - taken : 0, ' ').append(" = ");
        ve_out_write(row->data(), row->size());
        ve_colors_set_hsv2(kest_colorscheme_get().autocomplete);
        row->clear();
        drawn.value.append_to(row);
        ve_out_visible(*row);
        ve_colors_reset();
        row->clear();
    }
    row->push_back('\n');
    ve_out_write(row->data(), row->size());
}

void drawn_tree::draw() const
{
    std::string row;
    std::string indentation;
    draw_line(&row, root, 0);
    // A tree may be deeper than the call stack is.
    std::vector<level> levels;
    levels.push_back(level_of(root));
    while (!levels.empty() && !ve_wait_interrupted()) {
        level &last = levels.back();
        if (!last.more()) {
            levels.pop_back();
            if (!levels.empty())
                indentation.resize(levels.back().indentation);
            continue;
        }
        const node of = last.children[last.next++].second;
        const bool more = last.more();
        row.assign(indentation).append(more ? "├── " : "└── ");
        draw_line(&row, of, last.name_width);
        if (ve_out_relieve() < 0)
            break;
        if (nodes_[of].first_child != root) {
            last.indentation = indentation.size();
            indentation.append(more ? "│   " : "    ");
            levels.push_back(level_of(of));
        }
    }
}
