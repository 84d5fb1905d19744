// Item layout of a dataset, as a log's layout entries carry it, where its items come from,
// what names, types and sizes may be, and what the item that tells of nulls says.
#ifndef FWUTIL_FWU_ITEMS_H
#define FWUTIL_FWU_ITEMS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

constexpr int FWU_NAME_MAX = 16; // bytes of a database or dataset name
constexpr int FWU_ITEM_NAME_MAX = 17;
constexpr int32_t FWU_PACKED_SIZE_MAX = 14;   // of a P item
constexpr int32_t FWU_TEXT_SIZE_MAX = 32767;  // of an X or U item
constexpr int32_t FWU_ITEM_COUNT_MAX = 32767; // elements
constexpr size_t FWU_SOURCE_TEXT_MAX = 65535; // bytes of a name or type of the source

// What the texts of a log's images are written in.
enum fwu_encoding : unsigned char {
    FWU_LATIN1, // ISO 8859-1
    FWU_UTF8,
};

// A character of the null map: what an item of the image is.  The whole values of C, R and !
// stand in the log beside their record.
enum fwu_flag : unsigned char {
    FWU_FLAG_VALUE = '.',    // the value
    FWU_FLAG_NULL = 'N',     // null
    FWU_FLAG_CUT = 'C',      // a text cut to the item's size, between characters
    FWU_FLAG_REPLACED = 'R', // a text with characters replaced; one that was cut, too, is 'C'
    FWU_FLAG_UNKNOWN = '?',  // blank or zero: the source did not send the value
    FWU_FLAG_BLANK = '!',    // blank or zero: no item of its type and size holds the value
};

struct fwu_item {
    std::string name;     // 1 to 17 bytes
    int32_t type = 0;     // type letter: E R I J K P Z X U
    int32_t size = 0;     // bytes of one element
    int32_t count = 1;    // number of elements
    int32_t item_aux = 0; // decimal places of P and Z items, else 0
    bool operator==(const fwu_item &) const = default;
};

// A column of the source's table, in UTF-8 as the source writes it.
struct fwu_source_column {
    std::string name;  // "order_no"
    std::string type;  // "numeric(9,2)"; empty: not known
    int32_t item = -1; // index of the item that it feeds; -1: it is left out of the log
    int32_t key = 0;   // its place in the primary key, from 1; 0: it is no part of it
    bool operator==(const fwu_source_column &) const = default;
};

// Where a dataset's records come from.
struct fwu_source {
    std::string schema;                     // "sales"; may be empty
    std::string table;                      // "orders"
    std::vector<fwu_source_column> columns; // in the order of the table
    int32_t null_map = -1; // index of the item that tells which of the others are null; -1: none
    bool operator==(const fwu_source &) const = default;
};

struct fwu_layout {
    std::string dbname;
    std::string dsetname;
    std::vector<fwu_item> items;
    std::shared_ptr<const fwu_source> source = {}; // null: not known
    bool operator==(const fwu_layout &other) const;
};

// "utf-8" or "iso-8859-1", as the configuration says it.
const char *fwu_encoding_name(fwu_encoding encoding);

// What an item type allows.
struct fwu_item_type {
    char letter;
    int32_t min, max;  // bytes of one element
    bool binary;       // of 2, 4 or 8 bytes only
    const char *sizes; // the same for people
};

// The row of a type letter; null: it is none.
const fwu_item_type *fwu_item_type_of(int32_t letter);

bool fwu_item_size_ok(const fwu_item_type &type, int64_t size);

// Decimal digits of a P or Z item, which are also the most decimal places it can have.
constexpr int32_t fwu_item_digits(int32_t type, int32_t size)
{
    return type == 'P' ? 2 * size - 1 : type == 'Z' ? size : 0;
}

// Whether the item at an index can tell which of the others are null: type X, one
// element, a byte for each of them in their order.
bool fwu_null_map_ok(const std::vector<fwu_item> &items, size_t index);

// Whether a layout with this many items can come from the source: its columns feed items that
// there are, no two of them the same one, their places in the key are 1, 2, 3, ... without a gap,
// and the null map is an item that no column feeds.
bool fwu_source_fits(const fwu_source &source, size_t items);

// Length in bytes of a record image: the elements of all items, one behind the
// other.  A sum above the most that any image can have is cut to that, so that no
// layout read from a file can overflow it.
constexpr int64_t FWU_IMAGE_LENGTH_MAX = int64_t{1} << 32;
int64_t fwu_layout_image_length(const fwu_layout &layout);

#endif
