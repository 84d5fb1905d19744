// The header of a capture record, read back: what it must be with given options, and what it
// tells of a change.
#ifndef RECORDS_HEADER_H
#define RECORDS_HEADER_H

#include "changes/change.h"
#include "records/form.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

struct rec_header_item {
    hdrkind kind = HDRKIND_NONE;
    bool info = false; // the session's info text stands in its place
    size_t offset = 0;
    size_t size = 0;
};

// Only the functions here change it.
struct rec_header {
    std::array<rec_header_item, hdrkinds_of::MAX> items;
    size_t n = 0;
    size_t length = 0;
    std::string key; // of the dataset of the header taken last, see rec_header_key
    change_op op = CHANGE_CREATE;
    int32_t record = 0;       // log record number; 0: the header has none
    int64_t second = 0;       // of the commit, since 1970
    fwu_session_view session; // what the header tells; points into texts

    std::string date; // that second was made of
    std::array<std::string, FWU_SESSION_ENTRIES> texts;
};

void rec_header_make(rec_header &header, const rec_form &form);

// Reads the header that a record begins with, which has at least its length.  False: it is not
// such a header, and wrong says what stands where.
bool rec_header_take(rec_header &header, std::string_view record, std::string &wrong);

// What the header of a dataset's records has for its names: those fields that tell of them.
std::string rec_header_key(const rec_header &header, const std::string &database,
                           const std::string &dataset);

#endif
