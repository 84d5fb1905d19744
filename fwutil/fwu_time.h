// Times of day: microseconds since 1970 UTC, and how they are written.
#ifndef FWUTIL_FWU_TIME_H
#define FWUTIL_FWU_TIME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

constexpr int64_t FWU_US_PER_S = 1'000'000;
constexpr int64_t FWU_NS_PER_S = 1'000'000'000;

// The second that a time falls into, before 1970, too, and the microseconds behind it.
constexpr int64_t fwu_second_of(int64_t time_us)
{
    return time_us / FWU_US_PER_S - (time_us % FWU_US_PER_S < 0 ? 1 : 0);
}
constexpr int32_t fwu_micros_of(int64_t time_us)
{
    const int64_t rest = time_us % FWU_US_PER_S;
    return static_cast<int32_t>(rest < 0 ? rest + FWU_US_PER_S : rest);
}

constexpr size_t FWU_TIME_SIZE = sizeof "2026-11-21 03:33:52.123456" - 1;
constexpr size_t FWU_TIME_MICROS_AT = sizeof "2026-11-21 03:33:52." - 1;

// Writes FWU_TIME_SIZE characters, in UTC.  False, with nothing written, for a second
// outside the years 0 to 9999.
bool fwu_time_put(char *p, int64_t second, int32_t micros);

// "2026-11-21 03:33:52.123456 UTC"; a time outside these years becomes the nearest in them.
std::string fwu_time_text(int64_t time_us);

// The same in one word: "2026-11-21T03:33:52.123456Z".
std::string fwu_time_word(int64_t time_us);

// The time that FWU_TIME_SIZE characters of that form stand for.
int64_t fwu_time_get(std::string_view text);

#endif
