#include "vebase/link/resolve.h"

#include <atomic>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/thread.h"
#include "platform/ve_wait.h"

namespace
{

constexpr size_t stack_size = size_t{256} << 10;

} // namespace

/// Shared by the thread and whoever waits for it; the last one frees it.
struct ve_resolve::job {
    std::string host;
    std::string port;
    int done_fd = -1;
    int outcome = EAI_AGAIN;
    addrinfo *found = nullptr;
    std::atomic<bool> done{false};
    std::atomic<int> users{1};

    void look_up(int flags)
    {
        addrinfo wanted{};
        wanted.ai_flags = flags | AI_NUMERICSERV;
        wanted.ai_socktype = SOCK_STREAM;
        outcome = getaddrinfo(host.c_str(), port.c_str(), &wanted, &found);
    }
};

ve_resolve::ve_resolve(const std::string &host, const std::string &port) : job_(new job)
{
    job_->host = host;
    job_->port = port;
    job_->look_up(AI_NUMERICHOST);
    if (job_->outcome != EAI_NONAME) {
        job_->done = true;
        return;
    }
    job_->done_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    job_->users = 2;
    if (job_->done_fd < 0 || !thread_start(stack_size, [shared = job_] { run(shared); })) {
        job_->users = 1;
        job_->outcome = EAI_AGAIN;
        job_->done = true;
    }
}

ve_resolve::~ve_resolve()
{
    drop(job_);
}

void ve_resolve::run(job *shared)
{
    shared->look_up(0);
    shared->done = true;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = write(shared->done_fd, &one, sizeof one);
    drop(shared);
}

void ve_resolve::drop(job *shared)
{
    if (shared->users.fetch_sub(1) > 1)
        return;
    if (shared->found != nullptr)
        freeaddrinfo(shared->found);
    if (shared->done_fd >= 0)
        close(shared->done_fd);
    delete shared;
}

int ve_resolve::wait(int64_t deadline)
{
    if (job_->done)
        return 1;
    pollfd fd{.fd = job_->done_fd, .events = POLLIN, .revents = 0};
    const int ready = ve_wait_poll(&fd, 1, deadline);
    return ready > 0 && !job_->done ? 0 : ready;
}

const addrinfo *ve_resolve::addresses() const
{
    return job_->outcome == 0 ? job_->found : nullptr;
}

const char *ve_resolve::error() const
{
    return gai_strerror(job_->outcome);
}
