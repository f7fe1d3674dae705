#include "event/request.h"

#include "event/listener.h"
#include "event/reconnect.h"
#include "event/replies.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"

ve_jrpcapi *request_ctx = nullptr;
ve_jrpcapi *group_ctx = nullptr;

namespace
{

struct {
    request_hooks hooks{};
    bool reconnect_allowed = true;
    login_words login;
} channel;

std::string text_or_empty(const char *text)
{
    return text != nullptr ? text : "";
}

/// Ends a request of somebody who asks before there are links.
int refuse(ve_jrpcmsg *msg)
{
    ve_jrpcmsg_set_error(msg, ve_jrpc_err_lost, "the daemon closed the link", nullptr);
    return -1;
}

int exchange(ve_jrpcmsg *msg, int timeout_ms)
{
    // Nobody waits without seeing what was said before.
    ve_out_flush();
    ve_jrpcapi_set_timeout(request_ctx, timeout_ms);
    return ve_jrpcapi_exec(request_ctx, msg);
}

/// Whether what ended with `result` met a lost link that is there again now, so that it is worth another try.
bool link_came_back(int result)
{
    if (result >= 0 || ve_jrpcapi_get_socket_err(request_ctx) != ve_socket_err_closed || !channel.reconnect_allowed ||
        reconnect_under_way())
        return false;
    server_reconnect("Reconnecting... ");
    return !ve_wait_interrupted();
}

} // namespace

void request_set_hooks(const request_hooks &filled)
{
    channel.hooks = filled;
}

int msg_exec(ve_jrpcmsg *msg, int timeout_ms)
{
    if (request_ctx == nullptr)
        return refuse(msg);
    int result = exchange(msg, timeout_ms);
    if (link_came_back(result))
        result = exchange(msg, timeout_ms);
    ve_jrpcapi_set_timeout(request_ctx, usual_timeout_ms);
    return result;
}

int msg_exec_once(ve_jrpcmsg *msg, int timeout_ms)
{
    if (request_ctx == nullptr)
        return refuse(msg);
    const int result = exchange(msg, timeout_ms);
    ve_jrpcapi_set_timeout(request_ctx, usual_timeout_ms);
    return result;
}

int msg_send(ve_jrpcmsg *msg)
{
    return request_ctx == nullptr ? refuse(msg) : ve_jrpcapi_send(request_ctx, msg);
}

int msg_post(ve_jrpcmsg *msg)
{
    const int result = msg_send(msg);
    return request_ctx != nullptr && link_came_back(result) ? msg_send(msg) : result;
}

int msg_login(const char *user, const char *password)
{
    if (request_ctx == nullptr)
        return -1;
    // An exchange that Ctrl-C left may have left its own time-out behind.
    ve_jrpcapi_set_timeout(request_ctx, usual_timeout_ms);
    return ve_jrpcapi_login(request_ctx, user, password);
}

int msg_logout()
{
    if (request_ctx == nullptr)
        return -1;
    ve_jrpcapi_set_timeout(request_ctx, usual_timeout_ms);
    return ve_jrpcapi_logout(request_ctx);
}

bool msg_allow_reconnect(bool allowed)
{
    const bool held = channel.reconnect_allowed;
    channel.reconnect_allowed = allowed;
    return held;
}

const login_words &saved_login()
{
    return channel.login;
}

void kest_update_login(const char *login, const char *password)
{
    channel.login = {text_or_empty(login), text_or_empty(password)}; // they may be those that are kept
    if (channel.hooks.prompt_update != nullptr)
        channel.hooks.prompt_update();
    if (channel.hooks.reload != nullptr)
        channel.hooks.reload();
}

int group_send(ve_jrpcmsg *msg)
{
    return group_ctx == nullptr ? refuse(msg) : ve_jrpcapi_send(group_ctx, msg);
}

int group_exec(ve_jrpcmsg *msg, int polls)
{
    if (group_ctx == nullptr)
        return refuse(msg);
    ve_jrpcmsg_set_result_new(msg, nullptr);
    ve_jrpcapi_prepare(group_ctx, msg);
    replies_wanted wanted(ve_jrpcmsg_id(msg));
    if (const int sent = group_send(msg); sent < 0)
        return sent;
    int error = ve_jrpc_err_lost;
    const char *text = "the daemon closed the link";
    for (int passes = 0; is_running(); ++passes) {
        if (polls != -1 && passes >= polls) {
            error = ve_jrpc_err_timeout;
            text = "no answer from the daemon in time";
            break;
        }
        if (const msg_ref answer(wanted.take()); answer) {
            ve_jrpcmsg_complete(msg, answer.get());
            return ve_jrpcmsg_error_code(msg);
        }
        if (ve_wait_sleep_ms(1) < 0) {
            error = ve_jrpc_err_timeout;
            text = "no answer from the daemon in time";
            break;
        }
    }
    ve_jrpcmsg_set_error(msg, error, text, nullptr);
    return -1;
}
