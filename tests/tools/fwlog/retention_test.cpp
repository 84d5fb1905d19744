// What a writer removes of its own log, and what it tells meanwhile.  Each commit begins a new file
// of 480 bytes, and so has it look.
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_readers.h"
#include "fwutil/fwu_retention.h"
#include "tests/tools/fwlog/pruned_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;

// What the file system says, in blocks of 1000 bytes; none: what it is.
static struct {
    bool given = false;
    int64_t free = 0;
    int64_t size = 0;
} disk;

extern "C" int __real_statvfs64(const char *path, struct statvfs64 *about);
extern "C" int __wrap_statvfs64(const char *path, struct statvfs64 *about);

extern "C" int __wrap_statvfs64(const char *path, struct statvfs64 *about)
{
    if (!disk.given)
        return __real_statvfs64(path, about);
    *about = {};
    about->f_frsize = about->f_bsize = 1000;
    about->f_blocks = static_cast<fsblkcnt64_t>(disk.size);
    about->f_bavail = static_cast<fsblkcnt64_t>(disk.free);
    about->f_bfree = about->f_bavail + 7; // kept for the superuser
    return 0;
}

class RetentionTest : public PrunedLogTest {
  protected:
    ~RetentionTest() override
    {
        fwu_set_program("fwutil");
        disk = {};
        close_log();
    }
    // Opens the log for writing; what that tells.
    std::string open_log(const fwu_keep &keep)
    {
        fwu_config config;
        testing::internal::CaptureStderr();
        EXPECT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        config.log_file_size = 1;
        config.keep = keep;
        EXPECT_EQ(fwu_writer_open(&writer, config), 0);
        return testing::internal::GetCapturedStderr();
    }
    void close_log()
    {
        EXPECT_EQ(fwu_writer_close(writer), 0);
        writer = nullptr;
    }
    // Appends a file; what that tells.
    std::string append()
    {
        testing::internal::CaptureStderr();
        EXPECT_TRUE(append_transaction(writer, next, 3));
        next += 3;
        return testing::internal::GetCapturedStderr();
    }
    // The first so many files were written so long ago.
    void age(int files, int64_t seconds)
    {
        const timespec then = {.tv_sec = time(nullptr) - seconds, .tv_nsec = 0};
        const timespec times[2] = {then, then};
        for (int n = 1; n <= files; n++)
            if (access(file(n).c_str(), F_OK) == 0) {
                ASSERT_EQ(utimensat(AT_FDCWD, file(n).c_str(), times, 0), 0);
            }
    }
    void add_reader(const std::string &name)
    {
        const run_result result = run({program, "readers", "--add", name});
        ASSERT_EQ(result.status, 0) << result.err;
    }
    std::string here(const std::string &name) const
    {
        return real(dir.path()) + "/" + name;
    }
    const fwu_retained &found() const
    {
        return fwu_writer_retained(writer);
    }
    const fwu_keep acknowledged = {.acknowledged = true, .text = "acknowledged"};
    fwu_writer *writer = nullptr;
    int next = 1000;
};

