#include "commands/values.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/json_ref.h"
#include "base/json_write.h"
#include "commands/handler.h"
#include "commands/place.h"
#include "event/request.h"
#include "platform/ve_colors.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"
#include "utils/colorscheme.h"
#include "utils/columns.h"
#include "utils/json_util.h"

namespace
{

constexpr int request_denied = 9001;

/// The name that the daemon is asked for: an object with its final dot, what belongs to a table itself without.
std::string query_name(const cdpath &place)
{
    const std::string_view last = place.path.last();
    const bool parameter = place_is_parameter(place) || last == "max_instance" || last == "order";
    return parameter ? place.path.text() : place.path.as_object();
}

/// The name without the query in front, as far as that is there.
std::string_view name_below(std::string_view name, const std::string &query)
{
    name = name.substr(0, name.find('\0'));
    if (name.starts_with(query))
        name.remove_prefix(query.size());
    return name;
}

void print_list(const ve_parameters &list, const std::string &query)
{
    column names;
    ve_parameter entry;
    ve_wait_loop loop;
    for (ve_parameters entries = list; entries.next(&entry) && !loop.interrupted();)
        if (entry.name)
            names.add(name_below(*entry.name, query));
    const size_t width = names.width();
    std::string text;
    for (ve_parameters entries = list; entries.next(&entry) && !loop.interrupted();) {
        if (!entry.name)
            continue;
        text = name_below(*entry.name, query);
        if (text.empty()) // a single parameter was asked for
            text = dm_path::last_of(query);
        ve_out_visible(text);
        const size_t taken = ve_rl_width(text);
        text.assign(width > taken ? width - taken : 0, ' ').append(" = ");
        ve_out_write(text.data(), text.size());
        ve_colors_set_hsv2(kest_colorscheme_get().autocomplete);
        text.clear();
        entry.value.append_to(&text);
        ve_out_visible(text);
        ve_puts("");
        ve_colors_reset();
        if (ve_out_relieve() < 0)
            break;
    }
}

/// One query. Returns 0 or -1.
int print_values(const char *name, const char *path_text, bool tree)
{
    cdpath place = cdpath_here();
    if (!place_go(&place, path_text)) {
        ve_printf("%s: %s: no such node.\n", name, ve_visible(place_sought(path_text)).c_str());
        return -1;
    }
    std::string query;
    if (place.node != nullptr)
        query = query_name(place);
    else if (path_text != nullptr)
        query = path_text;
    if (query.empty()) {
        ve_printf("%s: no argument.\n", name);
        return -1;
    }
    msg_ref message(ve_jrpcmsg_cmd_get_parameter_values_new(nullptr));
    ve_jrpcmsg_cmd_get_parameter_values_add(message.get(), query.c_str());
    msg_exec(message.get(), -1);
    if (!ve_jrpcmsg_has_result(message.get())) {
        print_status(message.get());
        return -1;
    }
    if (tree)
        return values_tree(ve_jrpcmsg_parameters(message.get()), query);
    print_list(ve_jrpcmsg_parameters(message.get()), query);
    return 0;
}

int print_each(const char *name, command_args args, bool tree)
{
    if (args.empty())
        print_values(name, ".", tree);
    for (const std::string &word : args)
        print_values(name, word.c_str(), tree);
    return 0;
}

/// The value for a typed assignment as the scheme wants it, with the parameter's full name; null with a message when it
/// cannot be had.
json_t *typed_value(const char *name, const char *path, const char *text, std::string *parameter)
{
    cdpath place = cdpath_here();
    if (!place_go(&place, path)) {
        ve_printf("%s: %s: no such node.\n", name, ve_visible(path).c_str());
        return nullptr;
    }
    const json_ref attributes = place.node->description();
    const json_t *standard = json_object_get(attributes.get(), "default");
    if (place.node->is_object() || standard == nullptr) {
        ve_printf("%s: %s: is an object or doesn't have default value.\n", name, ve_visible(path).c_str());
        return nullptr;
    }
    json_t *value = json_load_uservalue(text, json_typeof(standard));
    if (value == nullptr)
        ve_printf("%s: %s: invalid value %s.\n", name, ve_visible(path).c_str(), ve_visible(text).c_str());
    *parameter = place.path.text();
    return value;
}

void print_error(int code, const char *title, const char *text)
{
    ve_colors_set(1);
    ve_printf("[%d] %s", code, ve_visible(title).c_str());
    ve_colors_reset();
    ve_out_write(": ", 2);
    ve_out_visible(text);
    ve_puts("");
}

} // namespace

void print_denied(const std::string &words)
{
    print_error(request_denied, "Request denied", words.c_str());
}

void print_status(const ve_jrpcmsg *message)
{
    const int code = ve_jrpcmsg_error_code(message);
    if (code == 0) {
        ve_printf("Status: ");
        ve_colors_set(2);
        ve_puts("OK");
        ve_colors_reset();
        ve_out_flush();
        return;
    }
    print_error(code, ve_jrpcmsg_error_title(message), ve_jrpcmsg_error_message(message));
    json_t *data = ve_jrpcmsg_error_data(message);
    const char *key;
    json_t *value;
    json_object_foreach(data, key, value)
    {
        ve_out_visible(key);
        ve_out_write(": ", 2);
        json_write_pieces(value, 0, [](std::string_view piece) { return ve_out_visible(piece) == 0; });
        ve_puts("");
        if (ve_out_relieve() < 0)
            break;
    }
}

int process_cat(const char *name, command_args args)
{
    return print_each(name, args, false);
}

int process_catree(const char *name, command_args args)
{
    return print_each(name, args, true);
}

int process_set(const char *name, command_args args)
{
    json_ref list(json_array());
    for (const std::string &word : args) {
        const size_t equals = word.rfind('=');
        if (equals == std::string::npos) {
            ve_printf("%s: %s: no value.\n", name, ve_visible(word).c_str());
            continue;
        }
        const std::string path = word.substr(0, equals);
        const char *text = word.c_str() + equals + 1;
        ve_printf("key = %s, value = %s\n", ve_visible(path).c_str(), ve_visible(text).c_str());
        std::string parameter(path);
        json_t *value;
        if (place_scheme_loaded())
            value = typed_value(name, path.c_str(), text, &parameter);
        else
            value = json_loads(text, JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr);
        if (value != nullptr)
            json_array_append_new(list.get(), json_pack("{s:s, s:o}", "Name", parameter.c_str(), "Value", value));
    }
    if (json_array_size(list.get()) == 0) {
        ve_printf("%s: no argument.\n", name);
        return -1;
    }
    msg_ref message(ve_jrpcmsg_cmd_set_parameter_values_new(list.release()));
    msg_exec(message.get(), -1);
    print_status(message.get());
    return 0;
}
