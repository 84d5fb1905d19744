// What the configuration says to programs that write a log: how large its files grow,
// when they are on disk, which databases, datasets and items there are.
#ifndef FWUTIL_FWU_WRITING_H
#define FWUTIL_FWU_WRITING_H

#include "fwutil/fwu_config_text.h"
#include "fwutil/fwu_items.h"

#include <cstdint>
#include <optional>
#include <set>
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

// One dataset of the configuration.
struct fwu_dataset {
    fwu_layout layout;
    std::string table;    // "schema.table" that feeds it; empty: found by its name
    int line = 0;         // line in the configuration file, for messages
    int null_map = -1;    // index of the item that tells which items are null; -1: none
    std::vector<int> key; // indices of the items of the primary key, in its order; empty: not said
};

// What is said of one column of a table: of its item where items come from the source, and
// whether it is part of the key.
struct fwu_column {
    std::string table;  // "schema.table"
    std::string column; // as the source names it
    std::string item;   // name of its item; empty: made from the column's
    int32_t width = 0;  // bytes of its item, which is text; 0: by the column's type
    bool key = false;   // it is part of the primary key, whose order is that of the lines
};

struct fwu_writing {
    int64_t log_file_size = FWU_LOG_FILE_SIZE_DEFAULT; // bytes after which a new file begins
    bool big_endian = false;                           // byte order of the numbers inside images
    std::optional<fwu_encoding> encoding;              // of the texts inside images; none: not said
    fwu_encoding new_log_encoding = FWU_LATIN1;        // of a new log where it is not said
    fwu_sync_mode sync = FWU_SYNC_COMMIT;
    int64_t sync_interval_ms = 0;         // for FWU_SYNC_INTERVAL
    int log_mode = -1;                    // of the log's files; -1: not given
    std::vector<fwu_dataset> datasets;    // in file order
    std::vector<std::string> skip_tables; // "schema.table": left out of the log on purpose
    std::vector<fwu_column> columns;
};

// Whether databases and datasets of the configuration may have such names.
bool fwu_database_name_ok(std::string_view name);
bool fwu_dataset_name_ok(std::string_view name);

// Its statements being read, line by line.
struct fwu_writing_lines {
    fwu_writing &writing;
    fwu_config_at at;
    std::string database{};
    int database_line = 0; // 0: no database line yet
    bool have_size = false;
    bool have_order = false;
    bool have_sync = false;
    std::set<std::string> databases{};
};

// Whether a line that begins with this word is one of these statements.
bool fwu_writing_knows(std::string_view word);

// Takes such a line.  0 or -1 (reported).
int fwu_writing_take(fwu_writing_lines &lines, const fwu_words &words);

// What only the end of the file shows.  0 or -1 (reported).
int fwu_writing_check(fwu_writing_lines &lines);

#endif
