// capship: the table of its subcommands, in the order of its help.
#include "tools/capship/capship.h"

static constexpr const cli_command *commands[] = {&capship_push_row, &capship_pull_row};

constinit const cli_program capship_program = {
    .name = "capship",
    .version = KESTRO_VERSION,
    .about = "Brings forward logs to other hosts, through a stream of a NATS server.",
    .commands = commands,
};
