// What the parts of capread share: its row, where its records come from, where they go.
#ifndef TOOLS_CAPREAD_CAPREAD_H
#define TOOLS_CAPREAD_CAPREAD_H

#include "changes/csv.h"
#include "changes/json.h"
#include "records/record.h"
#include "util/cli.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

extern const cli_command capread_row;

// Where the changes go.
struct capread_output {
    bool csv_wanted = false;
    change_csv_options csv_options;
    std::vector<std::string> patterns; // of the datasets that are wanted; empty: all

    std::optional<change_json> json;
    std::optional<change_csv> csv; // of the one layout
    std::string csv_name;          // "SALES.ORDERS" and its columns
    std::string out;               // lines that are not written yet
};

struct capread_run {
    const char *file = nullptr;
    bool follow = false;
    bool remove = false;
    rec_record record;
    capread_output output;
    uint64_t number = 0; // of the record in hand in the file, from 1
};

// Go through a file's records until it ends, for ever with follow.
outcome capread_messages(capread_run &run);
outcome capread_text(capread_run &run);

// OUTCOME_BAD with the file and the record in hand in front.
outcome capread_at(const capread_run &run, outcome done);

// Whether the patterns take records with such names, or may take them.
bool capread_wants(const capread_output &output, const rec_header_names &names);

// Adds the change of the record that was taken last.
outcome capread_put(capread_run &run);

// Writes the lines out when there are many; capread_flush: in any case.
outcome capread_write(capread_output &output);
outcome capread_flush(capread_output &output);

// Waits a moment for what comes next.  OUTCOME_STOPPED: a signal came.
outcome capread_pause();

#endif
