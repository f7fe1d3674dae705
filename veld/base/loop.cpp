#include "veld/base/loop.h"

#include "base/clock.h"
#include "veld/base/log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sys/epoll.h>

namespace veld
{

namespace
{

constexpr size_t events_at_once = 64;

int descriptor(loop::watch_id of)
{
    return static_cast<int>(of & 0xffffffffU);
}

} // namespace

loop::loop() : epoll_(epoll_create1(EPOLL_CLOEXEC))
{
    if (!epoll_) {
        LOG_ERROR("epoll: %m");
        exit(EXIT_FAILURE);
    }
}

loop::watch_id loop::watch(int fd, uint32_t events, fd_handler call)
{
    const watch_id id = (static_cast<watch_id>(++generation_) << 32) | static_cast<uint32_t>(fd);
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        return 0;
    watched_[fd] = {id, std::make_shared<fd_handler>(std::move(call))};
    return id;
}

bool loop::change(watch_id which, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = which;
    return epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, descriptor(which), &event) == 0;
}

void loop::forget(watch_id which)
{
    // The descriptor may have been closed, and its number be that of another one.
    const auto found = watched_.find(descriptor(which));
    if (found == watched_.end() || found->second.id != which)
        return;
    watched_.erase(found);
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor(which), nullptr);
}

loop::timer_id loop::after(int64_t milliseconds, handler call)
{
    const timer_id id = next_timer_++;
    const int64_t due = monotonic_ms_after(milliseconds);
    timers_.emplace(std::pair{due, id}, std::move(call));
    due_[id] = due;
    return id;
}

void loop::cancel(timer_id timer)
{
    const auto found = due_.find(timer);
    if (found == due_.end())
        return;
    timers_.erase({found->second, timer});
    due_.erase(found);
}

void loop::post(handler call)
{
    posted_.push_back(std::move(call));
}

int loop::wait_time() const
{
    if (!posted_.empty())
        return 0;
    if (timers_.empty())
        return -1;
    return static_cast<int>(std::clamp<int64_t>(timers_.begin()->first.first - monotonic_ms(), 0, INT_MAX));
}

void loop::run_timers()
{
    const int64_t time = monotonic_ms();
    while (!timers_.empty() && timers_.begin()->first.first <= time && !stopped_) {
        const auto first = timers_.begin();
        const handler call = std::move(first->second);
        due_.erase(first->first.second);
        timers_.erase(first);
        call();
    }
}

void loop::run()
{
    std::array<epoll_event, events_at_once> events{};
    while (!stopped_) {
        const int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), wait_time());
        ++round_;
        if (count < 0 && errno != EINTR) {
            LOG_ERROR("epoll: %m");
            return;
        }
        for (int i = 0; i < count && !stopped_; ++i) {
            const epoll_event &event = events[static_cast<size_t>(i)];
            const auto found = watched_.find(descriptor(event.data.u64));
            // An earlier handler of this round may have closed the descriptor, and another may have got its number.
            if (found == watched_.end() || found->second.id != event.data.u64)
                continue;
            const std::shared_ptr<fd_handler> call = found->second.call;
            (*call)(event.events);
        }
        run_timers();
        std::vector<handler> posted;
        posted.swap(posted_);
        for (const handler &call : posted) {
            if (!stopped_)
                call();
        }
    }
}

} // namespace veld
