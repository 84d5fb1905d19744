// Which dataset a table of the change stream feeds, and which column each of
// its items.
#ifndef TOOLS_PG_TABLE_H
#define TOOLS_PG_TABLE_H

#include "fwutil/fwu_config.h"
#include "tools/wal2json.h"

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

constexpr int PGT_NO_COLUMN = -1;

// Where the items of a dataset find their columns in rows whose columns have
// these names.  Rows of a table hardly ever differ in that.
struct pgt_map {
    std::vector<std::string> names;
    std::vector<int> column_of_item; // index into the row, or PGT_NO_COLUMN
};

struct pgt_table {
    std::string name;                     // "sales.orders"
    const fwu_dataset *dataset = nullptr; // null: left out of the log on purpose
    std::vector<int64_t> offsets;         // of each item in the image
    int32_t image_length = 0;
    pgt_map columns_map;  // for new rows
    pgt_map identity_map; // for old rows
};

// The tables met so far.  The configuration must outlive it.
struct pgt_tables {
    const fwu_config *config = nullptr;
    std::unordered_map<std::string, std::unique_ptr<pgt_table>> known;
    std::string key; // "schema.table" of the look-up, kept for its memory
};

// The table's record, looked up in the configuration at its first use.  Null, with
// the reason in error, when the configuration does not know the table or its
// dataset cannot be loaded.
pgt_table *pgt_find(pgt_tables &tables, std::string_view schema, std::string_view table,
                    std::string &error);

// Brings map up to date for the row's columns.  False, with the reason in error,
// when two columns have one name or feed one item.
bool pgt_map_columns(pgt_map &map, const pgt_table &table, const w2j_row &row, std::string &error);

// "sales.orders.note", as messages name a column.
std::string pgt_column_name(const pgt_table &table, const w2j_column &column);

#endif
