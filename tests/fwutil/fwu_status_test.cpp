// The status file held by a run: made, taken over, cut and replaced under it.
#include "fwutil/fwu_status.h"

#include "fwutil/fwu_boot.h"
#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/status_lines.h"
#include "tests/fwutil/system_calls.h"
#include "tests/support/golden.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;

static const char DAMAGED[] =
    ": the status file is damaged; give the position that you know as start position, or remove "
    "the file to begin with the log's oldest record; a start may empty the program's text files: "
    "keep them aside "
    "first\n";

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
        fwu_boot_path = real_boot_path;
    }
    StatusTest()
    {
        write_file(dir.file("boot_id"), std::string(BOOT) + "\n");
        fwu_boot_path = boot_path.c_str();
    }
    void acknowledge(int32_t tag, int32_t sequence = 25)
    {
        ASSERT_EQ(fwu_status_acknowledge(held, place_of(tag, sequence)), 0);
    }
    void force(const char *mark = "")
    {
        ASSERT_EQ(fwu_status_force(held, BOOT, mark), 0);
    }
    fwu_status_text read()
    {
        fwu_status_text text;
        EXPECT_EQ(fwu_status_get(text, read_file(status)), 0);
        return text;
    }
    const char *const real_boot_path = fwu_boot_path;
    const std::string boot_path = dir.file("boot_id");
    fwu_status held;
    std::string err;
};

TEST_F(StatusTest, IsWrittenByteForByte)
{
    ASSERT_EQ(open(), 0) << err;
    EXPECT_EQ(read_file(status), WITHOUT_POSITION);
    acknowledge(340);
    force("file text 1234 5000 0 cap.txt\n");
    acknowledge(341);
    EXPECT_EQ(read_file(status), golden("status.txt"));
    EXPECT_FALSE(std::filesystem::exists(status + ".new"));
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
            fwu_place place = place_of(tag * 7, 25 + tag / 10);
            place.time_us = tag / 3 * int64_t{300000};
            ASSERT_EQ(fwu_status_acknowledge(held, place), 0);
            const fwu_status_text text = read();
            EXPECT_EQ(text.live, place);
            EXPECT_FALSE(text.torn);
            EXPECT_FALSE(fwu_place_named(text.synced.place)) << "nothing was forced";
        }
        fwu_status_close(held);
    }
}

TEST_F(StatusTest, ForcedTextsGrowAndShrinkBesideEachOther)
{
    ASSERT_EQ(open(), 0) << err;
    size_t largest = 0;
    for (int32_t round = 1; round <= 60; round++) {
        const std::string mark(static_cast<size_t>(round * 37 % 11 * 500), 'm');
        acknowledge(round);
        const size_t kept = held.pointer.at;
        const std::string before = held.synced;
        force(mark.c_str());
        const fwu_status_text text = read();
        EXPECT_EQ(text.synced.place, place_of(round));
        EXPECT_EQ(text.on_disk, place_of(round));
        EXPECT_EQ(text.synced.mark, mark);
        EXPECT_EQ(read_file(status).substr(kept, before.size()), before)
            << "the text that counted was still needed";
        largest = std::max(largest, read_file(status).size());
    }
    EXPECT_LT(largest, 3 * 6000U);
}

TEST_F(StatusTest, ATextThatIsNotOnDiskYetDoesNotCountForOthers)
{
    const system_calls_guard guard;
    ASSERT_EQ(open(), 0) << err;
    acknowledge(340);
    force("m");
    acknowledge(341);
    calls.fail_fdatasync = true;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_status_force(held, BOOT, "n"), -1); }),
              "fwutil: " + status + ": cannot bring the status file to disk: Input/output error\n");
    const fwu_status_text text = read();
    EXPECT_EQ(text.on_disk, place_of(340));
    EXPECT_EQ(text.live, place_of(341));
}

TEST_F(StatusTest, AGoodFileIsTakenOver)
{
    write_file(status, golden("status.txt"));
    ASSERT_EQ(open(), 0) << err;
    EXPECT_EQ(err, "");
    EXPECT_EQ(held.found.live, place_of(341));
    EXPECT_EQ(read_file(status), golden("status.txt")) << "nothing is known better yet";
    force("x\n");
    fwu_status_text text = read();
    EXPECT_EQ(text.live, place_of(341));
    EXPECT_EQ(text.live_number, 3) << "its lines stay as they are";
    EXPECT_EQ(text.synced.place, place_of(341));
    EXPECT_EQ(text.synced.mark, "x\n");
    acknowledge(342);
    EXPECT_EQ(read().live, place_of(342));
}

