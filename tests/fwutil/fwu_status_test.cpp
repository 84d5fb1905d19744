// The status file's text, byte for byte and damaged, and its use by a run.
#include "fwutil/fwu_status.h"

#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;

static const char PREFIX[] = "fwutil status 1\n"
                             "log /var/log/sales\n";
// A record that was the first one of its run, and the ones behind it: the lines
// are written in turn.
static const char LINE_0[] =
    "0 position 0001-00000025.0000000340 time 2023-11-14 22:13:24.000005 UTC "
    "crc 7569f801\n";
static const char LINE_1[] =
    "1 position 0001-00000025.0000000340 time 2023-11-14 22:13:24.000005 UTC "
    "crc 6f1d1e48\n";
static const char LINE_2[] =
    "2 position 0001-00000025.0000000341 time 2023-11-14 22:13:24.000005 UTC "
    "crc bee54531\n";
static const char LINE_5[] =
    "5 position 0001-00000025.0000000340 time 2023-11-14 22:13:24.000005 UTC "
    "crc 06ce876c\n";
static const std::string WITH_POSITION = std::string(PREFIX) + LINE_0 + LINE_1;
static const std::string WITHOUT_POSITION =
    std::string(PREFIX) +
    "0 position none                     time none                           crc 00ecb5a1\n"
    "1 position none                     time none                           crc 1a9853e8\n";
static const char DAMAGED[] =
    ": the status file is damaged; give the position that you know as start position, or remove "
    "the file to begin with the log's oldest record\n";

class StatusTest : public log_test {
  protected:
    int open(const std::string &directory = "/var/log/sales", bool overridden = false)
    {
        int result = 0;
        err = stderr_of([&] { result = fwu_status_open(held, status, directory, overridden); });
        return result;
    }
    ~StatusTest() override
    {
        fwu_status_close(held);
    }
    fwu_status held;
    std::string err;
};

TEST_F(StatusTest, IsWrittenByteForByte)
{
    ASSERT_EQ(open(), 0) << err;
    EXPECT_EQ(read_file(status), WITHOUT_POSITION);
    fwu_status_close(held);
    ASSERT_EQ(open(), 0) << err;
    ASSERT_EQ(fwu_status_acknowledge(held, {1, 25, 340}, 1700000004000005), 0);
    EXPECT_EQ(read_file(status), WITH_POSITION);
    ASSERT_EQ(fwu_status_acknowledge(held, {1, 25, 341}, 1700000004000005), 0);
    EXPECT_EQ(read_file(status), std::string(PREFIX) + LINE_2 + LINE_1);
    fwu_status_text text;
    ASSERT_EQ(fwu_status_get(text, WITH_POSITION), 0);
    EXPECT_EQ(fwu_status_put(text), WITH_POSITION);
    EXPECT_EQ(text.position, (fwu_position{1, 25, 340}));
    EXPECT_EQ(text.time_us, 1700000004000005);
    ASSERT_EQ(fwu_status_get(text, WITHOUT_POSITION), 0);
    EXPECT_EQ(fwu_status_put(text), WITHOUT_POSITION);
}

