// The capture session and the record callback.
#include "driver/session.h"

#include "driver/base/logrec.h"
#include "tests/support/core_state.h"
#include "tests/support/tempdir.h"

#include <unistd.h>

class Session : public core_state {
  protected:
    // Result of a session; what is printed goes to printed.
    int run(const char *pidfile = nullptr, const char *cfg = nullptr, const char *stat = nullptr,
            const char *start = nullptr)
    {
        int rc = 0;
        printed = capture([&] { rc = processfile(g_ci, pidfile, cfg, stat, start); });
        return rc;
    }

    static fake_record record(int32_t opcode, const std::string &set = "CUST")
    {
        fake_record r;
        r.dbname = "ORDERS";
        r.dsetname = set;
        r.logtime = 1704067200; // 1 January 2024
        r.opcode = opcode;
        r.before = "old!";
        r.after = "new!";
        return r;
    }

    using words = std::vector<std::string>;
    const tempdir dir;
    captured printed;
};

TEST_F(Session, WordsArePassedOn)
{
    EXPECT_EQ(0, run(nullptr, "a.cfg", "b.stat", "25"));
    EXPECT_EQ(words({"process cfg=a.cfg stat=b.stat start=25"}), g_fwu.calls);
    g_fwu.calls.clear();
    EXPECT_EQ(0, run());
    EXPECT_EQ(words({"process cfg=(null) stat=(null) start=(null)"}), g_fwu.calls);
    EXPECT_EQ("", printed.out + printed.err);
}

TEST_F(Session, ModesAreSwitchedOnBeforeTheLoop)
{
    const std::string process = "process cfg=(null) stat=(null) start=(null)";
    const struct {
        uint32_t flags;
        words calls;
    } cases[] = {{FLAG_VERBOSE, {"verbose 1", process}},
                 {FLAG_SYNCONLY, {"synconly 1", process}},
                 {FLAG_VERBOSE | FLAG_SYNCONLY, {"verbose 1", "synconly 1", process}},
                 {FLAG_SESSDATA, {process}}};
    for (const auto &c : cases) {
        g_fwu.calls.clear();
        g_flags = c.flags;
        EXPECT_EQ(0, run());
        EXPECT_EQ(c.calls, g_fwu.calls);
    }
}

TEST_F(Session, FailureOfTheLoopIsReported)
{
    for (const int result : {1, -1, 77}) {
        g_fwu.process_result = result;
        EXPECT_EQ(-1, run());
        EXPECT_EQ("Fwu_process() failed.\n", printed.err);
    }
}

TEST_F(Session, PidFileHoldsTheProcessId)
{
    write_file(dir.file("pid"), "something longer than a process id");
    EXPECT_EQ(0, run(dir.file("pid").c_str()));
    EXPECT_EQ(std::to_string(getpid()) + "\n", read_file(dir.file("pid")));
    EXPECT_EQ("", printed.out + printed.err);
}

TEST_F(Session, PidFileIsLogged)
{
    g_loglevel = LOG_VERBOSE;
    const std::string path = dir.file("pid");
    const captured log = capture([&] { EXPECT_EQ(0, write_pidfile(path.c_str())); });
    const std::string text = without_stamps(log.err);
    const std::string opened = "LOG Opened pid file " + path + ", #";
    ASSERT_EQ(opened, text.substr(0, opened.size()));
    const std::string number = std::to_string(atoi(text.c_str() + opened.size()));
    EXPECT_EQ(opened + number + "\nLOG Closed pid file " + path + ", #" + number + "\n", text);
}

TEST_F(Session, PidFileErrorsStopTheRun)
{
    const std::string path = dir.file("no/pid");
    EXPECT_EQ(-1, run(path.c_str()));
    EXPECT_EQ("Error opening pidfile " + path + ": No such file or directory\n", printed.err);
    EXPECT_EQ(-1, run("/dev/full"));
    EXPECT_EQ("Error writing to pidfile /dev/full: No space left on device\n", printed.err);
    EXPECT_EQ(words(), g_fwu.calls) << "the log is not read";
}

TEST_F(Session, OperationsAreDispatchedAndCounted)
{
    add_file(dir.file("f"), text_options());
    g_needsetinfo = 1;
    g_fwu.items = {{"TEXT", 'X', 4}};
    g_fwu.records = {record(1), record(3), record(5)};
    EXPECT_EQ(0, run());
    EXPECT_EQ(std::vector<int>({0, 0, 0}), g_fwu.results);
    EXPECT_EQ(3, g_nlogrecs);
    EXPECT_EQ("000000ORDERS                  CUST            24010100:00:00IUold!new!\n"
              "000001ORDERS                  CUST            24010100:00:00IPnew!\n"
              "000002ORDERS                  CUST            24010100:00:00IDold!\n",
              read_file(dir.file("f")));
}

TEST_F(Session, UnknownOperationsFail)
{
    const struct {
        int32_t opcode;
        const char *err;
    } cases[] = {{0, "Unrecognized operation: #0\n\n"},
                 {2, "Unrecognized operation: #2\n\n"},
                 {4, "Unrecognized operation: #4\n\n"},
                 {6, "Unrecognized operation: #6\n\n"},
                 {-1, "Unrecognized operation: #-1\n\n"}};
    for (const auto &c : cases) {
        g_fwu.records = {record(c.opcode)};
        g_fwu.results.clear();
        EXPECT_EQ(0, run());
        EXPECT_EQ(c.err, printed.err);
        EXPECT_EQ(std::vector<int>({-1}), g_fwu.results);
    }
    EXPECT_EQ(0, g_nlogrecs);
}

