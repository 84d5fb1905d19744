// What the making of images keeps from row to row.
#ifndef FEED_IMAGE_WORK_H
#define FEED_IMAGE_WORK_H

#include "feed/value.h"
#include "fwutil/fwu_entry.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

// Items of images that do not hold what the source has, by their mark in the null map.
struct feed_marked {
    uint64_t cut = 0;      // C
    uint64_t replaced = 0; // R
    uint64_t left_out = 0; // !
    uint64_t unknown = 0;  // ?
    bool operator==(const feed_marked &) const = default;
};

struct feed_image_work : feed_value_work {
    feed_marked marked; // so far
    std::vector<fwu_value>
        values; // whole, of C, R and !; the texts are the rows'.  Only grows here
    std::vector<std::string> notes; // what is to be told; whoever tells it takes it away
    std::set<std::string> told;     // which columns have been told of, by kind of mark
    std::vector<std::string> news; // items of the image in hand that are unknown for the first time
};

#endif
