// The lines of a status file: one names a record, the other says where the text stands
// that was brought to disk along with a position.  Of each there are two, written in
// turn, so that one of them is whole at any moment.  Described in docs/forward-log.md.
#ifndef FWUTIL_FWU_STATUS_LINE_H
#define FWUTIL_FWU_STATUS_LINE_H

#include "fwutil/fwu_place.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The first byte of a line: its number modulo 10, or this while it is changed.
constexpr char FWU_STATUS_CHANGING = '*';

constexpr int FWU_STATUS_LINES = 2; // of each kind

// Sizes with the line end: a place alone, the line that names a record, the same in
// files of version 1, and the line that says where a text stands.
constexpr size_t FWU_PLACE_LINE_SIZE =
    sizeof "position 0001-00000025.0000000340 time 2026-11-21 03:33:52.123456 UTC "
           "lsn 0000000001BC8080 log 0123456789abcdef0123456789abcdef";
constexpr size_t FWU_STATUS_LINE_SIZE =
    sizeof "1 " - 1 + FWU_PLACE_LINE_SIZE + sizeof " crc 1a2b3c4d" - 1;
constexpr size_t FWU_STATUS_LINE_SIZE_1 =
    sizeof "1 position 0001-00000025.0000000340 time 2026-11-21 03:33:52.123456 UTC crc 1a2b3c4d";
constexpr size_t FWU_POINTER_SIZE =
    sizeof "1 synced at 00000600 length 00000123 text 1a2b3c4d crc 5e6f7a8b";

// A line being kept up to date; only what differs from the line before is
// formatted again.
struct fwu_status_line {
    char text[FWU_STATUS_LINE_SIZE] = {};
    uint32_t prefix_crc = 0; // CRC of what stands before the lines, with which theirs begin
    uint32_t origin_crc = 0; // that one, and on over what follows the position in text
    bool begun = false;
    fwu_place place{}; // what stands in text
};

// Makes the line with this number (0 to 9) for a place; one without a position is none.
void fwu_status_line_set(fwu_status_line &line, int number, const fwu_place &place);

// Checks and decodes a whole line; false when these bytes are not one.
bool fwu_status_line_get(std::string_view line, uint32_t prefix_crc, fwu_place &place);
bool fwu_status_line_get_1(std::string_view line, uint32_t prefix_crc, fwu_place &place);

// The line of a place alone, with its line end, and the reverse.
std::string fwu_place_line(const fwu_place &place);
bool fwu_place_line_get(std::string_view line, fwu_place &place);

// Where in the file a text stands.
struct fwu_pointer {
    size_t at = 0;
    size_t length = 0;
    uint32_t crc = 0; // of the text
};

std::string fwu_pointer_line(const fwu_pointer &pointer, int number, uint32_t prefix_crc);
bool fwu_pointer_line_get(std::string_view line, uint32_t prefix_crc, fwu_pointer &pointer);

#endif
