// Positions of a source: places in its own log (LSN), 64 bits that only grow from commit to
// commit.  0 is before everything.
#ifndef FEED_LSN_H
#define FEED_LSN_H

#include <cstdint>
#include <string>
#include <string_view>

// Reads a position, two hexadecimal numbers with "/" between them.
bool feed_lsn_parse(uint64_t &lsn, std::string_view text);

// The same, written.
std::string feed_lsn_text(uint64_t lsn);

#endif
