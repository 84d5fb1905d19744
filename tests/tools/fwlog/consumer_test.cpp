// A state that follows a consumer: what is given again and what is not, whoever ends first and
// however, and what a consumer may say.
#include "fwutil/fwu_status_text.h"
#include "tests/procs/growing_log.h"
#include "tests/support/markdown.h"
#include "tests/support/program.h"
#include "tests/tools/fwlog/consumer_peer.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <thread>

using testing::HasSubstr;
using testing::StartsWith;

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";

class Consumer : public testing::Test {
  protected:
    Consumer()
    {
        (void)signal(SIGPIPE, SIG_IGN);
        write_config(dir, "4K");
    }
    ~Consumer() override
    {
        (void)fwu_writer_close(writer);
        (void)signal(SIGPIPE, SIG_DFL);
    }
    // Appends a transaction of n numbers, which count up through the log.
    void append(int n)
    {
        fwu_config config;
        if (writer == nullptr) {
            ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
            ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        }
        ASSERT_TRUE(append_transaction(writer, numbers + 1, n));
        numbers += n;
    }
    std::vector<std::string> words(const std::string &command, std::vector<std::string> more = {})
    {
        std::vector<std::string> all = {program,  command,   "-cfg", dir.file("fwutil.cfg"),
                                        "--json", "--state", state};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    // Reads the rest of the log beside a consumer that acknowledges nothing: its numbers.
    std::vector<int> rest(std::vector<std::string> more = {"--ack"})
    {
        peer fwlog(words("dump", std::move(more)), error);
        std::vector<int> found;
        for (std::string line; !(line = fwlog.change()).empty();)
            found.push_back(number(line));
        fwlog.end_input();
        (void)fwlog.wait();
        return found;
    }
    std::vector<int> numbers_from(int first) const
    {
        std::vector<int> all;
        for (int i = first; i <= numbers; i++)
            all.push_back(i);
        return all;
    }
    static int number(const std::string &line)
    {
        return atoi(json_field(line, "NUMBER").c_str());
    }
    static std::string position(const std::string &line)
    {
        return json_field(line, "position");
    }
    static std::string transaction(const std::string &line)
    {
        return json_field(line, "id");
    }
    std::string told() const
    {
        return read_file(error);
    }

    tempdir dir;
    std::string state = dir.file("state");
    std::string error = dir.file("error");
    fwu_writer *writer = nullptr;
    int numbers = 0;
};

TEST_F(Consumer, WhatIsAcknowledgedIsNotGivenAgain)
{
    for (int i = 0; i < 5; i++)
        append(2);
    peer fwlog(words("dump", {"--ack"}), error);
    std::string line;
    for (int i = 0; i < 4; i++)
        line = fwlog.change();
    EXPECT_EQ(number(line), 4);
    ASSERT_TRUE(fwlog.say(transaction(line) + "\n"));
    fwlog.end_input();
    EXPECT_EQ(fwlog.wait(), 1);
    EXPECT_EQ(
        told(),
        "fwlog: standard input has ended without acknowledging all that was written: 3 of the "
        "transactions come again at the next start\n");
    EXPECT_EQ(rest(), numbers_from(5));
}

TEST_F(Consumer, AStartInsideATransactionCountsOn)
{
    append(1);
    append(4);
    {
        peer fwlog(words("dump", {"--ack"}), error);
        std::string line;
        for (int i = 0; i < 3; i++)
            line = fwlog.change();
        EXPECT_EQ(json_field(line, "n"), "2");
        ASSERT_TRUE(fwlog.say(position(line) + "\n"));
        fwlog.end_input();
        EXPECT_EQ(fwlog.wait(), 1);
    }
    peer fwlog(words("dump", {"--ack"}), error);
    const std::string line = fwlog.change();
    EXPECT_EQ(number(line), 4);
    EXPECT_EQ(json_field(line, "n"), "3");
}

TEST_F(Consumer, WhoReadsToTheEndFirstMayAcknowledgeThen)
{
    for (int i = 0; i < 300; i++)
        append(1);
    peer fwlog(words("dump", {"--ack"}), error);
    std::vector<std::string> ids;
    for (std::string line; !(line = fwlog.change()).empty();)
        ids.push_back(transaction(line));
    ASSERT_EQ(ids.size(), 300U) << "and then standard output has ended";
    for (const std::string &id : ids)
        ASSERT_TRUE(fwlog.say(id + "\n"));
    EXPECT_EQ(fwlog.wait(), 0) << "standard input is still open";
    EXPECT_EQ(told(), "");
    EXPECT_EQ(rest(), std::vector<int>());
}

TEST_F(Consumer, WhoAcknowledgesBeforeReadingOnDoesNotBlock)
{
    for (int i = 0; i < 3000; i++)
        append(1);
    peer fwlog(words("dump", {"--ack"}), error);
    std::string line = fwlog.change();
    std::string many;
    while (many.size() < 3'000'000)
        many += position(line) + "\n";
    ASSERT_TRUE(fwlog.say(many)) << "more than any pipe holds";
    std::vector<int> found = {number(line)};
    while (!(line = fwlog.change()).empty())
        found.push_back(number(line));
    EXPECT_EQ(found, numbers_from(1));
}

TEST_F(Consumer, FollowingGoesOnAndTheStateWithIt)
{
    append(2);
    peer fwlog(words("tail", {"-f", "--ack", "--dset", "TESTDB:"}), error);
    for (int i = 0; i < 20; i++) {
        std::string line;
        for (int k = 0; k < 2; k++)
            line = fwlog.change();
        ASSERT_EQ(number(line), 2 * i + 2);
        ASSERT_TRUE(fwlog.say(transaction(line) + "\n"));
        append(2);
    }
    fwlog.end_input();
    EXPECT_THAT(fwlog.wait(), testing::AnyOf(0, 1)); // the last one may have been written
    EXPECT_EQ(rest(), numbers_from(41));
}

TEST_F(Consumer, TheExampleOfThePageAcknowledgesEverything)
{
    NEED_PROGRAM("jq", "jq");
    for (int i = 0; i < 500; i++)
        append(1 + i % 3);
    const std::string block = md_find_block(md_page("docs/fwlog.md"), "mkfifo acks");
    const run_result result =
        run_program({"/bin/sh", "-c", "PATH=" KESTRO_BUILD_DIR "/bin:$PATH\n" + block},
                    {.directory = dir.path(), .input = "", .env = {}, .unset = {}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    state = dir.file("orders.state");
    EXPECT_EQ(rest(), std::vector<int>());
    EXPECT_EQ(told(), "");
}

TEST_F(Consumer, TransactionsOfOtherDatasetsMoveTheStateOn)
{
    for (int i = 0; i < 300; i++)
        append(1);
    peer fwlog(words("dump", {"--ack", "--dset", "OTHERS:"}), error);
    EXPECT_EQ(fwlog.wait(), 0) << told();
    EXPECT_EQ(rest(), std::vector<int>());
}

TEST_F(Consumer, WhoEndsWithEverythingAcknowledgedIsToldNothing)
{
    append(3);
    peer fwlog(words("tail", {"-f", "--ack"}), error);
    std::string line;
    for (int i = 0; i < 3; i++)
        line = fwlog.change();
    ASSERT_TRUE(fwlog.say(position(line) + "\n"));
    fwlog.end_input();
    EXPECT_EQ(fwlog.wait(), 0);
    EXPECT_EQ(told(), "");
}

TEST_F(Consumer, WhatWasWrittenBeforeTheReaderLeftCounts)
{
    for (int i = 0; i < 3000; i++)
        append(1);
    peer fwlog(words("tail", {"-f", "--ack"}), error);
    std::string line;
    for (int i = 0; i < 100; i++)
        line = fwlog.change();
    ASSERT_TRUE(fwlog.say(position(line) + "\n"));
    fwlog.end_output();
    fwlog.end_input();
    EXPECT_EQ(fwlog.wait(), 1);
    EXPECT_THAT(told(), HasSubstr("standard input has ended without acknowledging all that was "
                                  "written: "));
    EXPECT_THAT(told(), HasSubstr(" of the transactions come again at the next start\n"));
    EXPECT_EQ(rest(), numbers_from(101));
}

TEST_F(Consumer, WhereAcknowledgementsEndTheLineInHandIsWhole)
{
    for (int i = 0; i < 3000; i++)
        append(1);
    const std::string command = program + " dump -cfg " + dir.file("fwutil.cfg") +
                                " --json --state " + state + " --ack < /dev/null | cat";
    const run_result result = run_program({"/bin/sh", "-c", command});
    EXPECT_THAT(result.err, HasSubstr("standard input has ended"));
    EXPECT_LT(std::count(result.out.begin(), result.out.end(), '\n'), 3000);
    ASSERT_NE(result.out, "");
    EXPECT_EQ(result.out.back(), '\n');
    EXPECT_EQ(rest(), numbers_from(1));
}

TEST_F(Consumer, ASignalEndsItWithWhatIsAcknowledgedSoFar)
{
    append(3);
    for (const int number_of_signal : {SIGTERM, SIGINT}) {
        append(1);
        peer fwlog(words("tail", {"-f", "--ack"}), error);
        std::string line;
        while (number(line) != numbers)
            line = fwlog.change();
        ASSERT_TRUE(fwlog.say(position(line) + "\n"));
        fwlog.signal(number_of_signal);
        EXPECT_EQ(fwlog.wait(), 128 + number_of_signal);
        EXPECT_EQ(told(), "");
        EXPECT_EQ(rest(), std::vector<int>());
    }
    // Also when nobody reads what it has to write.
    for (int i = 0; i < 3000; i++)
        append(1);
    peer fwlog(words("dump", {"--ack"}), error);
    (void)fwlog.change();
    fwlog.signal(SIGTERM);
    EXPECT_EQ(fwlog.wait(), 128 + SIGTERM);
}

// What no run may wait for: one who writes without end and reads nothing.
TEST_F(Consumer, ASignalEndsItBesideOneWhoNeverStopsWriting)
{
    for (int i = 0; i < 3000; i++)
        append(1);
    peer fwlog(words("dump", {"--ack"}), error);
    const std::string line = fwlog.change();
    std::atomic<bool> over = false;
    std::thread writing([&] {
        while (fwlog.say(position(line) + "\n"))
            if (over)
                break;
    });
    fwlog.signal(SIGTERM);
    EXPECT_EQ(fwlog.wait(), 128 + SIGTERM);
    over = true;
    writing.join();
    EXPECT_EQ(rest(), numbers_from(2));
}

struct said_row {
    std::string said;
    const char *wrong;
};

TEST_F(Consumer, WhatIsNoAcknowledgementEndsItAndWhatCameBeforeCounts)
{
    using namespace std::string_literals;
    append(1); // 1-1.1 layout, .2, .3
    append(2); // .4 .5 .6
    const std::string form = " is no position of the form 1-25.340\n";
    for (const said_row &row : std::vector<said_row>{
             {"done\n", "line 2: \"done\" is no position"},
             {"\n", "line 2: \"\" is no position"},
             {"1-1\n", "line 2: \"1-1\" is no position"},
             {"1-1.0\n", "line 2: \"1-1.0\" is no position"},
             {"1.4\n", "line 2: \"1.4\" is no position"},
             {"1-1.4 \n", "line 2: \"1-1.4 \" is no position"},
             {"\"1-1.4\"\n", "line 2: \"\\\"1-1.4\\\"\" is no position"},
             {"1-1.4\r\n", "line 2: \"1-1.4\\x0D\" is no position"},
             {"1-1.\0004\n"s, "line 2: \"1-1.\\x004\" is no position"},
             {"1-1.99999999999\n", "line 2: \"1-1.99999999999\" is no position"},
             {std::string(100000, '1'), "line 2: \"1111111111111111"},
             {"1-1.7\n",
              "line 2: 1-1.7 was not written yet; the last position that was is 1-1.6\n"},
             {"1-2.1\n", "line 2: 1-2.1 was not written yet; "},
             {"9999-99999999.2147483647\n",
              "line 2: 9999-99999999.2147483647 was not written yet; "},
             {"1-1.1\n", "line 2: 1-1.1 stands before 1-1.2, which was acknowledged already\n"},
             {"1-1.2\n1-1.3\n1-1.2\n",
              "line 4: 1-1.2 stands before 1-1.3, which was acknowledged already\n"}}) {
        SCOPED_TRACE(row.wrong);
        (void)std::filesystem::remove(state);
        peer fwlog(words("tail", {"-f", "--ack"}), error);
        for (int i = 0; i < 3; i++)
            (void)fwlog.change();
        (void)fwlog.say("1-1.2\n" + row.said);
        EXPECT_EQ(fwlog.wait(), 1);
        EXPECT_THAT(told(), StartsWith(std::string("fwlog: standard input, ") + row.wrong));
        EXPECT_EQ(told().find('\n') + 1, told().size());
        EXPECT_EQ(rest(), numbers_from(2));
    }
}

TEST_F(Consumer, HalfALineIsNoAcknowledgement)
{
    append(12);
    peer fwlog(words("dump", {"--ack"}), error);
    for (int i = 0; i < 12; i++)
        (void)fwlog.change();
    ASSERT_TRUE(fwlog.say("1-1.2\n1-1.13")); // of a consumer killed before it wrote the rest
    fwlog.end_input();
    EXPECT_EQ(fwlog.wait(), 1);
    EXPECT_EQ(rest(), numbers_from(2));
}

TEST_F(Consumer, WithoutAcknowledgementsWhatWasWrittenCounts)
{
    append(2);
    append(1);
    EXPECT_EQ(rest({}), numbers_from(1));
    EXPECT_EQ(rest({}), std::vector<int>());
    append(1);
    append(1);
    EXPECT_EQ(rest({"--to", "1-1.8"}), std::vector<int>({4}));
    EXPECT_EQ(rest({}), std::vector<int>({5}));
}

TEST_F(Consumer, AStartPositionOverridesTheStateOnce)
{
    for (int i = 0; i < 3; i++)
        append(1); // .2 .3, .4 .5, .6 .7
    EXPECT_EQ(rest({}), numbers_from(1));
    EXPECT_EQ(rest({"--ack", "--after", "1-1.3"}), numbers_from(2));
    EXPECT_THAT(told(), StartsWith("fwlog: " + state +
                                   ": its position 1-1.7 is passed over: --after is given\n"));
    EXPECT_EQ(rest(), std::vector<int>()) << "nothing was acknowledged, so the file is as it was";
    EXPECT_EQ(rest({"--from", "1-1.6"}), numbers_from(3));
    EXPECT_THAT(told(), HasSubstr("is passed over: --from is given\n"));
    EXPECT_EQ(rest({"--ack", "--from", "1-1.6"}), numbers_from(3));
    EXPECT_EQ(rest(), std::vector<int>());
    peer fwlog(words("dump", {"--ack", "--after", "1-1.3"}), error);
    (void)fwlog.change();
    ASSERT_TRUE(fwlog.say("1-1.4\n"));
    fwlog.end_input();
    EXPECT_EQ(fwlog.wait(), 1);
    EXPECT_EQ(rest(), numbers_from(3)) << "from then on the file counts";
}

TEST_F(Consumer, AStateOfAnotherLogIsRefusedAndTheRemedyHolds)
{
    append(1);
    append(1);
    EXPECT_EQ(rest({}), numbers_from(1));
    ASSERT_EQ(fwu_writer_close(writer), 0);
    writer = nullptr;
    std::filesystem::remove_all(dir.file("log"));
    numbers = 0;
    append(1);
    append(1);
    append(1);
    EXPECT_EQ(rest(), std::vector<int>());
    EXPECT_THAT(told(), StartsWith("fwlog: " + state +
                                   ": position 1-1.5: the log has another record there: "));
    EXPECT_THAT(told(), HasSubstr("oldest record (--from 1-1.0)"));
    EXPECT_EQ(rest({"--ack", "--from", "1-1.0"}), numbers_from(1));
    const tempdir other;
    write_config(other, "4K");
    std::filesystem::create_directory(other.file("log"));
    const run_result result = run_program(
        {program, "dump", "-cfg", other.file("fwutil.cfg"), "--json", "--state", state, "--ack"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("the status file belongs to the log in "));
}

TEST_F(Consumer, PruningKeepsWhatTheStateNeeds)
{
    for (int i = 0; i < 200; i++)
        append(1);
    ASSERT_TRUE(std::filesystem::exists(dir.file("log/fw0001-00000004.log")));
    {
        peer fwlog(words("dump", {"--ack"}), error);
        std::string line;
        while (position(line).compare(0, 4, "1-2.") != 0)
            line = fwlog.change();
        ASSERT_TRUE(fwlog.say(position(line) + "\n"));
        fwlog.end_input();
        EXPECT_EQ(fwlog.wait(), 1);
    }
    const std::string cfg = dir.file("fwutil.cfg");
    run_result result =
        run_program({program, "prune", "-cfg", cfg, "--before", "1-3", "--status", state});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(" needs fw0001-00000002.log and the files behind it"));
    result = run_program({program, "prune", "-cfg", cfg, "--before", "1-2", "--status", state});
    EXPECT_EQ(result.status, 0) << result.err;
    const std::vector<int> left = rest();
    EXPECT_EQ(left, numbers_from(left.at(0)));
    EXPECT_GT(left.at(0), 2);
    result = run_program({program, "prune", "-cfg", cfg, "--before", "1-3"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(rest(), std::vector<int>());
    EXPECT_THAT(told(), HasSubstr("to go on with this log, give "));
}

TEST_F(Consumer, ARunOwnsItsStateFile)
{
    append(1);
    peer fwlog(words("tail", {"-f", "--ack"}), error);
    (void)fwlog.change();
    const run_result second = run_program(words("dump", {"--ack"}));
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.err, HasSubstr(state + ": "));
    std::filesystem::remove(state);
    EXPECT_EQ(fwlog.wait(), 1);
    EXPECT_THAT(told(), HasSubstr("the status file was removed or replaced while in use"));
}

TEST_F(Consumer, ADiskThatIsFullIsTold)
{
    append(1);
    std::string command = "(trap '' XFSZ; ulimit -f 0;";
    for (const std::string &word : words("dump", {"--ack"}))
        command += " '" + word + "'";
    const run_result result =
        run_program({"/bin/sh", "-c", command + "; echo $? >&2) 2>&1 | cat >&2"});
    EXPECT_THAT(result.err, testing::EndsWith("\n1\n"));
    EXPECT_THAT(result.err, HasSubstr(state));
    EXPECT_EQ(rest(), numbers_from(1));
}

TEST_F(Consumer, OptionsThatDoNotGoTogether)
{
    append(1);
    const std::string cfg = dir.file("fwutil.cfg");
    for (const auto &[more, wrong] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"tail", "--state", state}, "option needs --json: --state"},
             {{"tail", "--ack"}, "option needs --json: --ack"},
             {{"dump", "--json", "--ack"}, "option needs --state: --ack"},
             {{"tail", "--json", "--state", state, "-n", "3"},
              "option does not go with --state: -n"}}) {
        std::vector<std::string> argv = {program, more[0], "-cfg", cfg};
        argv.insert(argv.end(), more.begin() + 1, more.end());
        const run_result result = run_program(argv);
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, StartsWith("fwlog: " + wrong + "\n"));
    }
}

