// Datasets and transactions made by hand.
#ifndef TESTS_CHANGES_MADE_CHANGES_H
#define TESTS_CHANGES_MADE_CHANGES_H

#include "changes/change.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

// A dataset of SALES; null_map names the item that is one.
inline change_dataset dataset_of(const std::string &name, std::vector<fwu_item> items,
                                 const std::string &null_map = "", bool big_endian = false)
{
    change_dataset dataset;
    dataset.layout = {.dbname = "SALES", .dsetname = name, .items = std::move(items)};
    dataset.big_endian = big_endian;
    dataset.begun = {1, 25, 3};
    int flag = 0;
    for (size_t i = 0; i < dataset.layout.items.size(); i++) {
        const fwu_item &item = dataset.layout.items[i];
        dataset.offsets.push_back(dataset.image_length);
        dataset.image_length += int64_t{item.size} * item.count;
        const bool is_map = item.name == null_map;
        if (is_map)
            dataset.null_map = static_cast<int>(i);
        dataset.null_flag.push_back(is_map || null_map.empty() ? CHANGE_NO_ITEM : flag++);
        dataset.column.push_back(CHANGE_NO_ITEM);
    }
    return dataset;
}

// Gives it a source of these columns, one for each item of which one is named.
inline void set_source(change_dataset &dataset, const std::string &table,
                       std::vector<fwu_source_column> columns)
{
    fwu_source source;
    source.schema = "sales";
    source.table = table;
    source.columns = std::move(columns);
    source.null_map = dataset.null_map;
    for (size_t i = 0; i < source.columns.size(); i++)
        if (source.columns[i].item >= 0)
            dataset.column[static_cast<size_t>(source.columns[i].item)] = static_cast<int>(i);
    dataset.table = "sales." + table;
    dataset.layout.source = std::make_shared<const fwu_source>(std::move(source));
}

// Whole values of items that stand beside a record, by item.
struct whole_values {
    std::vector<fwu_value> before = {};
    std::vector<fwu_value> after = {};
};

// A transaction at 2023-11-14 22:13:20.000250 UTC, committed at 1-25.9.
inline change_transaction transaction_at(int32_t tag = 9)
{
    change_transaction transaction;
    transaction.commit = {.time_us = 1700000000000250, .xid = 846, .lsn = 0x19B2DF0};
    transaction.position = {1, 25, tag};
    return transaction;
}

#endif
