// The text of a status file: two lines that name a record, written in turn, so
// that one of them is whole at any moment.  Described in docs/forward-log.md.
#ifndef FWUTIL_FWU_STATUS_TEXT_H
#define FWUTIL_FWU_STATUS_TEXT_H

#include "fwutil/fwu_start.h"

#include <cstddef>
#include <cstdint>
#include <string>

// What a status file says.
struct fwu_status_text {
    bool fresh = true;          // empty: nothing else is known
    bool have_position = false; // false: no record acknowledged yet
    fwu_position position;
    int64_t time_us = 0;       // commit time of that record, microseconds since 1970 UTC
    std::string log_directory; // absolute
};

// The first byte of a line: its number modulo 10, or this while it is changed.
constexpr char FWU_STATUS_CHANGING = '*';

constexpr int FWU_STATUS_LINES = 2;
constexpr size_t FWU_STATUS_LINE_SIZE =
    sizeof "1 position 0001-00000025.0000000340 time 2026-11-21 03:33:52.123456 UTC crc 1a2b3c4d";

// The whole text stays within the first page of the file.
constexpr size_t FWU_STATUS_SIZE_MAX = 4096;

// What stands before the two lines.
std::string fwu_status_prefix(const std::string &log_directory);

// True when the text for this log directory has a place in the file.
bool fwu_status_fits(const std::string &log_directory);

// A line being kept up to date; only what differs from the line before is
// formatted again.
struct fwu_status_line {
    char text[FWU_STATUS_LINE_SIZE] = {};
    uint32_t prefix_crc = 0; // CRC of the prefix, with which a line's own begins
    fwu_position position;   // what stands in text; sequence 0: nothing yet
    int64_t time_us = 0;
};

// Makes the line with this number (0 to 9) for a record, or for none.
void fwu_status_line_set(fwu_status_line &line, int number, const fwu_position &position,
                         int64_t time_us);
void fwu_status_line_none(fwu_status_line &line, int number);

// The whole text, both lines naming the same record.
std::string fwu_status_put(const fwu_status_text &text);

// Checks and decodes a whole text; 0, or -1 when these bytes are not one.
int fwu_status_get(fwu_status_text &text, const std::string &bytes);

// "2026-11-21 03:33:52.123456 UTC"
std::string fwu_time_text(int64_t time_us);

#endif
