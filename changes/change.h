// A change of a dataset's record, with all that is known about it: what the readers of
// changes hand to whoever writes them out as data.
#ifndef CHANGES_CHANGE_H
#define CHANGES_CHANGE_H

#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_items.h"
#include "fwutil/fwu_start.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr int CHANGE_NO_ITEM = -1;

// A dataset in one of its layouts.  Another layout is another object, which lives as long as
// the reader: what is made once for a layout can be kept by its address.
struct change_dataset {
    fwu_layout layout;
    bool big_endian = false;       // byte order of the numbers in its images
    int64_t image_length = 0;      // bytes
    std::vector<int64_t> offsets;  // of each item in the image
    int null_map = CHANGE_NO_ITEM; // index of the item that tells which of the others are null
    std::vector<int> null_flag;    // of each item, its byte in the null map; none: CHANGE_NO_ITEM
    std::vector<int> column;       // of each item, its place in source->columns; CHANGE_NO_ITEM
    std::vector<int> key;          // items of the primary key, in its order; empty: not known
    fwu_position begun;            // the layout entry read first
    std::string table;             // "sales.orders"; empty: not known
};

// The transaction that a change belongs to.
struct change_transaction {
    fwu_commit commit;
    fwu_position position; // of its commit entry
    fwu_identity identity; // of the log
};

enum change_op : char {
    CHANGE_CREATE = 'c',
    CHANGE_UPDATE = 'u',
    CHANGE_DELETE = 'd',
    CHANGE_READ = 'r',     // a row of a snapshot
    CHANGE_TRUNCATE = 't', // the table was emptied
    CHANGE_GAP = 'g',      // changes of the table, or of all, are missing from here on
};

struct change {
    change_op op = CHANGE_CREATE;
    const change_dataset *dataset = nullptr; // null: of a mark whose dataset has no layout
    fwu_position position;
    int32_t record = 0;                    // 0: it has no number, being a mark
    uint64_t n = 0;                        // its place among its transaction's changes, from 1
    const unsigned char *before = nullptr; // image of the dataset's image_length; null: none
    const unsigned char *after = nullptr;
    const fwu_mark *mark = nullptr;            // of CHANGE_TRUNCATE and CHANGE_GAP
    const fwu_session_view *session = nullptr; // null: not known
};

// Whether an item of an image is null.
inline bool change_is_null(const change_dataset &dataset, const unsigned char *image, size_t item)
{
    const int flag = dataset.null_flag[item];
    return flag != CHANGE_NO_ITEM &&
           image[dataset.offsets[static_cast<size_t>(dataset.null_map)] + flag] == 'N';
}

#endif
