// Names of datasets and items for tables and columns that the configuration does not describe.
//
// A name is the source's in upper case, with "-" for "_", where the log can have it; else a
// shortened one: its letters, digits and hyphens, cut, then "-" and a checksum of the source's
// whole name.  So the same name of the source gives the same name whenever it is asked for, except
// where another one has it already; those names are kept in a file of the log directory.
#ifndef FEED_NAMES_H
#define FEED_NAMES_H

#include "fwutil/fwu_config.h"
#include "util/outcome.h"

#include <map>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

// The item that tells which of the others are null has this name.
constexpr char FEED_NULL_MAP[] = "NULL-MAP";

// A dataset with the name of its database.
struct feed_dataset_name {
    std::string dbname;
    std::string dsetname;
    bool operator==(const feed_dataset_name &) const = default;
};

struct feed_names {
    std::string path = {}; // of the file; empty: names are in memory only
    mode_t mode = 0600;
    std::map<std::string, feed_dataset_name> tables = {};     // by fwu_source_name
    std::map<std::string, std::string> items = {};            // shortened ones, by fwu_source_name
    std::unordered_map<std::string, std::string> owners = {}; // "DATABASE.DATASET" to the table
    bool is_new = false;                                      // some are not in the file
    bool must_keep = false; // ... which could be given otherwise the next time
};

// Reads the names kept in a log directory; without the file those that the log itself tells.
// Nothing is made.  An empty directory: names are in memory only.  mode: of the file.
outcome feed_names_open(feed_names &names, const std::string &directory, mode_t mode);

// The dataset of a table: the one that the configuration names, else the one that it has or gets.
// A note tells, once, of a shortened name.
void feed_names_table(std::string &dbname, std::string &dsetname, feed_names &names,
                      const fwu_config &config, std::string_view schema, std::string_view table,
                      std::vector<std::string> &notes);

// Gives all these tables their names in an order of its own, so that names do not depend on which
// table changes first.
struct feed_table_name {
    std::string schema;
    std::string table;
};
void feed_names_tables(feed_names &names, const fwu_config &config,
                       std::vector<feed_table_name> tables, std::vector<std::string> &notes);

// The item of a column, behind those that its table has so far.
void feed_names_item(std::string &item, feed_names &names, const fwu_layout &so_far,
                     std::string_view schema, std::string_view table, std::string_view column,
                     std::vector<std::string> &notes);

// Brings new names to disk, which comes before their first use.  The whole file is written: names
// of items that the rule gives again anyway wait for others, or until all are asked for, at the
// end of a run.
outcome feed_names_keep(feed_names &names, bool all = false);

#endif
