#include "veld/rpc/trace.h"

#include "base/framing.h"
#include "base/json_write.h"

#include <algorithm>
#include <cctype>

namespace veld
{

namespace
{

constexpr size_t shown_whole = size_t{64} << 10;
constexpr const char *mask = "***";

bool sounds_secret(std::string_view name)
{
    name.remove_suffix(name.ends_with('.') ? 1 : 0);
    std::string leaf(name.substr(name.rfind('.') + 1));
    std::transform(leaf.begin(), leaf.end(), leaf.begin(), [](unsigned char c) { return tolower(c); });
    for (const char *word : {"password", "passphrase", "secret", "sharedkey", "psk", "credential"}) {
        if (leaf.find(word) != std::string::npos)
            return true;
    }
    return false;
}

bool is_secret(tree *model, std::string_view name)
{
    const place where = model->find(name);
    return sounds_secret(name) || (where && where.what->secret);
}

// A copy without what is secret; new reference.
json_t *masked(tree *model, const json_t *value)
{
    if (json_is_array(value)) {
        json_t *out = json_array();
        for (size_t i = 0; i < json_array_size(value); ++i)
            json_array_append_new(out, masked(model, json_array_get(value, i)));
        return out;
    }
    if (!json_is_object(value))
        return json_incref(const_cast<json_t *>(value));
    json_t *out = json_object();
    const json_t *named = json_object_get(value, "Name");
    const bool hidden =
        json_is_string(named) && is_secret(model, {json_string_value(named), json_string_length(named)});
    const char *key = nullptr;
    size_t size = 0;
    json_t *member = nullptr;
    json_object_keylen_foreach(const_cast<json_t *>(value), key, size, member)
    {
        const bool secret = sounds_secret({key, size}) || (hidden && std::string_view(key, size) == "Value");
        json_object_setn_new_nocheck(out, key, size, secret ? json_string(mask) : masked(model, member));
    }
    return out;
}

std::string text_of(tree *model, const json_t *value)
{
    std::string text;
    json_write_value(&text, json_ref{masked(model, value)}.get());
    return text;
}

} // namespace

std::string trace_request(tree *model, const json_t *message)
{
    std::string text;
    if (const json_t *id = json_object_get(message, "id"); id != nullptr && !json_is_object(id) && !json_is_array(id)) {
        json_write_value(&text, id);
        text += ' ';
    }
    const json_t *method = json_object_get(message, "method");
    text += json_is_string(method) ? json_string_value(method) : "(no method)";
    if (const json_t *params = json_object_get(message, "params"))
        text += " " + text_of(model, params);
    return text;
}

std::string trace_answer(tree *model, std::string_view line)
{
    if (line.size() > shown_whole)
        return std::to_string(line.size()) + " bytes";
    const json_ref message{wire_decode(line)};
    std::string text;
    if (const json_t *id = json_object_get(message.get(), "id"))
        json_write_value(&text, id);
    for (const char *part : {"result", "error"}) {
        if (const json_t *content = json_object_get(message.get(), part))
            text += std::string(" ") + part + " " + text_of(model, content);
    }
    return text;
}

} // namespace veld