TEST_F(StatusTest, ARunThatGoesBackNamesThatPlaceBeforeItsBoot)
{
    const system_calls_guard guard;
    write_file(status, golden("status.txt"));
    ASSERT_EQ(open(), 0) << err;
    held.place = held.found.synced.place;
    calls.fail_fdatasync = true; // what the file holds then
    EXPECT_EQ(fwu_status_force(held, "b", ""), -1);
    const fwu_status_text text = read();
    EXPECT_EQ(text.live, place_of(340));
    EXPECT_EQ(text.synced.place, place_of(340));
    const std::string bytes = read_file(status);
    EXPECT_EQ(bytes.find("0000000341"), bytes.npos) << "no line may name it on the new boot";
}

TEST_F(StatusTest, AFileOfVersionOneBecomesOneOfThisVersion)
{
    write_file(status, PREFIX_1 + OLD_2 + OLD_1);
    ASSERT_EQ(open(), 0) << err;
    EXPECT_EQ(held.found.live.position, (fwu_position{1, 25, 341}));
    force("x\n");
    fwu_status_text text = read();
    EXPECT_EQ(text.version, 2);
    EXPECT_EQ(text.live, held.found.live) << "what is not known stays unknown";
    EXPECT_EQ(text.synced.place, held.found.live);
    acknowledge(342);
    EXPECT_EQ(read().live, place_of(342));
}

TEST_F(StatusTest, AFileThatDoesNotCountStaysUntilTheFirstRecord)
{
    for (const std::string &bytes :
         {golden("status.txt"), std::string("nonsense"), std::string(), PREFIX_1 + OLD_2 + OLD_1}) {
        write_file(status, bytes);
        ASSERT_EQ(open("/x", true), 0);
        EXPECT_EQ(err, "");
        acknowledge(1);
        EXPECT_EQ(read_file(status), bytes);
        force("x\n");
        EXPECT_EQ(read_file(status),
                  fwu_status_put("/x", place_of(1), fwu_synced_put({place_of(1), BOOT, "x\n"})))
            << "nothing of the longer text is left";
        fwu_status_close(held);
    }
}

TEST_F(StatusTest, AFileCutOrChangedWhileInUseIsWrittenAnewWithAWord)
{
    const fwu_map_faults faults;
    const system_calls_guard guard;
    const std::string word =
        "fwutil: " + status + ": the status file was cut or changed while in use: written anew\n";
    ASSERT_EQ(open(), 0) << err;
    acknowledge(339);
    force("mark\n");
    const std::string whole = read_file(status);
    std::string other = whole;
    other[20] ^= 1;
    for (const std::string &bytes :
         {whole.substr(0, 10), whole.substr(0, 100), whole.substr(0, whole.size() - 1),
          std::string(), other, std::string(whole.size(), '\0')}) {
        const int fd = ::open(status.c_str(), O_WRONLY | O_TRUNC);
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_status_look(held), 0); }), word);
        EXPECT_EQ(read_file(status),
                  fwu_status_put("/var/log/sales", place_of(339),
                                 fwu_synced_put({place_of(339), BOOT, "mark\n"})));
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_status_look(held), 0); }), "");
    }
    ASSERT_EQ(truncate(status.c_str(), 0), 0);
    EXPECT_EQ(stderr_of([&] { acknowledge(340); }), word) << "its page is gone";
    EXPECT_EQ(read().live, place_of(340));
    acknowledge(341);
    EXPECT_EQ(read().live, place_of(341));
    ASSERT_EQ(truncate(status.c_str(), 10), 0);
    EXPECT_EQ(stderr_of([&] { force("y"); }), word);
    EXPECT_EQ(read().synced.place, place_of(341));
    ASSERT_EQ(truncate(status.c_str(), 0), 0);
    calls.fail_pwrite = true;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_status_acknowledge(held, place_of(342)), -1); }),
              word + "fwutil: " + status +
                  ": cannot write to the status file: No space left on device\n");
}

