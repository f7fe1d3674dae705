#include "vebase/lua/lua_events.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

#include "base/framing.h"
#include "base/json_ref.h"
#include "base/json_write.h"
#include "platform/ve_lua.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "vebase/lua/lua_impl.h"

namespace
{

constexpr int join_timeout_ms = 5000;
/// Events that are kept for a later wait, and their bytes; beyond, the oldest go.
constexpr size_t kept_max = 1024;
constexpr size_t kept_size_max = size_t{16} << 20;
constexpr int pause_ms = 50;

bool is_over(int64_t deadline)
{
    return deadline >= 0 && ve_wait_deadline(0) >= deadline;
}

int time_left(int64_t deadline)
{
    return deadline < 0 ? -1 : static_cast<int>(std::max<int64_t>(deadline - ve_wait_deadline(0), 0));
}

bool contains(std::span<const uint32_t> groups, size_t id)
{
    return std::find(groups.begin(), groups.end(), id) != groups.end();
}

/// A request that ended because the daemon is not there.
ve_jrpcmsg *lost(const std::string &reason)
{
    ve_jrpcmsg *message = ve_jrpcmsg_cmd_join_group(0, nullptr, false);
    ve_jrpcmsg_set_error(message, ve_jrpc_err_lost, reason.empty() ? "the daemon closed the link" : reason.c_str(),
                         nullptr);
    return message;
}

} // namespace

ve_lua_events::ve_lua_events(const ve_jrpcapi *ctx) : link_(ve_jrpcapi_like(ctx))
{
    ve_jrpcapi_set_flags(link_, ve_jrpcapi_get_flags(link_) | ve_jrpcapi_flag_events);
}

ve_lua_events::~ve_lua_events()
{
    ve_jrpcapi_deinit(link_);
}

bool ve_lua_events::connect(int64_t deadline, bool (*keeps_on)(), ve_jrpcmsg **failed)
{
    for (bool first = true; ve_jrpcapi_connect(link_) < 0; first = false) {
        const std::string reason = ve_jrpcapi_link_error(link_);
        if (ve_wait_interrupted() || is_over(deadline) || ve_jrpcapi_connect_error_lasts(link_) ||
            (keeps_on != nullptr && !keeps_on())) {
            *failed = lost(reason);
            return false;
        }
        if (first) {
            const std::string text = "kest: " + ve_visible_error(reason) + "\n";
            ve_lua_write_error(text.data(), text.size());
        }
    }
    connected_ = true;
    return true;
}

bool ve_lua_events::join_rest(ve_jrpcmsg **failed)
{
    for (; joined_ < groups_.size(); ++joined_) {
        msg_ref message(ve_jrpcmsg_cmd_join_group(groups_[joined_], nullptr, false));
        ve_jrpcapi_set_timeout(link_, ve_lua_time_left(join_timeout_ms));
        const int result = ve_jrpcapi_exec(link_, message.get());
        if (result == 0 && ve_jrpcmsg_error_code(message.get()) == 0)
            continue;
        *failed = message.release();
        if (result < 0 && ve_jrpcapi_get_socket_err(link_) == ve_socket_err_closed)
            lose();
        else
            groups_.erase(groups_.begin() + static_cast<std::ptrdiff_t>(joined_)); // the others can be waited for
        return false;
    }
    return true;
}

ve_jrpcmsg *ve_lua_events::take_kept(std::span<const uint32_t> groups)
{
    const auto wanted = [groups](const kept_event &event) { return contains(groups, event.id); };
    const auto found = std::find_if(kept_.begin(), kept_.end(), wanted);
    if (found == kept_.end())
        return nullptr;
    const json_ref event(wire_decode(found->text));
    kept_size_ -= found->text.size();
    kept_.erase(found);
    return ve_jrpcmsg_parse_json(event.get());
}

void ve_lua_events::keep(msg_ref event)
{
    const json_ref json(ve_jrpcmsg_json(event.get()));
    kept_.push_back({ve_jrpcmsg_event_id(event.get()), json_written(json.get(), JSON_COMPACT)});
    kept_size_ += kept_.back().text.size();
    while (kept_.size() > 1 && (kept_.size() > kept_max || kept_size_ > kept_size_max)) {
        kept_size_ -= kept_.front().text.size();
        kept_.pop_front();
    }
}

/// A daemon that takes links only to drop them is not asked without a pause.
void ve_lua_events::lose()
{
    connected_ = false;
    joined_ = 0;
    ve_wait_sleep_ms(pause_ms);
}

ve_lua_events::outcome ve_lua_events::wait(std::span<const uint32_t> groups, int64_t deadline, bool (*keeps_on)(),
                                           ve_jrpcmsg **message)
{
    for (const uint32_t group : groups) {
        if (!contains(groups_, group))
            groups_.push_back(group);
    }
    for (bool was_lost = false; !ve_wait_interrupted(); was_lost = true) {
        if (was_lost && (is_over(deadline) || (keeps_on != nullptr && !keeps_on()))) {
            *message = lost("");
            return outcome::failed;
        }
        if (!connected_ && !connect(deadline, keeps_on, message))
            return outcome::failed;
        if (!join_rest(message)) {
            if (connected_)
                return outcome::failed;
            ve_jrpcmsg_free(std::exchange(*message, nullptr));
            continue;
        }
        while (connected_) {
            if ((*message = take_kept(groups)) != nullptr)
                return outcome::event;
            ve_jrpcapi_set_timeout(link_, time_left(deadline));
            if (msg_ref event(ve_jrpcapi_recv(link_)); event) {
                if (contains(groups, ve_jrpcmsg_event_id(event.get()))) {
                    *message = event.release();
                    return outcome::event;
                }
                keep(std::move(event));
                continue;
            }
            if (ve_jrpcapi_get_socket_err(link_) != ve_socket_err_closed)
                return outcome::nothing;
            lose();
        }
    }
    return outcome::nothing;
}
