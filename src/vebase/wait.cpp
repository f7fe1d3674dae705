#include "platform/ve_wait.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <pthread.h>

#include "base/clock.h"

namespace
{

constexpr unsigned companion_fds_max = 4;
constexpr unsigned fds_max = 16;
constexpr int64_t ns_per_ms = 1'000'000;
constexpr int64_t ns_per_s = 1'000'000'000;

struct {
    std::atomic<bool> interrupted{false};
    std::atomic<bool> ended{false};
    ve_wait_companion *companion = nullptr;
    sigset_t mask{}; // the main thread's inside a wait: SIGINT unblocked
    pthread_t main_thread{};
    bool initialised = false;
} waiting;

bool on_main_thread()
{
    return waiting.initialised && pthread_equal(pthread_self(), waiting.main_thread) != 0;
}

/// Called as what it is: with times of 64 bits, the call by its name that _FORTIFY_SOURCE makes of it goes, on a
/// machine of 32 bits, to the function for times of 32 in some releases of GNU's C library. Every wait would end at
/// once.
int (*const volatile poll_for)(pollfd *fds, nfds_t count, const timespec *time, const sigset_t *mask) = ppoll;

/// One ppoll; `until` is a point in time on the clock of monotonic_ns(), -1 never. -1 with errno as ppoll sets it.
int poll_once(pollfd *fds, unsigned count, int64_t until, const sigset_t *mask)
{
    if (until < 0)
        return poll_for(fds, count, nullptr, mask);
    const int64_t left = std::max<int64_t>(until - monotonic_ns(), 0);
    const timespec time{.tv_sec = static_cast<time_t>(left / ns_per_s), .tv_nsec = static_cast<long>(left % ns_per_s)};
    return poll_for(fds, count, &time, mask);
}

/// ve_wait_poll, until a point in time on the clock of monotonic_ns().
int poll_until(pollfd *fds, unsigned count, int64_t until)
{
    if (!on_main_thread()) {
        int ready;
        do
            ready = poll_once(fds, count, until, nullptr);
        while (ready < 0 && errno == EINTR);
        return ready;
    }
    pollfd all[fds_max];
    const unsigned own = std::min(count, fds_max - companion_fds_max);
    for (;;) {
        if (waiting.interrupted.load(std::memory_order_relaxed))
            return -1;
        std::copy_n(fds, own, all);
        const unsigned guests = waiting.companion != nullptr ? waiting.companion->watch(all + own) : 0;
        const int ready = poll_once(all, own + guests, until, &waiting.mask);
        if (ready < 0 && errno != EINTR)
            return -1;
        if (ready <= 0) {
            if (ready == 0)
                return waiting.interrupted.load(std::memory_order_relaxed) ? -1 : 0;
            continue;
        }
        // What is ready at once keeps ppoll from delivering a signal that is pending. What came before it is served.
        ve_wait_checkpoint();
        const auto is_ready = [](const pollfd &fd) { return fd.revents != 0; };
        const auto guests_ready = std::count_if(all + own, all + own + guests, is_ready);
        if (guests_ready > 0 && waiting.companion != nullptr && waiting.companion->serve(all + own, guests))
            return -1;
        const auto own_ready = static_cast<int>(std::count_if(all, all + own, is_ready));
        if (own_ready > 0) {
            std::copy_n(all, own, fds);
            return own_ready;
        }
    }
}

} // namespace

void ve_wait_init()
{
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    pthread_sigmask(SIG_BLOCK, &blocked, &waiting.mask);
    sigdelset(&waiting.mask, SIGINT);
    waiting.main_thread = pthread_self();
    waiting.initialised = true;
}

int64_t ve_wait_deadline(int timeout_ms)
{
    return timeout_ms < 0 ? -1 : monotonic_ms_after(timeout_ms);
}

int ve_wait_poll(pollfd *fds, unsigned count, int64_t deadline)
{
    return poll_until(fds, count, deadline < 0 ? -1 : deadline * ns_per_ms);
}

int ve_wait_sleep_ms(int milliseconds)
{
    return poll_until(nullptr, 0, monotonic_ns() + std::max(milliseconds, 0) * ns_per_ms);
}

void ve_wait_checkpoint()
{
    if (!on_main_thread())
        return;
    const timespec none{};
    poll_for(nullptr, 0, &none, &waiting.mask);
}

void ve_wait_note_interrupt()
{
    waiting.interrupted.store(true, std::memory_order_relaxed);
}

void ve_wait_note_end()
{
    waiting.ended.store(true, std::memory_order_relaxed);
    ve_wait_note_interrupt();
}

bool ve_wait_ended()
{
    return waiting.ended.load(std::memory_order_relaxed);
}

bool ve_wait_interrupted()
{
    return waiting.interrupted.load(std::memory_order_relaxed);
}

void ve_wait_clear_interrupt()
{
    waiting.interrupted.store(ve_wait_ended(), std::memory_order_relaxed);
}

void ve_wait_discard_sigint()
{
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, SIGINT);
    const timespec none{};
    while (sigtimedwait(&only, nullptr, &none) == SIGINT)
        ;
}

void ve_wait_set_companion(ve_wait_companion *guest)
{
    waiting.companion = guest;
}
