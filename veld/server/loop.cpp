#include "veld/server/loop.h"

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

uint64_t tag(int fd, uint32_t generation)
{
    return (static_cast<uint64_t>(generation) << 32) | static_cast<uint32_t>(fd);
}

} // namespace

loop::loop() : epoll_(epoll_create1(EPOLL_CLOEXEC))
{
    if (!epoll_) {
        LOG_ERROR("epoll: %m");
        exit(EXIT_FAILURE);
    }
}

void loop::watch(int fd, uint32_t events, fd_handler call)
{
    const uint32_t generation = ++generation_;
    watched_[fd] = {generation, std::make_shared<fd_handler>(std::move(call))};
    epoll_event event{};
    event.events = events;
    event.data.u64 = tag(fd, generation);
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        LOG_ERROR("epoll: cannot watch a descriptor: %m");
}

void loop::change(int fd, uint32_t events)
{
    const auto found = watched_.find(fd);
    if (found == watched_.end())
        return;
    epoll_event event{};
    event.events = events;
    event.data.u64 = tag(fd, found->second.generation);
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
}

void loop::forget(int fd)
{
    if (watched_.erase(fd) > 0)
        epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

loop::timer_id loop::after(int64_t milliseconds, handler call)
{
    const timer_id id = next_timer_++;
    const int64_t due = monotonic_ms() + std::max<int64_t>(milliseconds, 0);
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
            const auto found = watched_.find(static_cast<int>(event.data.u64 & 0xffffffffU));
            // An earlier handler of this round may have closed the descriptor, and another may have got its number.
            if (found == watched_.end() || found->second.generation != event.data.u64 >> 32)
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
