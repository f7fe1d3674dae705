#include "commands/execute.h"

#include <cstring>
#include <string>

#include "base/json_ref.h"
#include "commands/handler.h"
#include "commands/place.h"
#include "commands/values.h"
#include "event/request.h"
#include "platform/ve_out.h"
#include "utils/json_util.h"

namespace
{

/// Appends what "rpath=value" says to the argument list; false with a message when it does not fit the method's input.
bool add_argument(const char *name, const char *argument, dm_node *input, json_t *list)
{
    const char *equals = strrchr(argument, '=');
    if (equals == nullptr) {
        ve_printf("%s: %s: no value.\n", name, ve_visible(argument).c_str());
        return false;
    }
    const std::string path(argument, equals);
    const char *text = equals + 1;
    const std::string shown = ve_visible(path);
    ve_printf("key = %s, value = %s\n", shown.c_str(), ve_visible(text).c_str());
    const std::shared_ptr<dm_node> node = input != nullptr ? input->find(path) : nullptr;
    if (node == nullptr) {
        ve_printf("%s: %s: no such argument.\n", name, shown.c_str());
        return false;
    }
    const json_ref attributes = node->description();
    const json_t *standard = json_object_get(attributes.get(), "default");
    if (standard == nullptr) {
        ve_printf("%s: %s: is an object or doesn't have default value.\n", name, shown.c_str());
        return false;
    }
    const json_ref value{json_load_uservalue(text, json_typeof(standard))};
    if (!value) {
        ve_printf("%s: %s: invalid value %s.\n", name, shown.c_str(), ve_visible(text).c_str());
        return false;
    }
    json_array_append_new(list, json_pack("{s : s, s : O}", "Name", path.c_str(), "Value", value.get()));
    return true;
}

} // namespace

int process_execute(const char *name, command_args args)
{
    const char *method = arg_text(args, 0);
    if (method == nullptr || *method == '\0') {
        ve_printf("%s: no method.\n", name);
        return -1;
    }
    cdpath place = cdpath_here();
    if (!place_go(&place, method)) {
        ve_printf("%s: %s: no such method.\n", name, ve_visible(method).c_str());
        return -1;
    }
    msg_ref message;
    {
        const std::shared_ptr<dm_node> input = cdpath_get_input(place);
        json_ref list{json_array()};
        for (size_t index = 1; index < args.size(); ++index) {
            if (!add_argument(name, arg_text(args, index), input.get(), list.get()))
                return -1;
        }
        message = msg_ref(ve_jrpcmsg_cmd_execute(place.path.c_str(), list.release()));
    }
    msg_exec(message.get(), -1);
    const ve_parameters output = ve_jrpcmsg_parameters(message.get());
    if (!output.empty())
        return values_tree(output, "");
    print_status(message.get());
    return -1;
}
