#include "commands/instances.h"

#include <cstdint>
#include <string>

#include "commands/handler.h"
#include "commands/navigation.h"
#include "commands/place.h"
#include "commands/values.h"
#include "event/request.h"
#include "platform/ve_colors.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "platform/ve_string.h"

namespace
{

constexpr uint32_t no_order = UINT32_MAX;

bool read_order(const char *name, const char *text, uint32_t *order)
{
    if (ve_string_strtoul(text, 10, order) >= 0)
        return true;
    ve_printf("%s: invalid order integer: %s\n", name, ve_visible(text).c_str());
    return false;
}

bool no_such_node(const char *name, const char *path)
{
    ve_printf("%s: %s: no such node.\n", name, ve_visible(path).c_str());
    return false;
}

/// The path to send for the typed one: with a final dot when the scheme knows it, else as typed. False with a message
/// when it cannot be followed.
bool object_path(const char *name, const char *typed, std::string *path)
{
    *path = typed;
    if (!place_scheme_loaded())
        return true;
    cdpath place = cdpath_here();
    if (!place_go(&place, typed))
        return no_such_node(name, typed);
    *path = place.path.as_object();
    return true;
}

/// The same, but that a parameter's path (an instance of a list of values) has no final dot.
bool instance_path(const char *name, const char *typed, std::string *path)
{
    *path = typed;
    if (!place_scheme_loaded())
        return true;
    cdpath place = cdpath_here();
    if (!place_go(&place, typed))
        return no_such_node(name, typed);
    *path = place.path.is_root() || place_is_parameter(place) ? place.path.text() : place.path.as_object();
    return true;
}

/// Sends the request (taken over) and shows how it ended.
void send_and_show(ve_jrpcmsg *request)
{
    msg_ref message(request);
    msg_exec(message.get(), -1);
    print_status(message.get());
}

} // namespace

int process_add(const char *name, command_args args)
{
    const size_t count = args.size();
    if (count > 2) {
        ve_printf("syntax: %s <path> [<order_num>]\n", name);
        return -1;
    }
    uint32_t order = no_order;
    if (count == 2 && !read_order(name, arg_text(args, 1), &order))
        return -1;
    std::string path;
    if (!object_path(name, count > 0 ? arg_text(args, 0) : ".", &path))
        return -1;

    msg_ref message(ve_jrpcmsg_cmd_add_object(path.c_str(), order));
    msg_exec(message.get(), -1);
    int number = 0;
    if (json_t *result = ve_jrpcmsg_result(message.get()); result != nullptr)
        json_unpack(result, "{s : i}", "InstanceNumber", &number);
    if (number > 0) {
        ve_printf("Instance number:");
        ve_colors_set(3);
        ve_printf(" %d\n", number);
        ve_colors_reset();
    }
    print_status(message.get());
    return number;
}

int process_take(const char *name, command_args args)
{
    const char *typed = arg_text(args, 0);
    std::string path(typed != nullptr ? typed : ".");
    const int number = process_add(name, args);
    if (number <= 0)
        return -1;
    if (!path.empty() && !path.ends_with('.'))
        path += '.';
    path += std::to_string(number);
    return process_cd(name, {&path, 1});
}

int process_del(const char *name, command_args args)
{
    if (args.size() != 1) {
        ve_printf("syntax: %s <path>\n", name);
        return -1;
    }
    std::string path;
    if (!instance_path(name, arg_text(args, 0), &path))
        return -1;
    send_and_show(ve_jrpcmsg_cmd_delete_object(path.c_str()));
    return 0;
}

int process_order(const char *name, command_args args)
{
    if (args.size() != 2) {
        ve_printf("syntax: %s <path> <order_num>\n", name);
        return -1;
    }
    uint32_t order = no_order;
    if (!read_order(name, arg_text(args, 1), &order))
        return -1;
    std::string path;
    if (!object_path(name, arg_text(args, 0), &path))
        return -1;
    send_and_show(ve_jrpcmsg_cmd_change_order(path.c_str(), order));
    return 0;
}
