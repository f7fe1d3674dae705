#include "veld/methods/methods.h"

#include "base/json_write.h"
#include "veld/methods/job.h"

#include <algorithm>

namespace veld
{

namespace
{

struct implementation {
    std::string_view name;
    std::unique_ptr<method_job> (*make)(const method_call &call);
};

constexpr implementation implementations[] = {
    {"IPPing", make_ipping},
    {"NSLookup", make_nslookup},
};

const implementation *find_implementation(std::string_view name)
{
    for (const implementation &each : implementations)
        if (each.name == name)
            return &each;
    return nullptr;
}

} // namespace

std::string method_call::text(const char *argument) const
{
    const json_t *value = json_object_get(input, argument);
    return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value)) : "";
}

int64_t method_call::number(const char *argument, int64_t low, int64_t high) const
{
    return std::clamp<int64_t>(json_integer_value(json_object_get(input, argument)), low, high);
}

bool method_call::interface(std::string *name) const
{
    std::string path = text("Interface");
    name->clear();
    if (path.empty())
        return true;
    if (!path.ends_with('.'))
        path += '.';
    *name = text_of ? text_of(path + "Name") : "";
    if (name->empty())
        refuse("Interface", "no such interface");
    return !name->empty();
}

std::unique_ptr<method_job> method_call::refuse(const char *argument, const std::string &what) const
{
    const json_ref wrong{json_pack("{s:s}", argument, what.c_str())};
    refused->problem = {code::bad_arguments, std::string(argument) + ": " + what};
    json_write_value(&refused->problem.data, wrong.get());
    return nullptr;
}

bool method_known(std::string_view name)
{
    return find_implementation(name) != nullptr;
}

std::unique_ptr<method_job> method_start(std::string_view name, const json_t *input,
                                         const std::function<std::string(std::string_view path)> &text_of,
                                         job_outcome *ended)
{
    const implementation *found = find_implementation(name);
    if (found == nullptr) {
        ended->problem = {code::not_supported, "this device does not implement the method"};
        return nullptr;
    }
    return found->make({input, text_of, ended});
}

} // namespace veld
