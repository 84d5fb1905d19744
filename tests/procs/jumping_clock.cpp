// Preloaded into a program: a clock of the day that shows another year, or that is set back and
// forth by a day at every look.  The clock that only goes on is the system's own.
#include <cstdlib>
#include <ctime>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

static timespec shown(clockid_t clock)
{
    static unsigned looks;
    timespec now = {};
    syscall(SYS_clock_gettime, clock, &now);
    if (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE)
        return now;
    static const time_t first = now.tv_sec;
    static const char *const year = getenv("KESTRO_TEST_CLOCK"); // seconds at the start
    static const bool jumps = getenv("KESTRO_TEST_CLOCK_JUMPS") != nullptr;
    if (year != nullptr)
        now.tv_sec += atol(year) - first;
    if (jumps && looks++ % 2 != 0)
        now.tv_sec -= 86400;
    return now;
}

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    *now = shown(clock);
    return 0;
}

extern "C" time_t time(time_t *now) noexcept
{
    const time_t seconds = shown(CLOCK_REALTIME).tv_sec;
    if (now != nullptr)
        *now = seconds;
    return seconds;
}

extern "C" int gettimeofday(timeval *now, void * /*zone*/) noexcept
{
    const timespec precise = shown(CLOCK_REALTIME);
    *now = {.tv_sec = precise.tv_sec, .tv_usec = precise.tv_nsec / 1000};
    return 0;
}
