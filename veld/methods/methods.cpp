#include "veld/methods/methods.h"

#include "base/clock.h"
#include "veld/methods/job.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace veld
{

namespace
{

constexpr int most_jobs = 128;
constexpr int64_t longest_job_us = int64_t{20} * 60 * 1000000;
int jobs = 0; // how many live

struct implementation {
    std::string_view name;
    std::unique_ptr<method_job> (*make)(const method_call &call);
};

constexpr implementation implementations[] = {
    {"IPPing", make_ipping},
    {"NSLookup", make_nslookup},
};

const implementation *find_implementation(std::string_view name)
{
    for (const implementation &each : implementations)
        if (each.name == name)
            return &each;
    return nullptr;
}

} // namespace

void add_output(json_t *list, const std::string &name, json_t *value)
{
    json_t *entry = json_object();
    json_object_set_new(entry, "Name", json_string(name.c_str()));
    json_object_set_new(entry, "Value", value);
    json_array_append_new(list, entry);
}

// --- the call ---

std::string method_call::text(const char *argument) const
{
    const json_t *value = json_object_get(input, argument);
    return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value)) : "";
}

int64_t method_call::number(const char *argument, int64_t low, int64_t high) const
{
    return std::clamp<int64_t>(json_integer_value(json_object_get(input, argument)), low, high);
}

bool method_call::interface(std::string *name) const
{
    std::string path = text("Interface");
    name->clear();
    if (path.empty())
        return true;
    if (!path.ends_with('.'))
        path += '.';
    *name = text_of ? text_of(path + "Name") : "";
    if (name->empty())
        refuse("Interface", "no such interface");
    return !name->empty();
}

std::unique_ptr<method_job> method_call::refuse(const char *argument, const std::string &what) const
{
    refused->code = 9003;
    refused->message = std::string(argument) + ": " + what;
    refused->data.reset(json_pack("{s:s}", argument, what.c_str()));
    return nullptr;
}

// --- the job ---

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

bool method_known(std::string_view name)
{
    return find_implementation(name) != nullptr;
}

std::unique_ptr<method_job> method_start(std::string_view name, const json_t *input,
                                         const std::function<std::string(std::string_view path)> &text_of,
                                         method_outcome *ended)
{
    const implementation *found = find_implementation(name);
    if (found == nullptr) {
        ended->code = 9000;
        ended->message = "this device does not implement the method";
        return nullptr;
    }
    if (jobs >= most_jobs) {
        ended->code = 9004;
        ended->message = "too many methods are under way";
        return nullptr;
    }
    std::unique_ptr<method_job> job = found->make({input, text_of, ended});
    if (!job)
        return nullptr;
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
