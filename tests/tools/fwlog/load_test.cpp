// The load command as a program: the recorded stream, interrupted loads, exit
// statuses and what is printed.
#include "tests/support/log_lines.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::StartsWith;

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";
static const std::string example = KESTRO_SOURCE_DIR "/examples/orders/";

// A directory with a configuration of its own, whose log is in "log".
struct place {
    explicit place(const std::string &cfg = read_file(example + "fwutil.cfg"))
    {
        write_file(dir.file("fwutil.cfg"), cfg);
    }

    run_result load(const std::string &input, const std::vector<std::string> &more = {})
    {
        std::vector<std::string> words = {program, "load", "-cfg", dir.file("fwutil.cfg")};
        words.insert(words.end(), more.begin(), more.end());
        run_setup options;
        options.input = input;
        return run_program(words, options);
    }

    std::vector<std::string> log()
    {
        return log_lines(dir.file("log"));
    }

    tempdir dir;
};

static const std::string &recorded()
{
    static const std::string stream = read_file(example + "orders-changes.jsonl");
    return stream;
}

static const std::vector<std::string> &recorded_log()
{
    static const std::vector<std::string> lines = [] {
        place whole;
        EXPECT_EQ(whole.load(recorded()).status, 0);
        return whole.log();
    }();
    return lines;
}

// A small configuration, and transactions for it.
static const std::string small_cfg = "log-directory log\n"
                                     "database SALES\n"
                                     "dataset ORDERS\n"
                                     "item NOTE X 4\n";

static std::string transaction(int xid, const std::string &lsn, const std::string &note)
{
    const std::string id = R"("xid":)" + std::to_string(xid);
    const std::string rest =
        "," + id + R"(,"timestamp":"2026-11-20 22:08:38+00","lsn":")" + lsn + "\"}\n";
    return R"({"action":"B")" + rest + R"({"action":"I",)" + id +
           R"(,"schema":"sales","table":"orders","columns":[{"name":"note","type":"text","value":")" +
           note + "\"}]}\n" + R"({"action":"C")" + rest;
}

TEST(FwlogLoad, RecordedStreamLoadsWithTheCountsOfItsRecording)
{
    place here;
    const run_result result = here.load("", {example + "orders-changes.jsonl"});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "fwlog: 1195 transactions loaded: 3751 inserts, 3534 updates, 1146 deletes; "
              "21 without changes, 0 skipped as loaded before; log at 0/1BC8080\n");
    EXPECT_EQ(result.status, 0);

    const std::vector<std::string> lines = here.log();
    EXPECT_EQ(count_lines(lines, "commit "), 1195U);
    EXPECT_EQ(count_lines(lines, "session "), 1195U);
    std::istringstream counts(read_file(example + "orders-counts.txt"));
    std::string table;
    std::string rest;
    std::getline(counts, rest); // headings
    size_t tables = 0;
    size_t inserts = 0;
    size_t updates = 0;
    size_t deletes = 0;
    while (counts >> table >> inserts >> updates >> deletes && table != "total") {
        for (char &c : table)
            c = c == '_' ? '-' : static_cast<char>(toupper(c));
        EXPECT_EQ(count_lines(lines, "insert " + table + " "), inserts) << table;
        EXPECT_EQ(count_lines(lines, "update " + table + " "), updates) << table;
        EXPECT_EQ(count_lines(lines, "delete " + table + " "), deletes) << table;
        tables++;
    }
    EXPECT_EQ(tables, 8U);
}

// So many transactions from a number on.
static std::string transactions(int first, int count)
{
    std::string text;
    for (int n = first; n < first + count; n++) {
        char lsn[16];
        (void)snprintf(lsn, sizeof lsn, "0/%X", n);
        text += transaction(n, lsn, "note");
    }
    return text;
}

