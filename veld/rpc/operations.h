// What takes time and is done for clients: methods, transfers, and what waits for the disk or for passwords to be
// hashed. One table, with one limit and one way to end.
#pragma once

#include "veld/base/fault.h"
#include "veld/base/job.h"
#include "veld/base/loop.h"

#include <memory>
#include <string>
#include <unordered_map>

namespace veld
{

enum class operation_kind {
    method,
    transfer, ///< of a file, which takes room on the disk
    work      ///< on the disk, or on passwords
};

/// For whom something is done.
struct operation_asker {
    uint64_t client;
    std::string account; ///< whose limit counts, over all connections
    bool administrator;
    bool owner; ///< root, or the user that the daemon runs as
};

/// A login is none: whoever has used up a peer's room would keep the others there from ending it.
class operations
{
public:
    explicit operations(loop &events) : loop_(events) {}
    operations(const operations &) = delete;
    operations &operator=(const operations &) = delete;

    /// Whether one more may begin: each account has so many, and the last ones are kept for administrators, of
    /// transfers, which are administrators' anyway, for the owner.
    fault admits(operation_kind kind, const operation_asker &asker) const;
    /// Lets a job run to its end. `ended` hears of it once, perhaps before this returns; not when it is cut off.
    void run(operation_kind kind, const operation_asker &asker, std::unique_ptr<job> what, job::ended_handler ended);

    /// Cuts off what is done for a client that is gone. What cannot be cut off counts until it has ended.
    void end(uint64_t client);
    /// The same for everybody.
    void end_all();

    size_t size() const { return each_.size(); }

private:
    struct operation {
        operation_kind kind;
        uint64_t client;
        std::string account;
        std::unique_ptr<job> what;
        job::ended_handler ended;
    };
    void over(uint64_t id, job_outcome &outcome);

    loop &loop_;
    uint64_t next_ = 1;
    std::unordered_map<uint64_t, operation> each_;
};

} // namespace veld
