// The sql command: what it prints of a log, where it begins and ends, and how.
#include "tests/changes/written_log.h"
#include "tests/support/run.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "fwutil/fwutil.h"

using testing::HasSubstr;
using testing::Not;

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";

static fwu_layout items_layout(bool wide = false)
{
    fwu_layout layout{.dbname = "SALES", .dsetname = "T", .items = {}};
    layout.items.push_back({.name = "NO", .type = 'I', .size = 4});
    if (wide)
        layout.items.push_back({.name = "MORE", .type = 'I', .size = 4});
    return layout;
}

static fwu_layout decimal_layout()
{
    return {.dbname = "SALES", .dsetname = "D", .items = {{.name = "NET", .type = 'P', .size = 2}}};
}

static std::vector<std::string> words(const written_log &log, std::vector<std::string> more)
{
    more.insert(more.begin(), {program, "sql", "-cfg", log.cfg, "--dialect", "sqlite"});
    return more;
}

static run_result sql(const written_log &log, const std::vector<std::string> &more = {})
{
    return run_program(words(log, more));
}

static void add(written_log &log, uint64_t no)
{
    log.begin();
    log.insert(items_layout(), le(no, 4));
    log.commit();
}

static std::string insert(int no)
{
    return "INSERT INTO \"SALES_T\" (\"NO\") VALUES (" + std::to_string(no) + ");\n";
}

static std::string transaction(int no)
{
    return "BEGIN;\n" + insert(no) + "COMMIT;\n";
}

TEST(FwlogSql, TransactionsOfARange)
{
    written_log log; // layout, insert and commit: 1 to 3; 4, 5; 6, 7
    for (uint64_t no = 1; no <= 3; no++)
        add(log, no);
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, transaction(1) + transaction(2) + transaction(3)},
        {{"--after", "1-1.3"}, transaction(2) + transaction(3)},
        {{"--after", "0001-00000001.0000000005"}, transaction(3)},
        {{"--from", "1-1.4"}, transaction(2) + transaction(3)},
        {{"--to", "1-1.5"}, transaction(1) + transaction(2)},
        {{"--to", "1-1.6"}, transaction(1) + transaction(2) + transaction(3)}, // all its changes
        {{"--after", "1-1.3", "--to", "1-1.5"}, transaction(2)},
        {{"--after", "1-1.7"}, ""},
        {{"--dset", "OTHER"}, ""},
        {{"--dset", "sales:"}, transaction(1) + transaction(2) + transaction(3)},
    };
    for (const auto &[options, expected] : cases) {
        const run_result result = sql(log, options);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.out, expected);
    }
}

TEST(FwlogSql, ARangeThatBeginsInsideATransactionIsRefused)
{
    written_log log;
    add(log, 1);
    log.begin(); // 4 to 6
    log.insert(items_layout(), le(2, 4));
    log.insert(items_layout(), le(3, 4));
    log.commit();
    for (const std::vector<std::string> &options : {std::vector<std::string>{"--after", "1-1.4"},
                                                    {"--after", "1-1.5"},
                                                    {"--from", "1-1.5"},
                                                    {"--from", "1-1.6"}}) {
        const run_result result = sql(log, options);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "fwlog: position " + options[1] +
                                  " stands inside the transaction 1-1.4 to 6, which can only be "
                                  "applied whole: begin behind it or behind the one before\n");
    }
    EXPECT_EQ(sql(log, {"--after", "1-1.3"}).out, "BEGIN;\n" + insert(2) + insert(3) + "COMMIT;\n");
    EXPECT_EQ(sql(log, {"--after", "1-1.6"}).out, "");
}

