#include "main/modes.h"

#include <csignal>
#include <cstdlib>

#include "base/json_ref.h"
#include "event/listener.h"
#include "event/request.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"

namespace
{

constexpr int raw_timeout_ms = 5000;
constexpr int listen_poll_ms = 10;

/// Any JSON value, scalars and texts with a NUL too; null when the text holds none.
json_t *decode_argument(command_args params)
{
    return params.empty() ? nullptr : json_loads(params[0].c_str(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr);
}

/// "<< " and the value over several lines.
void print_answer(const json_t *answer)
{
    char *text = json_dumps(answer, JSON_INDENT(4) | JSON_ENCODE_ANY);
    ve_out_write("<< ", 3);
    ve_puts(ve_visible_lines(text).c_str());
    free(text);
}

void act_stop(int)
{
    end_run();
}

} // namespace

int mode_run_raw(command_args params)
{
    const json_ref json(decode_argument(params));
    if (!json) {
        ve_puts("Invalid raw JSON message.");
        return -1;
    }
    const msg_ref message(ve_jrpcmsg_parse_json(json.get()));
    if (!message) {
        ve_puts("Incorrect message.");
        return -1;
    }
    if (ve_jrpcmsg_typeof(message.get()) != ve_jrpcmsg_request)
        return msg_send(message.get());
    msg_exec(message.get(), raw_timeout_ms);
    const json_ref answer(ve_jrpcmsg_json(message.get()));
    print_answer(answer.get());
    return ve_jrpcmsg_error_code(message.get());
}

int mode_run_listen()
{
    struct sigaction action = {};
    action.sa_handler = act_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    while (is_running())
        ve_wait_sleep_ms(listen_poll_ms);
    return 0;
}

int mode_run_event(uint32_t id, command_args params)
{
    const msg_ref message(ve_jrpcmsg_create_event_new(id, decode_argument(params)));
    return ve_jrpcapi_send(group_ctx, message.get());
}