TEST_F(StatusTest, TagsCountUpDigitByDigit)
{
    fwu_status_line line;
    const auto tag_after = [&line](int32_t sequence, int32_t tag) {
        fwu_status_line_set(line, 0, {1, sequence, tag}, 0);
        return std::string(line.text).substr(25, 10);
    };
    EXPECT_EQ(std::string(LINE_0).substr(25, 10), "0000000340") << "where a line has its tag";
    const struct {
        int32_t sequence, tag;
        const char *digits;
    } rows[] = {
        {25, 8, "0000000008"},          {25, 9, "0000000009"},
        {25, 10, "0000000010"},         {25, 199, "0000000199"},
        {25, 200, "0000000200"},        {25, 99999, "0000099999"},
        {26, 100000, "0000100000"},     {26, 999999999, "0999999999"},
        {26, 1000000000, "1000000000"}, {26, 2147483646, "2147483646"},
        {26, 2147483647, "2147483647"}, {27, 1, "0000000001"},
        {27, 0, "0000000000"},          {27, 1, "0000000001"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(tag_after(row.sequence, row.tag), row.digits);
}

TEST_F(StatusTest, EveryRecordIsNamedByTheNewerLine)
{
    for (const bool mapped : {true, false}) {
        const system_calls_guard guard;
        calls.fail_mmap = !mapped;
        std::filesystem::remove(status);
        ASSERT_EQ(open(), 0) << err;
        EXPECT_EQ(held.map.at != nullptr, mapped);
        for (int32_t tag = 1; tag <= 25; tag++) { // numbers of lines come round again
            const fwu_position position = {1 + tag / 20, 25 + tag / 10, tag * 7};
            ASSERT_EQ(fwu_status_acknowledge(held, position, tag * int64_t{300000}), 0);
            fwu_status_text text;
            ASSERT_EQ(fwu_status_get(text, read_file(status)), 0);
            EXPECT_EQ(text.position, position);
            EXPECT_EQ(text.time_us, tag * int64_t{300000});
        }
        fwu_status_close(held);
    }
}

TEST_F(StatusTest, ALineThatWasBeingChangedIsPassedOver)
{
    fwu_status_text text;
    std::string bytes = std::string(PREFIX) + LINE_2 + LINE_1;
    bytes.replace(sizeof PREFIX - 1, 40, "*" + std::string(39, 'x'));
    ASSERT_EQ(fwu_status_get(text, bytes), 0);
    EXPECT_EQ(text.position, (fwu_position{1, 25, 340}));
    bytes = std::string(PREFIX) + LINE_2 + LINE_1;
    bytes[sizeof PREFIX - 1 + sizeof LINE_2 - 1] = '*';
    ASSERT_EQ(fwu_status_get(text, bytes), 0);
    EXPECT_EQ(text.position, (fwu_position{1, 25, 341}));
    bytes[sizeof PREFIX - 1] = '*';
    EXPECT_EQ(fwu_status_get(text, bytes), -1) << "no line is left";
}

TEST_F(StatusTest, LinesThatDoNotFollowEachOtherAreDamage)
{
    fwu_status_text text;
    EXPECT_EQ(fwu_status_get(text, std::string(PREFIX) + LINE_0 + LINE_5), -1);
    EXPECT_EQ(fwu_status_get(text, std::string(PREFIX) + LINE_0 + LINE_0), -1);
}

TEST_F(StatusTest, AFileCutWhileInUseIsWrittenAnew)
{
    const fwu_map_faults faults;
    const system_calls_guard guard;
    ASSERT_EQ(open(), 0) << err;
    ASSERT_EQ(fwu_status_acknowledge(held, {1, 25, 339}, 1700000004000005), 0);
    ASSERT_EQ(truncate(status.c_str(), 0), 0);
    ASSERT_EQ(fwu_status_acknowledge(held, {1, 25, 340}, 1700000004000005), 0);
    EXPECT_EQ(read_file(status), WITH_POSITION);
    ASSERT_EQ(fwu_status_acknowledge(held, {1, 25, 341}, 1700000004000005), 0);
    EXPECT_EQ(read_file(status), std::string(PREFIX) + LINE_2 + LINE_1);
    ASSERT_EQ(truncate(status.c_str(), 0), 0);
    calls.fail_pwrite = true;
    EXPECT_EQ(stderr_of([&] {
                  EXPECT_EQ(fwu_status_acknowledge(held, {1, 25, 342}, 1700000004000005), -1);
              }),
              "fwutil: " + status + ": cannot write to the status file: No space left on device\n");
}

TEST_F(StatusTest, EachByteChangedOrCutOffIsDamage)
{
    for (const std::string &good : {WITH_POSITION, WITHOUT_POSITION}) {
        for (size_t i = 0; i < good.size(); i++) {
            fwu_status_text text;
            std::string bytes = good;
            bytes[i] = static_cast<char>(bytes[i] ^ 1);
            EXPECT_EQ(fwu_status_get(text, bytes), -1) << i;
            if (i > 0) {
                EXPECT_EQ(fwu_status_get(text, good.substr(0, i)), -1) << i;
            }
        }
    }
    write_file(status, WITH_POSITION.substr(0, 40));
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err, "fwutil: " + status + DAMAGED);
    EXPECT_EQ(open("/var/log/sales", true), 0) << "a start position stands in for it";
}

TEST_F(StatusTest, TimesOutsideFourDigitYearsStillGiveAValidFile)
{
    EXPECT_EQ(fwu_time_text(0), "1970-01-01 00:00:00.000000 UTC");
    EXPECT_EQ(fwu_time_text(-1), "1969-12-31 23:59:59.999999 UTC");
    ASSERT_EQ(open(), 0);
    for (const int64_t time : {INT64_MIN, INT64_MAX, int64_t{-1}}) {
        ASSERT_EQ(fwu_status_acknowledge(held, {1, 1, 1}, time), 0);
        fwu_status_text text;
        EXPECT_EQ(fwu_status_read(status, text), 0);
    }
}

TEST_F(StatusTest, AnExistingFileStaysUntouchedUntilTheFirstRecord)
{
    write_file(status, WITH_POSITION);
    ASSERT_EQ(open(), 0) << err;
    EXPECT_TRUE(held.text.have_position);
    EXPECT_EQ(read_file(status), WITH_POSITION);
    fwu_status_close(held);
    ASSERT_EQ(open("/x", true), 0);
    EXPECT_EQ(read_file(status), WITH_POSITION);
    ASSERT_EQ(fwu_status_acknowledge(held, {1, 1, 1}, 0), 0);
    EXPECT_THAT(read_file(status), HasSubstr("log /x\n0 position 0001-00000001.0000000001 time "));
    fwu_status_text text;
    EXPECT_EQ(fwu_status_get(text, read_file(status)), 0);
    EXPECT_EQ(fwu_status_put(text), read_file(status)) << "nothing of the longer text is left";
}

TEST_F(StatusTest, AFileOfAnotherLogIsRefused)
{
    write_file(status, WITH_POSITION);
    EXPECT_EQ(open("/var/log/other"), -1);
    EXPECT_EQ(err, "fwutil: " + status +
                       ": the status file belongs to the log in /var/log/sales, the configuration "
                       "names /var/log/other; use another status file, or give a start position\n");
}

TEST_F(StatusTest, AnEmptyFileIsDamageUnlessAStartPositionStandsInForIt)
{
    write_file(status, "");
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err, "fwutil: " + status + DAMAGED);
    ASSERT_EQ(open("/var/log/sales", true), 0);
    ASSERT_EQ(fwu_status_acknowledge(held, {1, 25, 340}, 1700000004000005), 0);
    EXPECT_EQ(read_file(status), WITH_POSITION);
}

