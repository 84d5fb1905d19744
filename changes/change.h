// A change of a dataset's record, with all that is known about it: what the readers of
// changes hand to whoever writes them out as data.
#ifndef CHANGES_CHANGE_H
#define CHANGES_CHANGE_H

#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_items.h"
#include "fwutil/fwu_start.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

constexpr int CHANGE_NO_ITEM = -1;

// A dataset in one of its layouts.  Another layout is another object, which lives as long as
// the reader: what is made once for a layout can be kept by its address.
struct change_dataset {
    fwu_layout layout;
    bool big_endian = false;            // byte order of the numbers in its images
    fwu_encoding encoding = FWU_LATIN1; // of the texts in them
    int64_t image_length = 0;           // bytes
    std::vector<int64_t> offsets;       // of each item in the image
    int null_map = CHANGE_NO_ITEM;      // index of the item that tells which of the others are null
    std::vector<int> null_flag; // of each item, its byte in the null map; none: CHANGE_NO_ITEM
    std::vector<int> column;    // of each item, its place in source->columns; CHANGE_NO_ITEM
    std::vector<int> key;       // items of the primary key, in its order; empty: not known
    fwu_position begun;         // the layout entry read first
    std::string table;          // "sales.orders"; empty: not known
};

// "sales.orders", as the configuration names tables; the schema may be empty, and the table, of
// which then nothing is known.
std::string change_table_name(std::string_view schema, std::string_view table);

// The transaction that a change belongs to.  Capture records do not tell of it: sequence 0, and
// of the commit nothing but the second is known.
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

// A row before or after a change.
struct change_row {
    const unsigned char *image = nullptr; // of the dataset's image_length; null: there is no row
    std::span<const fwu_value> values;    // whole ones that the image does not hold, by item
};

struct change {
    change_op op = CHANGE_CREATE;
    const change_dataset *dataset = nullptr; // null: of a mark whose dataset has no layout
    fwu_position position;                   // sequence 0: not known
    int32_t record = 0; // 0: it has no number, being a mark, or that is not known
    uint64_t n = 0;     // its place among its transaction's changes, from 1; 0: not known
    change_row before;
    change_row after;
    const fwu_mark *mark = nullptr;            // of CHANGE_TRUNCATE and CHANGE_GAP
    const fwu_session_view *session = nullptr; // null: not known
};

// Whether it is known where in a log something stands.
inline bool change_has(const fwu_position &position)
{
    return position.sequence != 0;
}

// Where the value of a row's item is.
enum change_place {
    CHANGE_IN_IMAGE,
    CHANGE_WHOLE, // in the row's values: the image has none, or a part of it
    CHANGE_NULL,
    CHANGE_NOT_KNOWN, // the source did not send it, or it is lost
};

// The place where the flag in the null map is not that of a plain value, or where there is
// none; whole: the value when it is CHANGE_WHOLE.
change_place change_place_of_flagged(std::string_view &whole, const change_row &row, size_t item,
                                     unsigned char flag);

// The same for any item.
inline change_place change_place_of(std::string_view &whole, const change_dataset &dataset,
                                    const change_row &row, size_t item)
{
    const int at = dataset.null_flag[item];
    const unsigned char flag =
        at == CHANGE_NO_ITEM
            ? static_cast<unsigned char>(FWU_FLAG_VALUE)
            : row.image[dataset.offsets[static_cast<size_t>(dataset.null_map)] + at];
    return flag == FWU_FLAG_VALUE && row.values.empty()
               ? CHANGE_IN_IMAGE
               : change_place_of_flagged(whole, row, item, flag);
}

#endif
