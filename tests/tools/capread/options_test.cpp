// capread's command line: rows, help and docs tell the same, and what does not go together.
#include "tests/tools/capread/capread_fixture.h"
#include "tests/tools/synopsis.h"
#include "tools/capread/capread.h"

TEST(CapreadOptions, RowsHelpAndDocsTellTheSame)
{
    const std::string synopsis = help_synopsis(capread_row);
    EXPECT_EQ(page_synopsis("docs/capread.md", "capread"), synopsis);
    EXPECT_EQ(options_of(synopsis), options_of(capread_row));
    for (const cli_option &row : capread_row.options)
        EXPECT_NE(synopsis.find(written(row)), std::string::npos) << written(row);
    expect_described(capread_row);
    expect_in_manual(capread_row, "capread");
}

TEST_F(Capread, HelpAndVersion)
{
    const run_result help = capread({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out, capread_row.help);
    const run_result version = capread({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_THAT(version.out, testing::MatchesRegex("capread [0-9.]+\n"));
}

TEST_F(Capread, WrongCommandLines)
{
    const struct {
        std::vector<std::string> words;
        const char *told;
    } rows[] = {
        {{"-cfg", "x"}, "which capture file?: capread"},
        {{"-cfg", "x", "a", "b"}, "more than one capture file: b"},
        {{"a"}, "give the layouts, with one of these: --layout, -cfg"},
        {{"--layout", "x", "-cfg", "x", "a"}, "contradicts --layout: -cfg"},
        {{"-cfg", "x", "-dirty", "a"}, "only with -ascii or -asciirev: -dirty"},
        {{"-cfg", "x", "-bwfmt", "a"}, "only with -ascii or -asciirev: -bwfmt"},
        {{"-cfg", "x", "-ascii", "--remove", "a"},
         "only records of message files can be removed: --remove"},
        {{"-cfg", "x", "--dset", "a", "--remove", "a"},
         "contradicts --dset: what is passed over would be removed, too: --remove"},
        {{"-cfg", "x", "--columns", "A", "a"}, "only with --csv: --columns"},
        {{"-cfg", "x", "--before", "a"}, "only with --csv: --before"},
        {{"-cfg", "x", "--csv", "--numbers", "text", "a"}, "not with --csv: --numbers"},
        {{"-cfg", "x", "--numbers", "hex", "a"}, "neither text nor json: hex"},
        {{"-cfg", "x", "-info", "TERM", "a"},
         "not a header item (DBNAME, DBUSER, PROG or SESSION): TERM"},
        {{"-cfg", "x", "--dset", "", "a"}, "not a dataset pattern: "},
        {{"-cfg", "x", "--csv", "--columns", "", "a"}, "not a list of columns (NO,NET,_record): "},
        {{"-cfg", "x", "--nix", "a"}, "unknown option: --nix"},
    };
    for (const auto &row : rows) {
        const run_result result = capread(row.words);
        EXPECT_EQ(result.status, 2) << row.told;
        EXPECT_EQ(result.err, "capread: " + std::string(row.told) + "\nTry \"capread --help\".\n");
    }
}

TEST_F(Capread, DoesNotReadWhatItWrites)
{
    insert(1);
    kestro({"-ascii", "t"});
    const std::string before = read_file(file("t"));
    for (const std::string input : {"t", "-"}) {
        const run_result result = run_program(
            {"/bin/sh", "-c",
             KESTRO_BUILD_DIR "/bin/capread -cfg fwutil.cfg -ascii " + input + " < t >> t"},
            setup());
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "capread: " + input + ": is standard output, too\n");
        EXPECT_EQ(read_file(file("t")), before);
    }
}
