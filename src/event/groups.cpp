#include "event/groups.h"

#include <string>
#include <vector>

#include "platform/ve_out.h"
#include "platform/ve_wait.h"

namespace
{

constexpr int join_timeout_ms = 1000;

std::vector<uint32_t> joined;

/// Joins, with the answer in `message`.
int join(ve_jrpcapi *ctx, ve_jrpcmsg *message)
{
    ve_jrpcapi_set_timeout(ctx, join_timeout_ms);
    const int result = ve_jrpcapi_exec(ctx, message);
    return result < 0 ? result : ve_jrpcmsg_error_code(message);
}

ve_jrpcmsg *join_request(const ve_jrpcapi *ctx, uint32_t group)
{
    return ve_jrpcmsg_cmd_join_group(group, ve_jrpcapi_session(),
                                     (ve_jrpcapi_get_flags(ctx) & ve_jrpcapi_flag_events) != 0);
}

} // namespace

int group_join(ve_jrpcapi *ctx, uint32_t group)
{
    const msg_ref message(join_request(ctx, group));
    return join(ctx, message.get());
}

bool groups_join(ve_jrpcapi *ctx, std::span<const uint32_t> groups)
{
    bool answered = false;
    for (const uint32_t group : groups) {
        const int result = group_join(ctx, group);
        // Without an answer it may have been joined all the same.
        if (result <= 0)
            joined.push_back(group);
        answered = answered || result >= 0;
    }
    return answered;
}

int groups_join_again(ve_jrpcapi *ctx)
{
    int result = 0;
    for (const uint32_t group : joined) {
        const msg_ref message(join_request(ctx, group));
        if (join(ctx, message.get()) == 0 || ve_wait_interrupted())
            continue;
        const std::string text = "kest: group " + std::to_string(group) +
                                 " is not joined again: " + ve_visible_error(ve_jrpcmsg_error_message(message.get())) +
                                 '\n';
        ve_out_write_error(text.data(), text.size());
        result = -1;
    }
    return result;
}