TEST_F(RetentionTest, WithoutALineNothingGoes)
{
    make(5);
    age(5, 1'000'000'000);
    EXPECT_EQ(open_log({}), "");
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-1 1-2 1-3 1-4 1-5 1-6 ");
    EXPECT_FALSE(std::filesystem::exists(dir.file("log/readers.lock")));
    EXPECT_EQ(found().files, 6U);
    EXPECT_EQ(found().bytes, 6 * 480);
}

TEST_F(RetentionTest, WhatIsOlderGoesAtTheStartAndAtANewFile)
{
    make(5);
    age(2, 7200);
    EXPECT_EQ(open_log({.seconds = 3600, .text = "1h"}), "");
    EXPECT_EQ(left(), "1-3 1-4 1-5 ");
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-3 1-4 1-5 1-6 ");
    age(3, 3601);
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-4 1-5 1-6 1-7 ");
    EXPECT_EQ(found().removed_files, 3U);
    EXPECT_EQ(found().removed_bytes, 3 * 480);
    EXPECT_EQ(found().files, 4U);
    EXPECT_EQ(found().bytes, 4 * 480);
}

// A file that was written late keeps those behind it, too: a log has no gap.
// A clock that was ahead for a while.
TEST_F(RetentionTest, AFileOfTheFutureIsAsOldAsTheNextOne)
{
    make(6);
    age(6, 1800);
    age(3, 7200);
    age(2, -1'000'000);
    EXPECT_EQ(open_log({.seconds = 3600, .text = "1h"}), "");
    EXPECT_EQ(left(), "1-4 1-5 1-6 ");
    age(6, -1'000'000);
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-4 1-5 1-6 1-7 ");
}

// As the bridge does on SIGHUP.
TEST_F(RetentionTest, ANewLineCountsAtOnce)
{
    make(5);
    EXPECT_EQ(open_log({}), "");
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    fwu_writer_tend(writer);
    config.keep = {.bytes = 1, .text = "1"};
    fwu_writer_configure(writer, config);
    EXPECT_EQ(left(), "1-1 1-2 1-3 1-4 1-5 ");
    EXPECT_EQ(fwu_writer_tend_in(writer), 0);
    fwu_writer_tend(writer);
    EXPECT_EQ(left(), "1-4 1-5 ");
}

TEST_F(RetentionTest, OnlyTheOldestOnesGo)
{
    make(5);
    age(5, 7200);
    age(1, 0);
    EXPECT_EQ(open_log({.seconds = 3600, .text = "1h"}), "");
    EXPECT_EQ(left(), "1-1 1-2 1-3 1-4 1-5 ");
}

TEST_F(RetentionTest, TheNewestBytesStay)
{
    const std::vector<std::pair<int64_t, std::string>> cases = {
        {4 * 480 + 1, "1-1 1-2 1-3 1-4 1-5 "}, // five files hold that
        {4 * 480, "1-2 1-3 1-4 1-5 "},
        {2 * 480 + 1, "1-3 1-4 1-5 "},
        {2 * 480, "1-4 1-5 "},
    };
    make(5);
    for (const auto &[bytes, files] : cases) {
        EXPECT_EQ(open_log({.bytes = bytes, .text = "size"}), "");
        EXPECT_EQ(left(), files) << bytes;
        close_log();
    }
}

TEST_F(RetentionTest, WhatAnyRuleKeepsStays)
{
    make(6);
    age(2, 7200);
    EXPECT_EQ(open_log({.seconds = 3600, .bytes = 5 * 480, .text = "both"}), "");
    EXPECT_EQ(left(), "1-2 1-3 1-4 1-5 1-6 ") << "the size keeps more";
    close_log();
    EXPECT_EQ(open_log({.seconds = 3600, .bytes = 2 * 480, .text = "both"}), "");
    EXPECT_EQ(left(), "1-3 1-4 1-5 1-6 ") << "the time keeps more";
}

// The next start needs them.
TEST_F(RetentionTest, TheTwoNewestFilesStayWhateverTheLineSays)
{
    make(4);
    EXPECT_EQ(open_log({.bytes = 1, .text = "1"}), "");
    EXPECT_EQ(left(), "1-3 1-4 ");
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-4 1-5 ");
    close_log();
    EXPECT_EQ(open_log({}), "");
    EXPECT_EQ(fwu_writer_last_lsn(writer), 1001U);
}

// Files without a transaction in front of them, and the file of the last record.
TEST_F(RetentionTest, TheFileOfTheLastRecordStays)
{
    make(3);
    EXPECT_EQ(open_log({}), "");
    const fwu_mark mark = {.kind = FWU_MARK_TRUNCATE, .schema = "s", .table = "t"};
    for (uint64_t n = 0; n < 4; n++) {
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        ASSERT_EQ(fwu_writer_mark(writer, mark), 0);
        ASSERT_EQ(fwu_writer_commit(writer, {.time_us = 0, .lsn = 2000 + n}), 0);
    }
    close_log();
    EXPECT_EQ(open_log({.bytes = 1, .text = "1"}), "");
    EXPECT_EQ(left(), "1-3 1-4 1-5 1-6 1-7 ") << "the numbers of records go on behind 1-3";
    EXPECT_EQ(append(), "");
    EXPECT_EQ(append(), "");
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-9 1-10 ");
    EXPECT_EQ(run({program, "verify"}).status, 0);
}

TEST_F(RetentionTest, FilesGoAFewAtATime)
{
    make(20);
    EXPECT_EQ(open_log({.bytes = 1, .text = "1"}), "");
    EXPECT_EQ(found().removed_files, 8U);
    EXPECT_LE(fwu_writer_tend_in(writer), 1000) << "there are more";
    EXPECT_EQ(append(), "");
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-21 1-22 ");
    EXPECT_GT(fwu_writer_tend_in(writer), 1000);
}

TEST_F(RetentionTest, WhatIsAcknowledgedNeedsAReader)
{
    make(4);
    const std::string told = "fwutil: warning: old log files stay: log-keep acknowledged, and no "
                             "reader is registered (fwlog readers --add)\n";
    EXPECT_EQ(open_log(acknowledged), told);
    EXPECT_EQ(append(), "") << "once";
    EXPECT_EQ(left(), "1-1 1-2 1-3 1-4 1-5 ");
    status("a.status", {1, 3, 2});
    add_reader("a.status");
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-3 1-4 1-5 1-6 ");
    EXPECT_EQ(found().problem, "");
    EXPECT_EQ(found().held_by, here("a.status"));
    EXPECT_EQ(found().held_at, "position on disk 1-3.2");
    EXPECT_EQ(found().held_files, 2U) << "1-3 and 1-4: the others stay in any case";
    EXPECT_EQ(found().held_bytes, 2 * 480);
    ASSERT_EQ(run({program, "readers", "--remove", "a.status"}).status, 0);
    EXPECT_EQ(append(), told) << "again, since it has changed";
    EXPECT_EQ(left(), "1-3 1-4 1-5 1-6 1-7 ");
}

TEST_F(RetentionTest, TheSlowestReaderCountsByWhatItHasOnDisk)
{
    make(6);
    two_places("a.status", {1, 6, 2}, {1, 3, 4});
    status("b.status", {1, 5, 2});
    add_reader("a.status");
    add_reader("b.status");
    EXPECT_EQ(open_log({.bytes = 1, .text = "1"}), "");
    EXPECT_EQ(left(), "1-3 1-4 1-5 1-6 ");
    EXPECT_EQ(found().readers, 2U);
    EXPECT_EQ(found().held_by, here("a.status"));
    status("a.status", {1, 6, 2});
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-5 1-6 1-7 ");
    EXPECT_EQ(found().held_by, here("b.status"));
    two_places("b.status", {1, 7, 2}, {}, "", "any"); // a consumer that acknowledges
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-6 1-7 1-8 ");
}

TEST_F(RetentionTest, AReaderThatCannotBeReadKeepsEverythingAndIsTold)
{
    make(3);
    status("a.status", {1, 3, 2});
    add_reader("a.status");
    std::filesystem::remove(dir.file("a.status"));
    EXPECT_EQ(open_log({.bytes = 1, .text = "1"}),
              "fwutil: warning: old log files stay: " + here("a.status") +
                  ": the registered reader has no status file "
                  "yet\n");
    EXPECT_EQ(append(), "") << "once";
    write_file(dir.file("a.status"), "Kestro");
    EXPECT_THAT(append(), HasSubstr("fwutil: warning: old log files stay: " + here("a.status") +
                                    ": the status file is damaged; "));
    EXPECT_EQ(append(), "");
    EXPECT_EQ(found().held_by, here("a.status"));
    status("a.status", {1, 9, 2});
    EXPECT_THAT(append(), HasSubstr(": position on disk 1-9.2: the log does not have that file; "));
    status("a.status", {1, 3, 2}, "/var/other");
    EXPECT_THAT(append(), HasSubstr(": the status file belongs to the log in /var/other, "));
    std::filesystem::remove(dir.file("a.status"));
    ASSERT_EQ(mkfifo(dir.file("a.status").c_str(), 0600), 0);
    EXPECT_THAT(append(), HasSubstr(": it is not a regular file\n"));
    std::filesystem::remove(dir.file("a.status"));
    status("a.status", {1, 2, 4});
    EXPECT_EQ(left(), "1-1 1-2 1-3 1-4 1-5 1-6 1-7 1-8 1-9 ");
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-2 1-3 1-4 1-5 1-6 1-7 1-8 1-9 1-10 ");
}

// A position of another log of the same numbers must not let anything go.
TEST_F(RetentionTest, AReaderOfALogThatWasThereBeforeKeepsEverything)
{
    make(4);
    status("a.status", {1, 4, 2});
    add_reader("a.status");
    const std::string readers = read_file(dir.file("log/readers"));
    std::filesystem::remove_all(dir.file("log"));
    make(4);
    write_file(dir.file("log/readers"), readers);
    EXPECT_THAT(open_log({.bytes = 1, .text = "1"}),
                HasSubstr(": position on disk 1-4.2: the log has another record there"));
    EXPECT_EQ(left(), "1-1 1-2 1-3 1-4 ");
}

TEST_F(RetentionTest, ADamagedRegisterKeepsEverythingAndIsTold)
{
    make(3);
    write_file(dir.file("log/readers"), "fwutil readers 1\n");
    EXPECT_EQ(
        open_log({.bytes = 1, .text = "1"}),
        "fwutil: warning: old log files stay: " + here("log") +
            "/readers: damaged: it says which readers need the log; restore it from a copy, or "
            "remove it and register them again (fwlog readers --add)\n");
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-1 1-2 1-3 1-4 ");
    std::filesystem::remove(dir.file("log/readers"));
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-4 1-5 ");
}

TEST_F(RetentionTest, WhoRegistersAtThisMomentIsNotRaced)
{
    make(3);
    EXPECT_EQ(open_log({}), "");
    close_log();
    // The lock of another process, as while it registers.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        fwu_readers_lock lock;
        const bool good = fwu_readers_take_lock(lock, dir.file("log"), false) == FWU_FOUND;
        (void)write(ready[1], good ? "y" : "n", 1);
        pause();
        _exit(0);
    }
    char answer = 0;
    ASSERT_EQ(read(ready[0], &answer, 1), 1);
    ASSERT_EQ(answer, 'y');
    EXPECT_EQ(open_log({.bytes = 1, .text = "1"}), "");
    EXPECT_EQ(append(), "") << "no reason to complain";
    EXPECT_EQ(left(), "1-1 1-2 1-3 1-4 ");
    // One that hangs is told, once.
    fwu_log_end log;
    log.directory = dir.file("log");
    fwu_retention retention;
    retention.keep = acknowledged;
    retention.locked_ms = fwu_monotonic_ms() - 60'000;
    testing::internal::CaptureStderr();
    fwu_retention_look(retention, log, true);
    fwu_retention_look(retention, log, true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "fwutil: warning: old log files stay: " + here("log") +
                  "/readers.lock: another process has held the lock for a minute; end it if it "
                  "hangs\n");
    kill(pid, SIGKILL);
    ASSERT_EQ(wait_program(pid), 128 + SIGKILL);
    close(ready[0]);
    close(ready[1]);
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-4 1-5 ");
}

