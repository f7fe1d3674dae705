// The rarer constraints of a model document: alternatives, targets of paths, keys of several parameters.
#pragma once

#include "veld/model/scheme.h"

namespace veld
{

/// Takes what stands at a parameter. Returns what is wrong with it, or an empty text.
std::string rules_load(json_t *source, scheme *into);

/// As rules_load(), for the keys of a table whose element is there already.
std::string keys_load(json_t *source, scheme *into);

} // namespace veld
