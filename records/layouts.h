// The layouts that capture records are read by: of a file, or of a forward log as it goes on.
#ifndef RECORDS_LAYOUTS_H
#define RECORDS_LAYOUTS_H

#include "changes/reader.h"
#include "records/dataset.h"
#include "records/header.h"
#include "util/outcome.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

// A layout, and the log record from which on it holds.
struct rec_since {
    int32_t record = 0;
    rec_dataset *dataset = nullptr;
};

// Only the functions here change it.
struct rec_layouts {
    rec_form form;
    rec_header header;               // the keys are those of such headers
    std::string name;                // of the file or the log's directory, for messages
    std::deque<change_dataset> read; // of a file
    std::deque<rec_dataset> made;
    std::unordered_map<std::string, std::vector<rec_since>> by_key;

    std::unique_ptr<change_reader> log; // null: a file
    int32_t last = 0;                   // record of the log read last
};

void rec_layouts_begin(rec_layouts &layouts, const rec_form &form);

// Reads layouts as "fwlog layout --json" prints them, an object a line.
outcome rec_layouts_read(rec_layouts &layouts, const char *file);

// Takes those of the log of a configuration (null: as fwu_config_read finds it).
outcome rec_layouts_log(rec_layouts &layouts, const char *cfg);

// The layout of a record with such a header: of a log the one that held at the record's number,
// the newest when the header has none.  OUTCOME_BAD: there is none.
outcome rec_layouts_find(rec_layouts &layouts, const rec_header &header, rec_dataset *&found);

// Adds a layout that holds from a record on; the dataset has to live as long.
outcome rec_layouts_add(rec_layouts &layouts, const change_dataset &dataset, int32_t record);

#endif
