// The arguments of a call of a method.
#pragma once

#include "base/json_ref.h"
#include "veld/base/fault.h"
#include "veld/model/scheme.h"

namespace veld
{

/// Checks the arguments of a call, an array of {"Name", "Value"} or null, against the method; `*input` receives all
/// input arguments, nested as the model nests them, those that were not given with their defaults.
fault arguments_check(const scheme &method, const json_t *list, json_ref *input);

} // namespace veld
