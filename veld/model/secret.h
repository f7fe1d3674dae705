// What of a parameter's value somebody gets to see.
#pragma once

#include "veld/model/tree.h"

namespace veld
{

/// The value as somebody of that role reads it: secrets are empty texts (or defaults) for all but administrators,
/// passwords for everybody.
json_ref readable_value(tree *from, node *parameter, role who);

} // namespace veld