TEST(FwlogLoad, OldFilesThatARegisteredConsumerHasDealtWithAreRemoved)
{
    place here(small_cfg + "log-file-size 4K\nlog-keep acknowledged\n");
    const auto run = [&here](std::vector<std::string> words) {
        words.insert(words.begin(), program);
        words.insert(words.end(), {"-cfg", "fwutil.cfg"});
        run_setup options;
        options.directory = here.dir.path();
        return run_program(words, options);
    };
    const std::string first = here.dir.file("log/fw0001-00000001.log");
    const run_result alone = here.load(transactions(1, 100));
    EXPECT_EQ(alone.status, 0);
    EXPECT_THAT(alone.err, HasSubstr("fwlog: warning: old log files stay: log-keep acknowledged, "
                                     "and no reader is registered"));
    ASSERT_TRUE(std::filesystem::exists(here.dir.file("log/fw0001-00000004.log")));
    ASSERT_EQ(run({"readers", "--add", "consumer.status"}).status, 0);
    EXPECT_THAT(here.load(transactions(101, 1)).err,
                HasSubstr("consumer.status: the registered reader has no status file yet\n"));
    EXPECT_TRUE(std::filesystem::exists(first));
    const run_result read = run({"dump", "--json", "--state", "consumer.status"});
    ASSERT_EQ(read.status, 0) << read.err;
    EXPECT_EQ(read.err, "");
    EXPECT_EQ(here.load(transactions(102, 1)).err, "");
    EXPECT_FALSE(std::filesystem::exists(first));
    // Who comes now is told.
    const std::string told = "fwlog: warning: log: beginning with fw0001-0";
    for (const std::vector<std::string> &words : {std::vector<std::string>{"dump"},
                                                  {"dump", "--json"},
                                                  {"dump", "--json", "--state", "new.status"},
                                                  {"csv"},
                                                  {"sql", "--dialect", "sqlite"}}) {
        const run_result late = run(words);
        EXPECT_EQ(late.status, 0);
        EXPECT_THAT(late.err, HasSubstr(told)) << words[0];
        EXPECT_THAT(late.err,
                    HasSubstr(", the log's oldest file: older ones were removed, and what "
                              "they held is missing here\n"));
    }
    for (const std::vector<std::string> &words :
         {std::vector<std::string>{"dump", "--json", "--state", "consumer.status"},
          {"dump", "--json", "--state", "new.status"},
          {"tail"},
          {"tail", "--json"}})
        EXPECT_EQ(run(words).err, "") << words[0];
}

TEST(FwlogLoad, ColumnsWithoutItemAreToldOncePerTable)
{
    place here(small_cfg);
    const auto row = [](int xid, const std::string &lsn) {
        std::string lines = transaction(xid, lsn, "a");
        return lines.replace(lines.find("[{"), 1,
                             R"([{"name":"extra","type":"text","value":"x"},)");
    };
    const run_result result = here.load(row(7, "0/1") + row(8, "0/2"));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "fwlog: standard input:2: warning: table sales.orders: column extra has "
                          "no item in dataset SALES.ORDERS and is left out of the log\n");
    EXPECT_THAT(result.out, StartsWith("fwlog: 2 transactions loaded: 2 inserts"));
}

TEST(FwlogLoad, SameStreamAgainChangesNothing)
{
    place here;
    ASSERT_EQ(here.load(recorded()).status, 0);
    const run_result again = here.load(recorded());
    EXPECT_EQ(again.status, 0);
    EXPECT_THAT(again.out,
                StartsWith("fwlog: 0 transactions loaded: 0 inserts, 0 updates, 0 deletes;"));
    EXPECT_THAT(again.out, HasSubstr(" 1216 skipped as loaded before; log at 0/1BC8080\n"));
    EXPECT_EQ(here.log(), recorded_log());
}

TEST(FwlogLoad, InterruptedLoadIsCompletedByTheNextOne)
{
    for (const size_t cut :
         {size_t{100}, size_t{1'000'000}, recorded().size() / 2, recorded().size() - 40}) {
        place here;
        const run_result first = here.load(recorded().substr(0, cut));
        EXPECT_EQ(first.status, 1) << cut;
        EXPECT_THAT(first.err, HasSubstr(cut == 100 ? "the input ends within this line"
                                                    : "the last transaction is incomplete and not "
                                                      "loaded; load the whole stream again"))
            << cut;
        EXPECT_LT(here.log().size(), recorded_log().size()) << cut;
        EXPECT_EQ(here.load(recorded()).status, 0) << cut;
        EXPECT_EQ(here.log(), recorded_log()) << cut;
    }
}

TEST(FwlogLoad, InputEndingBetweenLinesOfATransactionIsSaidToBeIncomplete)
{
    place here(small_cfg);
    const std::string second = transaction(2, "0/2", "b");
    const size_t last_line = second.rfind('{');
    const run_result result = here.load(transaction(1, "0/1", "a") + second.substr(0, last_line));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "fwlog: standard input:5: the input ends inside transaction 2 (begun in line 4): "
              "the last transaction is incomplete and not loaded; load the whole stream "
              "again\n");
    EXPECT_EQ(result.out,
              "fwlog: 1 transactions loaded: 1 inserts, 0 updates, 0 deletes; 0 without "
              "changes, 0 skipped as loaded before; log at 0/1\n");
    EXPECT_EQ(count_lines(here.log(), "commit "), 1U);
}

