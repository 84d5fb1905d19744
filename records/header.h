// The header of a capture record, read back: what it must be with given options, and what it
// tells of a change.
#ifndef RECORDS_HEADER_H
#define RECORDS_HEADER_H

#include "changes/change.h"
#include "records/form.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The names that a header tells; of the database none where it may be cut, or stands in parts.
struct rec_header_names {
    std::optional<std::string> database;
    std::string dataset;
};

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

// Where a line ends, or ends too early, that has or should have a header in front; npos: not
// within the header.  The session's texts may hold line ends.
size_t rec_header_line_end(const rec_header &header, std::string_view line);

// The names in the key of the header taken last.
rec_header_names rec_header_tells(const rec_header &header);

// What the header of a dataset's records has for its names: those fields that tell of them.
std::string rec_header_key(const rec_header &header, const std::string &database,
                           const std::string &dataset);

#endif
