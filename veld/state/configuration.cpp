#include "veld/state/configuration.h"

#include "veld/model/overlay.h"

namespace veld
{

namespace
{

constexpr const char *format_key = "veld-config";
constexpr json_int_t format_version = 1;

} // namespace

json_ref configuration_of(tree *from)
{
    json_ref values = overlay_of(from, from->root());
    if (!values)
        values.reset(json_object());
    json_ref document{json_object()};
    json_object_set_new(document.get(), format_key, json_integer(format_version));
    json_object_set_new(document.get(), "config", values.release());
    return document;
}

bool configuration_readable(const json_t *document, std::string *error)
{
    const json_t *version = json_object_get(document, format_key);
    if (!json_is_integer(version)) {
        *error = "is no configuration";
        return false;
    }
    if (json_integer_value(version) != format_version) {
        *error = "is a configuration of another version";
        return false;
    }
    if (!json_is_object(json_object_get(document, "config"))) {
        *error = "has no \"config\"";
        return false;
    }
    return true;
}

bool configuration_restore(tree *into, const json_t *document, std::string *error)
{
    into->reset();
    if (document == nullptr)
        return true;
    if (configuration_readable(document, error) &&
        overlay_apply(into, into->root(), json_object_get(document, "config"), overlay_kind::saved, error))
        return true;
    into->reset();
    return false;
}

bool configuration_replace(tree *in, const json_t *document, tree::snapshot *before, std::string *error)
{
    if (!configuration_readable(document, error))
        return false;
    // Tried on a fresh set of nodes, with the old ones at hand for the way back.
    *before = in->take();
    in->reset();
    if (overlay_apply(in, in->root(), json_object_get(document, "config"), overlay_kind::strict, error))
        return true;
    in->put_back(std::move(*before));
    return false;
}

bool configuration_check(tree *in, const json_t *document, json_ref *whole, std::string *error)
{
    tree::snapshot before;
    if (!configuration_replace(in, document, &before, error))
        return false;
    *whole = configuration_of(in);
    in->put_back(std::move(before));
    return true;
}

} // namespace veld
