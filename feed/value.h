// A value in the bytes of its item: numbers, texts, timestamps, and arrays of them.  One that
// does not fit is refused, but for texts that may be cut or lose characters.
#ifndef FEED_VALUE_H
#define FEED_VALUE_H

#include "feed/row.h"
#include "fwutil/fwu_items.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <vector>

struct feed_value_settings {
    bool big_endian = false;            // byte order of binary numbers
    fwu_encoding encoding = FWU_LATIN1; // of texts
    bool truncate = false;              // cut texts that are too long instead of refusing them
};

// What would have taken the value that was refused last.
struct feed_refusal {
    std::string remedy;     // where the configuration describes the item
    bool is_narrow = false; // a text item that is wide enough
    bool may_cut = false;   // --truncate
};

// What is kept from value to value.
struct feed_value_work {
    feed_value_settings settings;
    uint64_t truncated = 0; // texts cut so far since the settings say so
    std::string text;
    std::vector<std::string> elements;
    feed_refusal refusal;
};

// Where a value goes, and what became of it there.
struct feed_place {
    const fwu_item &item;
    unsigned char *out;
    bool mark;                      // texts may be cut and lose characters: flag says so
    fwu_flag flag = FWU_FLAG_VALUE; // or FWU_FLAG_CUT, FWU_FLAG_REPLACED
    bool blanks = false; // cut: only of blanks at its end, which the item fills up with anyway
    uint32_t bad = 0;    // replaced: the first such character, see feed_encode
};

// Brings a column's value, which is not null, to its item.  OUTCOME_BAD, with the reason, when
// it does not fit; work.refusal then says what would help, and the item holds anything.
outcome feed_put_value(feed_value_work &work, feed_place &place, const feed_column &column);

// "PRICE (P 5, 2 decimal places)", and "the character U+20AC, which has no place in ISO 8859-1",
// for messages.
std::string feed_item_text(const fwu_item &item);
std::string feed_no_place_text(uint32_t bad);

// Blanks in texts, zero in all others.
void feed_put_blank(const fwu_item &item, unsigned char *out);

#endif
