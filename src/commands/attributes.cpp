#include "commands/attributes.h"

#include <cstdlib>
#include <string>

#include "base/json_write.h"
#include "commands/handler.h"
#include "commands/place.h"
#include "event/request.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "utils/json_util.h"

namespace
{

/// A node's attributes, borrowed from the object they were read from; null where there is none.
struct attributes {
    const char *type;
    const char *access;
    const char *handler_get;
    const char *handler_set;
    json_t *enumeration;
    json_t *standard;
    json_t *runtime;
    json_t *unique;
    json_t *multi;
    json_t *ordered;
    json_t *min_length;
    json_t *max_length;
    json_t *min_inclusive;
    json_t *max_inclusive;
    json_t *min_count;
    json_t *max_count;
    json_t *off_value;
    json_t *regex;
};

/// What could be read stands in the result; what could not is reported.
attributes unpack(json_t *object)
{
    attributes read{};
    json_error_t error;
    if (json_unpack_ex(object, &error, 0,
                       "{s : s, s : s, s ? s, s ? s, s ? o, s ? o, s ? o, s ? o, s ? o, s ? o, s ? o, s ? o, s ? o, s "
                       "? o, s ? o, s ? o, s ? o, s ? o, }",
                       "type", &read.type, "access", &read.access, "handler_get", &read.handler_get, "handler_set",
                       &read.handler_set, "enum", &read.enumeration, "default", &read.standard, "runtime",
                       &read.runtime, "unique", &read.unique, "multi", &read.multi, "ordered", &read.ordered,
                       "minLength", &read.min_length, "maxLength", &read.max_length, "minInclusive",
                       &read.min_inclusive, "maxInclusive", &read.max_inclusive, "minCount", &read.min_count,
                       "maxCount", &read.max_count, "offValue", &read.off_value, "regex", &read.regex) != 0)
        ve_printf("attr parse error on %d:%d : %s\n", error.line, error.column, ve_visible(error.text).c_str());
    return read;
}

void print_text(const char *label, const char *text)
{
    ve_printf("%-20s%s\n", label, text != nullptr ? ve_visible(text).c_str() : "(null)");
}

void print_json(const char *label, const json_t *value)
{
    if (value != nullptr)
        print_text(label, json_compact(value).c_str());
}

void print_flag(const char *label, const json_t *value)
{
    if (value != nullptr)
        print_text(label, json_is_true(value) ? "true" : "false");
}

void print_number(const char *label, const json_t *value)
{
    if (value != nullptr)
        ve_printf("%-20s%lli\n", label, static_cast<long long>(json_integer_value(value)));
}

void print_default(const json_t *value)
{
    if (value == nullptr)
        return;
    ve_printf("%-20s", "Default:");
    json_write_pieces(value, JSON_INDENT(4), [](std::string_view piece) { return ve_out_visible(piece, "\t\n") == 0; });
    ve_puts("");
}

void print_enumeration(const json_t *values)
{
    if (json_array_size(values) == 0)
        return;
    ve_puts("Enum: ");
    size_t index;
    json_t *value;
    json_array_foreach(values, index, value)
    {
        ve_printf("  %s\n", ve_visible(json_compact(value)).c_str());
        if (ve_out_relieve() < 0)
            break;
    }
}

void print_attrs(const char *path_text, json_t *object)
{
    const attributes read = unpack(object);
    ve_printf("Canonical path:     :%s\n", ve_visible(path_text).c_str());
    print_text("Type:", read.type);
    print_text("Access:", read.access);
    print_default(read.standard);
    print_enumeration(read.enumeration);
    print_flag("Ordered:", read.ordered);
    print_flag("Runtime:", read.runtime);
    print_flag("Unique:", read.unique);
    print_flag("Multi-instance:", read.multi);
    print_number("Minimal length:", read.min_length);
    print_number("Maximum length:", read.max_length);
    print_number("Minimal inclusive:", read.min_inclusive);
    print_number("Maximum inclusive:", read.max_inclusive);
    print_number("Minimal count:", read.min_count);
    print_number("Maximum count:", read.max_count);
    if (read.handler_get != nullptr)
        print_text("GET handler:", read.handler_get);
    if (read.handler_set != nullptr)
        print_text("SET handler:", read.handler_set);
    print_json("OFF value:", read.off_value);
    print_json("Regex:", read.regex);
}

/// What the cache knows of a node that the daemon does not show.
json_ref denied_attributes(const cdpath &place)
{
    json_ref attributes;
    if (place.node != nullptr)
        attributes = place.node->description();
    if (!attributes)
        attributes.reset(json_object());
    json_object_set_new(attributes.get(), "access", json_string("Denied"));
    return attributes;
}

int show_attrs(const char *name, const char *path_text)
{
    cdpath place = cdpath_here();
    if (!place_go(&place, path_text)) {
        ve_printf("%s: %s: no such node\n", name, ve_visible(place_sought(path_text)).c_str());
        return -1;
    }
    if (place.path.is_root()) {
        ve_puts("Canonical path:     :");
        ve_puts("Type:               config root");
        ve_puts("Access:             readOnly");
        return -1;
    }
    msg_ref message(ve_jrpcmsg_cmd_get_parameter_attributes_new(nullptr));
    const std::string node = place_is_parameter(place) ? place.path.text() : place.path.as_object();
    ve_jrpcmsg_cmd_get_parameter_attributes_add(message.get(), node.c_str());
    json_object_set_new(ve_jrpcmsg_params(message.get()), "Depth", json_integer(0));
    msg_exec(message.get(), 1000);

    ve_parameter first;
    ve_jrpcmsg_parameters(message.get()).next(&first);
    json_ref attributes(first.attributes.load());
    if (!attributes)
        attributes = denied_attributes(place);
    print_attrs(place.path.c_str(), attributes.get());
    return 0;
}

} // namespace

int process_info(const char *name, command_args args)
{
    if (args.size() < 2)
        return show_attrs(name, arg_text(args, 0));
    for (const std::string &word : args) {
        ve_printf("%s:\n", ve_visible(word).c_str());
        show_attrs(name, word.c_str());
        ve_puts("");
        if (ve_out_relieve() < 0)
            break;
    }
    return 0;
}

int process_get_attrs(const char *name, command_args args)
{
    msg_ref message(ve_jrpcmsg_cmd_get_parameter_attributes_new(nullptr));
    for (const std::string &word : args)
        ve_jrpcmsg_cmd_get_parameter_attributes_add(message.get(), word.c_str());
    msg_exec(message.get(), 5000);
    if (ve_jrpcmsg_error_code(message.get()) != 0) {
        ve_printf("%s: ERROR\n", name);
        return -1;
    }
    ve_parameter entry;
    ve_wait_loop loop;
    for (ve_parameters list = ve_jrpcmsg_parameters(message.get()); list.next(&entry) && !loop.interrupted();) {
        if (!entry.name || !entry.attributes)
            continue;
        const std::string path(*entry.name);
        print_attrs(path.c_str(), json_ref(entry.attributes.load()).get());
        ve_puts("");
        if (ve_out_relieve() < 0)
            break;
    }
    return 0;
}
