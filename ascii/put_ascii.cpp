// The column table and the walk over a record image's items.
#include "ascii/put_ascii.h"

#include "ascii/ascii_dec.h"
#include "ascii/ascii_num.h"
#include "capture/capinfo.h"
#include "driver/dsetinfo.h"
#include "driver/log.h"
#include "driver/mem.h"

#include <cstdlib>
#include <cstring>
#include <limits>

// A column of fixed width, by type letter and element size.
struct ascii_column {
    const char *letters;
    int32_t size;
    int32_t width;
    void (*put)(uint32_t flags, char *column, int32_t width, const unsigned char *element);
};

// clang-format off
static const ascii_column columns[] = {
    {"ER",  4, 15, put_ascii_e2},
    {"ER",  8, 25, put_ascii_e4},
    {"IJ",  2, 14, put_ascii_i1},
    {"IJ",  4, 14, put_ascii_i2},
    {"IJ",  8, 30, put_ascii_i4},
    {"K",   2, 15, put_ascii_k1},
    {"K",   4, 15, put_ascii_k2},
    {"K",   8, 30, put_ascii_k4},
};
// clang-format on

static bool is_one_of(int32_t type, const char *letters)
{
    return type > 0 && type < 128 && strchr(letters, type) != nullptr;
}

void clean_tgt(uint32_t flags, char *bytes, int64_t n)
{
    if ((flags & ASCII_DIRTY) != 0)
        return;
    for (int64_t i = 0; i < n; i++) {
        if (bytes[i] < 0x20 || bytes[i] > 0x7E)
            bytes[i] = '~';
    }
}

int check_buf(char **buffer, int32_t length, int32_t *bufsize, int64_t width)
{
    const int64_t needed = length + width;
    if (needed <= *bufsize)
        return 0;
    if (needed > std::numeric_limits<int32_t>::max() - RECBUF_SPARE)
        return set_error("ASCII mode record too long.");
    *buffer = static_cast<char *>(mem_realloc(*buffer, static_cast<size_t>(needed) + RECBUF_SPARE));
    // Columns that an unsupported element skips are never written: blanks.
    memset(*buffer + *bufsize, ' ', static_cast<size_t>(needed - *bufsize));
    *bufsize = static_cast<int32_t>(needed);
    return 0;
}

// How one item's elements become columns.
struct item_format {
    bool supported;
    int64_t width;             // of one column
    const ascii_column *fixed; // null: packed, zoned or text
};

static item_format find_format(const dsetitem *item)
{
    for (const ascii_column &column : columns) {
        if (item->size == column.size && is_one_of(item->type, column.letters))
            return {true, column.width, &column};
    }
    // A size below zero can only come from a broken layout.
    if (is_one_of(item->type, "ERIJK") || item->size < 0)
        return {false, 0, nullptr};
    const int64_t size = item->size;
    if (item->type == 'P')
        return {true, 2 * size, nullptr};
    if (item->type == 'Z')
        return {true, size + 1, nullptr};
    return {true, size, nullptr};
}

static void convert(uint32_t flags, const dsetitem *item, const item_format &format, char *column,
                    const unsigned char *element)
{
    if (format.fixed != nullptr) {
        format.fixed->put(flags, column, format.fixed->width, element);
    } else if (item->type == 'P') {
        put_ascii_p(flags, column, format.width, element, item->size);
    } else if (item->type == 'Z') {
        put_ascii_z(flags, column, format.width, element, item->size);
    } else {
        memcpy(column, element, static_cast<size_t>(item->size));
        clean_tgt(flags, column, item->size);
    }
}

// Converts an element of which the image holds only the first bytes, or none:
// the rest reads as zero.
static void convert_cut(uint32_t flags, const dsetitem *item, const item_format &format,
                        char *column, const unsigned char *element, int64_t there)
{
    const auto size = static_cast<size_t>(item->size);
    auto *whole = static_cast<unsigned char *>(mem_calloc(size + 1, 1));
    memcpy(whole, element, static_cast<size_t>(there));
    convert(flags, item, format, column, whole);
    free(whole);
}

int put_ascii(uint32_t flags, char **buffer, int32_t *length, int32_t *bufsize, const void *image,
              int32_t image_length, const dsetinfo *dsets)
{
    static const unsigned char no_bytes[1] = {};
    const auto *bytes = image == nullptr ? no_bytes : static_cast<const unsigned char *>(image);
    int64_t consumed = 0;
    int64_t last_width = 0;
    for (int i = 0; i < dsets->nitems; i++) {
        const dsetitem *item = dsets->items[i];
        // Kept: looked at once for an item, for the size of one of its elements.
        if (consumed + item->size > image_length)
            return set_error("ASCII mode source buffer too small.");

        const item_format format = find_format(item);
        int rc = 0;
        for (int32_t k = 0; k < item->count; k++) {
            // Kept: an unsupported element takes the width of the column before it.
            const int64_t width = format.supported ? format.width : last_width;
            const int room = check_buf(buffer, *length, bufsize, width);
            if (room != 0)
                return room;
            char *column = *buffer + *length;
            if (!format.supported)
                rc = set_error_f("ASCII unsupported data type: %c size %d", item->type, item->size);
            else if (consumed + item->size <= image_length)
                convert(flags, item, format, column, bytes + consumed);
            else if (consumed < image_length)
                convert_cut(flags, item, format, column, bytes + consumed, image_length - consumed);
            else
                convert_cut(flags, item, format, column, no_bytes, 0);
            consumed += item->size;
            *length += static_cast<int32_t>(width);
            last_width = width;
        }
        if (rc != 0)
            return rc;
    }
    if (consumed != image_length)
        return set_error("ASCII mode source buffer too large.");
    return 0;
}
