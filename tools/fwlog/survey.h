// What there is in a forward log, file by file: for the subcommands that tell about
// a log without printing its entries.
#ifndef TOOLS_FWLOG_SURVEY_H
#define TOOLS_FWLOG_SURVEY_H

#include "fwutil/fwu_log.h"
#include "util/outcome.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

struct survey_counts {
    uint64_t inserts = 0;
    uint64_t updates = 0;
    uint64_t deletes = 0;
};

using survey_datasets = std::map<std::pair<std::string, std::string>, survey_counts>;

struct survey_file {
    fwu_log_file file;
    bool has_header = false;
    fwu_file_header header;
    int64_t size = 0;
    uint64_t transactions = 0;
    uint64_t entries = 0; // of whole transactions
    int32_t last_tag = 0; // of the last commit; 0: none
    int64_t first_us = 0; // commit times, microseconds since 1970
    int64_t last_us = 0;
    uint64_t last_lsn = 0;
    survey_datasets datasets;
    uint64_t truncates = 0; // marks
    uint64_t gaps = 0;
    uint64_t values = 0; // whole values beside their records
    uint64_t value_bytes = 0;

    int64_t tail = 0;         // bytes behind the last transaction that are not there yet
    int64_t tail_at = 0;      // where they begin
    std::string damage;       // what is wrong; empty: nothing
    int64_t damage_at = 0;    // in the file
    int32_t missing_from = 0; // log files that should stand before this one; 0: none
    int32_t missing_to = 0;
};

// Reads every entry of every file and checks all there is to check.  The files go to
// take one by one.
outcome fwlog_survey(const std::string &directory,
                     const std::function<void(const survey_file &)> &take);

// "1-25.340"
std::string survey_position(const survey_file &file);

#endif
