// A call of a method of the data model: a job beside the daemon's loop, which never blocks it and ends by itself within
// a bounded time.
#pragma once

#include "base/fd.h"
#include "base/json_ref.h"

#include <cstdint>
#include <memory>
#include <string>

namespace veld
{

/// How a call ended: `code` 0 with the outputs, or one of the protocol's error codes with its message.
struct method_outcome {
    int code = 0;
    std::string message;
    json_ref data;   ///< with an error, perhaps: an object, argument name relative to the method → what is wrong
    json_ref output; ///< an array of {"Name","Value"}, names relative to the method
};

/// A call under way. Destroying it ends it, whatever it was waiting for. Daemon's thread only.
class method_job
{
public:
    virtual ~method_job();
    method_job(const method_job &) = delete;
    method_job &operator=(const method_job &) = delete;

    /// Readable whenever step() has something to do: a descriptor to wait for, the same one for the whole life of the
    /// job.
    int fd() const { return waits_.get(); }
    /// Goes on as far as it can. True when the call has ended; outcome() then tells how, and nothing is left to do.
    bool step();
    method_outcome &outcome() { return outcome_; }

protected:
    method_job();

    /// What a job does when something that it waits for has happened, or the time is up; and once at its start.
    virtual void proceed() = 0;

    bool watch(int fd, uint32_t events);
    void unwatch(int fd);
    /// Calls proceed() once in `milliseconds` at the latest; the last call counts.
    void wake_in(int64_t milliseconds);
    void succeed(json_ref output);
    void fail(int code, std::string message);

private:
    friend std::unique_ptr<method_job> job_begin(std::unique_ptr<method_job> job, method_outcome *ended);
    bool usable() const { return waits_ && timer_; }

    fd_owner waits_;
    fd_owner timer_;
    int64_t deadline_; // on the clock of monotonic_us()
    bool ended_ = false;
    method_outcome outcome_;
};

/// Whether one more job may begin.
bool job_possible(method_outcome *ended);

/// Lets a job go as far as it can. Returns it, or null when it ended at once, `*ended` then tells how.
std::unique_ptr<method_job> job_begin(std::unique_ptr<method_job> job, method_outcome *ended);

/// Appends one output argument; takes over `value`.
void add_output(json_t *list, const std::string &name, json_t *value);

} // namespace veld
