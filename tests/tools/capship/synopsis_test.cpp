// Rows, help and docs of capship's subcommands tell the same.
#include "tests/tools/synopsis.h"
#include "tools/capship/capship.h"

TEST(CapshipSynopsis, RowsHelpAndDocsTellTheSame)
{
    for (const cli_command *command : capship_program.commands)
        expect_told(capship_program, *command, "docs/scale.md");
}

TEST(CapshipSynopsis, ManualPagesTellTheSame)
{
    expect_in_manual(capship_program);
}
