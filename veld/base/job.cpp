#include "veld/base/job.h"

#include <algorithm>

namespace veld
{

namespace
{

class instant_job : public job
{
public:
    explicit instant_job(fault problem) : problem_(std::move(problem)) {}

protected:
    void proceed() override
    {
        if (problem_)
            fail(std::move(problem_));
        else
            succeed({});
    }

private:
    fault problem_;
};

} // namespace

std::unique_ptr<job> ended_job(fault problem)
{
    return std::make_unique<instant_job>(std::move(problem));
}

void job::begin(loop &events, ended_handler ended, std::string account)
{
    loop_ = &events;
    account_ = std::move(account);
    ended_ = std::move(ended);
    if (longest_ms_ > 0)
        deadline_ = events.after(longest_ms_, [this] {
            deadline_ = 0;
            fail(std::move(too_late_));
        });
    step();
}

void job::step()
{
    proceeding_ = true;
    proceed();
    proceeding_ = false;
    if (over_)
        report();
}

// Waits for nothing any more.
void job::rest()
{
    for (const auto &[fd, watch] : watched_)
        loop_->forget(watch);
    watched_.clear();
    for (loop::timer_id *timer : {&timer_, &deadline_}) {
        if (*timer != 0)
            loop_->cancel(*timer);
        *timer = 0;
    }
}

void job::report()
{
    rest();
    // The handler may destroy this object, and what is in it.
    const ended_handler ended = std::move(ended_);
    job_outcome outcome = std::move(outcome_);
    ended(outcome);
}

bool job::watch(int fd, uint32_t bits)
{
    unwatch(fd);
    const loop::watch_id watch = loop_->watch(fd, bits, [this](uint32_t) { step(); });
    if (watch != 0)
        watched_.emplace_back(fd, watch);
    return watch != 0;
}

void job::unwatch(int fd)
{
    std::erase_if(watched_, [this, fd](const auto &one) {
        if (one.first == fd)
            loop_->forget(one.second);
        return one.first == fd;
    });
}

void job::wake_in(int64_t milliseconds)
{
    if (timer_ != 0)
        loop_->cancel(timer_);
    timer_ = loop_->after(milliseconds, [this] {
        timer_ = 0;
        step();
    });
}

void job::finish(job_outcome outcome)
{
    outcome_ = std::move(outcome);
    over_ = true;
    if (!proceeding_)
        report();
}

void errand::proceed()
{
    const std::function<void(done_handler)> start = std::move(start_);
    start([self = self_](fault problem) {
        errand *const me = *self;
        if (me == nullptr)
            return;
        if (problem)
            me->fail(std::move(problem));
        else
            me->succeed({});
    });
}

} // namespace veld
