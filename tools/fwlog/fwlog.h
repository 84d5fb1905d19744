// The rows of fwlog's subcommands, and what several of them share.
//
// A subcommand is a file: its options and where their values go, what it does, its help,
// and at the end its row.  A new one is declared here and takes its place in program.cpp.
#ifndef TOOLS_FWLOG_FWLOG_H
#define TOOLS_FWLOG_FWLOG_H

#include "util/cli.h"

extern const cli_command fwlog_load_row;
extern const cli_command fwlog_postgresql_row;
extern const cli_command fwlog_dump_row;
extern const cli_command fwlog_tail_row;
extern const cli_command fwlog_csv_row;
extern const cli_command fwlog_layout_row;
extern const cli_command fwlog_sql_row;
extern const cli_command fwlog_verify_row;
extern const cli_command fwlog_info_row;
extern const cli_command fwlog_repair_row;
extern const cli_command fwlog_prune_row;
extern const cli_command fwlog_readers_row;
extern const cli_command fwlog_health_row;

extern const cli_program fwlog_program;

constexpr cli_kind FWLOG_POSITION = {.word = "POSITION",
                                     .lacking = "option lacks its position",
                                     .bad = "not a position (25, 1-25 or 1-25.340)"};

// What a call of the forward-log library came to, which tells its failures itself.
inline outcome fwlog_told(bool good)
{
    if (good)
        return {};
    return OUTCOME_FAILED;
}

#endif