TEST(FwlogLoad, LastLineNeedsNoLineEnd)
{
    place here(small_cfg);
    std::string input = transaction(1, "0/1", "a");
    input.pop_back();
    EXPECT_EQ(here.load(input).status, 0);
    EXPECT_EQ(count_lines(here.log(), "commit "), 1U);
}

TEST(FwlogLoad, BlankLinesAndCarriageReturnsDoNoHarm)
{
    place here(small_cfg);
    std::string input = "\n" + transaction(1, "0/1", "a") + " \t\r\n";
    input.insert(input.find("}\n") + 1, "\r");
    const run_result result = here.load(input);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(count_lines(here.log(), "commit "), 1U);
}

TEST(FwlogLoad, EmptyStreamLoadsNothing)
{
    place here(small_cfg);
    const run_result result = here.load("", {"-"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              "fwlog: 0 transactions loaded: 0 inserts, 0 updates, 0 deletes; 0 without "
              "changes, 0 skipped as loaded before; log at 0/0\n");
}

TEST(FwlogLoad, ValueThatDoesNotFitStopsTheLoadBehindTheLastWholeTransaction)
{
    place here(small_cfg);
    write_file(here.dir.file("changes.jsonl"), transaction(1, "0/1", "fits") +
                                                   transaction(2, "0/2", "too long") +
                                                   transaction(3, "0/3", "ok"));
    const run_result result = here.load("", {here.dir.file("changes.jsonl")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "fwlog: " + here.dir.file("changes.jsonl") +
                  ":5: sales.orders.note: \"too long\" is 8 characters long, item NOTE (X 4) "
                  "holds 4: make the item wider, or cut texts with --truncate\n");
    EXPECT_THAT(result.out, StartsWith("fwlog: 1 transactions loaded: 1 inserts,"));
    EXPECT_EQ(count_lines(here.log(), "insert "), 1U);

    const run_result cut = here.load("", {"--truncate", here.dir.file("changes.jsonl")});
    EXPECT_EQ(cut.err, "");
    EXPECT_EQ(cut.status, 0);
    EXPECT_THAT(cut.out, HasSubstr(" 1 skipped as loaded before; log at 0/3\n"
                                   "fwlog: 1 texts cut to the length of their items\n"));
    EXPECT_EQ(here.log().at(6).substr(0, 21), "insert SALES.ORDERS 1");
    EXPECT_THAT(here.log().at(6), HasSubstr("<|746F6F20>"));
}

TEST(FwlogLoad, ConfigurationAndInputMustBeReadable)
{
    place here(small_cfg);
    run_result result = here.load("", {here.dir.file("missing.jsonl")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "fwlog: cannot open " + here.dir.file("missing.jsonl") +
                              ": No such file or directory\n");
    EXPECT_NE(access(here.dir.file("log").c_str(), F_OK), 0);

    result = here.load("", {here.dir.path()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "fwlog: reading " + here.dir.path() + ": Is a directory\n");

    result = run_program({program, "load", "-cfg", here.dir.file("missing.cfg")});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, StartsWith("fwlog: " + here.dir.file("missing.cfg")));
}

TEST(FwlogLoad, ConfigurationIsFoundThroughTheEnvironment)
{
    place here(small_cfg);
    run_setup options;
    options.input = transaction(1, "0/1", "a");
    options.env["FWUTIL_CFG"] = here.dir.file("fwutil.cfg");
    EXPECT_EQ(run_program({program, "load"}, options).status, 0);
    EXPECT_EQ(count_lines(here.log(), "commit "), 1U);
}

TEST(FwlogLoad, SummaryThatCannotBeWrittenIsAFailure)
{
    place here(small_cfg);
    const pid_t pid =
        start_program({program, "load", "-cfg", here.dir.file("fwutil.cfg"), "/dev/null"}, {},
                      "/dev/full", here.dir.file("err"));
    EXPECT_EQ(wait_program(pid), 1);
    EXPECT_EQ(read_file(here.dir.file("err")),
              "fwlog: writing standard output: No space left on device\n");
}

TEST(FwlogLoad, WrongCommandLinesAreRefusedWithStatusTwo)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"load", "--bogus"}, "fwlog: unknown option: --bogus\n"},
        {{"load", "-x", "in"}, "fwlog: unknown option: -x\n"},
        {{"load", "-cfg"}, "fwlog: option lacks its file name: -cfg\n"},
        {{"load", "one", "two"}, "fwlog: more than one change stream: two\n"},
        {{"--bogus"}, "fwlog: unknown option: --bogus\n"},
        {{"lead"}, "fwlog: unknown subcommand: lead\n"},
    };
    for (const auto &[words, error] : cases) {
        std::vector<std::string> argv = {program};
        argv.insert(argv.end(), words.begin(), words.end());
        const run_result result = run_program(argv);
        EXPECT_EQ(result.status, 2) << error;
        EXPECT_EQ(result.err, error + "Try \"fwlog --help\".\n");
        EXPECT_EQ(result.out, "");
    }
    EXPECT_EQ(run_program({program}).status, 2);
}

