// Instances made up for tests and benches.
#pragma once

#include "veld/model/tree.h"

namespace veld
{

/// Gives every table that stands in no other table `outer` instances, and those nested in them `inner`, as far as
/// their maxCount allows. Tables that the machine fills are left alone.
void populate(tree *fresh, uint32_t outer, uint32_t inner);

} // namespace veld
