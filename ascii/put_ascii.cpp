// The column table and the walk over a record image's items.
#include "ascii/put_ascii.h"

#include "ascii/ascii_dec.h"
#include "ascii/ascii_num.h"
#include "capture/capinfo.h"
#include "driver/dsetinfo.h"
#include "driver/log.h"
#include "driver/mem.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>

constexpr int UNSUPPORTED = -1; // width of a column that there is none for

// How an item's elements become columns.
struct item_format {
    // Null: packed, zoned or text, whose columns follow the element's size.
    void (*put)(uint32_t flags, char *column, int32_t width, const unsigned char *element);
    int64_t width; // of one column
};

// Columns of binary numbers, by element size: 2, 4 and 8 bytes.
constexpr int BINARY_SIZES = 3;
// clang-format off
static const item_format float_columns[BINARY_SIZES] = {    // E, R
    {nullptr,      UNSUPPORTED},
    {put_ascii_e2, 15},
    {put_ascii_e4, 25},
};
static const item_format signed_columns[BINARY_SIZES] = {   // I, J
    {put_ascii_i1, 14},
    {put_ascii_i2, 14},
    {put_ascii_i4, 30},
};
static const item_format unsigned_columns[BINARY_SIZES] = { // K
    {put_ascii_k1, 15},
    {put_ascii_k2, 15},
    {put_ascii_k4, 30},
};
// clang-format on

static item_format find_binary(const item_format (&columns)[BINARY_SIZES], int32_t size)
{
    switch (size) {
    case 2:
        return columns[0];
    case 4:
        return columns[1];
    case 8:
        return columns[2];
    default:
        return {nullptr, UNSUPPORTED};
    }
}

static item_format find_format(const dsetitem *item)
{
    const int64_t size = item->size;
    switch (item->type) {
    case 'E':
    case 'R':
        return find_binary(float_columns, item->size);
    case 'I':
    case 'J':
        return find_binary(signed_columns, item->size);
    case 'K':
        return find_binary(unsigned_columns, item->size);
    default:
        break;
    }
    if (size < 0)
        return {nullptr, UNSUPPORTED}; // from a broken layout only
    if (item->type == 'P')
        return {nullptr, 2 * size};
    if (item->type == 'Z')
        return {nullptr, size + 1};
    return {nullptr, size};
}

// Eight bytes at a time, of which mostly none has to be replaced.
void clean_tgt(uint32_t flags, char *bytes, int64_t n)
{
    if ((flags & ASCII_DIRTY) != 0)
        return;
    constexpr uint64_t ONES = 0x0101010101010101;
    constexpr uint64_t HIGH_BITS = 0x80 * ONES;
    for (int64_t i = 0; i < n;) {
        uint64_t word = 0;
        if (n - i >= 8) {
            memcpy(&word, bytes + i, 8);
            // A high bit shows in a byte below 0x20, of 0x7F, or above it.
            if (((word | (word - 0x20 * ONES) | (word + ONES)) & HIGH_BITS) == 0) {
                i += 8;
                continue;
            }
        }
        for (const int64_t end = std::min(i + 8, n); i < end; i++) {
            if (bytes[i] < 0x20 || bytes[i] > 0x7E)
                bytes[i] = '~';
        }
    }
}

static int grow_buf(char **buffer, int32_t *bufsize, int64_t needed)
{
    if (needed > std::numeric_limits<int32_t>::max() - RECBUF_SPARE)
        return set_error("ASCII mode record too long.");
    *buffer = static_cast<char *>(mem_realloc(*buffer, static_cast<size_t>(needed) + RECBUF_SPARE));
    // Columns that an unsupported element skips are never written: blanks.
    memset(*buffer + *bufsize, ' ', static_cast<size_t>(needed - *bufsize));
    *bufsize = static_cast<int32_t>(needed);
    return 0;
}

int check_buf(char **buffer, int32_t length, int32_t *bufsize, int64_t width)
{
    const int64_t needed = length + width;
    return needed <= *bufsize ? 0 : grow_buf(buffer, bufsize, needed);
}

static void convert(uint32_t flags, const dsetitem *item, const item_format &format, char *column,
                    const unsigned char *element)
{
    if (format.put != nullptr) {
        format.put(flags, column, static_cast<int32_t>(format.width), element);
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
    if (there > 0)
        memcpy(whole, element, static_cast<size_t>(there));
    convert(flags, item, format, column, whole);
    free(whole);
}

// Converts an item's elements into columns that have room, from the bytes of the
// image that are left.  The first element is always there.
static void convert_item(uint32_t flags, const dsetitem *item, const item_format &format,
                         char *column, const unsigned char *element, int64_t left)
{
    for (int32_t k = 0; k < item->count; k++) {
        if (item->size <= left)
            convert(flags, item, format, column, element);
        else
            convert_cut(flags, item, format, column, element, left);
        column += format.width;
        left -= item->size;
        if (left >= 0)
            element += item->size;
    }
}

// Reports each of an item's elements.
static int refuse_item(const dsetitem *item)
{
    int rc = 0;
    for (int32_t k = 0; k < item->count; k++)
        rc = set_error_f("ASCII unsupported data type: %c size %d", item->type, item->size);
    return rc;
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
        if (item->count <= 0)
            continue;

        const item_format format = find_format(item);
        // Kept: an unsupported element takes the width of the column before it.
        if (format.width != UNSUPPORTED)
            last_width = format.width;
        const int64_t width = last_width * item->count;
        int rc = check_buf(buffer, *length, bufsize, width);
        if (rc != 0)
            return rc;
        char *column = *buffer + *length;
        if (format.width == UNSUPPORTED)
            rc = refuse_item(item);
        else if (item->count == 1)
            convert(flags, item, format, column, bytes + consumed);
        else
            convert_item(flags, item, format, column, bytes + consumed, image_length - consumed);
        consumed += int64_t{item->size} * item->count;
        *length += static_cast<int32_t>(width);
        if (rc != 0)
            return rc;
    }
    if (consumed != image_length)
        return set_error("ASCII mode source buffer too large.");
    return 0;
}
