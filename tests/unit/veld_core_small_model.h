// A small model for the tests of the daemon's core.
#pragma once

#include "veld/model/document.h"

#include <gtest/gtest.h>

namespace veld_test
{

inline constexpr const char *small_model = R"json({
  "format": 1,
  "root": {
    "Device": {"children": {
      "Name": {"type": "string", "access": "readWrite", "default": "box", "minLength": 1, "maxLength": 8},
      "Level": {"type": "unsignedInt", "access": "readWrite", "default": 5, "minInclusive": 1, "maxInclusive": 10},
      "Uptime": {"type": "unsignedInt", "default": 7, "live": "uptime"},
      "Key": {"type": "string", "access": "readWrite", "default": "k", "secret": true},
      "HostCount": {"type": "unsignedInt", "default": 0, "entries": "Host"},
      "Host": {"multi": true, "access": "readWrite", "template":
        {"access": "readWrite", "children": {
          "Alias": {"type": "string", "access": "readWrite", "default": "", "unique": true},
          "Id": {"type": "unsignedInt", "access": "readWrite", "default": 1, "unique": true},
          "Stats": {"children": {"Resets": {"type": "int", "access": "readWrite", "default": 0}}},
          "Address": {"multi": true, "access": "readWrite", "template":
            {"children": {"IP": {"type": "string", "access": "readWrite", "default": ""}}}}}},
        "instances": {"1": {"Alias": "one", "Id": 1}, "2": {"Alias": "two", "Id": 2, "Stats.Resets": 3}}},
      "Search": {"multi": true, "ordered": true, "access": "readWrite", "template":
        {"type": "string", "access": "readWrite", "default": ""},
        "instances": {"1": "lan", "2": "home", "3": "work"}, "order": [2, 3, 1]},
      "Link": {"multi": true, "live": "links", "template": {"children": {
          "Name": {"type": "string", "default": "", "live": "name"},
          "Note": {"type": "string", "access": "readWrite", "default": ""},
          "Address": {"multi": true, "live": "Address", "template":
            {"children": {"IP": {"type": "string", "default": "", "live": "ip"}}}}}}},
      "Admin": {"read": "admin", "write": "admin", "children": {
        "Hidden": {"type": "int", "access": "readWrite", "default": 0},
        "Shown": {"type": "int", "default": 0, "read": "public"}}},
      "Ping": {"type": "method", "input": {
          "Host": {"type": "string", "default": "localhost"},
          "Options": {"children": {"Count": {"type": "unsignedInt", "default": 4, "minInclusive": 1}}}},
        "output": {"Result": {"children": {"Time": {"type": "decimal", "default": 0.0}}}}}
    }}
  }
})json";

/// Where live values come from in a test. Both return new references; null when there is nothing to tell.
struct live_source {
    std::function<json_t *(std::string_view provider)> value;
    std::function<json_t *(std::string_view provider)> rows;
};

class live_backend : public veld::device_backend
{
public:
    explicit live_backend(live_source live) : live_(std::move(live)) {}
    bool knows(veld::backend_use, std::string_view) const override { return true; }
    veld::backend_part serves(veld::backend_use, const veld::scheme &, const std::string &) override
    {
        return veld::backend_part::none; // what the model names is enough
    }
    json_ref read(const veld::scheme &what, const std::string &) override
    {
        return json_ref{live_.value ? live_.value(what.provider) : nullptr};
    }
    json_ref rows(const veld::scheme &what, const std::string &) override
    {
        return json_ref{live_.rows ? live_.rows(what.provider) : nullptr};
    }
    veld::fault apply(const std::vector<veld::backend_change> &, size_t *) override { return {}; }
    std::unique_ptr<veld::job> run(const veld::scheme &, const std::string &, const json_t *,
                                   const std::function<std::string(std::string_view)> &, veld::job_outcome *) override
    {
        return nullptr;
    }
    void announced(const std::string &) override {}

private:
    live_source live_;
};

inline std::unique_ptr<veld::tree> make_tree(live_source live = {}, const char *model = small_model)
{
    static std::unique_ptr<live_backend> behind; // of the tree that was made last
    behind = std::make_unique<live_backend>(std::move(live));
    std::string error;
    const json_ref document{json_loads(model, 0, nullptr)};
    EXPECT_TRUE(document);
    std::unique_ptr<veld::tree> made = veld::document_tree(document.get(), behind.get(), &error);
    EXPECT_EQ(error, "");
    return made;
}

inline std::string text_of(json_ref value)
{
    char *text = json_dumps(value.get(), JSON_ENCODE_ANY | JSON_COMPACT);
    std::string out = text != nullptr ? text : "nothing";
    free(text);
    return out;
}

inline json_ref json(const char *text)
{
    json_ref value{json_loads(text, JSON_DECODE_ANY, nullptr)};
    EXPECT_TRUE(value) << text;
    return value;
}

/// The value at a path, as JSON text.
inline std::string value_at(veld::tree *model, const char *path)
{
    model->begin_request();
    const veld::place found = model->find(path);
    return found ? text_of(model->value(found.at)) : "no node";
}

} // namespace veld_test
