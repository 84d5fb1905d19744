// The option table and its scan.
#include "driver/options.h"

#include "tests/support/core_state.h"

#include <cstring>

class Options : public core_state {
  protected:
    ~Options() override
    {
        free_run_options(&run);
    }

    // Scans a fresh command line; what is printed goes to printed.
    int scan(std::vector<std::string> args)
    {
        free_run_options(&run);
        (void)capture([] { capture_close(g_ci); });
        init_globals();
        g_ci = new_capinfo();
        args.insert(args.begin(), "prog");
        std::vector<char *> argv;
        for (std::string &arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        int rc = 0;
        printed =
            capture([&] { rc = scan_options(static_cast<int>(args.size()), argv.data(), &run); });
        EXPECT_EQ("", printed.out);
        return rc;
    }

    void expect_error(const std::vector<std::string> &args, const std::string &message)
    {
        SCOPED_TRACE(testing::PrintToString(args));
        EXPECT_EQ(-1, scan(args));
        EXPECT_EQ(message + "\n", printed.err);
    }

    static const capfil *file(int n)
    {
        return g_ci->capfiles[n];
    }

    run_options run = {};
    captured printed;
};

static std::string upper(std::string text)
{
    for (char &c : text)
        c = static_cast<char>(toupper(c));
    return text;
}

TEST_F(Options, FlagTable)
{
    const struct {
        const char *option;
        uint32_t flags;
        int32_t needsetinfo;
        uint32_t loglevel;
    } cases[] = {
        {"-version", 0x0002, 0, 2},  {"-verbose", 0x0004, 0, 8},  {"-help", 0x0008, 0, 2},
        {"-?", 0x0008, 0, 2},        {"-synconly", 0x0010, 0, 2}, {"-bg", 0x0020, 0, 2},
        {"-showstat", 0x0040, 0, 2}, {"-capstats", 0x0080, 0, 2}, {"-showskip", 0x0100, 0, 2},
        {"-showsets", 0x0400, 1, 2}, {"-dumprecs", 0x0800, 0, 2}, {"-versnum", 0x1000, 0, 2},
        {"-rollover", 0x2000, 0, 2}, {"-ascii", 0, 1, 2},         {"-asciirev", 0, 1, 2},
        {"-dirty", 0, 0, 2},         {"-exthdr", 0, 0, 2},        {"-yyyy", 0, 0, 2},
        {"-recnum", 0, 0, 2},        {"-fga", 0, 0, 2},           {"-bwfmt", 0, 0, 2},
    };
    for (const auto &c : cases) {
        std::string mixed = upper(c.option);
        mixed[1] = c.option[1];
        for (const std::string &word : {std::string(c.option), upper(c.option), mixed}) {
            SCOPED_TRACE(word);
            EXPECT_EQ(0, scan({word}));
            EXPECT_EQ("", printed.err);
            EXPECT_EQ(c.flags, g_flags);
            EXPECT_EQ(c.needsetinfo, g_needsetinfo);
            EXPECT_EQ(c.loglevel, g_loglevel);
            EXPECT_EQ(0, g_ci->ncf);
        }
    }
}

TEST_F(Options, FlagsAddUp)
{
    EXPECT_EQ(0, scan({"-bg", "-capstats", "-bg", "-showskip"}));
    EXPECT_EQ(0x01A0U, g_flags);
}

TEST_F(Options, PauseIsComparedWithCase)
{
    EXPECT_EQ(0, scan({"-pause"}));
    EXPECT_EQ(0x0001U, g_flags);
    expect_error({"-Pause"}, "Unrecognized option -Pause");
    expect_error({"-PAUSE"}, "Unrecognized option -PAUSE");
    EXPECT_EQ(0U, g_flags);
}

TEST_F(Options, VerboseTwiceAddsTheSessionData)
{
    EXPECT_EQ(0, scan({"-verbose", "-VERBOSE"}));
    EXPECT_EQ(0x0204U, g_flags);
    EXPECT_EQ(8U, g_loglevel);
    EXPECT_EQ(0, scan({"-verbose", "-verbose", "-verbose"}));
    EXPECT_EQ(0x0204U, g_flags);
}

TEST_F(Options, RunWordsAreKept)
{
    const struct {
        const char *option;
        run_word word;
    } cases[] = {
        {"-pidfile", RUN_PIDFILE}, {"-start", RUN_START}, {"-cfg", RUN_CFG}, {"-STAT", RUN_STAT}};
    for (const auto &c : cases) {
        EXPECT_EQ(0, scan({c.option, "-Whatever"}));
        EXPECT_EQ("", printed.err);
        EXPECT_EQ(0, g_ci->ncf) << "the word is not a file name";
        for (int i = 0; i < RUN_WORDS; i++)
            EXPECT_STREQ(i == c.word ? "-Whatever" : nullptr, run.words[i]);
        free_run_options(&run);
        EXPECT_EQ(nullptr, run.words[c.word]);
    }
}

TEST_F(Options, ErrorTable)
{
    const struct {
        std::vector<std::string> args;
        const char *message;
    } cases[] = {
        {{"-pidfile"}, "Expecting PID file name."},
        {{"-start"}, "Expecting start specification."},
        {{"-cfg"}, "Expecting Vostrel config file name."},
        {{"-stat"}, "Expecting Vostrel status file name."},
        {{"-dset"}, "Expecting Vostrel dataset name."},
        {{"-progterm"}, "Expecting programe name terminator."},
        {{"-info"}, "Expecting info item."},
        {{"-pidfile", "a", "-pidfile", "b"}, "PID file name specified more than once."},
        {{"-pidfile", "a", "-pidfile", "a"}, "PID file name specified more than once."},
        {{"-pidfile", "a", "f", "-pidfile", "b"}, "PID file name specified more than once."},
        {{"-start", "1", "-START", "2"}, "-start specified more than once."},
        {{"-cfg", "a", "-cfg", "b"}, "Vostrel config specified more than once."},
        {{"-stat", "a", "-stat", "b"}, "Status file specified more than once."},
        {{"-progterm", "a", "-progterm", "b"},
         "Only one programe name terminator may be specified."},
        {{"-info", "prog", "-info", "dbname", "f"},
         "Only one -info option may be specified for a capture file."},
        {{"-info", "prog", "-info", "prog"},
         "Only one -info option may be specified for a capture file."},
        {{"-info", "pid"}, "Expecting info item: DBNAME, DBUSER, PROG or SESSION."},
        {{"-info", ""}, "Expecting info item: DBNAME, DBUSER, PROG or SESSION."},
        {{"-info", "-ascii"}, "Expecting info item: DBNAME, DBUSER, PROG or SESSION."},
        {{"-info", "progs"}, "Expecting info item: DBNAME, DBUSER, PROG or SESSION."},
        {{"-dset", "1X"}, "Database name must begin with letter in -dset paramter."},
        {{"-dset", "A", "-dset", "A:B:C"}, "Invalid character in dataset name in -dset parameter."},
        {{"-foo"}, "Unrecognized option -foo"},
        {{"-"}, "Unrecognized option -"},
        {{"--help"}, "Unrecognized option --help"},
        {{"-versio"}, "Unrecognized option -versio"},
        {{"-versions"}, "Unrecognized option -versions"},
        {{"-help "}, "Unrecognized option -help "},
        {{"-foo%s%n"}, "Unrecognized option -foo%s%n"},
        {{"-dirty", "f"}, "DIRTY must only be specified with ASCII."},
        {{"-bwfmt", "f"}, "DIRTY must only be specified with ASCII."},
        {{"-dirty", "-bwfmt", "f"},
         "DIRTY must only be specified with ASCII.\nDIRTY must only be specified with ASCII."},
        {{"-ascii", "-dirty", "f1", "-dirty", "f2"}, "DIRTY must only be specified with ASCII."},
    };
    for (const auto &c : cases)
        expect_error(c.args, c.message);
}

TEST_F(Options, FirstErrorEndsTheScan)
{
    expect_error({"-foo", "-bar", "-bg", "f"}, "Unrecognized option -foo");
    EXPECT_EQ(0U, g_flags);
    EXPECT_EQ(0, g_ci->ncf);
    expect_error({"-bg", "f", "-dirty", "g", "h"}, "DIRTY must only be specified with ASCII.");
    EXPECT_EQ(0x20U, g_flags);
    ASSERT_EQ(1, g_ci->ncf);
    EXPECT_STREQ("f", file(0)->name);
}

TEST_F(Options, FileOptionsHoldForTheNextFileOnly)
{
    EXPECT_EQ(0, scan({"-ascii", "-dirty", "-exthdr", "-yyyy", "-progterm", ".x", "-info", "PROG",
                       "-dset", "A", "-dset", "B:", "f1", "f2"}));
    ASSERT_EQ(2, g_ci->ncf);
    EXPECT_EQ(5U, file(0)->ascii_flags);
    EXPECT_EQ(3U, file(0)->hdropts);
    EXPECT_STREQ(".x", file(0)->progterm);
    EXPECT_EQ(8, file(0)->info_item);
    ASSERT_EQ(2, file(0)->npats);
    EXPECT_STREQ("@:A", file(0)->pats[0]);
    EXPECT_STREQ("B:@", file(0)->pats[1]);
    EXPECT_EQ(0U, file(1)->ascii_flags);
    EXPECT_EQ(0U, file(1)->hdropts);
    EXPECT_EQ(nullptr, file(1)->progterm);
    EXPECT_EQ(0, file(1)->info_item);
    EXPECT_EQ(0, file(1)->npats);
}

TEST_F(Options, FileOptionTable)
{
    const struct {
        std::vector<std::string> args;
        uint32_t ascii_flags, hdropts;
        int32_t info_item;
    } cases[] = {
        {{"f"}, 0, 0, 0},
        {{"-ascii", "f"}, 1, 0, 0},
        {{"-asciirev", "f"}, 3, 0, 0},
        {{"-ASCII", "-Dirty", "f"}, 5, 0, 0},
        {{"-dirty", "-ascii", "f"}, 5, 0, 0},
        {{"-bwfmt", "-asciirev", "-dirty", "f"}, 15, 0, 0},
        {{"-ascii", "-bwfmt", "f"}, 9, 0, 0},
        {{"-exthdr", "f"}, 0, 1, 0},
        {{"-yyyy", "f"}, 0, 2, 0},
        {{"-recnum", "f"}, 0, 4, 0},
        {{"-fga", "f"}, 0, 8, 0},
        {{"-fga", "-recnum", "-yyyy", "-exthdr", "f"}, 0, 15, 0},
        {{"-info", "prog", "f"}, 0, 0, 8},
        {{"-info", "DBName", "f"}, 0, 0, 2},
        {{"-info", "dbuser", "f"}, 0, 0, 10},
        {{"-info", "SESSION", "f"}, 0, 0, 9},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        EXPECT_EQ(0, scan(c.args));
        ASSERT_EQ(1, g_ci->ncf);
        EXPECT_EQ(c.ascii_flags, file(0)->ascii_flags);
        EXPECT_EQ(c.hdropts, file(0)->hdropts);
        EXPECT_EQ(c.info_item, file(0)->info_item);
    }
}

TEST_F(Options, EveryFileMayHaveItsOwnInfoAndTerminator)
{
    EXPECT_EQ(0, scan({"-info", "prog", "-progterm", "a", "f1", "-info", "dbname", "-progterm", "b",
                       "f2"}));
    EXPECT_EQ(8, file(0)->info_item);
    EXPECT_EQ(2, file(1)->info_item);
    EXPECT_STREQ("a", file(0)->progterm);
    EXPECT_STREQ("b", file(1)->progterm);
}

TEST_F(Options, FileOptionsBehindTheLastFileAreCheckedAndForgotten)
{
    EXPECT_EQ(0, scan({"-dset", "A.B", "f1", "-dset", "C.D", "-dirty", "-progterm", "x"}));
    ASSERT_EQ(1, g_ci->ncf);
    EXPECT_EQ(1, file(0)->npats);
    EXPECT_STREQ("@:A.B", file(0)->pats[0]);
    expect_error({"f1", "-dset", "9"}, "Database name must begin with letter in -dset paramter.");
}

TEST_F(Options, AnythingWithoutADashIsAFileName)
{
    EXPECT_EQ(0, scan({"", "help", "/a-b", " -bg"}));
    ASSERT_EQ(4, g_ci->ncf);
    EXPECT_STREQ("", file(0)->name);
    EXPECT_STREQ("help", file(1)->name);
    EXPECT_STREQ("/a-b", file(2)->name);
    EXPECT_STREQ(" -bg", file(3)->name);
    EXPECT_EQ(0U, g_flags);
}

TEST_F(Options, RolloverCountsFromItsPlaceOn)
{
    EXPECT_EQ(0, scan({"f1", "-rollover", "f2", "-ascii", "f3"}));
    EXPECT_EQ(0, file(0)->rollover);
    EXPECT_EQ(1, file(1)->rollover);
    EXPECT_EQ(0, file(2)->rollover);
}

TEST(Istrcmp, Table)
{
    const struct {
        const char *a, *b;
        int expected;
    } cases[] = {
        {"", "", 0},        {"abc", "abc", 0},       {"abc", "ABC", 0},
        {"AbC", "aBc", 0},  {"abc", "abd", -1},      {"abd", "abc", 1},
        {"abc", "ABD", -1}, {"ABD", "abc", 1},       {"ab", "abc", -1},
        {"abc", "ab", 1},   {"", "a", -1},           {"a", "", 1},
        {"Z", "a", 1},      {"[", "a", -1},          {"_", "A", -1}, // after folding: 0x5F, 0x61
        {"\xe4", "a", -1},                                           // a signed character
        {"a", "\xe4", 1},   {"\xff", "\xff", 0},     {"\xff", "", -1},
        {"1", "A", -1},     {"-PAUSE", "-pause", 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.expected, istrcmp(c.a, c.b)) << c.a << " " << c.b;
}
