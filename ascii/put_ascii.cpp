// The column table and the walk over a record image's items.
#include "ascii/put_ascii.h"

#include "ascii/ascii_dec.h"
#include "ascii/ascii_flags.h"
#include "ascii/ascii_num.h"
#include "ascii/ascii_text.h"
#include "ascii/ascii_width.h"
#include "driver/base/dsetinfo.h"
#include "driver/base/log.h"
#include "driver/base/mem.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>

// Puts one element of size bytes into its column.
using put_column = void (*)(uint32_t flags, char *column, int64_t width,
                            const unsigned char *element, int32_t size);

struct column_form {
    put_column put;
    int64_t width;
};

// Binary numbers: their size is known from the converter.
template <void (*put)(uint32_t, char *, int32_t, const unsigned char *)>
static void put_binary(uint32_t flags, char *column, int64_t width, const unsigned char *element,
                       int32_t)
{
    put(flags, column, static_cast<int32_t>(width), element);
}

static void put_text(uint32_t flags, char *column, int64_t, const unsigned char *element,
                     int32_t size)
{
    memcpy(column, element, static_cast<size_t>(size));
    clean_tgt(flags, column, size);
}

// Columns of binary numbers, by element size; none for the sizes left out.
constexpr column_form NO_COLUMN = {nullptr, ASCII_NO_COLUMN};
using binary_columns = column_form[ASCII_BINARY_SIZE_MAX + 1];
// clang-format off
static constexpr binary_columns float_columns = {
    NO_COLUMN, NO_COLUMN, NO_COLUMN, NO_COLUMN,
    {put_binary<put_ascii_e2>, ascii_float_widths[4]},
    NO_COLUMN, NO_COLUMN, NO_COLUMN,
    {put_binary<put_ascii_e4>, ascii_float_widths[8]},
};
static constexpr binary_columns signed_columns = {
    NO_COLUMN, NO_COLUMN,
    {put_binary<put_ascii_i1>, ascii_signed_widths[2]},
    NO_COLUMN,
    {put_binary<put_ascii_i2>, ascii_signed_widths[4]},
    NO_COLUMN, NO_COLUMN, NO_COLUMN,
    {put_binary<put_ascii_i4>, ascii_signed_widths[8]},
};
static constexpr binary_columns unsigned_columns = {
    NO_COLUMN, NO_COLUMN,
    {put_binary<put_ascii_k1>, ascii_unsigned_widths[2]},
    NO_COLUMN,
    {put_binary<put_ascii_k2>, ascii_unsigned_widths[4]},
    NO_COLUMN, NO_COLUMN, NO_COLUMN,
    {put_binary<put_ascii_k4>, ascii_unsigned_widths[8]},
};
// clang-format on

// What a type letter stands for: binary columns by element size, or one form whose
// width follows the element's size.
struct letter_row {
    const column_form *by_size;
    put_column put;
    int32_t per_byte;
    int32_t more;
};

static constexpr letter_row sized_letter(put_column put, uint32_t letter)
{
    const ascii_letter_width width = ascii_letter_width_of(letter);
    return {nullptr, put, width.per_byte, width.more};
}

static constexpr std::array<letter_row, 256> make_letters()
{
    std::array<letter_row, 256> rows = {};
    for (letter_row &row : rows)
        row = sized_letter(put_text, 'X');
    rows['E'] = rows['R'] = {float_columns, nullptr, 0, 0};
    rows['I'] = rows['J'] = {signed_columns, nullptr, 0, 0};
    rows['K'] = {unsigned_columns, nullptr, 0, 0};
    rows['P'] = sized_letter(put_ascii_p, 'P');
    rows['Z'] = sized_letter(put_ascii_z, 'Z');
    return rows;
}

static constexpr std::array<letter_row, 256> letters = make_letters();

static column_form find_column(const dsetitem *item)
{
    const auto letter = static_cast<uint32_t>(item->type);
    const letter_row &row = letters[letter < letters.size() ? letter : 0];
    const int64_t size = item->size;
    if (row.by_size != nullptr)
        return row.by_size[size >= 0 && size <= ASCII_BINARY_SIZE_MAX ? size : 0];
    if (size < 0)
        return NO_COLUMN; // from a broken layout only
    return {row.put, row.per_byte * size + row.more};
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

// Converts an element of which the image holds only the first bytes, or none:
// the rest reads as zero.
static void put_cut(uint32_t flags, const dsetitem *item, column_form form, char *column,
                    const unsigned char *element, int64_t there)
{
    const auto size = static_cast<size_t>(item->size);
    auto *whole = static_cast<unsigned char *>(mem_calloc(size + 1, 1));
    if (there > 0)
        memcpy(whole, element, static_cast<size_t>(there));
    form.put(flags, column, form.width, whole, item->size);
    free(whole);
}

// Converts an item's elements into columns that have room, from the bytes of the
// image that are left.  The first element is always there.
static void put_elements(uint32_t flags, const dsetitem *item, column_form form, char *column,
                         const unsigned char *element, int64_t left)
{
    if (form.width == 0)
        return; // no columns, however many elements
    for (int32_t k = 0; k < item->count; k++) {
        if (item->size <= left)
            form.put(flags, column, form.width, element, item->size);
        else
            put_cut(flags, item, form, column, element, left);
        column += form.width;
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
                    column_form form, const unsigned char *bytes, int32_t image_length,
                    image_walk &walk)
{
    if (item->count <= 0)
        return 0;
    // Kept: an unsupported element takes the width of the column before it.
    if (form.width != ASCII_NO_COLUMN)
        walk.last_width = form.width;
    const int64_t width = walk.last_width * item->count;
    int rc = check_buf(buffer, walk.length, bufsize, width);
    if (rc != 0)
        return rc;
    if (form.width == ASCII_NO_COLUMN)
        rc = refuse_item(item, *buffer + walk.length, width);
    else
        put_elements(flags, item, form, *buffer + walk.length, bytes + walk.consumed,
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
        const column_form form = find_column(item);
        if (item->count == 1 && form.width != ASCII_NO_COLUMN && walk.length + form.width <= size) {
            // Nearly every item: one element, with room for its column.
            form.put(flags, text + walk.length, form.width, bytes + walk.consumed, item->size);
            walk = {walk.consumed + item->size, walk.length + static_cast<int32_t>(form.width),
                    form.width};
            continue;
        }
        image_walk slow = walk;
        rc = put_item(flags, buffer, bufsize, item, form, bytes, image_length, slow);
        walk = slow;
        text = *buffer;
        size = *bufsize;
    }
    *length = walk.length;
    if (rc == 0 && walk.consumed != image_length)
        rc = set_error("ASCII mode source buffer too large.");
    return rc;
}
