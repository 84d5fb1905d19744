// What stands where in the capture records that Kestro makes of a dataset's changes, with
// given options: the header's items and the columns of the image.
#ifndef TOOLS_FWLOG_RECORD_LAYOUT_H
#define TOOLS_FWLOG_RECORD_LAYOUT_H

#include "capture/hdrlayout.h"
#include "changes/change.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <vector>

// Kestro's options of a capture file, as far as they say what its records look like.
struct record_options {
    bool exthdr = false;
    bool yyyy = false;
    bool recnum = false;
    bool fga = false;
    bool ascii = false;
    bool asciirev = false; // with ascii
    bool dirty = false;
    bool bwfmt = false;
    const char *progterm = nullptr;
    int32_t info = HDRKIND_NONE; // header item in whose place the session's info text stands
};

struct record_header_item {
    const char *name;    // "record_number"
    const char *content; // for people
    bool digits;         // nothing but digits
    int64_t offset;      // in the record
    int64_t width;
};

struct record_item {
    const fwu_item *item;
    const fwu_source_column *column; // null: not known, or it has none
    size_t index;                    // of the item in the layout
    int64_t image_offset;            // of its first element
    int64_t offset;                  // the same in the record
    int64_t width;                   // of one element in the record
    std::string picture;             // "S9(9)V9(2)"; empty: its usage says it all
    std::string usage;               // "COMP-3", "SIGN IS LEADING SEPARATE"; may be empty
};

struct record_layout {
    const change_dataset *dataset;
    record_options options;
    std::string name;         // "SALES.ORDERS", printable
    std::string options_text; // as Kestro takes them; empty: none
    const char *order;        // byte order of the numbers in images: "little" or "big"
    std::vector<record_header_item> header;
    std::vector<record_item> items;
    int64_t header_length;
    int64_t row_length; // of one image
    int64_t one_length; // of a record with one image: IP and ID
    int64_t two_length; // of one with two: IU
};

// Fills everything; fails when Kestro has no column for an item.
outcome record_layout_make(record_layout &record, const change_dataset &dataset,
                           const record_options &options);

#endif