TEST_F(StatusTest, AFileRemovedOrReplacedWhileInUseIsAnError)
{
    open_writer();
    add({insert(1), insert(2)});
    close_writer();
    for (const bool replaced : {false, true}) {
        std::filesystem::remove(status);
        on_record = [&](const seen &) {
            std::filesystem::remove(status);
            if (replaced)
                write_file(status, WITHOUT_POSITION);
            return 0;
        };
        const run_outcome outcome = run();
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(outcome.err, "fwutil: " + status +
                                   ": the status file was removed or replaced while in use; the "
                                   "position is 1-1.3, give it as start position\n");
        EXPECT_EQ(outcome.records, written_from(1));
    }
}

TEST_F(StatusTest, PathsThatDoNotFitAreRefused)
{
    EXPECT_EQ(open("/" + std::string(4096, 'x')), -1);
    EXPECT_THAT(err, HasSubstr("too long or holds a line end"));
    EXPECT_EQ(open("/a\nb"), -1);
    EXPECT_THAT(err, HasSubstr("too long or holds a line end"));
    status = dir.file("none/fwutil.status");
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err,
              "fwutil: " + status + ": cannot open the status file: No such file or directory\n");
}

TEST_F(StatusTest, AStatusThatCannotBeWrittenStopsTheRun)
{
    const system_calls_guard guard;
    open_writer();
    add({insert(1), insert(2)});
    close_writer();
    calls.fail_pwrite = true;
    run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_TRUE(outcome.records.empty()) << "a full disk shows before the first record";
    EXPECT_FALSE(std::filesystem::exists(status)) << "nothing is left that the next run refuses";
    EXPECT_EQ(outcome.err,
              "fwutil: " + status + ": cannot write to the status file: No space left on device\n");
    calls.fail_pwrite = false;
    calls.fail_mmap = true;
    on_record = [](const seen &) {
        calls.fail_pwrite = true;
        return 0;
    };
    outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.err,
              "fwutil: " + status + ": cannot write to the status file: No space left on device\n");
    EXPECT_EQ(outcome.records, written_from(1, 1));
}

TEST_F(StatusTest, AFileThatCannotBeCutOrSyncedStopsTheRun)
{
    const system_calls_guard guard;
    calls.fail_ftruncate = true;
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err, "fwutil: " + status +
                       ": cannot cut the status file to its length: Input/output error\n");
    calls.fail_ftruncate = false;
    calls.fail_fdatasync = true;
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err,
              "fwutil: " + status + ": cannot bring the status file to disk: Input/output error\n");
    EXPECT_FALSE(std::filesystem::exists(status));
}

TEST_F(StatusTest, AFileThatCannotBeReadIsRefused)
{
    ASSERT_EQ(mkfifo(status.c_str(), 0600), 0);
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err, "fwutil: " + status + ": cannot read the status file: Illegal seek\n");
}

TEST_F(StatusTest, ASecondRunIsRefusedAndToldWhoRuns)
{
    std::filesystem::create_directory(log);
    int ready[2];
    int end[2];
    ASSERT_EQ(pipe(ready) | pipe(end), 0);
    const pid_t child = fork();
    if (child == 0) {
        fwu_status mine;
        char c = 'x';
        const bool good =
            fwu_status_open(mine, status, log, false) == 0 && ::write(ready[1], &c, 1) == 1;
        close(end[1]);
        (void)!::read(end[0], &c, 1);
        _exit(good ? 0 : 1);
    }
    close(end[0]);
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.err, "fwutil: " + status + ": the status file is in use by process " +
                               std::to_string(child) +
                               "; stop that, or name another status file\n");
    close(end[1]);
    int result = -1;
    EXPECT_EQ(waitpid(child, &result, 0), child);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(run().result, 0) << "the lock went with its process";
}
