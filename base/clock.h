// The clock that never goes back, and points in time on it.
#pragma once

#include <cstdint>
#include <ctime>

inline int64_t monotonic_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

inline int64_t monotonic_us()
{
    return monotonic_ns() / 1'000;
}

inline int64_t monotonic_ms()
{
    return monotonic_ns() / 1'000'000;
}

/// The point in time on the clock of monotonic_ms() from which at least so many milliseconds have gone by.
inline int64_t monotonic_ms_after(int64_t milliseconds)
{
    return milliseconds <= 0 ? monotonic_ms() : (monotonic_ns() + 999'999) / 1'000'000 + milliseconds;
}

/// Seconds since the machine was started, those in which it slept included.
inline int64_t uptime_s()
{
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec;
}
