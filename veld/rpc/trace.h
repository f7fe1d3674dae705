// What a client's author wants to see: each message in one line of the log, without what is secret in it.
#pragma once

#include "veld/model/tree.h"

#include <string>
#include <string_view>

namespace veld
{

/// A request as text: its method and its parameters. Values of parameters that the model calls secret, passwords, and
/// arguments that sound like one are "***".
std::string trace_request(tree *model, const json_t *message);

/// An answer as text, from its line.
std::string trace_answer(tree *model, std::string_view line);

} // namespace veld