TEST_F(StatusTest, ARunNoticesThatItsFileWasCut)
{
    open_writer();
    add({insert(1), insert(2)});
    close_writer();
    on_record = [&](const seen &record) {
        return record.recnum == 1 ? truncate(status.c_str(), 10) : 0;
    };
    const run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.err, HasSubstr("the status file was cut or changed while in use"));
    EXPECT_TRUE(run().records.empty()) << "its position is there all the same";
}

// A kill may come at any moment: a file that was cut is not left so for long.
TEST_F(StatusTest, ACutFileIsWrittenAnewWhileRecordsFlow)
{
    open_writer();
    std::vector<seen> many;
    for (int32_t i = 1; i <= 1100; i++)
        many.push_back(insert(i));
    add(many);
    close_writer();
    fwu_status_text text;
    int at_last = -1;
    on_record = [&](const seen &record) {
        if (record.recnum == 20)
            return truncate(status.c_str(), 10);
        if (record.recnum == 1100)
            at_last = fwu_status_get(text, read_file(status));
        return 0;
    };
    EXPECT_THAT(run().err, HasSubstr("the status file was cut or changed while in use"));
    EXPECT_EQ(at_last, 0) << "still cut at the last record";
    EXPECT_EQ(text.live.position.tag, 1100) << "the record before: the layout has the first tag";
}

// The link stands for the file that it will lead to.
TEST_F(StatusTest, ALinkToAFileThatIsNotThereLeadsToANewOne)
{
    std::filesystem::create_directory(dir.file("state"));
    std::filesystem::create_symlink("state/second", status);
    std::filesystem::create_symlink("third", dir.file("state/second"));
    ASSERT_EQ(open(), 0) << err;
    fwu_status_close(held);
    EXPECT_TRUE(std::filesystem::is_symlink(status));
    EXPECT_TRUE(std::filesystem::is_regular_file(dir.file("state/third")));
    EXPECT_EQ(read_file(dir.file("state/third")), WITHOUT_POSITION);
    EXPECT_FALSE(std::filesystem::exists(status + ".new"));
    EXPECT_FALSE(std::filesystem::exists(dir.file("state/third.new")));

    std::filesystem::remove(status);
    std::filesystem::create_symlink("none/there", status);
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err, "fwutil: " + dir.file("none/there") +
                       ": cannot open the status file: No such file or directory\n");
    EXPECT_FALSE(std::filesystem::exists(status + ".new"));
}

TEST_F(StatusTest, NothingIsWrittenThroughWhatHasTheNameOfAnUnfinishedFile)
{
    const std::string unfinished = status + ".new";
    const std::string other = dir.file("other");
    const std::function<void()> kinds[] = {
        [&] { std::filesystem::create_symlink("other", unfinished); },
        [&] { std::filesystem::create_hard_link(other, unfinished); },
        [&] { ASSERT_EQ(mkfifo(unfinished.c_str(), 0600), 0); },
    };
    for (const auto &make : kinds) {
        std::filesystem::remove(status);
        write_file(other, "precious");
        make();
        ASSERT_EQ(open(), 0) << err;
        fwu_status_close(held);
        EXPECT_EQ(read_file(other), "precious");
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(status)));
        EXPECT_EQ(read_file(status), WITHOUT_POSITION);
    }
    std::filesystem::remove(status);
    std::filesystem::create_directory(unfinished);
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err, "fwutil: " + unfinished + ": cannot open the status file: Is a directory\n");
}

// Who made it keeps it: else the positions would stand in a file that another user may change.
TEST_F(StatusTest, AnUnfinishedFileOfAnotherUserIsNeitherWrittenToNorTakenUp)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "a file of another user takes the superuser";
    const std::string unfinished = status + ".new";
    write_file(unfinished, "theirs");
    ASSERT_EQ(chmod(unfinished.c_str(), 0666), 0);
    ASSERT_EQ(chown(unfinished.c_str(), 65534, 65534), 0);
    const int theirs = ::open(unfinished.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(open(), 0) << err;
    fwu_status_close(held);
    struct stat about = {};
    ASSERT_EQ(stat(status.c_str(), &about), 0);
    EXPECT_EQ(about.st_uid, geteuid());
    EXPECT_EQ(about.st_nlink, 1U);
    EXPECT_EQ(read_file(status), WITHOUT_POSITION);
    char bytes[16] = {};
    EXPECT_EQ(pread(theirs, bytes, sizeof bytes, 0), 6);
    EXPECT_STREQ(bytes, "theirs");
    close(theirs);
    EXPECT_FALSE(std::filesystem::exists(unfinished));
}

