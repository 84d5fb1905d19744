// Rows, help and docs of fwlog's subcommands tell the same.
#include "tests/tools/synopsis.h"
#include "tools/fwlog/fwlog.h"

TEST(FwlogSynopsis, RowsHelpAndDocsTellTheSame)
{
    for (const cli_command *command : fwlog_program.commands)
        expect_told(fwlog_program, *command,
                    command == &fwlog_postgresql_row ? "docs/postgresql.md" : "docs/fwlog.md");
}

TEST(FwlogSynopsis, ManualPagesTellTheSame)
{
    expect_in_manual(fwlog_program);
}
