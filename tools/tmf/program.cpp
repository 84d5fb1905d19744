// tmf: the table of its subcommands, in the order of its help.
#include "tools/tmf/tmf_tool.h"

static constexpr const cli_command *commands[] = {&tmf_info_row,   &tmf_read_row,
                                                  &tmf_write_row,  &tmf_repair_row,
                                                  &tmf_verify_row, &tmf_salvage_row};

constinit const cli_program tmf_program = {
    .name = "tmf",
    .version = KESTRO_VERSION,
    .about = "Shows, reads, writes and mends message files.",
    .commands = commands,
};
