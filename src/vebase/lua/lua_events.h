// The events that Lua code waits for. Main thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "platform/ve_jrpcapi.h"

/// A link of its own, on which the groups are joined that were waited for once; what comes meanwhile for another one of
/// them is kept. A link that is lost is made again, silently but for one line on standard error when that takes a
/// while; events sent in between are lost.
class ve_lua_events
{
public:
    enum class outcome { event, nothing, failed };

    /// For the endpoint of `ctx` (not kept). Opens nothing.
    explicit ve_lua_events(const ve_jrpcapi *ctx);
    ve_lua_events(const ve_lua_events &) = delete;
    ve_lua_events &operator=(const ve_lua_events &) = delete;
    ~ve_lua_events();

    /// Waits until `deadline` (of ve_wait_deadline) for an event of one of the groups, which are joined first whatever
    /// time that takes. `*message` (null before) receives the event, owned by the caller, or the request that failed: a
    /// daemon that is not there when the time is over is a failure too. `keeps_on` (null: always) says whether a lost
    /// link is worth waiting for. A wait point; what it returns after Ctrl-C means nothing.
    outcome wait(std::span<const uint32_t> groups, int64_t deadline, bool (*keeps_on)(), ve_jrpcmsg **message);

private:
    /// Return false when it did not work, with the request that failed in `*failed`.
    bool connect(int64_t deadline, bool (*keeps_on)(), ve_jrpcmsg **failed);
    bool join_rest(ve_jrpcmsg **failed);
    ve_jrpcmsg *take_kept(std::span<const uint32_t> groups);
    void keep(msg_ref event);
    void lose();

    ve_jrpcapi *link_;
    bool connected_ = false;
    std::vector<uint32_t> groups_; // that were waited for
    size_t joined_ = 0;            // of these, the first are joined on the link as it is
    /// For a later wait, as texts: a value takes a multiple of what it is written in.
    struct kept_event {
        size_t id;
        std::string text;
    };
    std::deque<kept_event> kept_;
    size_t kept_size_ = 0; // of their texts
};
