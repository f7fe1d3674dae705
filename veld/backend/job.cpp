#include "veld/backend/job.h"

namespace veld
{

namespace
{

constexpr int64_t longest_ms = int64_t{20} * 60 * 1000;

} // namespace

method_job::method_job() : job(longest_ms, {code::internal, "the method took too long"}) {}

void add_output(json_t *list, const std::string &name, json_t *value)
{
    json_t *entry = json_object();
    json_object_set_new(entry, "Name", json_string(name.c_str()));
    json_object_set_new(entry, "Value", value);
    json_array_append_new(list, entry);
}

} // namespace veld
