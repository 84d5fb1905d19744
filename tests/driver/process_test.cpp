// One run from the command line to the totals, inside the test's process: a
// leak checker sees all of it.
#include "driver/process.h"

#include "tests/support/core_state.h"
#include "tests/support/golden.h"
#include <unistd.h>

class Process : public core_state {
  protected:
    int run(std::vector<std::string> args)
    {
        (void)capture([] { capture_close(g_ci); });
        init_globals();
        g_ci = new_capinfo();
        g_fwu.calls.clear();
        args.insert(args.begin(), "prog");
        std::vector<char *> argv;
        for (std::string &arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        int rc = 0;
        printed = capture([&] { rc = process(static_cast<int>(args.size()), argv.data()); });
        EXPECT_EQ(nullptr, g_ci) << "all is closed and released";
        return rc;
    }

    static fake_record record(const std::string &db, const std::string &set, int32_t opcode)
    {
        fake_record r;
        r.dbname = db;
        r.dsetname = set;
        r.opcode = opcode;
        r.before = "old!";
        r.after = "new!";
        return r;
    }

    using words = std::vector<std::string>;
    const words session = {"process cfg=(null) stat=(null) start=(null)"};
    const tempdir dir;
    captured printed;
};

static const char no_skips[] = "\nLog records not copied to any capture file:\n"
                               "\n    * No records skipped.  All records copied to a capture "
                               "file.\n\n";

TEST_F(Process, NoCaptureFile)
{
    for (const words &args : {words{"-bg"}, words{"-capstats"}, words{"-dset", "a"}}) {
        EXPECT_EQ(-1, run(args));
        EXPECT_EQ("No capture file specified.\n", printed.err);
        EXPECT_EQ(words(), g_fwu.calls);
    }
}

TEST_F(Process, ShowskipAloneCounts)
{
    g_fwu.records = {record("ORDERS", "CUST", 3), record("STOCK", "BINS", 1),
                     record("STOCK", "BINS", 1),  record("STOCK", "PARTS", 5),
                     record("STOCK", "PARTS", 5), record("STOCK", "PARTS", 5)};
    EXPECT_EQ(0, run({"-showskip"}));
    EXPECT_EQ("6 Vostrel forward log file records processed.\n" +
                  golden("skipped_two_databases.txt"),
              printed.out);
    EXPECT_EQ("", printed.err);
    EXPECT_EQ(session, g_fwu.calls);
}

TEST_F(Process, OneActionByPrecedence)
{
    const std::string version = "Kestro - 2.21 (Linux x86)\nscripted library\n";
    const std::string number = "2.21\n";
    std::string help = golden("help.txt");
    help.replace(help.find("%s"), 2, "prog");
    const struct {
        words args;
        std::string out;
        words calls;
    } cases[] = {
        {{"-version"}, version, {"version"}},
        {{"-showstat", "-help", "-versnum", "-version"}, version, {"version"}},
        {{"-versnum"}, number, {}},
        {{"-showstat", "-help", "-versnum"}, number, {}},
        {{"-help"}, help, {}},
        {{"-showstat", "-?"}, help, {}},
        {{"-showstat"}, "", {"status (null) 0"}},
        {{"-showstat", "-stat", "s"}, "", {"status s 0"}},
        {{"-stat", "s", "-verbose", "-showstat"}, "", {"status s 1"}},
        {{"-bg", "-pidfile", "no/pid", "-version"}, version, {"version"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        EXPECT_EQ(0, run(c.args));
        EXPECT_EQ(c.out, printed.out);
        EXPECT_EQ("", printed.err);
        EXPECT_EQ(c.calls, g_fwu.calls);
    }
}

TEST_F(Process, ActionsThatCaptureNothingStillCountZeroRecords)
{
    g_fwu.records = {record("ORDERS", "CUST", 3)};
    EXPECT_EQ(0, run({"-versnum", "-ascii", dir.file("f")}));
    EXPECT_EQ("2.21\n0 Vostrel forward log file records processed.\n"
              "0 records written to capture file " +
                  dir.file("f") + "\n",
              printed.out);
    EXPECT_EQ(0, run({"-versnum", "-showskip"}));
    EXPECT_EQ("2.21\n0 Vostrel forward log file records processed.\n" + std::string(no_skips),
              printed.out);
    EXPECT_EQ(0, run({"-versnum", "-showskip", "-verbose"}));
    EXPECT_EQ("2.21\n0 Vostrel forward log file records processed.\nCurrent position=0-0.0\n" +
                  std::string(no_skips),
              printed.out);
}

TEST_F(Process, ActionsAreCarriedOutAfterAScanError)
{
    std::string help = golden("help.txt");
    help.replace(help.find("%s"), 2, "prog");
    EXPECT_EQ(-1, run({"-help", "-foo"}));
    EXPECT_EQ(help, printed.out);
    EXPECT_EQ("Unrecognized option -foo\n", printed.err);
    EXPECT_EQ(-1, run({"-showstat", "-foo"}));
    EXPECT_EQ(words({"status (null) 0"}), g_fwu.calls);
    EXPECT_EQ(-1, run({"-foo", "-help"}));
    EXPECT_EQ("", printed.out) << "what comes behind the error does not count";
}

TEST_F(Process, ReportsAndClosingFollowAScanError)
{
    EXPECT_EQ(-1, run({"-ascii", "f1", "-showskip", "-foo", "f2"}));
    EXPECT_EQ(no_skips + std::string("0 records written to capture file f1\n"), printed.out);
    EXPECT_EQ(words(), g_fwu.calls) << "no session";
    EXPECT_EQ(-1, run({"-capstats", "f1", "-foo"}));
    EXPECT_EQ("\nNumber of records written to capture files:\n\n  Capture file: f1\n"
              "\n    *Capture file total*                       0        0        0        0\n\n",
              printed.out);
}

TEST_F(Process, DirtyWithoutAsciiCapturesNothing)
{
    g_fwu.records = {record("ORDERS", "CUST", 3)};
    EXPECT_EQ(-1, run({"-dirty", dir.file("f1")}));
    EXPECT_EQ("DIRTY must only be specified with ASCII.\n", printed.err);
    EXPECT_EQ("", printed.out);
    EXPECT_EQ(words(), g_fwu.calls);
}

TEST_F(Process, WordsReachTheLibrary)
{
    EXPECT_EQ(0, run({"-cfg", "c", "-stat", "s", "-start", "25", "-synconly", "-showskip"}));
    EXPECT_EQ(words({"synconly 1", "process cfg=c stat=s start=25"}), g_fwu.calls);
}

TEST_F(Process, VerboseRunEndsWithThePosition)
{
    g_fwu.generation = 2;
    g_fwu.sequence = 31;
    g_fwu.tag = 999;
    EXPECT_EQ(0, run({"-verbose", "-showskip"}));
    EXPECT_EQ("0 Vostrel forward log file records processed.\nCurrent position=2-31.999\n" +
                  std::string(no_skips),
              printed.out);
}

TEST_F(Process, FailedSessionHasNoTotals)
{
    g_fwu.process_result = 1;
    EXPECT_EQ(-1, run({"-ascii", dir.file("f"), "-verbose"}));
    EXPECT_EQ("0 records written to capture file " + dir.file("f") + "\n", printed.out);
}

TEST_F(Process, CapturesWithBothReports)
{
    g_fwu.items = {{"TEXT", 'X', 4}};
    g_fwu.records = {record("ORDERS", "CUST", 3), record("ORDERS", "CUST", 3),
                     record("ORDERS", "CUST", 1), record("ORDERS", "CUST", 5)};
    EXPECT_EQ(0, run({"-capstats", "-recnum", "-ascii", "-dset", "orders:", dir.file("only.cap"),
                      "-showskip"}));
    std::string report = golden("capstats_one_file.txt");
    report.replace(report.find("only.cap"), 8, dir.file("only.cap"));
    report.insert(report.find("    Capture file options: RECNUM\n") + 33,
                  "    Capture file -dset  : ORDERS:@\n");
    EXPECT_EQ("4 Vostrel forward log file records processed.\n" + report + no_skips, printed.out);
    EXPECT_EQ(4 * (77 + 4 + 1) + 4, static_cast<int>(read_file(dir.file("only.cap")).size()));
}

TEST_F(Process, FileThatCannotBeClosedFailsTheRun)
{
    g_fwu.records = {record("ORDERS", "CUST", 3)};
    g_fwu.items = {{"TEXT", 'X', 4}};
    g_fwu.on_call = [](const std::string &call) {
        if (call == "generation") // asked behind the last record
            close(g_ci->capfiles[0]->fnum);
    };
    EXPECT_NE(0, run({"-verbose", "-ascii", dir.file("f")}));
    EXPECT_EQ("1 Vostrel forward log file records processed.\nCurrent position=0-0.0\n",
              printed.out);
}
