// Values of unique parameters that a new instance begins with.
#pragma once

#include "veld/model/tree.h"

#include <string>

namespace veld
{

/// Gives the unique parameters of a new instance values that no other instance has, where another one has what they
/// begin with: the next number, the next text ("Port1" "Port2", "rule" "rule-2"), another one of those enumerated.
/// `changed`: they are to be saved. Returns the name of the first parameter for which nothing that fits is free, which
/// then has the value of another instance; or an empty text.
std::string settle_instance(tree *in, node *instance, bool changed);

} // namespace veld
