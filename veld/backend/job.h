// A call of a method of the data model that is under way.
#pragma once

#include "veld/base/job.h"

#include <cstdint>
#include <string>

namespace veld
{

/// Ends by itself within a bounded time. Its output is an array of {"Name","Value"}, names relative to the method; the
/// data of its fault, perhaps, an object: argument name relative to the method → what is wrong.
class method_job : public job
{
protected:
    method_job();
};

/// Appends one output argument; takes over `value`.
void add_output(json_t *list, const std::string &name, json_t *value);

} // namespace veld
