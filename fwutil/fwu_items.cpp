// Item types in a table, and what follows from a layout's items.
#include "fwutil/fwu_items.h"

#include <algorithm>

static constexpr fwu_item_type TYPES[] = {
    {'E', 4, 8, true, "4 or 8"},
    {'R', 4, 8, true, "4 or 8"},
    {'I', 2, 8, true, "2, 4 or 8"},
    {'J', 2, 8, true, "2, 4 or 8"},
    {'K', 2, 8, true, "2, 4 or 8"},
    {'P', 1, FWU_PACKED_SIZE_MAX, false, "1 to 14"},
    {'Z', 1, 28, false, "1 to 28"},
    {'X', 1, FWU_TEXT_SIZE_MAX, false, "1 to 32767"},
    {'U', 1, FWU_TEXT_SIZE_MAX, false, "1 to 32767"},
};

// Layouts of one dataset mostly share their source.
static bool same_source(const fwu_layout &one, const fwu_layout &other)
{
    return one.source == other.source ||
           (one.source != nullptr && other.source != nullptr && *one.source == *other.source);
}

bool fwu_layout::operator==(const fwu_layout &other) const
{
    return dbname == other.dbname && dsetname == other.dsetname && items == other.items &&
           same_source(*this, other);
}

const char *fwu_encoding_name(fwu_encoding encoding)
{
    return encoding == FWU_UTF8 ? "utf-8" : "iso-8859-1";
}

const fwu_item_type *fwu_item_type_of(int32_t letter)
{
    for (const fwu_item_type &row : TYPES)
        if (row.letter == letter)
            return &row;
    return nullptr;
}

bool fwu_item_size_ok(const fwu_item_type &type, int64_t size)
{
    return size >= type.min && size <= type.max &&
           (!type.binary || size == 2 || size == 4 || size == 8);
}

bool fwu_null_map_ok(const std::vector<fwu_item> &items, size_t index)
{
    return index < items.size() && items[index].type == 'X' && items[index].count == 1 &&
           static_cast<size_t>(items[index].size) == items.size() - 1;
}

bool fwu_source_fits(const fwu_source &source, size_t items)
{
    std::vector<bool> fed(items);
    std::vector<bool> places(source.columns.size());
    size_t in_key = 0;
    size_t last = 0; // place in the key
    if (source.null_map >= 0) {
        if (static_cast<size_t>(source.null_map) >= items)
            return false;
        fed[static_cast<size_t>(source.null_map)] = true;
    }
    for (const fwu_source_column &column : source.columns) {
        const auto item = static_cast<size_t>(column.item);
        const auto place = static_cast<size_t>(column.key);
        if (column.item >= 0 && (item >= items || fed[item]))
            return false;
        if (column.item >= 0)
            fed[item] = true;
        if (column.key < 0 || place > places.size() || (place > 0 && places[place - 1]))
            return false;
        if (place == 0)
            continue;
        places[place - 1] = true;
        in_key++;
        last = std::max(last, place);
    }
    return in_key == last;
}

int64_t fwu_layout_image_length(const fwu_layout &layout)
{
    int64_t length = 0;
    for (const fwu_item &item : layout.items) {
        length += static_cast<int64_t>(item.size) * item.count;
        if (length > FWU_IMAGE_LENGTH_MAX)
            return FWU_IMAGE_LENGTH_MAX;
    }
    return length;
}