TEST(FwlogLoad, HelpAndVersionGoToStandardOutput)
{
    const run_result help = run_program({program, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out,
                StartsWith("Usage: fwlog load [-cfg FILE] [--truncate] [CHANGES.jsonl | -]\n"));
    const run_result load_help = run_program({program, "load", "--help"});
    EXPECT_EQ(load_help.status, 0);
    EXPECT_THAT(load_help.out, HasSubstr("--truncate   cut texts"));
    const run_result dump_help = run_program({program, "dump", "--help"});
    EXPECT_EQ(dump_help.status, 0);
    EXPECT_THAT(dump_help.out, HasSubstr("--from POSITION"));
    const run_result version = run_program({program, "--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_THAT(version.out, testing::MatchesRegex("fwlog [0-9.]+\n"));
}

// A load that reads from a fifo, so that the test decides when input comes.
struct fed_load {
    explicit fed_load(place &at) : here(at)
    {
        const std::string fifo = here.dir.file("fifo");
        EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        pid = start_program({program, "load", "-cfg", here.dir.file("fwutil.cfg"), fifo}, {},
                            here.dir.file("out"), here.dir.file("err"));
        fd = open(fifo.c_str(), O_WRONLY); // waits until the load has opened it
        EXPECT_GE(fd, 0);
    }
    ~fed_load()
    {
        if (fd >= 0)
            close(fd);
    }

    void feed(const std::string &text) const
    {
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    // Whether the log comes to hold so many transactions.
    bool commits(size_t count) const
    {
        return poll_until([&] {
            return access(here.dir.file("log").c_str(), F_OK) == 0 &&
                   count_lines(here.log(), "commit ") >= count;
        });
    }

    place &here;
    pid_t pid = -1;
    int fd = -1;
};

TEST(FwlogLoad, SignalWhileWaitingForInputLeavesWholeTransactions)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        place here(small_cfg);
        const fed_load load(here);
        const std::string second = transaction(2, "0/2", "b");
        load.feed(transaction(1, "0/1", "a") + second.substr(0, second.rfind('{')));
        ASSERT_TRUE(load.commits(1));
        kill(load.pid, signal);
        EXPECT_EQ(wait_program(load.pid), 128 + signal);
        EXPECT_EQ(read_file(here.dir.file("err")),
                  "fwlog: stopped by signal " + std::to_string(signal) +
                      " behind a whole transaction; load the stream again to go on\n");
        EXPECT_EQ(
            read_file(here.dir.file("out")),
            "fwlog: 1 transactions loaded: 1 inserts, 0 updates, 0 deletes; 0 without changes, 0 "
            "skipped as loaded before; log at 0/1\n");
        EXPECT_EQ(count_lines(here.log(), "commit "), 1U);
        EXPECT_EQ(here.load(transaction(1, "0/1", "a") + second).status, 0);
        EXPECT_EQ(count_lines(here.log(), "commit "), 2U);
    }
}

TEST(FwlogLoad, TransactionsReachTheLogWhileTheInputIsStillOpen)
{
    place here(small_cfg);
    fed_load load(here);
    load.feed(transaction(1, "0/1", "a"));
    EXPECT_TRUE(load.commits(1));
    load.feed(transaction(2, "0/2", "b"));
    EXPECT_TRUE(load.commits(2));
    close(load.fd);
    load.fd = -1;
    EXPECT_EQ(wait_program(load.pid), 0);
    EXPECT_EQ(read_file(here.dir.file("err")), "");
}

TEST(FwlogLoad, SecondLoadAtTheSameTimeIsRefused)
{
    place here(small_cfg);
    fed_load load(here);
    load.feed(transaction(1, "0/1", "a"));
    ASSERT_TRUE(load.commits(1));
    const run_result second = here.load(transaction(2, "0/2", "b"));
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.err, StartsWith("fwlog: " + here.dir.file("log")));
    EXPECT_EQ(second.out, "");
    close(load.fd);
    load.fd = -1;
    EXPECT_EQ(wait_program(load.pid), 0);
    EXPECT_EQ(count_lines(here.log(), "commit "), 1U);
}
