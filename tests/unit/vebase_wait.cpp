#include "platform/ve_wait.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/resource.h>

#include "base/clock.h"

namespace
{

constexpr int64_t ns_per_ms = 1'000'000;

/// Returns just before, at or behind a full millisecond, somewhere else in every round.
void wait_for_the_turn_of_a_millisecond(int round)
{
    const int64_t place = ns_per_ms - 2'000 + int64_t{round} * 40;
    while (monotonic_ns() % ns_per_ms < place % ns_per_ms)
        ;
}

} // namespace

TEST(Wait, APollThatTheKernelRefusesFails)
{
    ve_wait_init();
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0); // no poll may ask about more descriptors than there may be
    pollfd fd{-1, POLLIN, 0};
    const int ready = ve_wait_poll(&fd, 1, ve_wait_deadline(1000));
    const int problem = errno;
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(ready, -1);
    EXPECT_EQ(problem, EINVAL);
}

TEST(Wait, ADeadlineIsNeverNearerThanTold)
{
    for (int round = 0; round < 100; ++round) {
        wait_for_the_turn_of_a_millisecond(round);
        const int64_t before = monotonic_ns();
        const int64_t deadline = ve_wait_deadline(2);
        const int64_t after = monotonic_ns();
        EXPECT_GE(deadline * ns_per_ms, before + 2 * ns_per_ms);
        EXPECT_LT(deadline * ns_per_ms, after + 3 * ns_per_ms);
        const int64_t now = ve_wait_deadline(0);
        EXPECT_LE(now * ns_per_ms, monotonic_ns());
    }
    EXPECT_EQ(ve_wait_deadline(-1), -1);
}

TEST(Wait, SleepsNoShorterThanTold)
{
    ve_wait_init();
    for (int round = 0; round < 100; ++round) {
        wait_for_the_turn_of_a_millisecond(round);
        const int64_t before = monotonic_ns();
        EXPECT_EQ(ve_wait_sleep_ms(2), 0);
        EXPECT_GE(monotonic_ns() - before, 2 * ns_per_ms);
    }
}

TEST(Wait, APollReturnsNoSoonerThanAtItsDeadline)
{
    ve_wait_init();
    for (int round = 0; round < 20; ++round) {
        const int64_t deadline = ve_wait_deadline(2);
        EXPECT_EQ(ve_wait_poll(nullptr, 0, deadline), 0);
        EXPECT_GE(monotonic_ns(), deadline * ns_per_ms);
    }
}
