// Text columns of capture records as the bytes that they were made of.
#ifndef RECORDS_COLUMN_H
#define RECORDS_COLUMN_H

#include "fwutil/fwu_items.h"
#include "records/form.h"

#include <cstddef>
#include <cstdint>

// How the text of an item's elements becomes bytes again.
struct rec_column {
    size_t width = 0;        // characters of an element
    size_t size = 0;         // its bytes
    bool big_endian = false; // how the bytes are stored that a number was read from
    bool bwfmt = false;
    bool (*put)(const rec_column &column, unsigned char *element, const char *text) = nullptr;
    const char *fits = nullptr; // what its text has to be
};

// False: a text capture file has no column for such an item.
bool rec_column_make(rec_column &column, const fwu_item &item, const rec_form &form);

// Whether the text of an item leaves digits out, and how many it has: 0 if it leaves out none.
int rec_column_digits(const fwu_item &item);

// Makes an element of its text.  False: it is no text of such a column.
inline bool rec_column_put(const rec_column &column, unsigned char *element, const char *text)
{
    return column.put(column, element, text);
}

#endif
