// The changes of a log as lines of JSON on standard output: the options that dump and tail
// share, and the loop from the log to the output.
#ifndef TOOLS_FWLOG_JSON_OUTPUT_H
#define TOOLS_FWLOG_JSON_OUTPUT_H

#include "changes/json.h"
#include "changes/reader.h"
#include "tools/fwlog/consumer.h"
#include "tools/fwlog/fwlog.h"
#include "util/cli.h"

#include <cstdint>

// What the options have said.
struct fwlog_json_form {
    bool wanted = false;  // --json
    bool numbers = false; // --numbers was given
    change_json_options form;
};
extern fwlog_json_form fwlog_json;

bool fwlog_take_numbers(const char *word);

constexpr cli_kind FWLOG_NUMBER_FORM = {
    .word = "text|json", .lacking = "option lacks its form", .bad = "neither text nor json"};

// Rows of these options.
constexpr cli_option FWLOG_JSON = {"--json", CLI_FLAG, &fwlog_json.wanted};
constexpr cli_option FWLOG_SOURCE_NAMES = {"--source-names", CLI_FLAG,
                                           &fwlog_json.form.source_names};
constexpr cli_option FWLOG_NUMBERS = {"--numbers", FWLOG_NUMBER_FORM, fwlog_take_numbers};

// Whether the options go together: some need --json, one does not go with it.  The text of dump
// may have a range, that of tail is always the whole end of the log.
enum fwlog_text { FWLOG_TEXT_WHOLE, FWLOG_TEXT_RANGE };
outcome fwlog_json_check(bool hex, fwlog_text text);

struct fwlog_json_run {
    bool follow = false;                // go on with what comes until a signal (fwu_signals)
    uint64_t transactions = UINT64_MAX; // go through so many behind range.after at most
    fwlog_consumer *consumer = nullptr; // whose state is kept; null: nobody's
};

// Writes out what the reader gives.  With follow each transaction is written out at once.
outcome fwlog_json_put(change_reader &reader, const fwlog_json_run &run);

// Writes out what the options select from the log of the configuration at cfg, and keeps the state
// if there is to be one.
outcome fwlog_json_selected(const char *cfg, fwlog_json_run run);

#endif
