#include "utils/json_util.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "base/json_write.h"
#include "platform/ve_string.h"

namespace
{

/// A text to be sorted: its bytes up to `rest` are those of its neighbours, `key` stands for the next ones.
struct sorted_item {
    uint64_t key;
    const char *rest;
    json_t *value;
};

constexpr size_t key_bytes = sizeof(uint64_t);
constexpr ptrdiff_t few_items = 16;

/// The next bytes as a number that compares like them, zeros behind the text's end.
uint64_t next_key(const char *rest)
{
    uint64_t key = 0;
    size_t taken = 0;
    while (taken < key_bytes && rest[taken] != '\0')
        key = key << 8 | static_cast<unsigned char>(rest[taken++]);
    return taken == 0 ? 0 : key << 8 * (key_bytes - taken);
}

/// Sorts by numbers that stand in the items themselves: the texts, which lie all over the memory, are hardly touched.
void sort_items(sorted_item *begin, sorted_item *end)
{
    while (end - begin > few_items) {
        for (sorted_item *each = begin; each != end; ++each)
            each->key = next_key(each->rest);
        std::stable_sort(begin, end, [](const sorted_item &a, const sorted_item &b) { return a.key < b.key; });
        // Runs of one key are sorted by what follows; if everything is one run, without going deeper.
        sorted_item *run = begin;
        while (run != end) {
            sorted_item *run_end = std::find_if(run, end, [run](const sorted_item &a) { return a.key != run->key; });
            const bool goes_on = (run->key & 0xff) != 0;
            for (sorted_item *each = run; goes_on && each != run_end; ++each)
                each->rest += key_bytes;
            if (run == begin && run_end == end && goes_on)
                break;
            if (goes_on && run_end - run > 1)
                sort_items(run, run_end);
            run = run_end;
        }
        if (run == end)
            return;
    }
    std::stable_sort(begin, end, [](const sorted_item &a, const sorted_item &b) { return strcmp(a.rest, b.rest) < 0; });
}

bool is_sorted(const json_t *array)
{
    for (size_t index = 1; index < json_array_size(array); ++index) {
        if (strcmp(json_string_value(json_array_get(array, index - 1)),
                   json_string_value(json_array_get(array, index))) > 0)
            return false;
    }
    return true;
}

} // namespace

void json_array_sort(json_t *array)
{
    if (is_sorted(array))
        return;
    std::vector<sorted_item> items;
    items.reserve(json_array_size(array));
    size_t index;
    json_t *value;
    json_array_foreach(array, index, value) items.push_back({0, json_string_value(value), json_incref(value)});
    sort_items(items.data(), items.data() + items.size());
    json_array_clear(array);
    for (const sorted_item &each : items)
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
    return json_written(value, 0);
}

const char *json_text(const json_t *object, const char *key)
{
    return json_string_value(json_object_get(object, key));
}
