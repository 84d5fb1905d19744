// Rows, help and docs of tmf's subcommands tell the same.
#include "tests/tools/synopsis.h"
#include "tools/tmf/tmf_tool.h"

TEST(TmfSynopsis, RowsHelpAndDocsTellTheSame)
{
    for (const cli_command *command : tmf_program.commands)
        expect_told(tmf_program, *command, "docs/tmf-tool.md");
}

TEST(TmfSynopsis, ManualPagesTellTheSame)
{
    expect_in_manual(tmf_program);
}
