// What the configuration says to programs that write a log: how large its files grow,
// when they are on disk, which databases, datasets and items there are.
#ifndef FWUTIL_FWU_WRITING_H
#define FWUTIL_FWU_WRITING_H

#include "fwutil/fwu_items.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

constexpr int64_t FWU_LOG_FILE_SIZE_DEFAULT = 64 * 1024 * 1024;

// When a writer brings transactions to disk.
enum fwu_sync_mode {
    FWU_SYNC_COMMIT,   // before they count as logged; one fsync for all that are waiting
    FWU_SYNC_INTERVAL, // so many milliseconds after the first one that is not there
    FWU_SYNC_NONE,     // never: the system does it in its own time
};

// What becomes of values that their items cannot hold.
enum fwu_policy {
    FWU_POLICY_UNSAID,
    FWU_POLICY_ERROR, // they end the run
    FWU_POLICY_MARK,  // what fits is taken, and the null map says that it is not all
};

// What becomes of a follower of the log where a table was truncated.
enum fwu_at_truncate {
    FWU_TRUNCATE_UNSAID,
    FWU_TRUNCATE_STOP, // its run ends there
    FWU_TRUNCATE_MARK, // it goes on: the log's mark is enough
};

// What of the log is kept for whoever comes: a file goes when nothing here keeps it and all
// registered readers have it behind them on disk.
struct fwu_keep {
    int64_t seconds = 0;       // since it was written; 0: not said
    int64_t bytes = 0;         // of the files behind it; 0: not said
    bool acknowledged = false; // everything, until a reader is registered
    std::string text;          // as the configuration says it, "7d 20G"; empty: all is kept
};

// One dataset of the configuration.
struct fwu_dataset {
    fwu_layout layout;
    std::string table;    // its fwu_source_name that feeds it; empty: found by its name
    int line = 0;         // line in the configuration file, for messages
    int null_map = -1;    // index of the item that tells which items are null; -1: none
    std::vector<int> key; // indices of the items of the primary key, in its order; empty: not said
};

// What is said of one column of a table: of its item where items come from the source, and
// whether it is part of the key.
struct fwu_column {
    std::string table;  // its fwu_source_name
    std::string column; // as the source names it
    std::string item;   // name of its item; empty: made from the column's
    int32_t width = 0;  // bytes of its item, which is text; 0: by the column's type
    bool key = false;   // it is part of the primary key, whose order is that of the lines
    fwu_policy policy = FWU_POLICY_UNSAID;
};

// What is said of all columns of a table.
struct fwu_table_rule {
    std::string table; // its fwu_source_name
    fwu_policy policy = FWU_POLICY_UNSAID;
};

// Bytes of the item of a column whose type has no length of its own.
struct fwu_default_width {
    std::string type; // as the source writes it; empty: all others
    int32_t width = 0;
};

struct fwu_writing {
    int64_t log_file_size = FWU_LOG_FILE_SIZE_DEFAULT; // bytes after which a new file begins
    bool big_endian = false;                           // byte order of the numbers inside images
    std::optional<fwu_encoding> encoding;              // of the texts inside images; none: not said
    fwu_encoding new_log_encoding = FWU_LATIN1;        // of a new log where it is not said
    fwu_sync_mode sync = FWU_SYNC_COMMIT;
    int64_t sync_interval_ms = 0; // for FWU_SYNC_INTERVAL
    int log_mode = -1;            // of the log's files; -1: not given
    fwu_keep keep;
    fwu_policy policy = FWU_POLICY_UNSAID; // of all tables
    fwu_at_truncate truncate = FWU_TRUNCATE_UNSAID;
    bool has_database = false;            // there is a database line
    std::vector<fwu_dataset> datasets;    // in file order
    std::vector<std::string> skip_tables; // fwu_source_names: left out of the log on purpose
    std::vector<fwu_table_rule> table_rules;
    std::vector<fwu_column> columns; // by table, those of one in file order
    std::vector<fwu_default_width> default_widths;
};

// What is said of a table's columns.
std::span<const fwu_column> fwu_columns_of(const fwu_writing &writing, std::string_view table);

// Whether it describes what becomes of the source's tables: a database, dataset or column line.
bool fwu_writing_describes(const fwu_writing &writing);

// Whether a follower of the log stops at a truncate: where nothing is said, if the tables are
// described, since what is described has had a use for every change so far.
bool fwu_writing_stops_at_truncate(const fwu_writing &writing);

// Whether databases and datasets of the configuration may have such names.
bool fwu_database_name_ok(std::string_view name);
bool fwu_dataset_name_ok(std::string_view name);

#endif
