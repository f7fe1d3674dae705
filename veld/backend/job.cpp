#include "veld/backend/job.h"

#include "base/clock.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <iterator>

namespace veld
{

namespace
{

constexpr int most_jobs = 128;
constexpr int64_t longest_job_us = int64_t{20} * 60 * 1000000;
int jobs = 0; // how many live

} // namespace

void add_output(json_t *list, const std::string &name, json_t *value)
{
    json_t *entry = json_object();
    json_object_set_new(entry, "Name", json_string(name.c_str()));
    json_object_set_new(entry, "Value", value);
    json_array_append_new(list, entry);
}

method_job::method_job()
    : waits_(epoll_create1(EPOLL_CLOEXEC)), timer_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      deadline_(monotonic_us() + longest_job_us)
{
    jobs++;
    if (usable())
        watch(timer_.get(), EPOLLIN);
}

method_job::~method_job()
{
    jobs--;
}

bool method_job::watch(int fd, uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(waits_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void method_job::unwatch(int fd)
{
    epoll_ctl(waits_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void method_job::wake_in(int64_t milliseconds)
{
    int64_t left = std::min(milliseconds * 1000, deadline_ - monotonic_us());
    left = std::max<int64_t>(left, 1); // nothing would stop the timer
    itimerspec at = {};
    at.it_value.tv_sec = left / 1000000;
    at.it_value.tv_nsec = left % 1000000 * 1000;
    timerfd_settime(timer_.get(), 0, &at, nullptr);
}

bool method_job::step()
{
    // Tells the kernel that this happening has been seen, so that the descriptor is quiet until the next one.
    epoll_event events[16];
    epoll_wait(waits_.get(), events, std::size(events), 0);
    uint64_t expirations;
    if (read(timer_.get(), &expirations, sizeof expirations) > 0 && monotonic_us() >= deadline_ && !ended_)
        fail(9002, "the method took too long");
    if (!ended_)
        proceed();
    return ended_;
}

void method_job::succeed(json_ref output)
{
    outcome_.code = 0;
    outcome_.output = std::move(output);
    ended_ = true;
}

void method_job::fail(int code, std::string message)
{
    outcome_.code = code;
    outcome_.message = std::move(message);
    ended_ = true;
}

bool job_possible(method_outcome *ended)
{
    if (jobs < most_jobs)
        return true;
    ended->code = 9004;
    ended->message = "too many methods are under way";
    return false;
}

std::unique_ptr<method_job> job_begin(std::unique_ptr<method_job> job, method_outcome *ended)
{
    if (!job->usable()) {
        ended->code = 9004;
        ended->message = "no descriptors left for the method";
        return nullptr;
    }
    if (job->step()) {
        *ended = std::move(job->outcome());
        return nullptr;
    }
    return job;
}

} // namespace veld
