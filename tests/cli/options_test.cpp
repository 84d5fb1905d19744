// The program's command line: what it refuses and what it says then.
#include "tests/cli/cli_fixture.h"

class CliOptions : public Cli {};

TEST_F(CliOptions, NoArgumentsShowTheUsage)
{
    expect({}, 0,
           std::string("Kestro - 2.21 (Linux x86)\n\nUsage: ") + program +
               " [options] [captopts] capture-file\n\n  To see more help: " + program + " -help\n",
           "");
}

TEST_F(CliOptions, ErrorTable)
{
    const char *const closing_f = "0 records written to capture file f\n";
    const struct {
        words args;
        std::string out; // in front of the closing error line
        std::string err;
    } cases[] = {
        {{"-bg"}, "", "No capture file specified."},
        {{"-synconly", "-rollover", "-ascii"}, "", "No capture file specified."},
        {{"-foo"}, "", "Unrecognized option -foo"},
        {{"-Pause"}, "", "Unrecognized option -Pause"},
        {{"-"}, "", "Unrecognized option -"},
        {{"--"}, "", "Unrecognized option --"},
        {{"f", "-foo", "g"}, closing_f, "Unrecognized option -foo"},
        {{"-pidfile"}, "", "Expecting PID file name."},
        {{"-start"}, "", "Expecting start specification."},
        {{"-CFG"}, "", "Expecting Vostrel config file name."},
        {{"f", "-stat"}, closing_f, "Expecting Vostrel status file name."},
        {{"-dset"}, "", "Expecting Vostrel dataset name."},
        {{"-progterm"}, "", "Expecting programe name terminator."},
        {{"-info"}, "", "Expecting info item."},
        {{"-pidfile", "a", "-pidfile", "b"}, "", "PID file name specified more than once."},
        {{"-start", "a", "-start", "b"}, "", "-start specified more than once."},
        {{"-cfg", "a", "f", "-cfg", "b"}, closing_f, "Vostrel config specified more than once."},
        {{"-stat", "a", "-stat", "b"}, "", "Status file specified more than once."},
        {{"-progterm", "a", "-progterm", "b"},
         "",
         "Only one programe name terminator may be specified."},
        {{"-info", "prog", "-info", "dbname", "f1"},
         "",
         "Only one -info option may be specified for a capture file."},
        {{"-info", "user"}, "", "Expecting info item: DBNAME, DBUSER, PROG or SESSION."},
        {{"-dset", "1DB:X"}, "", "Database name must begin with letter in -dset paramter."},
        {{"-dset", "CUST+1"}, "", "Invalid character in database name in -dset parameter."},
        {{"-dset", "DB:1X"}, "", "Dataset name must begin with letter in -dset paramter."},
        {{"-dset", "DB:X.Y"}, "", "Invalid character in dataset name in -dset parameter."},
        {{"-dset", "DB:ABCDEFGHIJKLMNOPQ"}, "", "Dataset name too long in -dset parameter."},
        {{"-dirty", "f"}, "", "DIRTY must only be specified with ASCII."},
        {{"-bwfmt", "f"}, "", "DIRTY must only be specified with ASCII."},
        {{"-bwfmt", "-dirty", "f"},
         "",
         "DIRTY must only be specified with ASCII.\nDIRTY must only be specified with ASCII."},
        {{"-ascii", "-dirty", "f", "-dirty", "f2"},
         closing_f,
         "DIRTY must only be specified with ASCII."},
    };
    for (const auto &c : cases) {
        expect(c.args, 1, c.out + failed, c.err + "\n");
        EXPECT_EQ("", calls()) << "the library is not asked anything";
    }
    for (const char *name : {"f", "f1", "f2", "g"})
        EXPECT_FALSE(std::filesystem::exists(dir.file(name)));
}

TEST_F(CliOptions, FirstErrorEndsTheScan)
{
    // -verbose would show the lines of f, -help the help.
    expect({"-foo", "-verbose", "-help", "f"}, 1, failed, "Unrecognized option -foo\n");
}

TEST_F(CliOptions, WordsAndModesReachTheLibrary)
{
    const std::string totals = "0 Vostrel forward log file records processed.\n";
    expect({"-showskip", "-CFG", "-c", "-stat", "-s", "-start", "-25", "-SyncOnly"}, 0,
           totals + no_skips, "");
    EXPECT_EQ("synconly 1\nprocess cfg=-c stat=-s start=-25\n", calls());
    expect({"-showskip"}, 0, totals + no_skips, "");
    EXPECT_EQ("process cfg=(null) stat=(null) start=(null)\n", calls());
    script("position 3 44 555\n");
    expect({"-synconly", "-verbose", "-showskip"}, 0,
           totals + "Current position=3-44.555\n" + no_skips, "");
    EXPECT_EQ("verbose 1\nsynconly 1\nprocess cfg=(null) stat=(null) start=(null)\n"
              "generation\nsequence\ntag\n",
              calls());
}

TEST_F(CliOptions, EveryOptionTogether)
{
    const words all = {"-VERBOSE",  "-synconly", "-rollover", "-capstats", "-dumprecs", "-showskip",
                       "-showsets", "-pidfile",  "pid",       "-start",    "1",         "-cfg",
                       "c",         "-stat",     "s",         "-dset",     "a:b",       "-progterm",
                       ".x",        "-exthdr",   "-yyyy",     "-recnum",   "-fga",      "-asciirev",
                       "-dirty",    "-bwfmt",    "-info",     "session",   "f"};
    const run_result result = run_program(command(all), options);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("0 Vostrel forward log file records processed.\n"
              "Current position=0-0.0\n"
              "\nNumber of records written to capture files:\n"
              "\n  Capture file: f\n"
              "    Capture file options: YYYY, EXTHDR, RECNUM, FGA\n"
              "    Capture file -dset  : A:B\n"
              "\n    *Capture file total*                       0        0        0        0\n"
              "\n" +
                  std::string(no_skips),
              result.out);
}
