// Calls of the model's methods that are under way.
#pragma once

#include "veld/backend/job.h"
#include "veld/model/fault.h"
#include "veld/model/tree.h"
#include "veld/server/loop.h"

#include <memory>
#include <string>
#include <unordered_map>

namespace veld
{

/// Checks the arguments of a call, an array of {"Name", "Value"} or null, against the method; `*input` receives all
/// input arguments, nested as the model nests them, those that were not given with their defaults.
fault arguments_check(const scheme &method, const json_t *list, json_ref *input);

class executions
{
public:
    using done_handler = std::function<void(method_outcome &)>;

    explicit executions(loop &events) : loop_(events) {}
    executions(const executions &) = delete;
    executions &operator=(const executions &) = delete;
    ~executions() { end_all(); }

    /// Whether a user may have one more job run: each has so many over all connections, and the last ones are kept for
    /// administrators.
    bool room_for(const std::string &account, role rights) const;
    /// Lets a job run to its end for a client of that user, and hands its outcome over.
    void run(uint64_t client, const std::string &account, std::unique_ptr<method_job> job, done_handler done);
    /// Ends what runs for a client that is gone.
    void end(uint64_t client);
    void end_all();

private:
    struct entry {
        uint64_t client;
        std::string account;
        std::unique_ptr<method_job> job;
        done_handler done;
    };
    void step(uint64_t id);

    loop &loop_;
    uint64_t next_ = 1;
    std::unordered_map<uint64_t, entry> jobs_;
};

} // namespace veld
