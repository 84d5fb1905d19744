// Which changes a subcommand is to give: the options that several of them share.
#ifndef TOOLS_FWLOG_SELECTION_H
#define TOOLS_FWLOG_SELECTION_H

#include "changes/reader.h"
#include "fwutil/fwu_config.h"
#include "tools/fwlog/fwlog.h"
#include "util/cli.h"

#include <string>
#include <vector>

// What the options have said.
struct fwlog_selection {
    std::vector<std::string> patterns; // as patmatches takes them; none: all datasets
    fwu_position after;
    fwu_position from;
    fwu_position to;
};
extern fwlog_selection fwlog_selected;

bool fwlog_take_dset(const char *word);
bool fwlog_take_after(const char *word);
bool fwlog_take_from(const char *word);
bool fwlog_take_to(const char *word);

constexpr cli_kind FWLOG_ENTRY = {.word = "POSITION",
                                  .lacking = "option lacks its position",
                                  .bad = "not the position of an entry (1-25.340)"};
constexpr cli_kind FWLOG_PATTERN = {.word = "PATTERN",
                                    .lacking = "option lacks its dataset pattern",
                                    .bad = "not a dataset pattern (SALES:ORDERS, SALES:, @-LINES)"};

// Rows of these options.
constexpr cli_option FWLOG_DSET = {"--dset", FWLOG_PATTERN, fwlog_take_dset};
constexpr cli_option FWLOG_AFTER = {"--after", FWLOG_ENTRY, fwlog_take_after};
constexpr cli_option FWLOG_FROM = {"--from", FWLOG_POSITION, fwlog_take_from};
constexpr cli_option FWLOG_TO = {"--to", FWLOG_POSITION, fwlog_take_to};

// Whether a pattern has the dataset, or there are none.
bool fwlog_selects(const std::string &dbname, const std::string &dsetname);

// The patterns in one text, which is the same in whatever order they were given; empty: all.
std::string fwlog_selection_text();

// Begins to read what the options select from the log of the configuration at cfg (null: as
// fwu_config_read).  --after and --from exclude each other.
outcome fwlog_open_selected(change_reader &reader, const char *cfg);

#endif
