// tail --json: where it begins, going on with a log that grows, and how it ends.
#include "tests/procs/growing_log.h"
#include "tests/tools/fwlog/json_lines.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

using testing::HasSubstr;

// A log with a writer, of files of six transactions.
class FwlogJsonTailTest : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64M");
        options.directory = dir.path();
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        config.log_file_size = 1000; // 304 bytes and 144 each
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
    void add(int first, int changes = 1)
    {
        ASSERT_TRUE(append_transaction(writer, first, changes));
    }
    run_result tail(const std::vector<std::string> &more) const
    {
        std::vector<std::string> words = {FWLOG, "tail", "--json"};
        words.insert(words.end(), more.begin(), more.end());
        return run_program(words, options);
    }
    std::string dump(const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> words = {FWLOG, "dump", "--json"};
        words.insert(words.end(), more.begin(), more.end());
        return run_program(words, options).out;
    }
    void start(const std::vector<std::string> &more)
    {
        std::vector<std::string> words = {FWLOG, "tail", "-f", "--json"};
        words.insert(words.end(), more.begin(), more.end());
        tail_pid = start_program(words, options, dir.file("out"), dir.file("err"));
    }
    std::string printed() const
    {
        return read_file(dir.file("out"));
    }
    void wait_for(int number) const
    {
        const std::string text = "\"NUMBER\":" + std::to_string(number) + ",";
        ASSERT_TRUE(poll_until([&] { return printed().find(text) != std::string::npos; }))
            << printed() << read_file(dir.file("err"));
    }
    // Its exit status once it has ended.
    int ended()
    {
        const int status = wait_program(tail_pid);
        tail_pid = -1;
        return status;
    }
    // With a pipe as standard output.
    int start_into_pipe()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        tail_pid = fork();
        if (tail_pid == 0) {
            const int err = open(dir.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
            if (chdir(dir.path().c_str()) != 0 || dup2(ends[1], 1) < 0 || dup2(err, 2) < 0)
                _exit(126);
            execl(FWLOG, FWLOG, "tail", "-f", "--json", "-n", "1000000", nullptr);
            _exit(127);
        }
        close(ends[1]);
        return ends[0];
    }
    tempdir dir;
    run_setup options;
    fwu_config config;
    fwu_writer *writer = nullptr;
    pid_t tail_pid = -1;
};

TEST_F(FwlogJsonTailTest, PrintsTheLastTransactions)
{
    for (int n = 1; n <= 8; n++) // four in each file
        ASSERT_NO_FATAL_FAILURE(add(10 * n, 2));
    const std::string all = dump();
    const std::string summary = json_lines_summary(all);
    EXPECT_EQ(tail({}).out, all) << "ten";
    EXPECT_EQ(tail({"-n", "18446744073709551615"}).out, all);
    const std::string fourth = "c1-1.11#1 c1-1.12#2! ";
    const std::string last = "c1-2.5#1 c1-2.6#2! c1-2.8#1 c1-2.9#2! c1-2.11#1 c1-2.12#2! ";
    ASSERT_TRUE(summary.ends_with(fourth + "c1-2.2#1 c1-2.3#2! " + last)) << summary;
    const std::pair<const char *, std::string> cases[] = {
        {"0", ""},
        {"1", "S:COUNTER c1-2.11#1 c1-2.12#2! "},
        {"3", "S:COUNTER " + last},
        {"4", "S:COUNTER c1-2.2#1 c1-2.3#2! " + last},
        {"5", "S:COUNTER " + fourth + "c1-2.2#1 c1-2.3#2! " + last},
        {"8", summary},
    };
    for (const auto &[n, expected] : cases) {
        const run_result result = tail({"-n", n});
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(json_lines_summary(result.out), expected) << n;
    }
    EXPECT_EQ(tail({"-n", "3", "--dset", "OTHER"}).out, "") << "they count, selected or not";
}

