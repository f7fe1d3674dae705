#include "veld/model/populate.h"

#include "veld/model/free_value.h"

#include <limits>

namespace veld
{

namespace
{

void fill(tree *fresh, node *of, uint32_t here, uint32_t below)
{
    if (of->table) {
        if (of->what->from != source::stored)
            return;
        const auto &instances = of->table->instances;
        const int64_t most = of->what->max_count.value_or(std::numeric_limits<int64_t>::max());
        while (instances.size() < here && static_cast<int64_t>(instances.size()) < most) {
            node *added = fresh->add(of, std::numeric_limits<size_t>::max());
            if (!settle_instance(fresh, added, false).empty()) {
                fresh->remove(added);
                break;
            }
        }
        for (const auto &one : instances)
            fill(fresh, one.get(), below, below);
        return;
    }
    for (const auto &child : of->children) {
        if (child->what->is_object())
            fill(fresh, child.get(), here, below);
    }
}

} // namespace

void populate(tree *fresh, uint32_t outer, uint32_t inner)
{
    fill(fresh, fresh->root(), outer, inner);
}

} // namespace veld
