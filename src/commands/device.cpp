#include "commands/device.h"

#include <cstring>

#include "commands/handler.h"
#include "commands/values.h"
#include "event/request.h"
#include "platform/ve_wait.h"

namespace
{

constexpr int poll_timeout_ms = 1000;
constexpr int poll_pause_ms = 100;

/// Sends a request without parameters and shows how it ended.
void send_and_show(const char *method)
{
    msg_ref message(ve_jrpcmsg_create_new(method, nullptr));
    msg_exec(message.get(), -1);
    print_status(message.get());
}

/// Returns when the device no longer answers: 0, or -1 when the wait was interrupted.
int wait_until_down()
{
    msg_ref message(ve_jrpcmsg_cmd_get_parameter_values_new(nullptr));
    ve_jrpcmsg_cmd_get_parameter_values_add(message.get(), "Device.DeviceInfo.Uptime");
    for (;;) {
        ve_jrpcmsg_set_result_new(message.get(), nullptr);
        msg_exec_once(message.get(), poll_timeout_ms);
        if (ve_wait_interrupted())
            return -1;
        if (!ve_jrpcmsg_has_result(message.get()))
            return 0;
        if (ve_wait_sleep_ms(poll_pause_ms) < 0)
            return -1;
    }
}

} // namespace

int process_save(const char *, command_args)
{
    send_and_show("SaveConfig");
    return 0;
}

int process_reset(const char *, command_args)
{
    send_and_show("FactoryReset");
    return 0;
}

int process_reboot(const char *, command_args args)
{
    const char *option = arg_text(args, 0);
    const int force = option != nullptr && strcmp(option, "-f") == 0 ? 1 : 0;
    {
        msg_ref message(ve_jrpcmsg_create_new("Reboot", json_pack("{s: b}", "Force", force)));
        msg_exec(message.get(), -1);
        print_status(message.get());
        if (ve_jrpcmsg_error_code(message.get()) != 0)
            return 0;
    }
    if (wait_until_down() < 0)
        return -1;
    server_reconnect("Rebooting... ", true);
    return 0;
}
