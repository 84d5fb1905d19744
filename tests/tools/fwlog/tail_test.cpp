// The tail command: which transactions it prints, following a log that grows, and
// how it ends.
#include "tests/procs/growing_log.h"
#include "tests/tools/fwlog/built_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

using testing::HasSubstr;

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";

static run_result tail(const place &here, std::vector<std::string> words = {})
{
    words.insert(words.begin(), {program, "tail", "-cfg", here.dir.file("fwutil.cfg")});
    return run_program(words);
}

// First words of the lines that are not indented.
static std::string positions(const std::string &out)
{
    std::string found;
    for (size_t at = 0; at < out.size(); at = out.find('\n', at) + 1)
        if (out[at] != ' ')
            found += out.substr(at, out.find(' ', at) - at) + " ";
    return found;
}

// A file with a layout and transactions of one insert each.
static log_file several(int32_t sequence, int transactions)
{
    log_file file(sequence, false);
    file.layout();
    for (int i = 0; i < transactions; i++) {
        file.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
        file.commit();
    }
    return file;
}

TEST(FwlogTail, PrintsWhatDumpPrints)
{
    place here;
    here.add(25, whole_file(25).bytes);
    for (const std::vector<std::string> &words : {std::vector<std::string>{}, {"--hex"}}) {
        const run_result result = tail(here, words);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, here.dump(words).out);
    }
}

TEST(FwlogTail, TheLastTransactionsAreShownByLayoutsThatStandBeforeThem)
{
    place here;
    here.add(25, several(25, 3).bytes);
    const run_result result = tail(here, {"-n", "1"});
    EXPECT_EQ(result.status, 0);
    // The layout has 104 bytes, each insert 72, each commit 56.
    EXPECT_EQ(result.out,
              "1-25 file fw0001-00000025.log, little-endian, created 1970-01-02 00:00:01.500000\n"
              "1-25.6 @424 insert SALES.ORDERS 1970-01-02 00:01:01 record 12, 8 bytes\n"
              "    after NO=5 NET=12.3 TAG={\"a\",\"b\"}\n"
              "1-25.7 @496 commit 1970-01-02 00:01:01.000250 xid 7 lsn 1A/2B, 1 entries\n");
}

TEST(FwlogTail, CountsTransactionsAcrossFiles)
{
    place here;
    here.add(1, several(1, 9).bytes);
    here.add(2, several(2, 2).bytes);
    here.add(3, several(3, 0).bytes); // a layout without its transaction: a tail
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"0", ""},
        {"1", "1-2 1-2.4 1-2.5 "},
        {"2", "1-2 1-2.1 1-2.2 1-2.3 1-2.4 1-2.5 "},
        {"3", "1-1 1-1.18 1-1.19 1-2 1-2.1 1-2.2 1-2.3 1-2.4 1-2.5 "},
    };
    for (const auto &[n, expected] : cases) {
        const run_result result = tail(here, {"-n", n});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(positions(result.out), expected) << n;
    }
    EXPECT_THAT(positions(tail(here).out), testing::StartsWith("1-1 1-1.4 1-1.5 ")) << "ten";
    EXPECT_THAT(positions(tail(here, {"-n", "11"}).out),
                testing::StartsWith("1-1 1-1.1 1-1.2 1-1.3 "));
    EXPECT_EQ(tail(here, {"-n", "18446744073709551615"}).out, tail(here, {"-n", "11"}).out);
}

TEST(FwlogTail, AnEmptyLogPrintsNothing)
{
    const place here;
    const run_result result = tail(here);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
}

TEST(FwlogTail, DamageIsAFailureBehindWhatCanBePrinted)
{
    place here;
    log_file bad = several(2, 2);
    bad.bytes[64 + 104 + 72 + 56 + 30] ^= 1; // in the second insert
    here.add(1, several(1, 2).bytes);
    here.add(2, bad.bytes);
    const std::string text = "/fw0001-00000002.log: damaged at offset 296: ";
    run_result result = tail(here);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(positions(result.out), "1-1 1-1.1 1-1.2 1-1.3 1-1.4 1-1.5 1-2 1-2.1 1-2.2 1-2.3 ");
    EXPECT_THAT(result.err, HasSubstr(text));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);

    here.add(3, several(3, 2).bytes);
    result = tail(here);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(positions(result.out), "1-3 1-3.1 1-3.2 1-3.3 1-3.4 1-3.5 ");
    EXPECT_THAT(result.err, HasSubstr(text));
    EXPECT_EQ(tail(here, {"-n", "2"}).status, 0) << "the damage is not reached";
}

TEST(FwlogTail, WrongCommandLinesAreRefusedWithStatusTwo)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--bad"}, "unknown option: --bad"},
        {{"word"}, "unexpected word: word"},
        {{"-cfg"}, "option lacks its file name: -cfg"},
        {{"-n"}, "option lacks its number: -n"},
        {{"-n", "x"}, "not a number of transactions: x"},
        {{"-n", "-1"}, "not a number of transactions: -1"},
        {{"-n", ""}, "not a number of transactions: "},
    };
    const place here;
    for (const auto &[words, message] : cases) {
        const run_result result = tail(here, words);
        EXPECT_EQ(result.status, 2) << message;
        EXPECT_EQ(result.err, "fwlog: " + message + "\nTry \"fwlog --help\".\n");
    }
    EXPECT_THAT(tail(here, {"--help"}).out, testing::StartsWith("Usage: fwlog tail "));
    std::filesystem::remove(here.dir.file("log"));
    EXPECT_EQ(tail(here).status, 1);
}