TEST_F(Session, FailedRecordsAreNotCounted)
{
    add_file("/dev/full", text_options());
    g_needsetinfo = 1;
    g_fwu.items = {{"TEXT", 'X', 4}};
    g_fwu.records = {record(3), record(5)};
    EXPECT_EQ(0, run());
    EXPECT_EQ(std::vector<int>({-1, -1}), g_fwu.results);
    EXPECT_EQ(0, g_nlogrecs);
}

TEST_F(Session, SkippedRecordsAreCounted)
{
    g_fwu.records = {record(3), record(1)};
    EXPECT_EQ(0, run());
    EXPECT_EQ(2, g_nlogrecs);
    EXPECT_EQ(0, g_ci->dsets->nalloc) << "no layouts are fetched unless needed";
}

TEST_F(Session, ShowSetsPrintsEveryRecordsLayout)
{
    g_flags = FLAG_SHOWSETS;
    g_needsetinfo = 1;
    auto second = record(3, "STOCK");
    second.items = std::vector<fake_item>{};
    auto third = record(2, "PARTS");
    third.items = {{"PART-NO", 'K', 2}};
    g_fwu.items = {{"NAME", 'X', 4}};
    g_fwu.records = {record(3), record(3), second, third};
    EXPECT_EQ(0, run());
    EXPECT_EQ("***** Dataset ORDERS.CUST has 1 items\n"
              "    NAME             X  4  1\n"
              "***** Dataset ORDERS.CUST has 1 items\n"
              "    NAME             X  4  1\n"
              "***** Dataset ORDERS.STOCK has 0 items\n"
              "***** Dataset ORDERS.PARTS has 1 items\n"
              "    PART-NO          K  2  1\n",
              printed.out);
    EXPECT_EQ("Unrecognized operation: #2\n\n", printed.err);
}

TEST_F(Session, ShowSetsPrintsALayoutBeforeTheRecordIsCaptured)
{
    g_flags = FLAG_SHOWSETS | FLAG_DUMPRECS;
    g_needsetinfo = 1;
    add_file(dir.file("no/f"), text_options());
    g_fwu.items = {{"TEXT", 'X', 4}};
    g_fwu.records = {record(3)};
    EXPECT_EQ(0, run());
    const std::string layout = "***** Dataset ORDERS.CUST has 1 items\n"
                               "    TEXT             X  4  1\n";
    const std::string dump = "Insert log record length 4 (0x0004) for ORDERS.CUST\n";
    EXPECT_EQ(layout + dump, printed.out.substr(0, layout.size() + dump.size()));
}

TEST_F(Session, LayoutOfTheSameDatasetMayChangeFromRecordToRecord)
{
    add_file(dir.file("f"), text_options());
    g_flags = FLAG_SHOWSETS;
    g_needsetinfo = 1;
    auto first = record(3);
    first.items = {{"TEXT", 'X', 4}};
    auto second = record(3);
    second.items = {{"A", 'X', 2}, {"B", 'K', 2}};
    second.after = std::string("ab\x05\0", 4);
    g_fwu.records = {first, second, first};
    EXPECT_EQ(0, run());
    EXPECT_EQ("***** Dataset ORDERS.CUST has 1 items\n"
              "    TEXT             X  4  1\n"
              "***** Dataset ORDERS.CUST has 2 items\n"
              "    A                X  2  1\n"
              "    B                K  2  1\n"
              "***** Dataset ORDERS.CUST has 1 items\n"
              "    TEXT             X  4  1\n",
              printed.out);
    EXPECT_EQ("000000ORDERS                  CUST            24010100:00:00IPnew!\n"
              "000001ORDERS                  CUST            24010100:00:00IPab              5\n"
              "000002ORDERS                  CUST            24010100:00:00IPnew!\n",
              read_file(dir.file("f")));
}

TEST_F(Session, ShowSets)
{
    log_record record = {};
    record.dbname = "ORDERS";
    record.dsetname = "CUST";
    EXPECT_EQ("***** Dataset ORDERS.CUST has 0 items\n",
              capture([&] { show_sets(g_ci, &record); }).out);
    g_fwu.items = {{"CUST-NO", 'I', 4, 1, 0},
                   {"ABCDEFGHIJKLMNOPQRS", 'X', 30, 12, 0},
                   {"ABCDEFGHIJKLMNOP", 'P', 1234, 5678, 0}};
    get_dsetinfo(g_ci->dsets);
    EXPECT_EQ("***** Dataset ORDERS.CUST has 3 items\n"
              "    CUST-NO          I  4  1\n"
              "    ABCDEFGHIJKLMNOPQ X 30 12\n"
              "    ABCDEFGHIJKLMNOP P12345678\n",
              capture([&] { show_sets(g_ci, &record); }).out);
}

TEST_F(Session, LogPosition)
{
    g_fwu.generation = 1;
    g_fwu.sequence = 25;
    g_fwu.tag = 340;
    const char *text = get_fwlog_gst();
    EXPECT_STREQ("1-25.340", text);
    EXPECT_EQ(words({"generation", "sequence", "tag"}), g_fwu.calls);
    g_fwu.generation = g_fwu.sequence = g_fwu.tag = -2147483647 - 1;
    EXPECT_STREQ("-2147483648--2147483648.-2147483648", get_fwlog_gst());
    EXPECT_EQ(text, get_fwlog_gst()) << "the same buffer each time";
}
