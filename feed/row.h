// A row of a source's changes: its columns by name, each value as the source wrote it.
// What a value means beyond its text is for the source to say, which knows its types.
#ifndef FEED_ROW_H
#define FEED_ROW_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

enum feed_kind { FEED_NULL, FEED_FALSE, FEED_TRUE, FEED_DIGITS, FEED_TEXT };

// What cannot be seen from a text itself.
enum feed_meaning {
    FEED_PLAIN,
    FEED_BOOLEAN,     // true is written t, false f
    FEED_TIMESTAMP,   // see feed/stamp.h
    FEED_WORDS,       // still means something when it is cut
    FEED_FILLED_WORDS // the same, and blanks at its end are filling
};

struct feed_type {
    feed_meaning whole = FEED_PLAIN;   // of a value taken as one
    feed_meaning element = FEED_PLAIN; // of each when the value is taken as a list, {a,b,"c d"}
    bool operator==(const feed_type &) const = default;
};

struct feed_column {
    std::string name;
    feed_type type;
    std::string type_name = {}; // as the source writes it; empty: its rows do not tell
    // FEED_DIGITS: its digits as written; FEED_TEXT: UTF-8; else empty.  The bytes belong to
    // whoever filled the row, since they may be hundreds of megabytes.
    std::string_view value = {};
    feed_kind kind = FEED_NULL;
};

// Only the first count columns are valid, the others keep their memory.
struct feed_row {
    bool present = false;
    size_t count = 0;
    std::vector<feed_column> columns;
};

// The row itself when wanted(i) is true of each of its columns; else part, with those alone.
template <typename Wanted>
const feed_row &feed_take_columns(feed_row &part, const feed_row &row, Wanted wanted)
{
    size_t first = 0;
    while (first < row.count && wanted(first))
        first++;
    if (first == row.count)
        return row;
    part.present = true;
    part.count = 0;
    if (part.columns.size() < row.count)
        part.columns.resize(row.count);
    for (size_t i = 0; i < row.count; i++)
        if (i < first || (i > first && wanted(i)))
            part.columns[part.count++] = row.columns[i];
    return part;
}

#endif