TEST_F(FwlogJsonTailTest, APositionStandsInsteadOfANumber)
{
    for (int n = 1; n <= 30; n++)
        ASSERT_NO_FATAL_FAILURE(add(n));
    for (const std::vector<std::string> &words : {std::vector<std::string>{"--from", "1-1"},
                                                  {"--from", "1-2.3"},
                                                  {"--after", "1-1.3"},
                                                  {"--after", "1-1.3", "--to", "1-3.2"},
                                                  {"--from", "2", "--to", "3"}}) {
        const run_result result = tail(words);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_NE(result.out, "");
        EXPECT_EQ(result.out, dump(words)) << testing::PrintToString(words);
    }
    for (const char *option : {"--from", "--after"}) {
        const run_result result = tail({"-n", "10", option, "1-1.2"});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err, "fwlog: give only one of -n, --after and --from: -n\n"
                              "Try \"fwlog --help\".\n");
    }
    EXPECT_EQ(tail({"--after", "1-1.2", "--from", "1"}).status, 2);
    EXPECT_EQ(tail({"--after", "7-1.2"}).status, 1) << "the log has no such file";
}

TEST_F(FwlogJsonTailTest, TheTextHasNoRange)
{
    for (const char *option : {"--from", "--to", "--after"}) {
        const run_result result = run_program({FWLOG, "tail", option, "1-1.2"}, options);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err, "fwlog: option needs --json: " + std::string(option) +
                                  "\nTry \"fwlog --help\".\n");
    }
}

TEST_F(FwlogJsonTailTest, AnEmptyLogPrintsNothing)
{
    const run_result result = tail({});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
}

TEST_F(FwlogJsonTailTest, TransactionsAreShownAsTheyComeAcrossFiles)
{
    int n = 0;
    for (const int signal : {SIGTERM, SIGINT}) {
        start({"-n", "1000000"});
        for (int i = 0; i < 20; i++) {
            ASSERT_NO_FATAL_FAILURE(add(++n));
            ASSERT_NO_FATAL_FAILURE(wait_for(n));
        }
        kill(tail_pid, signal);
        EXPECT_EQ(ended(), 128 + signal);
        EXPECT_EQ(read_file(dir.file("err")), "");
        EXPECT_EQ(printed(), dump());
    }
    EXPECT_THAT(printed(), HasSubstr("\"position\":\"1-5."));
}

TEST_F(FwlogJsonTailTest, ItBeginsWithTheLastTransactions)
{
    for (int n = 1; n <= 20; n++)
        ASSERT_NO_FATAL_FAILURE(add(n));
    start({"-n", "2"});
    ASSERT_NO_FATAL_FAILURE(wait_for(20));
    ASSERT_NO_FATAL_FAILURE(add(21));
    ASSERT_NO_FATAL_FAILURE(wait_for(21));
    kill(tail_pid, SIGTERM);
    EXPECT_EQ(ended(), 128 + SIGTERM);
    EXPECT_EQ(json_lines_summary(printed()), "S:COUNTER c1-4.2#1! c1-4.4#1! c1-4.6#1! ");
}

TEST_F(FwlogJsonTailTest, OrWithNewOnesOnly)
{
    ASSERT_NO_FATAL_FAILURE(add(1));
    start({"-n", "0"});
    int n = 1; // it may begin behind some of these
    ASSERT_TRUE(poll_until([&] { return append_transaction(writer, ++n, 1) && printed() != ""; }));
    ASSERT_NO_FATAL_FAILURE(wait_for(n));
    kill(tail_pid, SIGTERM);
    EXPECT_EQ(ended(), 128 + SIGTERM);
    EXPECT_THAT(printed(), testing::Not(HasSubstr("\"NUMBER\":1,")));
}

TEST_F(FwlogJsonTailTest, ItEndsWhereTheRangeDoes)
{
    ASSERT_NO_FATAL_FAILURE(add(1));
    start({"-n", "1", "--to", "1-1.5"}); // the commit of the second transaction
    ASSERT_NO_FATAL_FAILURE(wait_for(1));
    ASSERT_NO_FATAL_FAILURE(add(2));
    EXPECT_EQ(ended(), 0);
    EXPECT_EQ(json_lines_summary(printed()), "S:COUNTER c1-1.2#1! c1-1.4#1! ");
}

