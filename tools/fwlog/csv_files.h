// The CSV files of a run: one for each layout of each dataset in a directory, or a single one
// on standard output.
//
// What a file holds ends behind a whole transaction, also when the disk is full, unless the
// program is killed.
#ifndef TOOLS_FWLOG_CSV_FILES_H
#define TOOLS_FWLOG_CSV_FILES_H

#include "changes/csv.h"
#include "util/outcome.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct csv_file {
    std::string path; // empty: standard output
    int fd = -1;
    fwu_layout layout;
    change_csv csv;
    std::string out;     // lines that are not written yet
    int64_t written = 0; // bytes
    int64_t whole = 0;   // bytes up to the end of the last transaction, of written and out
    int64_t keep = 0;    // the same of what was written
    uint64_t lines = 0;  // of changes
};

// A mark whose dataset has no file yet, or all of which may get some.
struct csv_mark {
    fwu_mark mark;
    change_op op;
    fwu_position position;
    uint64_t n;
    change_transaction transaction;
    bool put = false; // some file has it
};

struct csv_files {
    std::string directory; // empty: standard output
    bool replace = false;  // files that are there
    change_csv_options options;

    using dataset_name = std::pair<std::string, std::string>;
    std::map<dataset_name, csv_file *> present; // of each dataset the one in hand
    std::map<dataset_name, int> layouts;        // how many it has had
    std::vector<std::unique_ptr<csv_file>> files;
    std::vector<csv_file *> over; // of earlier layouts, up to the end of the transaction
    std::vector<csv_mark> marks;
    fwu_position last; // change or mark that was put last
};

// Adds a change or a mark to its file.
outcome csv_files_put(csv_files &files, const change &next, const change_transaction &transaction);

// A transaction has ended.
outcome csv_files_commit(csv_files &files);

// Writes out what is left and closes the files; tells which there are, and of marks that no file
// has.
outcome csv_files_finish(csv_files &files);

// After a failure: cuts the files back to whole transactions.
void csv_files_give_up(csv_files &files);

// "SALES.ORDERS.csv", "SALES.ORDERS.2.csv": a name in which nothing but letters, digits, "-" and
// "_" stands for itself.
std::string csv_file_name(const std::string &database, const std::string &dataset, int number);

#endif
