#include "veld/model/populate.h"

#include "veld/model/change.h"

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
        const auto most = of->what->max_count ? static_cast<size_t>(std::max<int64_t>(*of->what->max_count, 0))
                                              : std::numeric_limits<size_t>::max();
        while (instances.size() < here && instances.size() < most)
            settle_instance(fresh, fresh->add(of, std::numeric_limits<size_t>::max()), false);
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
