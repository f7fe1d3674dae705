#include "utils/json_util.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/ve_string.h"

void json_array_sort(json_t *array)
{
    struct item {
        const char *text;
        json_t *value;
    };
    std::vector<item> items;
    items.reserve(json_array_size(array));
    size_t index;
    json_t *value;
    json_array_foreach(array, index, value) items.push_back({json_string_value(value), json_incref(value)});
    std::stable_sort(items.begin(), items.end(),
                     [](const item &a, const item &b) { return strcmp(a.text, b.text) < 0; });
    json_array_clear(array);
    for (const item &each : items)
        json_array_append_new(array, each.value);
}

json_t *json_load_uservalue(const char *text, int type)
{
    switch (type) {
    case JSON_STRING:
        return json_string(text);
    case JSON_INTEGER: {
        int32_t value;
        return ve_string_strtol(text, 10, &value) < 0 ? nullptr : json_integer(value);
    }
    case JSON_REAL: {
        double value;
        return ve_string_strtod(text, &value) < 0 ? nullptr : json_real(value);
    }
    case JSON_TRUE:
    case JSON_FALSE: {
        const std::string_view typed(text);
        const auto is = [&](std::string_view word) {
            return std::equal(typed.begin(), typed.end(), word.begin(), word.end(),
                              [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; });
        };
        return is("true") ? json_true() : is("false") ? json_false() : nullptr;
    }
    default:
        return nullptr;
    }
}

std::string json_compact(const json_t *value)
{
    std::string text;
    const auto append = [](const char *data, size_t size, void *out) {
        static_cast<std::string *>(out)->append(data, size);
        return 0;
    };
    json_dump_callback(value, append, &text, JSON_ENCODE_ANY);
    return text;
}

const char *json_text(const json_t *object, const char *key)
{
    return json_string_value(json_object_get(object, key));
}
