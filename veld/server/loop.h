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

    loop();
    loop(const loop &) = delete;
    loop &operator=(const loop &) = delete;

    /// Calls `call` with epoll's event bits. The descriptor stays the caller's, who forgets it before closing it.
    void watch(int fd, uint32_t events, fd_handler call);
    void change(int fd, uint32_t events);
    void forget(int fd);

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
        uint32_t generation;
        std::shared_ptr<fd_handler> call;
    };

    int wait_time() const;
    void run_timers();

    fd_owner epoll_;
    bool stopped_ = false;
    uint32_t generation_ = 0;
    uint64_t round_ = 0;
    timer_id next_timer_ = 1;
    std::unordered_map<int, watched> watched_;
    std::map<std::pair<int64_t, timer_id>, handler> timers_;
    std::unordered_map<timer_id, int64_t> due_;
    std::vector<handler> posted_;
};

} // namespace veld
