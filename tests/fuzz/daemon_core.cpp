// What clients and files hand to the daemon's core: questions, values to set, configurations, model documents, images.
#include "veld/firmware/source_url.h"
#include "veld/firmware/upgrade.h"
#include "veld/machine/image.h"
#include "veld/model/change.h"
#include "veld/model/document.h"
#include "veld/model/query.h"
#include "veld/rpc/arguments.h"
#include "veld/state/configuration.h"

#include <cstdint>
#include <cstdlib>

using namespace veld;

namespace
{

constexpr const char *model_text = R"json({"format": 1, "root": {"D": {"children": {
  "S": {"type": "string", "access": "readWrite", "default": "s", "regex": "[a-z]*", "maxLength": 5},
  "N": {"type": "unsignedLong", "access": "readWrite", "default": 0, "maxInclusive": 9},
  "R": {"type": "decimal", "access": "readWrite", "default": 0.5},
  "B": {"type": "base64", "access": "readWrite", "default": ""},
  "H": {"type": "hexBinary", "access": "readWrite", "default": "", "maxLength": 2},
  "W": {"type": "dateTime", "access": "readWrite", "default": "0001-01-01T00:00:00Z"},
  "P": {"type": "path", "access": "readWrite", "default": ""},
  "T": {"multi": true, "ordered": true, "access": "readWrite", "template": {"access": "readWrite", "children": {
    "U": {"type": "int", "access": "readWrite", "default": 1, "unique": true},
    "A": {"multi": true, "access": "readWrite", "template": {"type": "string", "access": "readWrite", "default": ""}}}},
    "instances": {"1": {"U": 1}, "2": {"U": 2}}},
  "M": {"type": "method", "input": {"O": {"children": {"I": {"type": "int", "default": 1}}}}}
}}}})json";

tree *model()
{
    static const std::unique_ptr<tree> made = [] {
        std::string error;
        const json_ref document{json_loads(model_text, 0, nullptr)};
        auto fresh = document_tree(document.get(), {}, &error);
        if (!fresh)
            abort();
        return fresh;
    }();
    return made.get();
}

bool holds(const json_t *list, bool pairs)
{
    for (size_t i = 0; i < json_array_size(list); ++i) {
        const json_t *entry = json_array_get(list, i);
        if (pairs ? !json_is_string(json_object_get(entry, "Name")) || json_object_get(entry, "Value") == nullptr
                  : !json_is_string(entry))
            return false;
    }
    return json_is_array(list);
}

void ask(const json_t *names)
{
    for (const role who : {role::anonymous, role::administrator}) {
        std::string out;
        const answer_text answer{&out, size_t{1} << 20};
        query_values(model(), who, names, answer);
        query_attributes(model(), who, names, -1, answer);
        const char *path = json_string_value(json_array_get(names, 0));
        if (path == nullptr)
            continue;
        query_names(model(), who, path, false, answer);
        node *added = nullptr;
        if (!change_add(model(), who, path, 0, &added) && model()->find("D.T").at->table->instances.size() > 50)
            model()->reset();
        node *table = nullptr;
        uint32_t number = 0;
        change_order(model(), who, path, 1);
        change_delete(model(), who, path, &table, &number);
    }
}

void change(const json_t *list)
{
    std::vector<value_change> changes;
    change_values(model(), role::administrator, list, &changes);
    json_ref input;
    arguments_check(*model()->find("D.M").what, list, &input);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::string error;
    image_header header;
    image_header_parse(text, &header, &error);
    source_url url;
    if (source_url_parse(text, &url, &error))
        source_url_file(url);

    json_ref value{json_loadb(text.data(), text.size(), JSON_ALLOW_NUL | JSON_DECODE_ANY, nullptr)};
    if (!value)
        return 0;
    if (holds(value.get(), false))
        ask(value.get());
    if (holds(value.get(), true))
        change(value.get());
    // What was taken can be written down and taken again.
    tree::snapshot before;
    if (configuration_replace(model(), value.get(), &before, &error)) {
        const json_ref saved = configuration_of(model());
        if (!configuration_replace(model(), saved.get(), &before, &error))
            abort();
    }
    document_tree(value.get(), {}, &error);
    return 0;
}
