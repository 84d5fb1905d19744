// Whether what the entries of a log file say fits together: checksums tell that nothing
// changed, not that whoever wrote it was right.
#ifndef FWUTIL_FWU_LAYOUT_CHECK_H
#define FWUTIL_FWU_LAYOUT_CHECK_H

#include "fwutil/fwu_entry.h"

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

// The layouts that stand in a file so far.  To be cleared where a file begins.
struct fwu_layout_check {
    struct known {
        int64_t length = 0; // of a record image
        size_t items = 0;
    };
    std::unordered_map<std::string, known> layouts; // by dataset
    std::string key;                                // scratch

    // The items and images whose whole values stand before the record to come.
    std::set<std::pair<int32_t, fwu_image>> values;
    std::pair<int32_t, fwu_image> value; // the last one
    bool more = false;                   // ... goes on in the next entry
};

// What is wrong where entries do not fit together.
extern const char FWU_MALFORMED[]; // an entry's content is not what its kind says
extern const char FWU_NO_LAYOUT[];
extern const char FWU_OTHER_LENGTH[];

// Takes the next entry of a file; null, or what is wrong with it: it is malformed, or a
// record or source has no layout before it, or does not fit that, or the values before a
// record are none of its own.
const char *fwu_layout_check_entry(fwu_layout_check &check, const fwu_entry &entry);

#endif
