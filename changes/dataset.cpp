// What changes ask of a layout again and again is worked out once.
#include "changes/dataset.h"

#include <algorithm>

static int find_item(const fwu_layout &layout, const std::string &name)
{
    for (size_t i = 0; i < layout.items.size(); i++)
        if (layout.items[i].name == name)
            return static_cast<int>(i);
    return CHANGE_NO_ITEM;
}

static const fwu_dataset *find_said(const fwu_layout &layout, const fwu_writing &said)
{
    for (const fwu_dataset &row : said.datasets)
        if (row.layout.dbname == layout.dbname && row.layout.dsetname == layout.dsetname)
            return &row;
    return nullptr;
}

static int find_null_map(const fwu_layout &layout, const fwu_dataset *said)
{
    int found = CHANGE_NO_ITEM;
    if (layout.source != nullptr)
        found = layout.source->null_map;
    else if (said != nullptr && !said->layout.items.empty())
        found =
            said->null_map < 0
                ? CHANGE_NO_ITEM
                : find_item(layout, said->layout.items[static_cast<size_t>(said->null_map)].name);
    else
        found = find_item(layout, "NULL-MAP");
    return found >= 0 && fwu_null_map_ok(layout.items, static_cast<size_t>(found)) ? found
                                                                                   : CHANGE_NO_ITEM;
}

static void complete_items(change_dataset &dataset)
{
    const std::vector<fwu_item> &items = dataset.layout.items;
    dataset.image_length = 0;
    for (const fwu_item &item : items) {
        dataset.offsets.push_back(dataset.image_length);
        // Of a layout from a file that no image can have: no sum overflows.
        dataset.image_length =
            std::min(FWU_IMAGE_LENGTH_MAX, dataset.image_length + int64_t{item.size} * item.count);
    }
    dataset.null_flag.assign(items.size(), CHANGE_NO_ITEM);
    int flag = 0;
    for (size_t i = 0; dataset.null_map != CHANGE_NO_ITEM && i < items.size(); i++)
        if (static_cast<int>(i) != dataset.null_map)
            dataset.null_flag[i] = flag++;
}

static void complete_source(change_dataset &dataset)
{
    const fwu_layout &layout = dataset.layout;
    dataset.column.assign(layout.items.size(), CHANGE_NO_ITEM);
    if (layout.source == nullptr)
        return;
    const fwu_source &source = *layout.source;
    dataset.table = change_table_name(source.schema, source.table);
    for (size_t i = 0; i < source.columns.size(); i++)
        if (source.columns[i].item >= 0)
            dataset.column[static_cast<size_t>(source.columns[i].item)] = static_cast<int>(i);
}

// The item of a column of the source; CHANGE_NO_ITEM: there is none.
static int item_of_column(const change_dataset &dataset, const std::string &column)
{
    if (dataset.layout.source != nullptr)
        for (const fwu_source_column &row : dataset.layout.source->columns)
            if (row.name == column)
                return row.item;
    return CHANGE_NO_ITEM;
}

// The key as the configuration has it; empty: it says nothing.
static std::vector<int> said_key(const change_dataset &dataset, const fwu_writing &said)
{
    std::vector<int> key;
    if (const fwu_dataset *row = find_said(dataset.layout, said); row != nullptr)
        for (const int item : row->key)
            key.push_back(
                find_item(dataset.layout, row->layout.items[static_cast<size_t>(item)].name));
    if (key.empty() && !dataset.table.empty())
        for (const fwu_column &row : said.columns)
            if (row.key && row.table == dataset.table)
                key.push_back(item_of_column(dataset, row.column));
    return key;
}

static std::vector<int> source_key(const change_dataset &dataset)
{
    std::vector<std::pair<int32_t, int>> places;
    if (dataset.layout.source != nullptr)
        for (const fwu_source_column &column : dataset.layout.source->columns)
            if (column.key > 0)
                places.emplace_back(column.key, column.item);
    std::sort(places.begin(), places.end());
    std::vector<int> key;
    key.reserve(places.size());
    for (const auto &[place, item] : places)
        key.push_back(item);
    return key;
}

void change_dataset_complete(change_dataset &dataset, const fwu_writing &said)
{
    dataset.null_map = find_null_map(dataset.layout, find_said(dataset.layout, said));
    complete_items(dataset);
    complete_source(dataset);
    dataset.key = said_key(dataset, said);
    if (dataset.key.empty())
        dataset.key = source_key(dataset);
    // A key of which a part is left out of the log tells no record from another.
    if (std::find(dataset.key.begin(), dataset.key.end(), CHANGE_NO_ITEM) != dataset.key.end())
        dataset.key.clear();
}
