#include "veld/base/worker.h"

#include "base/thread.h"
#include "veld/base/fair_queue.h"
#include "veld/base/log.h"

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <sys/epoll.h>
#include <sys/eventfd.h>

namespace veld
{

namespace
{

constexpr size_t stack_size = size_t{1} << 20; // what nests deepest is a message

struct piece {
    std::function<void()> work;
    std::function<void()> after;
};

} // namespace

struct worker::shared {
    std::mutex lock;
    std::condition_variable more;
    fair_queue<piece> given;                  // guarded by `lock`, like the next three
    std::vector<std::function<void()>> ready; // what is to be called on the loop
    bool ends = false;
    bool abandoned = false;
    fd_owner bell{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)}; // rung when something is ready
};

worker::worker(loop &events, at_end how) : loop_(events), how_(how), state_(std::make_shared<shared>())
{
    if (!state_->bell) {
        LOG_ERROR("eventfd: %m");
        exit(EXIT_FAILURE);
    }
    watch_ = loop_.watch(state_->bell.get(), EPOLLIN, [this](uint32_t) { collect(); });
    if (watch_ == 0) {
        LOG_ERROR("epoll: %m");
        exit(EXIT_FAILURE);
    }
}

worker::~worker()
{
    loop_.forget(watch_);
    {
        const std::lock_guard guard(state_->lock);
        state_->ends = true;
        state_->abandoned = how_ == at_end::abandon;
        if (state_->abandoned)
            state_->given.clear();
    }
    state_->more.notify_one();
    if (started_ && how_ == at_end::finish)
        pthread_join(thread_, nullptr);
}

void worker::serve(const std::shared_ptr<shared> &state)
{
    std::unique_lock guard(state->lock);
    while (true) {
        state->more.wait(guard, [&state] { return state->ends || !state->given.empty(); });
        if (state->given.empty())
            return;
        piece next = state->given.take();
        guard.unlock();
        next.work();
        guard.lock();
        // The process ends, and what this piece holds belongs to parts that are gone: it is not touched any more.
        while (state->abandoned) {
            guard.unlock();
            pause();
            guard.lock();
        }
        guard.unlock();
        next.work = nullptr; // what it holds may take long to free, too
        guard.lock();
        state->ready.push_back(std::move(next.after));
        eventfd_write(state->bell.get(), 1);
    }
}

void worker::run(std::function<void()> work, std::function<void()> after, const std::string &asker)
{
    if (!started_) {
        const auto body = [state = state_] { serve(state); };
        started_ =
            how_ == at_end::finish ? thread_start_joinable(&thread_, stack_size, body) : thread_start(stack_size, body);
    }
    ++waiting_;
    if (!started_) {
        LOG_ERROR("no thread can be had: everybody waits");
        work();
        loop_.post([this, after = std::move(after)] {
            --waiting_;
            if (after)
                after();
        });
        return;
    }
    {
        const std::lock_guard guard(state_->lock);
        state_->given.push(asker, {std::move(work), std::move(after)});
    }
    state_->more.notify_one();
}

void worker::collect()
{
    eventfd_t count = 0;
    eventfd_read(state_->bell.get(), &count);
    std::vector<std::function<void()>> ready;
    {
        const std::lock_guard guard(state_->lock);
        ready.swap(state_->ready);
    }
    for (const std::function<void()> &call : ready) {
        --waiting_;
        if (call)
            call();
    }
}

} // namespace veld
