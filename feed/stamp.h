// Timestamps of a source, "2026-11-20 22:08:38.038401+00" and the like:
// years 0001 to 9999, up to six decimals, with or without an offset from UTC.
#ifndef FEED_STAMP_H
#define FEED_STAMP_H

#include <cstdint>
#include <string>
#include <string_view>

struct feed_stamp {
    int64_t seconds = 0; // since 1970; UTC when an offset was given, else as written
    int32_t micros = 0;  // 0 to 999999, to be added
    bool zoned = false;  // an offset was given
};

// Reads a timestamp.  Offsets: +HH, +HH:MM, +HH:MM:SS, the same with "-".
bool feed_stamp_parse(feed_stamp &stamp, std::string_view text);

// The stamp of a time in microseconds since 1970 UTC.
feed_stamp feed_stamp_of(int64_t time_us);

// Writes "YYYY-MM-DD HH:MM:SS" and, with decimals above 0, "." and so many digits
// (at most 6).  False when the year is outside 0001 to 9999 or a digit other
// than 0 would be lost.
bool feed_stamp_format(std::string &out, const feed_stamp &stamp, int decimals);

#endif
