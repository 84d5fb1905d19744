// A value in the bytes of its item: numbers, texts, timestamps, and arrays of them.
#ifndef FEED_VALUE_H
#define FEED_VALUE_H

#include "feed/row.h"
#include "fwutil/fwu_items.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <vector>

struct feed_value_settings {
    bool big_endian = false; // byte order of binary numbers
    bool truncate = false;   // cut texts that are too long instead of refusing them
};

// What is kept from value to value.
struct feed_value_work {
    feed_value_settings settings;
    uint64_t truncated = 0; // texts cut so far
    std::string text;
    std::vector<std::string> elements;
};

// Brings a column's value, which is not null, to its item.  OUTCOME_BAD, with the reason,
// when it does not fit.
outcome feed_put_value(feed_value_work &work, const fwu_item &item, const feed_column &column,
                       unsigned char *out);

// Blanks in texts, zero in all others.
void feed_put_blank(const fwu_item &item, unsigned char *out);

#endif
