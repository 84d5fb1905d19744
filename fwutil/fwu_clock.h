// The two clocks: one for spans of time, one for times of day.
#ifndef FWUTIL_FWU_CLOCK_H
#define FWUTIL_FWU_CLOCK_H

#include "fwutil/fwu_time.h"

#include <cstdint>
#include <ctime>

// Milliseconds since some moment before this process; never goes back.
inline int64_t fwu_monotonic_ms()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail with this clock
    return now.tv_sec * int64_t{1000} + now.tv_nsec / 1'000'000;
}

// Microseconds since 1970 UTC.
inline int64_t fwu_now_us()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now); // cannot fail with this clock
    return now.tv_sec * FWU_US_PER_S + now.tv_nsec / 1000;
}

#endif
