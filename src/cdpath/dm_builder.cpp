#include "cdpath/dm_builder.h"

#include <utility>

#include "platform/ve_wait.h"

namespace
{

// What a node with a level of its own takes, and a name in a level, by and large.
constexpr int64_t node_cost = 448;
constexpr int64_t name_cost = 72;

} // namespace

dm_builder::dm_builder(const dm_path &base, size_t room, int64_t left) : base_(base), room_(room), left_(left)
{
    open_.push_back({{}, &root_, std::make_shared<dm_level>(), nullptr});
}

/// Leaves in `*name` what stands below the base, without a final dot, and the number of its names in `*depth`. False
/// when it lies elsewhere or cannot be a node's.
bool dm_builder::fits(std::string_view *name, size_t *depth) const
{
    const std::string_view spelled = dm_path::without_dot(*name);
    *depth = 0;
    if (spelled == base_.text()) {
        *name = {};
        return true;
    }
    *name = base_.relative(spelled);
    if (name->empty() || (name->size() == spelled.size() && !base_.is_root()) || name->ends_with('.') ||
        name->find('\0') != std::string_view::npos || *name == left_out_)
        return false;
    for (std::string_view rest = *name; !rest.empty(); ++*depth) {
        // What begins with "#" cannot be typed.
        const std::string_view each = dm_path::cut_name(&rest);
        if (each.empty() || each.front() == '#' || *depth == room_)
            return false;
    }
    return true;
}

void dm_builder::add(ve_parameters list)
{
    expect(list);
    ve_wait_loop loop;
    for (ve_parameter entry; list.next(&entry) && !is_exhausted() && !loop.interrupted();)
        add(entry);
}

void dm_builder::expect(const ve_parameters &list)
{
    left_ += static_cast<int64_t>(list.size() * cost_factor);
}

void dm_builder::add(const ve_parameter &entry)
{
    std::string_view name = entry.name.value_or(std::string_view());
    size_t depth;
    if (entry.name && !is_exhausted() && fits(&name, &depth))
        add_entry(name, depth, entry);
}

void dm_builder::add_entry(std::string_view name, size_t depth, const ve_parameter &entry)
{
    dm_attributes_ref attributes = entry.attributes ? dm_attributes_of(entry.attributes.text()) : nullptr;
    dm_node *node = &root_;
    if (depth == 0) {
        root_.attributes = std::move(attributes);
    } else {
        for (size_t level = 1; level < depth; ++level)
            enter(level, dm_path::cut_name(&name));
        close(depth);
        step &above = open_.back();
        const size_t place = place_of(above, name);
        node = above.node->below.size() > place ? above.node->below[place].get() : nullptr;
        if (node != nullptr)
            node->attributes = attributes;
        above.level->set_attributes(place, std::move(attributes));
        if (depth == 1 && tells_all_)
            node_at(above, place)->known = dm_known::known;
    }
    if (!entry.pattern.is_array() || depth >= room_)
        return;
    if (node == nullptr)
        node = node_at(open_.back(), open_.back().level->find(name));
    // The pattern is a part of the list that was expected.
    dm_builder inner(dm_path(), room_ - depth - 1, left_ - node_cost);
    ve_wait_loop loop;
    ve_parameter each;
    for (ve_parameters list(entry.pattern); list.next(&each) && !inner.is_exhausted() && !loop.interrupted();)
        inner.add(each);
    left_ = inner.left_;
    node->pattern = std::make_shared<const dm_node>(inner.take());
}

/// Goes on below the child `name` of the last node at the depth before.
void dm_builder::enter(size_t depth, std::string_view name)
{
    if (depth < open_.size() && open_[depth].name == name)
        return;
    close(depth);
    step &above = open_.back();
    dm_node *node = node_at(above, place_of(above, name));
    if (depth == 1 && tells_all_)
        node->known = dm_known::known;
    open_.push_back({std::string(name), node,
                     node->level ? std::make_shared<dm_level>(*node->level) : std::make_shared<dm_level>(), nullptr});
}

/// Ends the nodes that are open at `depth` and deeper.
void dm_builder::close(size_t depth)
{
    for (; open_.size() > depth; open_.pop_back()) {
        const step &last = open_.back();
        step &above = open_[open_.size() - 2];
        if (above.alike && *above.alike == *last.level) {
            last.node->level = above.alike;
            continue;
        }
        last.level->shrink();
        const dm_node *pattern = above.node->pattern.get();
        const bool as_pattern = pattern != nullptr && pattern->level && *pattern->level == *last.level;
        last.node->level = above.alike = as_pattern ? pattern->level : last.level;
    }
}

/// Where the child stands, which is appended when it is not there.
size_t dm_builder::place_of(step &above, std::string_view name)
{
    // The entries about a child mostly follow the one that names it.
    const size_t last = above.level->size() - 1;
    if (above.level->size() > 0 && (*above.level)[last].name == name)
        return last;
    const size_t found = above.level->find(name);
    if (found != dm_level::none)
        return found;
    left_ -= name_cost;
    return above.level->append(name, nullptr);
}

dm_node *dm_builder::node_at(step &above, size_t place)
{
    std::vector<std::shared_ptr<dm_node>> &below = above.node->below;
    if (below.size() <= place)
        below.resize(place + 1);
    if (!below[place]) {
        left_ -= node_cost;
        below[place] = std::make_shared<dm_node>();
        below[place]->attributes = (*above.level)[place].attributes;
    }
    return below[place].get();
}

dm_node dm_builder::take()
{
    close(1);
    if (open_[0].level->size() > 0) {
        open_[0].level->shrink();
        root_.level = std::move(open_[0].level);
    }
    return std::move(root_);
}