TEST(FwlogSql, BytesThatAreNoValueEndItInFrontOfTheirTransaction)
{
    written_log log;
    add(log, 1);
    log.begin();
    log.insert(items_layout(), le(2, 4));
    log.insert(decimal_layout(), "\xAB\xCD"); // layout 5, change 6
    log.commit();
    add(log, 3);
    const run_result result = sql(log);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, transaction(1));
    EXPECT_EQ(result.err,
              "fwlog: position 1-1.6: SALES.D item NET has bytes that are no number: 0xABCD; "
              "correct the row at the source and go on behind this transaction with --after, or "
              "leave the dataset out with --dset\n");
    EXPECT_EQ(sql(log, {"--after", "1-1.7"}).out, transaction(3));
    EXPECT_EQ(sql(log, {"--dset", "T"}).out, transaction(1) + transaction(2) + transaction(3));
}

TEST(FwlogSql, MarksStopOrAreToldAndPassedOver)
{
    written_log log;
    add(log, 1);
    log.begin();
    log.mark({.kind = FWU_MARK_GAP, .reason = "the slot was lost"});
    log.commit();
    add(log, 2);
    const std::string text =
        "fwlog: position 1-1.4: changes of all tables are missing from here on (the slot was lost)";
    run_result result = sql(log);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, transaction(1));
    EXPECT_EQ(result.err, text + ": see what is missing, then go on with --gap skip\n");
    result = sql(log, {"--gap", "skip"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, text + "; passed over\n");
    EXPECT_EQ(result.out, transaction(1) + "BEGIN;\nCOMMIT;\n" + transaction(2));
}

// What came before --after says which layouts the tables have.
TEST(FwlogSql, LayoutsBehindAfterAreComparedWithThoseBeforeIt)
{
    written_log log;
    add(log, 1);
    log.new_file();
    log.begin();
    log.insert(items_layout(true), le(2, 4) + le(7, 4));
    log.commit();
    const std::string wide = "INSERT INTO \"SALES_T\" (\"NO\", \"MORE\") VALUES (2, 7);\nCOMMIT;\n";
    for (const std::vector<std::string> &options :
         {std::vector<std::string>{}, {"--after", "1-1.3"}})
        EXPECT_THAT(sql(log, options).out,
                    testing::EndsWith("BEGIN;\nALTER TABLE \"SALES_T\" ADD COLUMN \"MORE\" "
                                      "INTEGER;\n" +
                                      wide));
    EXPECT_EQ(sql(log, {"--from", "1-2"}).out, "BEGIN;\n" + wide);
    EXPECT_EQ(sql(log, {"--after", "1-1.3", "--keep-tables"}).out, "BEGIN;\n" + wide);
}

TEST(FwlogSql, ALogFileThatIsGoneIsAGap)
{
    written_log log;
    for (uint64_t no = 1; no <= 3; no++) {
        log.new_file();
        add(log, no);
    }
    std::filesystem::remove(log.log + "/fw0001-00000002.log");
    const run_result result = sql(log);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("fw0001-00000002.log: the log file is missing"));
    EXPECT_EQ(result.out, transaction(1));
}

TEST(FwlogSql, WrongCommandLinesAreRefusedWithStatusTwo)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "name the database's dialect with: --dialect"},
        {{"--dialect"}, "option lacks its dialect: --dialect"},
        {{"--dialect", "db"}, "not a dialect (postgresql, sqlite): db"},
        {{"--truncate", "x"}, "not apply, stop or skip: x"},
        {{"--gap", "apply"}, "not stop or skip: apply"},
        {{"--key", "ORDERS"}, "not a dataset and its key (ORDERS=ORDER-NO,LINE-NO): ORDERS"},
        {{"--key", "=A"}, "not a dataset and its key (ORDERS=ORDER-NO,LINE-NO): =A"},
        {{"--key", "A="}, "not a dataset and its key (ORDERS=ORDER-NO,LINE-NO): A="},
        {{"--key", "A=B,"}, "not a dataset and its key (ORDERS=ORDER-NO,LINE-NO): A=B,"},
        {{"--rename", "A"}, "not two columns (remark=note): A"},
        {{"--rename", "A="}, "not two columns (remark=note): A="},
        {{"--rename", "=B"}, "not two columns (remark=note): =B"},
        {{"--position-table", ""}, "not a table's name: "},
        {{"--dialect", "sqlite", "--position-table", "p", "--from", "1-1"},
         "with --position-table begin at the log's beginning or with --after, not: --from"},
        {{"--dialect", "sqlite", "--after", "1-1.3", "--from", "1-1"},
         "give only one of --after and --from: --after"},
    };
    const written_log log;
    for (const auto &[options, message] : cases) {
        std::vector<std::string> argv = {program, "sql", "-cfg", log.cfg};
        argv.insert(argv.end(), options.begin(), options.end());
        const run_result result = run_program(argv);
        EXPECT_EQ(result.status, 2) << message;
        EXPECT_EQ(result.err, "fwlog: " + message + "\nTry \"fwlog --help\".\n");
    }
}

