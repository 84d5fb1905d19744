// The element of an item in a capture record as COBOL describes it.
#ifndef TOOLS_FWLOG_RECORD_PICTURE_H
#define TOOLS_FWLOG_RECORD_PICTURE_H

#include "fwutil/fwu_items.h"

#include <cstdint>
#include <string>

struct record_picture {
    std::string picture; // empty: the usage says it all
    std::string usage;   // may be empty
};

// As a text column of so many characters; bwfmt: Kestro's -bwfmt.
record_picture record_picture_text(const fwu_item &item, int64_t width, bool bwfmt);

// As the bytes of the image.
record_picture record_picture_raw(const fwu_item &item, bool big_endian);

#endif
