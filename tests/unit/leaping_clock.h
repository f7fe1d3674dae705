// The system's clock, but that it leaps while a test says so: no test has to wait until time is up. One source of a
// test program may include this.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

/// As long as it lives the clock leaps by so much with every look at it. It stays ahead.
class leaping_clock
{
public:
    explicit leaping_clock(int seconds) { leap_s_ = seconds; }
    leaping_clock(const leaping_clock &) = delete;
    leaping_clock &operator=(const leaping_clock &) = delete;
    ~leaping_clock() { leap_s_ = 0; }

    static int look(clockid_t clock, timespec *now)
    {
#ifdef SYS_clock_gettime64
        constexpr long call = SYS_clock_gettime64;
#else
        constexpr long call = SYS_clock_gettime;
#endif
        const auto result = static_cast<int>(syscall(call, clock, now));
        now->tv_sec += ahead_s_ += leap_s_;
        return result;
    }

private:
    static inline std::atomic<int> leap_s_{0};
    static inline std::atomic<int> ahead_s_{0};
};

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    return leaping_clock::look(clock, now);
}
