// What the event tests stand on: standard output goes into a pipe, and the line editor's side of the listener writes
// marks into the same stream, so that a test sees texts, control codes and spinner pictures in their order.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "event/listener.h"
#include "event/request.h"
#include "platform/ve_jrpcapi.h"
#include "vebase_scripted_peer.h"

/// Standard output for the life of a test.
class captured_output
{
public:
    captured_output();
    captured_output(const captured_output &) = delete;
    captured_output &operator=(const captured_output &) = delete;
    ~captured_output();

    /// Everything written so far.
    std::string text();
    /// Waits until `part` was written; false when it was not in time.
    bool shows(const std::string &part);

private:
    int read_fd_ = -1;
    int saved_ = -1;
    std::string text_;
};

/// What the listener last gave the line editor to watch; -1: nothing.
extern int stage_control_fd;

struct context_deinit {
    void operator()(ve_jrpcapi *ctx) const { ve_jrpcapi_deinit(ctx); }
};
using context_ref = std::unique_ptr<ve_jrpcapi, context_deinit>;

/// A context for `destination` that is connected unless told otherwise.
context_ref make_context(const char *destination, bool connect = true);
/// The same for the link that the listener reads.
context_ref make_group_context(const char *destination, bool connect = true);

/// The listener on both contexts for the life of a test.
class running_listener
{
public:
    running_listener(ve_jrpcapi *request, ve_jrpcapi *group) { EXPECT_EQ(start_event_handler(request, group), 0); }
    running_listener(const running_listener &) = delete;
    running_listener &operator=(const running_listener &) = delete;
    ~running_listener() { stop_event_handler(); }
};

/// Waits until `condition` holds; false when it does not in time.
template <class Condition> bool becomes(Condition condition)
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(200);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit)
            return false;
        usleep(500);
    }
    return true;
}

inline int milliseconds_since(std::chrono::steady_clock::time_point start)
{
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
}

/// Answers every request.
inline void answer_all(peer_link &link)
{
    while (const long id = link.request())
        link.answer(id);
}
