// Values that are paths: what they lead to has to be there.
#pragma once

#include "veld/model/tree.h"

#include <string>

namespace veld
{

/// What is wrong with where a value leads, for somebody of that role; empty when nothing is, or when the parameter is
/// none that leads anywhere. An empty path leads nowhere, which is right.
std::string reference_problem(tree *in, role who, const scheme &what, const json_t *value);

} // namespace veld
