// Which instances came and went when a model's nodes were replaced by others.
#pragma once

#include "veld/model/tree.h"

#include <string>
#include <vector>

namespace veld
{

/// An instance that came or went.
struct instance_change {
    std::string table; ///< its name, with its final "."
    uint32_t number;
    bool added;
    role least; ///< the rights that somebody needs to hear of it
};

/// What is in `of` now and was not in `before`, the root of nodes of the same model, and the other way round; in the
/// model's order. Of what stands within an instance that came or went nothing is said. Tables of the machine are
/// brought up to date where they had been.
std::vector<instance_change> instance_changes(tree *of, const node *before);

} // namespace veld
