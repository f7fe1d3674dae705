// Values that depend on others: paths, whose ends have to be there, and what another parameter lists.
#pragma once

#include "veld/model/tree.h"

#include <string>

namespace veld
{

/// What is wrong with where a value of the parameter `at` leads, for somebody of that role, or with its being none of
/// those that another parameter lists; empty when nothing is, or when the parameter is of neither kind. An empty path
/// leads nowhere, which is right; as long as the other parameter lists nothing, anything that it could list is right.
std::string reference_problem(tree *in, role who, const node *at, json_t *value);

} // namespace veld