// Whatever goes wrong, capture goes on.
TEST_F(RetentionTest, ItsOwnErrorsStopNothing)
{
    make(4);
    std::filesystem::remove(file(2));
    std::filesystem::create_directory(file(2));
    std::filesystem::last_write_time(file(2), std::filesystem::last_write_time(file(1)));
    const std::string told = "fwutil: warning: old log files stay: " + here("log") +
                             "/fw0001-00000002.log: cannot remove the log file: Is a directory; it "
                             "and the newer ones are left\n";
    EXPECT_EQ(open_log({.bytes = 1, .text = "1"}), told);
    EXPECT_EQ(append(), "");
    EXPECT_EQ(left(), "1-2 1-3 1-4 1-5 ");
    EXPECT_THAT(found().problem, HasSubstr("cannot remove the log file"));
    std::filesystem::remove(file(2));
    EXPECT_EQ(append(), "");
    EXPECT_EQ(found().problem, "");
    std::filesystem::remove(dir.file("log/readers.lock"));
    std::filesystem::create_directory(dir.file("log/readers.lock"));
    EXPECT_EQ(append(),
              "fwutil: warning: old log files stay: " + here("log") +
                  "/readers.lock: cannot open the lock file of the register of readers: Is "
                  "a directory\n");
}

TEST_F(RetentionTest, LittleRoomIsToldWithWhatHoldsTheLog)
{
    make(4);
    status("a.status", {1, 2, 2});
    add_reader("a.status");
    disk = {.given = true, .free = 1000, .size = 20'000};
    EXPECT_EQ(open_log({.bytes = 1, .text = "1"}), "");
    disk.free = 999;
    EXPECT_EQ(append(), "fwutil: warning: " + here("log") +
                            ": its file system has 999.0 kB left of 20.0 MB; the log has 4 files "
                            "with 1.9 kB: 2 of them, 960 bytes, stay for the reader " +
                            here("a.status") + " (position on disk 1-2.2)\n");
    EXPECT_TRUE(found().little_room);
    disk.free = 900;
    EXPECT_EQ(append(), "") << "once";
    disk.free = 1249;
    EXPECT_EQ(append(), "") << "not better yet";
    EXPECT_TRUE(found().little_room);
    disk.free = 1250;
    EXPECT_EQ(append(), "");
    EXPECT_FALSE(found().little_room);
    disk.free = 999;
    EXPECT_THAT(append(), HasSubstr("its file system has 999.0 kB left")) << "again";
}

TEST_F(RetentionTest, LittleRoomIsToldWithoutALineToo)
{
    make(2);
    disk = {.given = true, .free = 1, .size = 20'000};
    EXPECT_EQ(open_log({}),
              "fwutil: warning: " + here("log") +
                  ": its file system has 1.0 kB left of 20.0 MB; the log has 2 files "
                  "with 960 bytes: none is removed by itself, since the configuration "
                  "has no line log-keep (fwlog prune removes some)\n");
    close_log();
    EXPECT_THAT(open_log({.seconds = 3600, .text = "1h"}),
                HasSubstr("the log has 2 files with 960 bytes: log-keep 1h keeps them\n"));
    close_log();
    EXPECT_THAT(open_log(acknowledged),
                HasSubstr("none is removed: log-keep acknowledged, and no reader is registered "
                          "(fwlog readers --add)\n"));
}

TEST_F(RetentionTest, InfoShowsWhatKeepsOldFiles)
{
    make(4);
    EXPECT_THAT(run({program, "info", "--json"}).out,
                testing::EndsWith(",\"retention\":{\"keep\":null,\"readers\":0,\"held_by\":null,"
                                  "\"held_at\":null,\"held_files\":0}}\n"));
    EXPECT_THAT(run({program, "info"}).out, testing::Not(HasSubstr("readers ")));
    status("a.status", {1, 3, 2});
    status("b.status", {1, 2, 2});
    add_reader("a.status");
    add_reader("b.status");
    write_file(dir.file("fwutil.cfg"), "log-directory log\nlog-keep 7d 20G\n");
    EXPECT_THAT(run({program, "info"}).out,
                HasSubstr("log-keep          7d 20G\nreaders           2; 3 files stay for " +
                          here("b.status") + " (position on disk 1-2.2)\n"));
    EXPECT_THAT(
        run({program, "info", "--json"}).out,
        testing::EndsWith(",\"retention\":{\"keep\":\"7d 20G\",\"readers\":2,\"held_by\":\"" +
                          here("b.status") +
                          "\",\"held_at\":\"position on disk 1-2.2\",\"held_files\":3}}\n"));
    write_file(dir.file("a.status"), "Kestro");
    EXPECT_THAT(run({program, "info"}).out,
                HasSubstr("2; 4 files stay for " + here("a.status") + " (" + here("a.status") +
                          ": the status file is damaged; "));
}

TEST_F(RetentionTest, AnEmptyDirectoryIsToldNothing)
{
    std::filesystem::create_directory(dir.file("log"));
    EXPECT_EQ(run({program, "dump"}).err, "");
    EXPECT_EQ(open_log(acknowledged).find("beginning"), std::string::npos);
    EXPECT_EQ(append(), "");
    EXPECT_EQ(run({program, "dump"}).err, "");
}

TEST(RoomTest, LittleIsAPartOfTheFileSystemUpToAGiB)
{
    const int64_t gib = int64_t{1} << 30;
    EXPECT_EQ(fwu_room_little({true, 0, 1000}), 50);
    EXPECT_EQ(fwu_room_little({true, 0, 20 * gib}), gib);
    EXPECT_EQ(fwu_room_little({true, 0, 8000 * gib}), gib);
    EXPECT_FALSE(fwu_room_is_little({true, 50, 1000}, false));
    EXPECT_TRUE(fwu_room_is_little({true, 49, 1000}, false));
    EXPECT_TRUE(fwu_room_is_little({true, 61, 1000}, true));
    EXPECT_FALSE(fwu_room_is_little({true, 62, 1000}, true));
    EXPECT_FALSE(fwu_room_is_little({}, false)) << "not known";
    EXPECT_FALSE(fwu_room_of("/nothing/there").known);
    EXPECT_TRUE(fwu_room_of("/").known);
}

TEST(RoomTest, TextHasOneDecimal)
{
    const std::vector<std::pair<int64_t, std::string>> cases = {
        {0, "0 bytes"},          {999, "999 bytes"},        {1000, "1.0 kB"},
        {1960, "2.0 kB"},        {999'949, "999.9 kB"},     {999'950, "1.0 MB"},
        {67'108'864, "67.1 MB"}, {4'300'000'000, "4.3 GB"}, {5'000'000'000'000'000, "5000.0 TB"},
    };
    for (const auto &[bytes, text] : cases)
        EXPECT_EQ(fwu_room_text(bytes), text);
}
