// Item by item, each from its column of the row; the null map is made along with them.
#include "feed/image.h"

#include "feed/marks.h"
#include "feed/policy.h"
#include "feed/remedy.h"

#include <cstring>

static const feed_column *column_at(const feed_map &map, const feed_row &row, size_t item)
{
    const int index = map.column_of_item[item];
    return index == FEED_NO_COLUMN ? nullptr : &row.columns[static_cast<size_t>(index)];
}

// What else helps: that such values are marked, unless the dataset has no place for that and
// nobody asked for it.
static std::string or_mark(const feed_table &table, const std::string &lead,
                           const std::string &remedy, fwu_policy wanted)
{
    if (table.dataset->null_map >= 0)
        return lead + remedy;
    return wanted == FWU_POLICY_MARK ? lead + feed_null_map_remedy(table) : "";
}

static outcome missing_error(const feed_table &table, size_t index, bool is_old)
{
    const fwu_item &item = table.dataset->layout.items[index];
    std::string error = table.name + ": item " + item.name;
    error += is_old ? " has no column in the old row of this change: "
                    : " has no column in the stream: ";
    if (is_old && !table.old_row_remedy.empty())
        error += table.old_row_remedy + ", or ";
    error += "take the item out of the configuration";
    error += or_mark(table, ", or let what is missing be marked: ", feed_mark_remedy(table, index),
                     feed_policy_of(*table.config, table.name, FWU_POLICY_UNSAID));
    return outcome_bad(std::move(error));
}

static outcome null_error(const feed_table &table)
{
    const fwu_layout &layout = table.dataset->layout;
    return outcome_bad("is null, and dataset " + layout.dbname + "." + layout.dsetname +
                       " has no item to say so: give it an X item with the word null-map in the "
                       "configuration");
}

// Names the column of a value that was refused, and what would take it.
static outcome refuse(const feed_table &table, const feed_place &place, const feed_column &column,
                      const feed_refusal &refusal, const outcome &why)
{
    std::string error = feed_column_name(table, column) + ": " + why.text() + ": ";
    error += feed_value_remedy(table, place.item, column, refusal);
    if (refusal.may_cut)
        error += ", or cut texts with --truncate";
    error +=
        or_mark(table, "; or let such values be marked: ", feed_mark_remedy(table, column.name),
                feed_policy_of(*table.config, table.name, column.name, FWU_POLICY_UNSAID));
    return outcome_bad(std::move(error));
}

// Puts a value, or what stands for one; place.flag is then the item's character in the null map.
static outcome put_item(feed_image_work &work, const feed_item_at &at, feed_place &place,
                        const feed_column *column)
{
    if (column == nullptr) {
        if (!place.mark)
            return missing_error(at.table, at.item, at.image == FWU_IMAGE_BEFORE);
        feed_put_blank(place.item, place.out);
        place.flag = FWU_FLAG_UNKNOWN;
        feed_mark_unknown(work, at);
        return {};
    }
    if (column->kind == FEED_NULL) {
        if (at.table.dataset->null_map < 0)
            return null_error(at.table).at(feed_column_name(at.table, *column) + ": ");
        feed_put_blank(place.item, place.out);
        place.flag = FWU_FLAG_NULL;
        return {};
    }
    outcome put = feed_put_value(work, place, *column);
    if (!put && !place.mark)
        return refuse(at.table, place, *column, work.refusal, put);
    if (!put) {
        feed_put_blank(place.item, place.out);
        place.flag = FWU_FLAG_BLANK;
    }
    if (place.flag != FWU_FLAG_VALUE)
        feed_mark(work, at, place, *column, put.text());
    return {};
}

// Makes the image item by item; find(i) is the column that feeds item i, or null.
template <typename Find>
static outcome make_image(feed_image_work &work, std::vector<unsigned char> &image,
                          feed_table &table, Find find, fwu_image which)
{
    const std::vector<fwu_item> &items = table.dataset->layout.items;
    const int null_map = table.dataset->null_map;
    image.resize(static_cast<size_t>(table.image_length));

    unsigned char *flags = nullptr;
    if (null_map >= 0) {
        const auto index = static_cast<size_t>(null_map);
        flags = image.data() + table.offsets[index];
        memset(flags, ' ',
               static_cast<size_t>(items[index].size) * static_cast<size_t>(items[index].count));
    }
    for (size_t i = 0; i < items.size(); i++) {
        if (static_cast<int>(i) == null_map)
            continue;
        feed_place place = {.item = items[i],
                            .out = image.data() + table.offsets[i],
                            .mark = table.policies[i] == FWU_POLICY_MARK};
        const feed_item_at at = {.table = table, .item = i, .image = which};
        if (outcome put = put_item(work, at, place, find(i)); !put)
            return put;
        if (flags != nullptr)
            *flags++ = place.flag;
    }
    feed_tell_unknown(work, table, which);
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
    return make_image(work, image, table, find, FWU_IMAGE_AFTER);
}

outcome feed_old_image(feed_image_work &work, std::vector<unsigned char> &image, feed_table &table,
                       const feed_row &old_row)
{
    if (outcome mapped = feed_map_columns(table.identity_map, table, old_row, work.notes); !mapped)
        return mapped;
    const auto find = [&](size_t item) { return column_at(table.identity_map, old_row, item); };
    return make_image(work, image, table, find, FWU_IMAGE_BEFORE);
}