TEST_F(FwlogJsonTailTest, ATransactionThatIsNotCommittedIsNotShown)
{
    ASSERT_NO_FATAL_FAILURE(add(1));
    const std::string path = dir.file("log/fw0001-00000001.log");
    const std::string whole = read_file(path);
    ASSERT_NO_FATAL_FAILURE(add(2));
    const std::string next = read_file(path).substr(whole.size());
    write_file(path, whole + next.substr(0, next.size() - 1));
    start({});
    ASSERT_NO_FATAL_FAILURE(wait_for(1));
    EXPECT_EQ(json_lines_summary(printed()), "S:COUNTER c1-1.2#1! ");
    std::ofstream(path, std::ios::binary | std::ios::app) << next.back();
    ASSERT_NO_FATAL_FAILURE(wait_for(2));
    kill(tail_pid, SIGTERM);
    EXPECT_EQ(ended(), 128 + SIGTERM);
}

TEST_F(FwlogJsonTailTest, WhatIsBehindDamageIsPrintedAndTheDamageIsTold)
{
    for (int n = 1; n <= 8; n++)
        ASSERT_NO_FATAL_FAILURE(add(n));
    const std::string path = dir.file("log/fw0001-00000001.log");
    std::string bytes = read_file(path);
    bytes[bytes.size() - 56 - 8] ^= 1; // in the last insert
    write_file(path, bytes);
    const run_result result = tail({});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("/fw0001-00000001.log: damaged at offset "));
    EXPECT_EQ(json_lines_summary(result.out), "S:COUNTER c1-2.2#1! c1-2.4#1! ");
}

TEST_F(FwlogJsonTailTest, APipeWhoseReaderIsGoneEndsItThoughNothingComes)
{
    ASSERT_NO_FATAL_FAILURE(add(1));
    const int reader = start_into_pipe();
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 1);
    close(reader);
    EXPECT_EQ(ended(), 128 + SIGPIPE);
}

TEST_F(FwlogJsonTailTest, ASignalEndsItThoughNobodyTakesItsOutput)
{
    for (int n = 1; n <= 1000; n++) // more than a pipe holds
        ASSERT_NO_FATAL_FAILURE(add(n));
    const int reader = start_into_pipe();
    int held = 0;
    ASSERT_TRUE(poll_until([&] { return ioctl(reader, FIONREAD, &held) == 0 && held > 60000; }));
    kill(tail_pid, SIGTERM);
    EXPECT_EQ(ended(), 128 + SIGTERM);
    close(reader);
    EXPECT_EQ(read_file(dir.file("err")), "");
}

// A signal in the midst of a transaction whose lines are more than a pipe holds.
TEST_F(FwlogJsonTailTest, ASignalLetsTheTransactionInHandEnd)
{
    constexpr int changes = 2000;
    ASSERT_NO_FATAL_FAILURE(add(1, changes));
    ASSERT_NO_FATAL_FAILURE(add(1));
    const int reader = start_into_pipe();
    std::string out(1, '\0');
    ASSERT_EQ(read(reader, out.data(), 1), 1);
    int held = 0;
    ASSERT_TRUE(poll_until([&] { return ioctl(reader, FIONREAD, &held) == 0 && held > 60000; }));
    // From here on there is room whenever it looks: the pipe is emptied before the signal is
    // sent and while it is dealt with.
    std::string piece(1 << 16, '\0');
    bool sent = false;
    for (ssize_t n = 0; (n = read(reader, piece.data(), piece.size())) > 0;) {
        out.append(piece, 0, static_cast<size_t>(n));
        if (!sent && out.size() > 200000)
            sent = kill(tail_pid, SIGTERM) == 0;
    }
    close(reader);
    ended();
    EXPECT_EQ(out.back(), '\n');
    const size_t at = out.rfind('\n', out.size() - 2) + 1;
    EXPECT_THAT(out.substr(at), HasSubstr("\"last\":true}"));
}
