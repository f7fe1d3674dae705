// The methods of the data model that this daemon implements by itself.
#pragma once

#include "base/json_ref.h"
#include "veld/backend/job.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace veld
{

/// Whether the daemon implements a method of that name: the model's "method".
bool method_known(std::string_view name);

/// Starts a call. `input` holds all input arguments by their names, nested where the model nests them, already checked
/// against the model and completed with its defaults; it is not kept. `text_of` gives the text of the parameter at a
/// full path of the data model, empty when there is none; it is called before method_start() returns only. Returns the
/// job, which the caller begins, or null when the call is refused, `*ended` then says why.
std::unique_ptr<method_job> method_start(std::string_view name, const json_t *input,
                                         const std::function<std::string(std::string_view path)> &text_of,
                                         job_outcome *ended);

} // namespace veld
