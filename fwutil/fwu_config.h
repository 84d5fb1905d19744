// The configuration file: names the log directory and, for tools that write
// the log, how large log files grow and which databases, datasets and items
// there are.  Its grammar is described in docs/forward-log.md.
#ifndef FWUTIL_FWU_CONFIG_H
#define FWUTIL_FWU_CONFIG_H

#include "fwutil/fwu_items.h"

#include <cstdint>
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
    std::string table; // "schema.table" that feeds it; empty: found by its name
    int line = 0;      // line in the configuration file, for messages
    int null_map = -1; // index of the item that tells which items are null; -1: none
};

// What is said of one column of a table whose items come from its source.
struct fwu_column {
    std::string table;  // "schema.table"
    std::string column; // as the source names it
    std::string item;   // name of its item; empty: made from the column's
    int32_t width = 0;  // bytes of its item, which is text; 0: by the column's type
};

struct fwu_config {
    std::string path;          // the file read, for messages
    std::string log_directory; // absolute, or relative to the working directory
    int64_t log_file_size = FWU_LOG_FILE_SIZE_DEFAULT; // bytes after which a new file begins
    bool big_endian = false;                           // byte order of the numbers inside images
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

// Reads the file at path, or, when path is null, the one named by the
// environment variable FWUTIL_CFG, else "fwutil.cfg".  Returns 0; or -1 after
// reporting an error with file and line on standard error.
int fwu_config_read(fwu_config &config, const char *path);

#endif
