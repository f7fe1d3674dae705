#include "main/modes.h"

#include <csignal>

#include "base/json_ref.h"
#include "base/json_write.h"
#include "event/groups.h"
#include "event/listener.h"
#include "event/request.h"
#include "event/trouble.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"

namespace
{

constexpr int raw_timeout_ms = 5000;
constexpr int listen_poll_ms = 10;
constexpr int grace_ms = 300;

/// Any JSON value, scalars and texts with a NUL too; null when the text holds none.
json_t *decode_argument(command_args params)
{
    return params.empty() ? nullptr : json_loads(params[0].c_str(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr);
}

/// "<< " and the value over several lines.
void print_answer(const json_t *answer)
{
    ve_out_write("<< ", 3);
    json_write_pieces(answer, JSON_INDENT(4),
                      [](std::string_view piece) { return ve_out_visible(piece, "\t\n") == 0; });
    ve_puts("");
}

void act_stop(int)
{
    end_run();
    ve_wait_note_interrupt();
}

/// Sends, and says why when that fails.
int send_and_tell(ve_jrpcapi *ctx, ve_jrpcmsg *message)
{
    const int result = ve_jrpcapi_send(ctx, message);
    if (result < 0 && !ve_wait_interrupted())
        trouble_tell(ctx);
    return result;
}

/// Opens the request link again, which carries the groups, while the listener runs. Returns 0, or -1 when the groups
/// cannot be joined again.
int regain_groups()
{
    // A daemon that ends closes both links, and that ends the mode.
    for (int waited_ms = 0; waited_ms < grace_ms; waited_ms += listen_poll_ms) {
        if (!is_running() || ve_wait_sleep_ms(listen_poll_ms) < 0)
            return 0;
    }
    trouble_tell(request_ctx);
    trouble_over();
    while (ve_jrpcapi_connect(request_ctx) != 0) {
        if (!is_running() || ve_wait_interrupted())
            return 0;
        trouble_tell(request_ctx);
    }
    trouble_over();
    return groups_join_again(request_ctx);
}

} // namespace

void mode_reserve_raw_id(ve_jrpcapi *ctx, command_args params)
{
    const json_ref json(decode_argument(params));
    ve_jrpcapi_reserve_id(ctx, json_object_get(json.get(), "id"));
}

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
        return send_and_tell(request_ctx, message.get());
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
    if (ve_socket_state(ve_jrpcapi_socket(group_ctx)) != ve_socket_connected)
        trouble_tell(group_ctx);
    while (is_running() && ve_out_error() == 0) {
        if (ve_jrpcapi_watch(request_ctx, listen_poll_ms) < 0 && regain_groups() < 0)
            return -1;
    }
    return 0;
}

int mode_run_event(uint32_t id, command_args params)
{
    const msg_ref message(ve_jrpcmsg_create_event_new(id, decode_argument(params)));
    return send_and_tell(group_ctx, message.get());
}
