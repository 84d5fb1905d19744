// Following a log: a child process reads while this one writes, is signalled and
// killed.
#include "fwutil/fwu_wait.h"

#include "tests/fwutil/follow_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <random>
#include <unistd.h>

class FollowTest : public follow_test {};

TEST_F(FollowTest, RecordsArriveAsTheyAreCommittedAcrossFiles)
{
    std::filesystem::create_directory(log);
    start();
    ASSERT_TRUE(waiting()) << read_file(dir.file("err"));
    config.log_file_size = 400;
    open_writer();
    for (int32_t i = 1; i <= 50; i++) {
        add({insert(i)});
        ASSERT_EQ(next(), i) << read_file(dir.file("err"));
    }
    ASSERT_TRUE(std::filesystem::exists(file(10)));
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_TRUE(run().records.empty()) << "the position was saved";
}

TEST_F(FollowTest, WithoutAWatchTheDirectoryIsLookedAtRegularly)
{
    const system_calls_guard guard;
    calls.fail_inotify = true;
    std::filesystem::create_directory(log);
    start();
    ASSERT_TRUE(waiting());
    config.log_file_size = 400;
    open_writer();
    for (int32_t i = 1; i <= 5; i++) {
        add({insert(i)});
        ASSERT_EQ(next(), i);
    }
    EXPECT_EQ(end(SIGINT), 0);
    EXPECT_THAT(read_file(dir.file("err")),
                testing::HasSubstr("cannot watch the log directory (Too many open files), looking "
                                   "at it every 200 ms instead"));
}

TEST_F(FollowTest, ACutStatusFileIsWrittenAnewThoughReadingNeverRests)
{
    open_writer();
    add({insert(0)});
    start();
    ASSERT_EQ(next(), 1);
    ASSERT_TRUE(poll_until([&] { return std::filesystem::exists(status); }));
    ASSERT_EQ(truncate(status.c_str(), 10), 0);
    const auto whole = [&] { return std::filesystem::file_size(status) > 10; };
    for (int32_t i = 2; i <= 40 && !whole(); i++) {
        add({insert(i)});
        ASSERT_EQ(next(), i);
        std::this_thread::sleep_for(std::chrono::milliseconds(80)); // less than a rest
    }
    EXPECT_TRUE(whole());
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(FollowTest, AStatusFileRemovedOrReplacedAtRestEndsTheRun)
{
    for (const bool replaced : {false, true}) {
        std::filesystem::remove(status);
        std::filesystem::remove_all(log);
        written.clear();
        two_files();
        start();
        for (int32_t i = 1; i <= 5; i++)
            ASSERT_EQ(next(), i);
        ASSERT_TRUE(waiting());
        std::this_thread::sleep_for(std::chrono::milliseconds(400)); // all is on disk
        std::filesystem::rename(status, status + ".old");
        if (replaced)
            write_file(status, "");
        EXPECT_EQ(finish_within(10), 1);
        const std::string word =
            ": the status file was removed or replaced while in use; the "
            "position is 1-2.3, give it as start position;"
            " a start may empty the program's text files: keep them aside first\n";
        EXPECT_THAT(told(), testing::HasSubstr(word));
        EXPECT_EQ(told().find(word), told().rfind(word)) << "once";
    }
}

TEST_F(FollowTest, SigtermWhileWaitingEndsWellWithThePositionSaved)
{
    two_files();
    for (int round = 0; round < 10; round++) {
        start();
        for (int32_t i = 1; round == 0 && i <= 5; i++)
            ASSERT_EQ(next(), i);
        ASSERT_TRUE(waiting());
        ASSERT_EQ(end(round % 2 == 0 ? SIGTERM : SIGINT), 0);
        std::filesystem::remove(dir.file("err"));
    }
    EXPECT_TRUE(run().records.empty());
}

TEST_F(FollowTest, SigtermWhileDeliveringEndsBehindTheRecordInHand)
{
    two_files();
    start("", false, true);
    ASSERT_EQ(next(), 1);
    ASSERT_EQ(write(step, "x", 1), 1);
    ASSERT_EQ(next(), 2);
    kill(reader, SIGTERM); // its callback is reading from step
    ASSERT_EQ(write(step, "x", 1), 1);
    EXPECT_EQ(next(), -1);
    EXPECT_EQ(finish(), 0);
    EXPECT_EQ(run().records, written_from(3));
}

TEST_F(FollowTest, KilledAtAnyMomentItRepeatsAtMostOneRecordAndLosesNone)
{
    config.log_file_size = 100000;
    open_writer();
    for (int32_t i = 0; i < 3000; i++)
        add({insert(i), update(i), erase(i), insert(i)});
    close_writer();
    std::mt19937 random(7);
    const std::string told = dir.file("told");
    write_file(told, "");
    const auto count = [&told] { return std::filesystem::file_size(told) / 4; };
    std::vector<size_t> ends;
    for (int round = 0; round < 30; round++) {
        const size_t before = count();
        const size_t more = 1 + random() % 300;
        start(told);
        ASSERT_TRUE(poll_until([&] { return count() >= std::min(before + more, written.size()); }));
        EXPECT_EQ(end(SIGKILL), 128 + SIGKILL);
        ends.push_back(count());
    }
    start(told, true);
    EXPECT_EQ(finish(), 0) << read_file(dir.file("err"));
    const std::string bytes = read_file(told);
    int32_t last = 0;
    size_t at = 0;
    for (size_t i = 0; i < bytes.size() / 4; i++) {
        int32_t number = 0;
        memcpy(&number, bytes.data() + 4 * i, 4);
        const bool first_of_round = at < ends.size() && i == ends[at];
        while (at < ends.size() && i == ends[at])
            at++;
        ASSERT_TRUE(number == last + 1 || (first_of_round && number == last))
            << number << " behind " << last << " at " << i;
        last = number;
    }
    EXPECT_EQ(last, static_cast<int32_t>(written.size()));
}

TEST_F(FollowTest, AWriterThatDiesAndRecoversIsFollowedThrough)
{
    open_writer();
    add({insert(1)});
    close_writer();
    start();
    ASSERT_EQ(next(), 1);
    std::mt19937 random(11);
    for (int32_t round = 0; round < 40; round++) {
        const std::string whole = log_file_bytes(1);
        open_writer();
        std::vector<seen> kept = written;
        add({insert(100 + round), update(round), erase(round)});
        close_writer();
        const std::string bytes = log_file_bytes(1);
        for (int i = 0; i < 3; i++)
            ASSERT_EQ(next(), static_cast<int32_t>(kept.size()) + i + 1);
        const size_t part = 1 + random() % (bytes.size() - whole.size() - 1);
        // Part of a transaction arrives, its writer dies, the next one goes on.
        const int fd = open(file(1).c_str(), O_WRONLY | O_APPEND);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, bytes.data() + whole.size(), part), static_cast<ssize_t>(part));
        close(fd);
        EXPECT_THAT(stderr_of([&] { open_writer(); }), testing::HasSubstr("cut "));
        add({insert(200 + round)});
        close_writer();
        ASSERT_EQ(next(), static_cast<int32_t>(written.size()));
    }
    EXPECT_EQ(end(SIGTERM), 0) << read_file(dir.file("err"));
}

