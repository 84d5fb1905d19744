// Changes as CSV (RFC 4180, UTF-8): a header line, then a line for each change.
//
// A null is an empty field, an empty text is "".  Lines of marks have no values.
#ifndef CHANGES_CSV_H
#define CHANGES_CSV_H

#include "changes/change.h"
#include "util/outcome.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Which columns are wanted.
struct change_csv_options {
    // By the names of items, of elements ("QTY[2]"), of the source's columns, of old values
    // ("before.QTY") and of what is known about the change ("_lsn"); empty: all values.
    std::vector<std::string> columns;
    bool source_names = false; // values are named by the source's columns where there are such
    bool before = false;       // the old row's values behind the others
};

struct change_csv_about;

struct change_csv_column {
    std::string name;
    const change_csv_about *about = nullptr; // null: it is a value
    bool before = false;                     // of the old row
    size_t item = 0;
    int64_t offset = 0; // of the element in the image
};

// The columns of a dataset in one layout.
struct change_csv {
    const change_dataset *dataset = nullptr;
    std::vector<change_csv_column> columns;
    std::string header; // the line with its end
    std::string work;
};

// Takes the names of a list apart, which is written as a line of CSV.  False: it is none.
bool change_csv_list(std::vector<std::string> &names, std::string_view list);

// Fills csv for a dataset, which has to live as long.  OUTCOME_BAD: a column that the dataset
// does not have.
outcome change_csv_make(change_csv &csv, const change_dataset &dataset,
                        const change_csv_options &options);

// Appends the line of a change of the dataset, or of a mark.
void change_csv_put(change_csv &csv, std::string &out, const change &next,
                    const change_transaction &transaction);

#endif
