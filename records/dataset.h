// A dataset in one of its layouts, made ready for its capture records.
#ifndef RECORDS_DATASET_H
#define RECORDS_DATASET_H

#include "changes/change.h"
#include "records/column.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

struct rec_dataset {
    const change_dataset *dataset = nullptr;
    std::string name;                // "SALES.ORDERS", in UTF-8
    std::vector<rec_column> columns; // of text records, by item
    size_t row_length = 0;           // of one image in the record
    std::string refused;             // why there can be no records of it; empty: there can
    bool told = false;               // which of its columns are not exact
};

void rec_dataset_make(rec_dataset &made, const change_dataset &dataset, const rec_form &form);

// Makes an image of the columns of a row, row_length characters.  False: wrong says which
// column holds what.
bool rec_dataset_image(const rec_dataset &of, std::vector<unsigned char> &image,
                       std::string_view row, std::string &wrong);

// Which columns of its text records are not exact; empty: all of them are.
std::string rec_dataset_inexact(const rec_dataset &of, const rec_form &form);

#endif
