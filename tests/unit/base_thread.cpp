#include "base/thread.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <future>
#include <memory>
#include <sys/resource.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/fd.h"

namespace
{

sigset_t mask_here()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
}

TEST(Threads, AThreadHasAllSignalsBlockedAndItsMakerKeepsItsOwn)
{
    const sigset_t before = mask_here();
    std::promise<sigset_t> seen;
    ASSERT_TRUE(thread_start(size_t{128} << 10, [&] { seen.set_value(mask_here()); }));
    const sigset_t in_thread = seen.get_future().get();
    const sigset_t after = mask_here();
    for (const int number : {SIGINT, SIGTERM, SIGPIPE, SIGWINCH, SIGHUP, SIGCHLD}) {
        EXPECT_EQ(sigismember(&in_thread, number), 1) << number;
        EXPECT_EQ(sigismember(&after, number), sigismember(&before, number)) << number;
    }
}

TEST(Threads, AJoinedThreadHasDoneItsWorkAndFreedWhatItHeld)
{
    auto held = std::make_shared<int>(0);
    pthread_t thread;
    ASSERT_TRUE(thread_start_joinable(&thread, 0, [held] { ++*held; }));
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_EQ(*held, 1);
    EXPECT_EQ(held.use_count(), 1);
}

TEST(Threads, WhereThereIsNoThreadTheBodyIsDropped)
{
    const auto held = std::make_shared<int>(0);
    // More stack than there are addresses.
    EXPECT_FALSE(thread_start(SIZE_MAX / 8 * 7, [held] { ++*held; }));
    EXPECT_EQ(*held, 0);
    EXPECT_EQ(held.use_count(), 1);
}

TEST(Threads, WhereThereIsNoThreadTheSmallStackHasToDo)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs memory of its own for a thread";
#endif
    const auto run = [] {
        rlimit limit;
        getrlimit(RLIMIT_STACK, &limit);
        limit.rlim_cur = size_t{1} << 20;
        setrlimit(RLIMIT_STACK, &limit);
        getrlimit(RLIMIT_AS, &limit);
        limit.rlim_cur = 1; // memory for a stack is not to be had
        setrlimit(RLIMIT_AS, &limit);
        return run_with_stack([] {
            const sigset_t mask = mask_here();
            return sigismember(&mask, SIGTERM) == 1 ? 1 : 7;
        });
    };
    EXPECT_EXIT(_exit(run()), testing::ExitedWithCode(7), "");
}

TEST(Clocks, TheUnitsAgreeAndTimeGoesForward)
{
    const int64_t ms = monotonic_ms();
    const int64_t us = monotonic_us();
    const int64_t ns = monotonic_ns();
    EXPECT_LE(ms, us / 1000);
    EXPECT_LE(us, ns / 1000);
    EXPECT_LT(monotonic_ms() - ms, 60'000);
    EXPECT_GE(uptime_s() * 1000 + 1000, ms);
}

TEST(Descriptors, AnOwnerClosesMovesAndGivesAway)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fd_owner reading{ends[0]};
    fd_owner writing{ends[1]};
    EXPECT_TRUE(writing);
    fd_owner moved = std::move(writing);
    EXPECT_FALSE(writing);
    EXPECT_EQ(moved.reset(), 0);
    char byte;
    EXPECT_EQ(read(reading.get(), &byte, 1), 0); // nobody writes any more
    const int raw = reading.release();
    EXPECT_FALSE(reading);
    EXPECT_EQ(close(raw), 0);
    EXPECT_EQ(moved.reset(raw), 0);
    EXPECT_EQ(moved.reset(), -1); // it was closed behind the owner's back
}

} // namespace