// The command with a pipe as standard output, and what is read of it.
class FwlogSqlPipeTest : public testing::Test {
  protected:
    void start(std::vector<std::string> argv)
    {
        int ends[2] = {-1, -1};
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        pid = fork();
        if (pid == 0) {
            std::vector<char *> words;
            for (std::string &word : argv)
                words.push_back(word.data());
            words.push_back(nullptr);
            if (dup2(ends[1], 1) < 0)
                _exit(126);
            execv(words[0], words.data());
            _exit(127);
        }
        close(ends[1]);
        reader = ends[0];
    }
    void TearDown() override
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            (void)wait_program(pid);
        }
        close(reader);
    }
    // Reads until so many bytes, or this text, have come, or all.
    void read_until(size_t bytes, const std::string &text = "")
    {
        char block[4096];
        while (out.size() < bytes && (text.empty() || out.find(text) == std::string::npos)) {
            const ssize_t n = read(reader, block, sizeof block);
            if (n <= 0)
                break;
            out.append(block, static_cast<size_t>(n));
        }
    }
    int ended(int signal)
    {
        kill(pid, signal);
        const int status = wait_program(pid);
        pid = -1;
        return status;
    }
    std::string out;
    pid_t pid = -1;
    int reader = -1;
};

TEST_F(FwlogSqlPipeTest, ItFollowsTheLogUntilASignal)
{
    written_log log;
    add(log, 1);
    start(words(log, {"-f"}));
    read_until(SIZE_MAX, transaction(1));
    for (const int no : {2, 3}) {
        add(log, static_cast<uint64_t>(no));
        read_until(SIZE_MAX, transaction(no));
    }
    EXPECT_EQ(ended(SIGTERM), 128 + SIGTERM);
    read_until(SIZE_MAX);
    EXPECT_EQ(out, transaction(1) + transaction(2) + transaction(3));
}

TEST_F(FwlogSqlPipeTest, ALargeTransactionThatIsCutShortHasNoCommit)
{
    written_log log;
    add(log, 1);
    log.begin();
    for (uint64_t no = 0; no < 100000; no++) // 5 MB of text
        log.insert(items_layout(), le(no, 4));
    log.commit();
    for (const int signal : {SIGTERM, SIGKILL}) {
        out.clear();
        start(words(log, {}));
        read_until(2'000'000);
        EXPECT_EQ(ended(signal), 128 + signal);
        read_until(SIZE_MAX);
        EXPECT_TRUE(out.starts_with(transaction(1) + "BEGIN;\n"));
        EXPECT_EQ(out.find("COMMIT", transaction(1).size()), std::string::npos);
        close(reader);
    }
    reader = -1;
}

TEST(FwlogSql, ALargeTransactionWithAnErrorIsTakenBack)
{
    written_log log;
    log.begin();
    for (uint64_t no = 0; no < 50000; no++)
        log.insert(items_layout(), le(no, 4));
    log.insert(decimal_layout(), "\xAB\xCD");
    log.commit();
    const run_result result = sql(log);
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.out.starts_with("BEGIN;\n"));
    EXPECT_TRUE(result.out.ends_with(";\nROLLBACK;\n"));
    EXPECT_THAT(result.out, Not(HasSubstr("COMMIT")));
}
