#include "veld/rpc/service.h"

namespace veld
{

void param_reader::refuse(const char *name, const char *what)
{
    if (!problem_)
        problem_ = {code::bad_params, std::string("\"") + name + "\" must be " + what, ""};
}

std::string param_reader::text(const char *name, bool needed)
{
    const json_t *value = json_object_get(params_, name);
    if (json_is_string(value))
        return {json_string_value(value), json_string_length(value)};
    if (needed || value != nullptr)
        refuse(name, "a text");
    return {};
}

int64_t param_reader::integer(const char *name, int64_t absent, int64_t least)
{
    const json_t *value = json_object_get(params_, name);
    if (value == nullptr)
        return absent;
    if (!json_is_integer(value)) {
        refuse(name, "an integer");
        return absent;
    }
    if (json_integer_value(value) < least && !problem_)
        problem_ = {code::bad_arguments, std::string("\"") + name + "\" must be at least " + std::to_string(least), ""};
    return json_integer_value(value);
}

bool param_reader::boolean(const char *name, bool absent)
{
    const json_t *value = json_object_get(params_, name);
    if (value != nullptr && !json_is_boolean(value))
        refuse(name, "true or false");
    return value == nullptr ? absent : json_is_true(value);
}

const json_t *param_reader::texts(const char *name)
{
    const json_t *value = json_object_get(params_, name);
    bool fits = json_is_array(value);
    for (size_t i = 0; fits && i < json_array_size(value); ++i)
        fits = json_is_string(json_array_get(value, i));
    if (!fits)
        refuse(name, "an array of texts");
    return value;
}

const json_t *param_reader::name_values(const char *name, bool needed)
{
    const json_t *value = json_object_get(params_, name);
    if (value == nullptr && !needed)
        return nullptr;
    bool fits = json_is_array(value);
    for (size_t i = 0; fits && i < json_array_size(value); ++i) {
        const json_t *entry = json_array_get(value, i);
        fits = json_is_string(json_object_get(entry, "Name")) && json_object_get(entry, "Value") != nullptr;
    }
    if (!fits)
        refuse(name, "an array of objects with \"Name\" and \"Value\"");
    return value;
}

} // namespace veld