TEST(FwlogTail, OutputThatCannotBeWrittenIsAFailure)
{
    place here;
    here.add(1, several(1, 1).bytes);
    const run_result result = run_program(
        {"sh", "-c",
         "exec " + program + " tail -f -cfg " + here.dir.file("fwutil.cfg") + " >/dev/full"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "fwlog: writing standard output: No space left on device\n");
}

// A log with a writer, and "fwlog tail -f" whose output goes into a file.
class FwlogTailFollowTest : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64M");
        options.directory = dir.path();
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        config.log_file_size = 1000; // six transactions, of 304 bytes and 144 each
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    }
    void TearDown() override
    {
        fwu_writer_close(writer);
        if (tail_pid > 0) { // a case that failed halfway
            kill(tail_pid, SIGKILL);
            (void)wait_program(tail_pid);
        }
    }
    void add(int first)
    {
        ASSERT_TRUE(append_transaction(writer, first, 1));
    }
    std::string printed() const
    {
        return read_file(dir.file("out"));
    }
    void wait_for(const std::string &text) const
    {
        ASSERT_TRUE(poll_until([&] { return printed().find(text) != std::string::npos; }))
            << printed() << read_file(dir.file("err"));
    }
    void start(const std::vector<std::string> &more = {})
    {
        std::vector<std::string> words = {program, "tail", "-f"};
        words.insert(words.end(), more.begin(), more.end());
        tail_pid = start_program(words, options, dir.file("out"), dir.file("err"));
    }
    // Its exit status once it has ended.
    int ended()
    {
        const int status = wait_program(tail_pid);
        tail_pid = -1;
        return status;
    }
    tempdir dir;
    run_setup options;
    fwu_config config;
    fwu_writer *writer = nullptr;
    pid_t tail_pid = -1;
};

TEST_F(FwlogTailFollowTest, TransactionsAreShownAsTheyComeAcrossFiles)
{
    int n = 0;
    for (const int signal : {SIGTERM, SIGINT}) {
        start({"-n", "1000000"});
        for (int i = 0; i < 20; i++) {
            ASSERT_NO_FATAL_FAILURE(add(++n));
            ASSERT_NO_FATAL_FAILURE(wait_for(" NUMBER=" + std::to_string(n) + " "));
        }
        kill(tail_pid, signal);
        EXPECT_EQ(ended(), 128 + signal);
        EXPECT_EQ(read_file(dir.file("err")), "");
        EXPECT_EQ(printed(), run_program({program, "dump"}, options).out);
    }
    EXPECT_THAT(printed(), HasSubstr("\n1-5 file "));
}

TEST_F(FwlogTailFollowTest, ItBeginsWithTheLastTransactions)
{
    for (int n = 1; n <= 20; n++)
        ASSERT_NO_FATAL_FAILURE(add(n));
    start({"-n", "2"});
    ASSERT_NO_FATAL_FAILURE(wait_for(" NUMBER=20 "));
    ASSERT_NO_FATAL_FAILURE(add(21));
    ASSERT_NO_FATAL_FAILURE(wait_for(" NUMBER=21 "));
    kill(tail_pid, SIGTERM);
    EXPECT_EQ(ended(), 128 + SIGTERM);
    EXPECT_THAT(printed(), HasSubstr(" NUMBER=19 "));
    EXPECT_THAT(printed(), testing::Not(HasSubstr(" NUMBER=18 ")));
}

TEST_F(FwlogTailFollowTest, ATransactionThatIsNotCommittedIsNotShown)
{
    ASSERT_NO_FATAL_FAILURE(add(1));
    const std::string path = dir.file("log/fw0001-00000001.log");
    const std::string whole = read_file(path);
    ASSERT_NO_FATAL_FAILURE(add(2));
    const std::string next = read_file(path).substr(whole.size());
    write_file(path, whole + next.substr(0, next.size() - 1));
    start();
    ASSERT_NO_FATAL_FAILURE(wait_for("commit"));
    const std::string before = printed();
    EXPECT_THAT(before, testing::Not(HasSubstr(" NUMBER=2 ")));
    std::ofstream(path, std::ios::binary | std::ios::app) << next.back();
    ASSERT_NO_FATAL_FAILURE(wait_for(" NUMBER=2 "));
    kill(tail_pid, SIGTERM);
    EXPECT_EQ(ended(), 128 + SIGTERM);
}

// Tail with a pipe as standard output.
static pid_t start_into_pipe(const tempdir &dir, int &reader)
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        const int err = open(dir.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        if (chdir(dir.path().c_str()) != 0 || dup2(ends[1], 1) < 0 || dup2(err, 2) < 0)
            _exit(126);
        execl(program.c_str(), program.c_str(), "tail", "-f", "-n", "1000000", nullptr);
        _exit(127);
    }
    close(ends[1]);
    reader = ends[0];
    return pid;
}

TEST_F(FwlogTailFollowTest, APipeWhoseReaderIsGoneEndsItThoughNothingComes)
{
    ASSERT_NO_FATAL_FAILURE(add(1));
    int reader = -1;
    tail_pid = start_into_pipe(dir, reader);
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 1);
    close(reader);
    EXPECT_EQ(ended(), 128 + SIGPIPE);
}

TEST_F(FwlogTailFollowTest, ASignalEndsItThoughNobodyTakesItsOutput)
{
    for (int n = 1; n <= 1000; n++) // more than a pipe holds
        ASSERT_NO_FATAL_FAILURE(add(n));
    int reader = -1;
    tail_pid = start_into_pipe(dir, reader);
    int held = 0;
    ASSERT_TRUE(poll_until([&] { return ioctl(reader, FIONREAD, &held) == 0 && held > 60000; }));
    kill(tail_pid, SIGTERM);
    EXPECT_EQ(ended(), 128 + SIGTERM);
    close(reader);
    EXPECT_EQ(read_file(dir.file("err")), "");
}
