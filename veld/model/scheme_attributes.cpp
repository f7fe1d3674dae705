#include "base/json_write.h"
#include "veld/model/scheme.h"

namespace veld
{

namespace
{

constexpr const char *type_names[] = {"",          "string",       "boolean", "int",      "unsignedInt",
                                      "long",      "unsignedLong", "decimal", "dateTime", "base64",
                                      "hexBinary", "path",         "switch"};

void flag(std::string *out, const char *key, bool set)
{
    if (set)
        out->append(",\"").append(key).append("\":true");
}

void number(std::string *out, const char *key, const std::optional<int64_t> &value)
{
    if (value) {
        out->append(",\"").append(key).append("\":");
        json_write_integer(out, *value);
    }
}

void text(std::string *out, const char *key, const std::string &value)
{
    if (!value.empty()) {
        out->append(",\"").append(key).append("\":");
        json_write_string(out, value);
    }
}

void json(std::string *out, const char *key, const json_ref &value)
{
    if (value) {
        out->append(",\"").append(key).append("\":");
        json_write_value(out, value.get());
    }
}

} // namespace

const char *type_name(value_type type)
{
    return type_names[static_cast<size_t>(type)];
}

const char *scheme_perms(const scheme &what, role who)
{
    if (who < (what.is_object() ? what.reach : what.read))
        return "";
    const bool acts = what.writable || what.kind == node_kind::method;
    return acts && who >= what.write && who >= what.read ? "rw" : "r";
}

void scheme_attributes(std::string *out, const scheme &what, role who)
{
    const char *type = what.is_object() ? "object" : what.kind == node_kind::method ? "method" : type_name(what.type);
    out->append("{\"type\":\"").append(type);
    out->append("\",\"access\":\"").append(what.writable ? "readWrite" : "readOnly");
    out->append("\",\"perms\":\"").append(scheme_perms(what, who)).append("\"");
    json(out, "default", what.initial);
    json(out, "enum", what.enumeration);
    flag(out, "multi", what.kind == node_kind::table);
    flag(out, "ordered", what.ordered);
    flag(out, "runtime", what.runtime);
    flag(out, "unique", what.unique);
    number(out, "minInclusive", what.min_inclusive);
    number(out, "maxInclusive", what.max_inclusive);
    number(out, "minLength", what.min_length);
    number(out, "maxLength", what.max_length);
    number(out, "minCount", what.min_count);
    number(out, "maxCount", what.max_count);
    if (what.regex)
        text(out, "regex", what.regex->expression());
    json(out, "offValue", what.off_value);
    text(out, "handler_get", what.handler_get);
    text(out, "handler_set", what.handler_set);
    if (what.argument && what.kind != node_kind::method)
        out->append(what.output ? ",\"Direction\":\"output\"" : ",\"Direction\":\"input\"");
    out->push_back('}');
}

} // namespace veld
