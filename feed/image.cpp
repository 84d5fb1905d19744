// Item by item, each from its column of the row.
#include "feed/image.h"

#include <cstring>

static outcome put_column(feed_image_work &work, const feed_table &table, const fwu_item &item,
                          const feed_column &column, unsigned char *out)
{
    if (column.kind == FEED_NULL) {
        if (table.dataset->null_map < 0)
            return outcome_bad(
                "is null, and dataset " + table.dataset->layout.dbname + "." +
                table.dataset->layout.dsetname +
                " has no item to say so: give it an X item with the word null-map in the "
                "configuration");
        feed_put_blank(item, out);
        return {};
    }
    return feed_put_value(work, item, column, out);
}

static const feed_column *column_at(const feed_map &map, const feed_row &row, size_t item)
{
    const int index = map.column_of_item[item];
    return index == FEED_NO_COLUMN ? nullptr : &row.columns[static_cast<size_t>(index)];
}

static outcome missing_error(const feed_table &table, const fwu_item &item, bool is_old)
{
    std::string error = table.name + ": item " + item.name;
    error += is_old ? " has no column in the old row of this change: "
                    : " has no column in the stream: ";
    if (is_old && !table.old_row_remedy.empty())
        error += table.old_row_remedy + ", or ";
    error += "take the item out of the configuration";
    return outcome_bad(std::move(error));
}

// Makes the image item by item; find(i) is the column that feeds item i, or null.
template <typename Find>
static outcome make_image(feed_image_work &work, std::vector<unsigned char> &image,
                          const feed_table &table, Find find, bool is_old)
{
    const std::vector<fwu_item> &items = table.dataset->layout.items;
    const int null_map = table.dataset->null_map;
    image.resize(static_cast<size_t>(table.image_length));

    unsigned char *nulls = nullptr;
    if (null_map >= 0) {
        const auto index = static_cast<size_t>(null_map);
        nulls = image.data() + table.offsets[index];
        memset(nulls, ' ',
               static_cast<size_t>(items[index].size) * static_cast<size_t>(items[index].count));
    }
    for (size_t i = 0; i < items.size(); i++) {
        if (static_cast<int>(i) == null_map)
            continue;
        const feed_column *column = find(i);
        if (column == nullptr)
            return missing_error(table, items[i], is_old);
        outcome put = put_column(work, table, items[i], *column, image.data() + table.offsets[i]);
        if (!put)
            return std::move(put).at(feed_column_name(table, *column) + ": ");
        if (nulls != nullptr)
            *nulls++ = column->kind == FEED_NULL ? 'N' : '.';
    }
    return {};
}

outcome feed_new_image(feed_image_work &work, std::vector<unsigned char> &image, feed_table &table,
                       const feed_row &row, const feed_row *old_row)
{
    outcome mapped = feed_map_columns(table.columns_map, table, row, work.notes);
    if (mapped && old_row != nullptr)
        mapped = feed_map_columns(table.identity_map, table, *old_row, work.notes);
    if (!mapped)
        return mapped;
    const auto find = [&](size_t item) {
        const feed_column *column = column_at(table.columns_map, row, item);
        if (column == nullptr && old_row != nullptr)
            column = column_at(table.identity_map, *old_row, item);
        return column;
    };
    return make_image(work, image, table, find, false);
}

outcome feed_old_image(feed_image_work &work, std::vector<unsigned char> &image, feed_table &table,
                       const feed_row &old_row)
{
    if (outcome mapped = feed_map_columns(table.identity_map, table, old_row, work.notes); !mapped)
        return mapped;
    const auto find = [&](size_t item) { return column_at(table.identity_map, old_row, item); };
    return make_image(work, image, table, find, true);
}
