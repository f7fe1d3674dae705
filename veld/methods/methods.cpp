#include "veld/methods/methods.h"

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
    refused->code = 9003;
    refused->message = std::string(argument) + ": " + what;
    refused->data.reset(json_pack("{s:s}", argument, what.c_str()));
    return nullptr;
}

bool method_known(std::string_view name)
{
    return find_implementation(name) != nullptr;
}

std::unique_ptr<method_job> method_start(std::string_view name, const json_t *input,
                                         const std::function<std::string(std::string_view path)> &text_of,
                                         method_outcome *ended)
{
    const implementation *found = find_implementation(name);
    if (found == nullptr) {
        ended->code = 9000;
        ended->message = "this device does not implement the method";
        return nullptr;
    }
    if (!job_possible(ended))
        return nullptr;
    std::unique_ptr<method_job> job = found->make({input, text_of, ended});
    return job ? job_begin(std::move(job), ended) : nullptr;
}

} // namespace veld