TEST_F(FollowTest, ALargeTransactionThatArrivesInManyPiecesIsDeliveredOnceItIsWhole)
{
    configure("database SALES\ndataset ORDERS\nitem TEXT X 30000\n");
    std::filesystem::create_directory(log);
    start();
    ASSERT_TRUE(waiting());
    open_writer();
    const std::vector<seen> many(
        700, {"SALES", "ORDERS", 1, FWU_OP_INSERT, 0, "", std::string(30000, 'a')});
    for (int32_t round = 0; round < 3; round++) {
        add(many);
        for (int32_t i = 1; i <= 700; i++)
            ASSERT_EQ(next(), round * 700 + i) << read_file(dir.file("err"));
    }
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(FollowTest, AStatusReportWorksWhileItsProcessRuns)
{
    two_files();
    start("", false, true);
    ASSERT_EQ(next(), 1);
    ASSERT_EQ(write(step, "x", 1), 1);
    ASSERT_EQ(next(), 2);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Fwu_status(status.c_str(), 0), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::AllOf(testing::HasSubstr("Position: 1-1.2\n"),
                               testing::HasSubstr("Behind: 4 records")));
}

TEST_F(FollowTest, DamageFoundWhileFollowingEndsTheRun)
{
    two_files();
    const std::string before = log_file_bytes(2);
    open_writer();
    add({insert(4)});
    close_writer();
    std::string more = log_file_bytes(2).substr(before.size());
    more[30] = static_cast<char>(more[30] ^ 1);
    write_file(file(2), before);
    std::filesystem::remove(log + "/acknowledged"); // nobody knows what was
    start();
    for (int32_t i = 1; i <= 5; i++)
        ASSERT_EQ(next(), i);
    // A whole transaction is appended whose first entry is wrong.
    const int fd = open(file(2).c_str(), O_WRONLY | O_APPEND);
    ASSERT_EQ(write(fd, more.data(), more.size()), static_cast<ssize_t>(more.size()));
    close(fd);
    EXPECT_EQ(finish(), 1);
    EXPECT_THAT(read_file(dir.file("err")),
                testing::HasSubstr("fw0001-00000002.log: damaged at offset 368: "));
}
