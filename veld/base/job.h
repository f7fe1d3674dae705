// What takes time and is driven by the daemon's loop: a call of a method, a transfer, the flashing of a firmware. It
// never blocks the loop.
#pragma once

#include "base/json_ref.h"
#include "veld/base/fault.h"
#include "veld/base/loop.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace veld
{

/// How a job ended: with a problem, or with what came of it.
struct job_outcome {
    fault problem;
    json_ref output = {}; ///< what it is, the kind of job says
};

/// Destroying a job ends it, whatever it was waiting for, and nobody hears of it. Daemon's thread only.
class job
{
public:
    using ended_handler = std::function<void(job_outcome &)>;

    job(const job &) = delete;
    job &operator=(const job &) = delete;
    virtual ~job() { rest(); }

    /// Goes as far as it can, and on whenever something that it waits for has happened. `ended` is called once, perhaps
    /// before this returns, and may destroy the job. `account`: whose limits count; empty: the daemon's own.
    void begin(loop &events, ended_handler ended, std::string account = {});
    /// Whether what it does may be broken off by destroying it. Otherwise it ends by itself within a bounded time.
    virtual bool can_be_cut_off() const { return true; }

protected:
    job() = default;
    /// Fails with `too_late` when it is still there after so long.
    job(int64_t longest_ms, fault too_late) : longest_ms_(longest_ms), too_late_(std::move(too_late)) {}

    /// What a job does at its start, when something that it waits for has happened, or when the time is up.
    virtual void proceed() = 0;

    loop &events() { return *loop_; }
    const std::string &account() const { return account_; }
    /// False when no more can be watched. A descriptor that is closed is no longer watched.
    [[nodiscard]] bool watch(int fd, uint32_t bits);
    void unwatch(int fd);
    /// Calls proceed() once in `milliseconds` at the latest; the last call counts.
    void wake_in(int64_t milliseconds);

    // The end. Outside of proceed() the job may be gone when they return.
    void succeed(json_ref output) { finish({{}, std::move(output)}); }
    void fail(fault problem, json_ref output = {}) { finish({std::move(problem), std::move(output)}); }
    void fail(code why, std::string message) { fail(fault{why, std::move(message)}); }

private:
    void step();
    void finish(job_outcome outcome);
    void rest();
    void report();

    int64_t longest_ms_ = 0; // 0: it is bounded in another way
    fault too_late_;
    loop *loop_ = nullptr;
    std::string account_;
    std::vector<std::pair<int, loop::watch_id>> watched_;
    loop::timer_id timer_ = 0;
    loop::timer_id deadline_ = 0;
    bool proceeding_ = false;
    bool over_ = false;
    job_outcome outcome_;
    ended_handler ended_;
};

/// A job that ends as soon as it has begun.
std::unique_ptr<job> ended_job(fault problem);

/// What somebody else does for a client (the disk, a thread), and cannot be broken off: a job that waits for it.
class errand : public job
{
public:
    /// Called once, with how it ended.
    using done_handler = std::function<void(fault)>;

    /// `start` is called when the job begins, and calls what it is given, on the loop, at once or later.
    explicit errand(std::function<void(done_handler)> start) : start_(std::move(start)) {}
    ~errand() override { *self_ = nullptr; }

    bool can_be_cut_off() const override { return false; }

protected:
    void proceed() override;

private:
    std::function<void(done_handler)> start_;
    std::shared_ptr<errand *> self_ = std::make_shared<errand *>(this); // what the handler sees: null once it is gone
};

} // namespace veld
