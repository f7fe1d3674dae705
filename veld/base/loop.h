// The daemon's one wait: descriptors and timers, all handled on the main thread.
#pragma once

#include "base/fd.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

namespace veld
{

class loop
{
public:
    using fd_handler = std::function<void(uint32_t events)>;
    using handler = std::function<void()>;
    using timer_id = uint64_t; ///< never 0
    using watch_id = uint64_t; ///< never 0

    loop();
    loop(const loop &) = delete;
    loop &operator=(const loop &) = delete;

    /// Calls `call` with epoll's event bits. The descriptor stays the caller's; it is no longer watched when it is
    /// closed. Returns 0, with the reason in errno, when no more descriptors can be watched, or not this one.
    [[nodiscard]] watch_id watch(int fd, uint32_t events, fd_handler call);
    /// False, with the reason in errno, when that is not possible; the watch then stays as it was.
    [[nodiscard]] bool change(watch_id which, uint32_t events);
    /// Does nothing for a watch that is over.
    void forget(watch_id which);

    /// Calls once, in that many milliseconds at the earliest.
    timer_id after(int64_t milliseconds, handler call);
    void cancel(timer_id timer);
    /// Calls before the next wait, after everything that is ready now.
    void post(handler call);

    /// Counts the waits: what happens between two of them has one number.
    uint64_t round() const { return round_; }

    void run();
    void stop() { stopped_ = true; }

private:
    struct watched {
        watch_id id;
        std::shared_ptr<fd_handler> call;
    };

    int wait_time() const;
    void run_timers();

    fd_owner epoll_;
    bool stopped_ = false;
    uint32_t generation_ = 0; // of watches: the upper half of their ids
    uint64_t round_ = 0;
    timer_id next_timer_ = 1;
    std::unordered_map<int, watched> watched_; // by descriptor
    std::map<std::pair<int64_t, timer_id>, handler> timers_;
    std::unordered_map<timer_id, int64_t> due_;
    std::vector<handler> posted_;
};

} // namespace veld