TEST_F(StatusTest, ATornLineIsToldAndTheWholeOneBesideItTaken)
{
    std::string bytes = golden("status.txt");
    bytes[sizeof PREFIX - 1 + FWU_STATUS_LINE_SIZE + 30] ^= 1; // the newer line
    write_file(status, bytes);
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(err, "fwutil: " + status +
                       ": one of the status file's lines is damaged; the other one is taken, which "
                       "names 1-25.340\n");
    EXPECT_EQ(held.place, place_of(340));
    force();
    EXPECT_FALSE(read().torn) << "mended";
    fwu_status_close(held);
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(err, "");
}

TEST_F(StatusTest, AnEmptyFileIsTakenAsANewOneWithAWord)
{
    write_file(status, "");
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(err, "fwutil: " + status +
                       ": the status file is empty and taken as a new one: the log's oldest record "
                       "comes first\n");
    force();
    EXPECT_EQ(read_file(status), WITHOUT_POSITION);
}

TEST_F(StatusTest, ADamagedFileIsRefusedUnlessAStartPositionStandsInForIt)
{
    write_file(status, WITH_POSITION.substr(0, 40));
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err, "fwutil: " + status + DAMAGED);
    EXPECT_EQ(open("/var/log/sales", true), 0);
}

TEST_F(StatusTest, AnUnfinishedFileOfADeadRunIsTakenUp)
{
    write_file(status + ".new", "fwutil st");
    ASSERT_EQ(open(), 0) << err;
    EXPECT_EQ(read_file(status), WITHOUT_POSITION);
    EXPECT_FALSE(std::filesystem::exists(status + ".new"));
}

TEST_F(StatusTest, AFileOfAnotherLogIsRefused)
{
    write_file(status, WITH_POSITION);
    EXPECT_EQ(open("/var/log/other"), -1);
    EXPECT_EQ(err, "fwutil: " + status +
                       ": the status file belongs to the log in /var/log/sales, the configuration "
                       "names /var/log/other; use another status file, or give a start position; a "
                       "start may empty the "
                       "program's text files: keep them aside first\n");
}

TEST_F(StatusTest, AFileRemovedOrReplacedWhileInUseIsAnError)
{
    open_writer();
    add({insert(1), insert(2)});
    close_writer();
    for (const bool replaced : {false, true}) {
        std::filesystem::remove(status);
        on_record = [&](const seen &record) {
            if (record.recnum != 2)
                return 0;
            std::filesystem::remove(status);
            if (replaced)
                write_file(status, WITHOUT_POSITION);
            return 0;
        };
        const run_outcome outcome = run();
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(outcome.err,
                  "fwutil: " + status +
                      ": the status file was removed or replaced while in use; the "
                      "position is 1-1.3, give it as start position; a start may empty the "
                      "program's text files: keep them aside first\n");
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

// Neither the log nor that it is not there can be brought to disk.
TEST_F(StatusTest, APositionThatIsPerhapsAheadOfTheDiskIsLeftForTheOneThatIsTold)
{
    const system_calls_guard guard;
    open_writer();
    add({insert(1), insert(2)});
    close_writer();
    for (const char *position : {"that of the oldest record", "1-1.3"}) {
        const size_t before = position[0] == '1' ? 2 : 0;
        on_record = [](const seen &) {
            calls.fail_fdatasync = true;
            calls.fail_pwrite = true;
            return 0;
        };
        const run_outcome failed = run();
        EXPECT_EQ(failed.result, -1);
        EXPECT_THAT(failed.err, HasSubstr(": what the status file says may be ahead of what is on "
                                          "disk; give " +
                                          std::string(position) + " as start position; "));
        calls = system_calls();
        on_record = nullptr;
        const run_outcome again = run(before == 0 ? "1-1.0" : position);
        EXPECT_EQ(again.result, 0) << again.err;
        EXPECT_EQ(again.records, written_from(before + 1));
        EXPECT_TRUE(run().records.empty());
        open_writer();
        add({insert(3), insert(4)});
        close_writer();
    }
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
