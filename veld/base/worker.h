// A thread beside the loop, for what may take long: disks, directory services, passwords, large messages.
#pragma once

#include "veld/base/loop.h"

#include <functional>
#include <memory>
#include <pthread.h>
#include <string>

namespace veld
{

/// Does one piece of work after the other, in the order in which they were given; those of several askers take turns.
/// Loop's thread only.
class worker
{
public:
    enum class at_end {
        finish, ///< the destructor waits until everything that was given is done; nobody hears of it any more
        abandon ///< what is under way, and may hang, is left alone; the rest is dropped
    };

    /// At the start of the program: without descriptors it ends.
    worker(loop &events, at_end how);
    worker(const worker &) = delete;
    worker &operator=(const worker &) = delete;
    ~worker();

    /// Calls `work` in the thread, then `after` on the loop. What both share is `work`'s alone until `after` is called.
    /// `asker`: whose it is, where many have work done.
    void run(std::function<void()> work, std::function<void()> after = nullptr, const std::string &asker = {});
    /// How many pieces are not done yet.
    size_t waiting() const { return waiting_; }

private:
    struct shared;
    static void serve(const std::shared_ptr<shared> &state);
    void collect();

    loop &loop_;
    at_end how_;
    loop::watch_id watch_ = 0;
    std::shared_ptr<shared> state_;
    size_t waiting_ = 0;
    bool started_ = false;
    pthread_t thread_ = {};
};

} // namespace veld
