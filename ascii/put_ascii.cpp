// The column table and the walk over a record image's items.
#include "ascii/put_ascii.h"

#include "ascii/ascii_dec.h"
#include "ascii/ascii_flags.h"
#include "ascii/ascii_num.h"
#include "ascii/ascii_text.h"
#include "driver/base/dsetinfo.h"
#include "driver/base/log.h"
#include "driver/base/mem.h"

#include <cstdlib>
#include <cstring>
#include <limits>

constexpr int UNSUPPORTED = -1; // width of a column that there is none for

// How an item's elements become columns.
struct item_format {
    // Null: packed, zoned or text, whose columns follow the element's size.
    void (*put)(uint32_t flags, char *column, int32_t width, const unsigned char *element);
    int64_t width; // of one column
};

// Columns of binary numbers, by element size; none for the sizes left out.
constexpr int BINARY_SIZE_MAX = 8;
constexpr item_format NO_COLUMN = {nullptr, UNSUPPORTED};
using binary_columns = item_format[BINARY_SIZE_MAX + 1];
// clang-format off
static const binary_columns float_columns = {    // E, R
    NO_COLUMN, NO_COLUMN, NO_COLUMN, NO_COLUMN,
    {put_ascii_e2, 15},
    NO_COLUMN, NO_COLUMN, NO_COLUMN,
    {put_ascii_e4, 25},
};
static const binary_columns signed_columns = {   // I, J
    NO_COLUMN, NO_COLUMN,
    {put_ascii_i1, 14},
    NO_COLUMN,
    {put_ascii_i2, 14},
    NO_COLUMN, NO_COLUMN, NO_COLUMN,
    {put_ascii_i4, 30},
};
static const binary_columns unsigned_columns = { // K
    NO_COLUMN, NO_COLUMN,
    {put_ascii_k1, 15},
    NO_COLUMN,
    {put_ascii_k2, 15},
    NO_COLUMN, NO_COLUMN, NO_COLUMN,
    {put_ascii_k4, 30},
};
// clang-format on

static const item_format &find_binary(const binary_columns &columns, int32_t size)
{
    return columns[size >= 0 && size <= BINARY_SIZE_MAX ? size : 0];
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
        return NO_COLUMN; // from a broken layout only
    if (item->type == 'P')
        return {nullptr, 2 * size};
    if (item->type == 'Z')
        return {nullptr, size + 1};
    return {nullptr, size};
}

static int grow_buf(char **buffer, int32_t *bufsize, int64_t needed)
{
    if (needed > std::numeric_limits<int32_t>::max() - RECBUF_SPARE)
        return set_error("ASCII mode record too long.");
    *buffer = static_cast<char *>(mem_realloc(*buffer, static_cast<size_t>(needed) + RECBUF_SPARE));
    *bufsize = static_cast<int32_t>(needed);
    return 0;
}

int check_buf(char **buffer, int32_t length, int32_t *bufsize, int64_t width)
{
    const int64_t needed = length + width;
    return needed <= *bufsize ? 0 : grow_buf(buffer, bufsize, needed);
}

static inline void convert(uint32_t flags, const dsetitem *item, const item_format &format,
                           char *column, const unsigned char *element)
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
    if (format.width == 0)
        return; // no columns, however many elements
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

// Reports each of an item's elements and leaves their place blank, since a record
// before may have left other bytes there.
static int refuse_item(const dsetitem *item, char *column, int64_t width)
{
    int rc = 0;
    memset(column, ' ', static_cast<size_t>(width));
    for (int32_t k = 0; k < item->count; k++)
        rc = set_error_f("ASCII unsupported data type: %c size %d", item->type, item->size);
    return rc;
}

// How far an image has come: the bytes read, and where its next column stands.
struct image_walk {
    int64_t consumed;
    int32_t length;
    int64_t last_width; // of the column converted last
};

// Converts an item of several elements, one that needs more room, or one that
// there is no column for.
static int put_item(uint32_t flags, char **buffer, int32_t *bufsize, const dsetitem *item,
                    const item_format &format, const unsigned char *bytes, int32_t image_length,
                    image_walk &walk)
{
    if (item->count <= 0)
        return 0;
    // Kept: an unsupported element takes the width of the column before it.
    if (format.width != UNSUPPORTED)
        walk.last_width = format.width;
    const int64_t width = walk.last_width * item->count;
    int rc = check_buf(buffer, walk.length, bufsize, width);
    if (rc != 0)
        return rc;
    if (format.width == UNSUPPORTED)
        rc = refuse_item(item, *buffer + walk.length, width);
    else
        convert_item(flags, item, format, *buffer + walk.length, bytes + walk.consumed,
                     image_length - walk.consumed);
    walk.consumed += int64_t{item->size} * item->count;
    walk.length += static_cast<int32_t>(width);
    return rc;
}

int put_ascii(uint32_t flags, char **buffer, int32_t *length, int32_t *bufsize, const void *image,
              int32_t image_length, const dsetinfo *dsets)
{
    static const unsigned char no_bytes[1] = {};
    const auto *bytes = image == nullptr ? no_bytes : static_cast<const unsigned char *>(image);
    // Copies, so that the columns' bytes do not count as changes to them.
    image_walk walk = {0, *length, 0};
    char *text = *buffer;
    int32_t size = *bufsize;
    int rc = 0;
    for (int i = 0; i < dsets->nitems && rc == 0; i++) {
        const dsetitem *item = dsets->items[i];
        // Kept: looked at once for an item, for the size of one of its elements.
        if (walk.consumed + item->size > image_length) {
            rc = set_error("ASCII mode source buffer too small.");
            break;
        }
        const item_format format = find_format(item);
        if (item->count == 1 && format.width != UNSUPPORTED && walk.length + format.width <= size) {
            // Nearly every item: one element, with room for its column.
            convert(flags, item, format, text + walk.length, bytes + walk.consumed);
            walk = {walk.consumed + item->size, walk.length + static_cast<int32_t>(format.width),
                    format.width};
            continue;
        }
        image_walk slow = walk;
        rc = put_item(flags, buffer, bufsize, item, format, bytes, image_length, slow);
        walk = slow;
        text = *buffer;
        size = *bufsize;
    }
    *length = walk.length;
    if (rc == 0 && walk.consumed != image_length)
        rc = set_error("ASCII mode source buffer too large.");
    return rc;
}
