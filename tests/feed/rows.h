// Rows and datasets of tests, written down briefly.
#ifndef TESTS_FEED_ROWS_H
#define TESTS_FEED_ROWS_H

#include "feed/row.h"
#include "fwutil/fwu_config.h"

#include <string>
#include <vector>

constexpr feed_type PLAIN = {};
constexpr feed_type BOOLEAN = {FEED_BOOLEAN, FEED_BOOLEAN};
constexpr feed_type TIMESTAMP = {FEED_TIMESTAMP, FEED_TIMESTAMP};
constexpr feed_type WORDS = {FEED_WORDS, FEED_WORDS};
constexpr feed_type FILLED = {FEED_FILLED_WORDS, FEED_FILLED_WORDS};
constexpr feed_type LIST_OF_BOOLEANS = {FEED_PLAIN, FEED_BOOLEAN};
constexpr feed_type LIST_OF_WORDS = {FEED_PLAIN, FEED_WORDS};

inline feed_column text_column(const char *name, feed_type type, const char *value)
{
    return {.name = name, .type = type, .value = value, .kind = FEED_TEXT};
}

inline feed_column number_column(const char *name, feed_type type, const char *digits)
{
    return {.name = name, .type = type, .value = digits, .kind = FEED_DIGITS};
}

inline feed_column bare_column(const char *name, feed_type type, feed_kind kind)
{
    return {.name = name, .type = type, .value = "", .kind = kind};
}

inline feed_row row_of(std::vector<feed_column> columns)
{
    feed_row row;
    row.present = true;
    row.count = columns.size();
    row.columns = std::move(columns);
    return row;
}

// Dataset ORDERS of database SALES, described in line 7 of "test.cfg".
inline fwu_config config_of(std::vector<fwu_item> items, int null_map = -1)
{
    fwu_config config;
    config.path = "test.cfg";
    fwu_dataset dataset;
    dataset.layout = {.dbname = "SALES", .dsetname = "ORDERS", .items = std::move(items)};
    dataset.line = 7;
    dataset.null_map = null_map;
    config.datasets.push_back(dataset);
    return config;
}

inline fwu_item item_of(const char *name, char type, int32_t size, int32_t count = 1,
                        int32_t scale = 0)
{
    return {.name = name, .type = type, .size = size, .count = count, .item_aux = scale};
}

// A column line that says nothing but values=.
inline fwu_column policy_line(const char *table, const char *column, fwu_policy policy)
{
    fwu_column line;
    line.table = table;
    line.column = column;
    line.policy = policy;
    return line;
}

#endif
