#include "platform/ve_tr.h"

#include <cstdint>
#include <cstring>
#include <string_view>

namespace
{

struct type_name {
    std::string_view name;
    int code;
};

constexpr type_name type_names[] = {
    {"object", ve_tr_object},
    {"method", ve_tr_method},
    {"string", ve_tr_string},
    {"boolean", ve_tr_boolean},
    {"int", ve_tr_int},
    {"unsignedInt", ve_tr_unsigned_int},
    {"long", ve_tr_long},
    {"switch", ve_tr_switch},
    {"unsignedLong", ve_tr_unsigned_long},
    {"decimal", ve_tr_decimal},
    {"dateTime", ve_tr_date_time},
    {"base64", ve_tr_base64},
    {"hexBinary", ve_tr_hex_binary},
    {"path", ve_tr_path},
};

bool attr_flag(const json_t *node, const char *key)
{
    return json_is_true(json_object_get(ve_tr_dm_node_attr_get(node), key));
}

} // namespace

json_t *ve_tr_dm_node_attr_get(const json_t *node)
{
    json_t *attributes = json_object_get(node, "#attr");
    if (attributes == nullptr)
        attributes = json_object_get(json_object_get(node, "#info"), "Attributes");
    return json_is_object(attributes) ? attributes : nullptr;
}

json_t *ve_tr_dm_node_default_get(const json_t *node)
{
    return json_object_get(ve_tr_dm_node_attr_get(node), "default");
}

int ve_tr_dm_node_type_get(const json_t *node)
{
    const json_t *type = json_object_get(ve_tr_dm_node_attr_get(node), "type");
    if (!json_is_string(type))
        return ve_tr_object;
    const std::string_view text(json_string_value(type), json_string_length(type));
    for (const type_name &entry : type_names) {
        if (entry.name == text)
            return entry.code;
    }
    return ve_tr_other;
}

bool ve_tr_dm_node_is_multi(const json_t *node)
{
    return attr_flag(node, "multi");
}

bool ve_tr_dm_node_is_ordered(const json_t *node)
{
    return attr_flag(node, "ordered");
}

bool ve_tr_str_is_instance(const char *text)
{
    if (text == nullptr || *text == '\0')
        return false;
    uint64_t number = 0;
    for (; *text != '\0'; ++text) {
        if (*text < '0' || *text > '9')
            return false;
        number = number * 10 + static_cast<uint64_t>(*text - '0');
        if (number > UINT32_MAX)
            return false;
    }
    return number > 0;
}

bool ve_tr_path_is_full(const char *path)
{
    return path != nullptr && *path != '\0' && path[strlen(path) - 1] != '.';
}

bool ve_tr_path_is_partial(const char *path)
{
    return path != nullptr && *path != '\0' && path[strlen(path) - 1] == '.';
}
