// Which dataset a table of the source feeds, and which column each of its items.
#ifndef FEED_TABLE_H
#define FEED_TABLE_H

#include "feed/row.h"
#include "fwutil/fwu_config.h"
#include "util/outcome.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

constexpr int FEED_NO_COLUMN = -1;
constexpr int64_t FEED_IMAGE_MAX = 16 * 1024 * 1024; // bytes, of items that are not configured

// Where the items of a dataset find their columns in rows whose columns have
// these names.  Rows of a table hardly ever differ in that.
struct feed_map {
    std::vector<std::string> names;
    std::vector<int> column_of_item; // index into the row, or FEED_NO_COLUMN
};

// A table as its source describes it.
struct feed_told_column {
    std::string name;
    std::string type; // as the source writes it; empty: not known
    bool operator==(const feed_told_column &) const = default;
};
struct feed_told {
    std::string schema;
    std::string table;
    std::vector<feed_told_column> columns; // in the table's order
    std::vector<std::string> key;          // columns of the primary key, in its order
    bool operator==(const feed_told &) const = default;
};

struct feed_table {
    std::string name;                     // its fwu_source_name, "sales.orders"
    const fwu_config *config = nullptr;   // what is said of it
    const fwu_dataset *dataset = nullptr; // null: left out of the log on purpose
    fwu_layout layout;                    // the dataset's, and where it comes from
    feed_told told;                       // what layout.source was made from
    bool key_told = false;                // that the configuration's key was not taken
    std::unique_ptr<fwu_dataset> own;     // the dataset, when its items are not configured
    std::vector<std::string> own_columns; // then: which column feeds each item
    std::vector<int64_t> offsets;         // of each item in the image
    std::vector<fwu_policy> policies;     // of each item: error or mark
    std::vector<uint8_t> marks_told;      // of each item: see feed/marks
    int32_t image_length = 0;
    feed_map columns_map;              // for new rows
    feed_map identity_map;             // for old rows
    std::vector<std::string> left_out; // columns without item that were told
    std::string old_row_remedy;        // how the source sends whole old rows; empty: not known
};

// The tables met so far.  The configuration must outlive it.
struct feed_tables {
    const fwu_config *config = nullptr;
    const char *old_row_remedy = ""; // as in feed_table, "%" in the place of the table's name
    fwu_policy default_policy = FWU_POLICY_ERROR; // where the configuration says nothing
    std::unordered_map<std::string, std::unique_ptr<feed_table>> known = {};
    std::unordered_map<std::string, std::string> feeders = {}; // of a dataset: which table met last
    std::string key = {}; // name of the look-up, kept for its memory
};

// The table's record, looked up in the configuration at its first use.  OUTCOME_BAD when
// the configuration does not know the table or its dataset cannot be loaded; table then
// stays as it is.
outcome feed_find_table(feed_table *&table, feed_tables &tables, std::string_view schema,
                        std::string_view name);

// What the configuration says of a table: that it is skipped, or the dataset that it
// feeds (null: nothing is said).
bool feed_is_skipped(const fwu_config &config, const std::string &name);
const fwu_dataset *feed_configured(const fwu_config &config, std::string_view schema,
                                   std::string_view table);

// Registers a table with a dataset whose items the configuration does not have, in
// the place of what was known by this name.  columns: which one feeds each item.
// OUTCOME_BAD when another table feeds a dataset of this name; table then stays as it is.
outcome feed_put_table(feed_table *&table, feed_tables &tables, const std::string &name,
                       fwu_dataset dataset, std::vector<std::string> columns);

// Registers a table whose rows are passed over, in the place of what was known by this name.
feed_table *feed_pass_over(feed_tables &tables, const std::string &name);

// Whether a column feeds an item; name is the column's as feed_name makes it.
bool feed_feeds(const feed_table &table, const std::string &column, const std::string &name,
                size_t item);

// Whether a dataset can bear the table's name.
outcome feed_check_name(const fwu_config &config, const std::string &name, std::string_view schema,
                        std::string_view table);

// What is wrong with a change of the table without its old row.
std::string feed_no_old_row_text(const feed_table &table);

// Brings map up to date for the row's columns; columns without item that come for the
// first time add a note.  OUTCOME_BAD when two columns have one name or feed one item.
outcome feed_map_columns(feed_map &map, feed_table &table, const feed_row &row,
                         std::vector<std::string> &notes);

// Its fwu_source_name, "sales.orders.note".
std::string feed_column_name(const feed_table &table, const feed_column &column);

#endif