TEST_F(Consumer, AProgramsOwnStatusFileIsRefused)
{
    append(1);
    const std::string of_a_capture =
        fwu_status_put(std::filesystem::canonical(dir.file("log")), {},
                       fwu_synced_put({{}, "6fb41e2e", "file text 1234 5000 0 cap.txt\n"}));
    write_file(state, of_a_capture);
    EXPECT_EQ(rest({}), std::vector<int>());
    EXPECT_EQ(told(), "fwlog: " + state +
                          ": it is the status file of a program that keeps more in it than its "
                          "position; name another file with --state\n");
    EXPECT_EQ(read_file(state), of_a_capture);
}

// The consumer keeps what it has dealt with in a list of its own, in order, before it
// acknowledges; either side is killed at random while the log grows.
TEST_F(Consumer, OverAnyKillsNothingIsMissingAndOnlyWhatWasNotAcknowledgedComesAgain)
{
    std::random_device device;
    const unsigned seed = device();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&random](uint32_t n) { return static_cast<int>(random() % n); };
    std::vector<int> dealt;
    int acknowledged = 0; // the largest number of which the acknowledgement was taken for sure
    append(2);
    for (int run = 0; run < 60; run++) {
        for (int i = below(20); i >= 0; i--)
            append(1 + below(4));
        const bool follow = below(2) == 0;
        peer fwlog(follow ? words("tail", {"-f", "--ack"}) : words("dump", {"--ack"}), error);
        const int lines = 1 + below(60);
        int said = acknowledged;
        bool first = true;
        for (int i = 0; i < lines; i++) {
            const std::string line = fwlog.change();
            if (line.empty())
                break;
            const int found = number(line);
            if (first) {
                ASSERT_GT(found, acknowledged) << "run " << run;
                ASSERT_LE(found, (dealt.empty() ? 0 : dealt.back()) + 1) << "run " << run;
            }
            first = false;
            dealt.push_back(found);
            if (below(3) == 0) {
                if (!fwlog.say((json_field(line, "last") == "true" && below(2) == 0
                                    ? transaction(line)
                                    : position(line)) +
                               "\n"))
                    break;
                said = found;
            }
            if (found == numbers && follow)
                append(1 + below(4));
        }
        switch (below(4)) {
        case 0: // fwlog is killed: what it has not read of the pipe is gone
            fwlog.signal(SIGKILL);
            (void)fwlog.wait();
            break;
        case 1: // the consumer is killed: what it has written is there
            fwlog.end_output();
            fwlog.end_input();
            (void)fwlog.wait();
            acknowledged = said;
            break;
        case 2:
            fwlog.end_input();
            (void)fwlog.wait();
            acknowledged = said;
            break;
        default:
            fwlog.signal(SIGTERM);
            (void)fwlog.wait();
            acknowledged = said;
            break;
        }
        ASSERT_THAT(told(), testing::Not(HasSubstr("position of the form")));
    }
    for (const int found : rest())
        dealt.push_back(found);
    // Each run goes on in order, from behind what was acknowledged.
    std::set<int> distinct(dealt.begin(), dealt.end());
    EXPECT_EQ(distinct.size(), static_cast<size_t>(numbers)) << "nothing is missing";
    for (size_t i = 1; i < dealt.size(); i++)
        ASSERT_LE(dealt[i], dealt[i - 1] + 1);
}
