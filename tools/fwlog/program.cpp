// fwlog: the table of its subcommands, in the order of its help.
#include "tools/fwlog/fwlog.h"

static constexpr const cli_command *commands[] = {
    &fwlog_load_row,   &fwlog_postgresql_row, &fwlog_dump_row,   &fwlog_tail_row, &fwlog_csv_row,
    &fwlog_layout_row, &fwlog_sql_row,        &fwlog_verify_row, &fwlog_info_row, &fwlog_repair_row,
    &fwlog_prune_row,  &fwlog_readers_row,    &fwlog_health_row,
};

constinit const cli_program fwlog_program = {
    .name = "fwlog",
    .version = KESTRO_VERSION,
    .about = "Writes forward logs from PostgreSQL, and tells about them.",
    .commands = commands,
};
