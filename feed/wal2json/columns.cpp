// A line has no more columns than it needs: a new row leaves out values that are stored apart
// and have not changed, an old row may be a key alone.  Columns that are missing there are no
// news; only a row that is known to be whole tells that they are gone.
#include "feed/wal2json/columns.h"

static bool same_column(const feed_column &column, const feed_told_column &told)
{
    return column.name == told.name && column.type_name == told.type;
}

static bool same_columns(const feed_row &row, const std::vector<feed_told_column> &told)
{
    if (row.count != told.size())
        return false;
    for (size_t i = 0; i < row.count; i++)
        if (!same_column(row.columns[i], told[i]))
            return false;
    return true;
}

// Whether the row has some of these columns, in their order, and no others.
static bool some_columns(const feed_row &row, const std::vector<feed_told_column> &told)
{
    size_t i = 0;
    for (size_t at = 0; i < row.count && at < told.size(); at++)
        i += same_column(row.columns[i], told[at]) ? 1 : 0;
    return i == row.count;
}

static bool same_key(const feed_row &key, const std::vector<std::string> &told)
{
    if (key.count != told.size())
        return false;
    for (size_t i = 0; i < key.count; i++)
        if (key.columns[i].name != told[i])
            return false;
    return true;
}

static std::vector<feed_told_column> columns_of(const feed_row &row)
{
    std::vector<feed_told_column> columns;
    for (size_t i = 0; i < row.count; i++)
        columns.push_back({.name = row.columns[i].name, .type = row.columns[i].type_name});
    return columns;
}

// The table's columns after a line whose row differs from what is known of them.
static std::vector<feed_told_column> next_columns(const feed_told &told, const w2j_line &line)
{
    if (line.action == 'I')
        return columns_of(line.columns);
    std::vector<feed_told_column> old = columns_of(line.identity);
    if (line.action == 'U' && some_columns(line.columns, old))
        return old; // no key alone
    const feed_row &row = line.action == 'U' ? line.columns : line.identity;
    return some_columns(row, told.columns) ? told.columns : columns_of(row);
}

void w2j_describe(feed_table &table, const fwu_config &config, const w2j_line &line,
                  std::vector<std::string> &notes)
{
    const feed_row &whole = line.action == 'I' ? line.columns : line.identity;
    const bool same = same_columns(whole, table.told.columns);
    if (same && same_key(line.key, table.told.key) && table.layout.source != nullptr)
        return;
    feed_told told;
    told.schema = line.schema;
    told.table = line.table;
    told.columns = same ? table.told.columns : next_columns(table.told, line);
    for (size_t i = 0; i < line.key.count; i++)
        told.key.push_back(line.key.columns[i].name);
    feed_describe(table, config, std::move(told), notes);
}
