// What docs/operations.md says to do after a failure, carried out: the run goes on and
// nothing is lost or there twice.
#include "tests/procs/growing_log.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

constexpr int RECORDS = 20000;
constexpr size_t SEQUENCE = 6;
constexpr uintmax_t LINE = 97;

class Remedy : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64M");
        options.directory = dir.path();
        options.env = {{"TZ", "UTC"},
                       {"K", KESTRO_BUILD_DIR "/bin/Kestro -synconly"},
                       {"TMF", KESTRO_BUILD_DIR "/bin/tmf"}};
        options.unset = {"KESTRO_SYNC", "KESTRO_TEXT", "LD_LIBRARY_PATH"};
        append(RECORDS);
    }

    void append(int n)
    {
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        for (const int end = logged + n; logged < end; logged += 100)
            EXPECT_TRUE(append_transaction(writer, logged + 1, 100));
        fwu_writer_close(writer);
    }

    run_result sh(const std::string &script)
    {
        return run_program({"sh", "-c", script}, options);
    }

    // A file's lines without the sequence number, which begins anew with each run.
    static std::vector<std::string> records(const std::string &text)
    {
        std::vector<std::string> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
            lines.push_back(line.substr(std::min(SEQUENCE, line.size())));
        return lines;
    }
    std::vector<std::string> all()
    {
        EXPECT_EQ(0, sh("$K -stat whole.status -ascii whole").status);
        const auto lines = records(read_file(dir.file("whole")));
        EXPECT_EQ(size_t{RECORDS}, lines.size());
        return lines;
    }

    tempdir dir;
    run_setup options;
    int logged = 0;
};

TEST_F(Remedy, AFullDiskAndARunThatAppends)
{
    const auto whole = all();
    const run_result run =
        sh("exec unshare -m sh -c '"
           "mkdir full && mount -t tmpfs -o size=512k none full || exit 77\n"
           "$K -ascii full/cap 2>first.err; echo $? >first.status; wc -c <full/cap >first.size\n"
           "mount -o remount,size=4m full || exit 77\n" // room is made
           "KESTRO_TEXT=append $K -ascii full/cap 2>second.err; echo $? >second.status\n"
           "cp full/cap cap'");
    if (run.status != 0)
        GTEST_SKIP() << "no mounts of one's own: " << run.err;
    EXPECT_EQ("1\n", read_file(dir.file("first.status")));
    EXPECT_THAT(read_file(dir.file("first.err")),
                HasSubstr("Error writing to capture file: full/cap\n"));
    EXPECT_NE("0\n", read_file(dir.file("first.size")));
    EXPECT_EQ("0\n", read_file(dir.file("second.status"))) << read_file(dir.file("second.err"));
    EXPECT_EQ("", read_file(dir.file("second.err")));
    EXPECT_EQ(whole, records(read_file(dir.file("cap"))));
}

TEST_F(Remedy, AFileSizeLimitAndRunsThatAppend)
{
    const auto whole = all();
    for (const int blocks : {20, 21, 100, 1000}) { // of 512 bytes; the status file needs some
        const run_result run = sh("export KESTRO_TEXT=append; ulimit -S -f " +
                                  std::to_string(blocks) + "; $K -ascii cap");
        EXPECT_EQ(1, run.status);
        EXPECT_THAT(run.err, HasSubstr("Error writing to capture file: cap\n"));
    }
    EXPECT_EQ(0, sh("KESTRO_TEXT=append $K -ascii cap").status);
    EXPECT_EQ(whole, records(read_file(dir.file("cap"))));
}

TEST_F(Remedy, AFileSizeLimitAndAFileOfANewName)
{
    const auto whole = all();
    EXPECT_EQ(1, sh("ulimit -S -f 100; $K -ascii one").status);
    const run_result refused = sh("KESTRO_TEXT=new $K -ascii one");
    EXPECT_EQ(1, refused.status);
    EXPECT_THAT(refused.err, HasSubstr("CAPERR: File exists\n"
                                       "Error opening ASCII capture file: one\n"));
    EXPECT_EQ(0, sh("KESTRO_TEXT=new $K -ascii two").status);
    EXPECT_EQ(whole, records(read_file(dir.file("one")) + read_file(dir.file("two"))));
}

TEST_F(Remedy, AFileSizeLimitAndTheSameMessageFile)
{
    const auto whole = all();
    EXPECT_EQ(1, sh("ulimit -S -f 400; $K msg").status);
    EXPECT_EQ(0, sh("$K msg").status);
    EXPECT_EQ(std::to_string(RECORDS) + "\n",
              sh("$TMF info msg | sed -n 's/ *records  \\([0-9]*\\),.*/\\1/p'").out);
}

TEST_F(Remedy, AFullMessageFileAndARunThatRollsOver)
{
    const run_result full = sh("KESTRO_MAXCAP=100000 $K msg");
    EXPECT_EQ(1, full.status);
    EXPECT_THAT(full.err, HasSubstr("End of file on capture file msg\n"));
    EXPECT_EQ(0, sh("KESTRO_MAXCAP=100000000 $K -rollover msg").status);
    EXPECT_EQ(std::to_string(RECORDS + 1) + "\n",
              sh("$TMF info msg | sed -n 's/ *records  \\([0-9]*\\),.*/\\1/p'").out)
        << "the record in hand comes once more";
}

// One record in the middle is longer than a message file's may be.
TEST_F(Remedy, ARecordTooLongForAMessageFileAndATextFileForItsDataset)
{
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    const std::string image(20000, 'x');
    const fwu_layout layout = {"TESTDB", "LETTERS", {{"TEXT", 'X', 20000}}, {}};
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_UPDATE, layout, 1700000000, 20000, image.data(),
                                image.data()),
              0);
    fwu_commit commit;
    commit.time_us = 1700000000LL * 1000000;
    commit.lsn = 1000000;
    ASSERT_EQ(fwu_writer_commit(writer, commit), 0);
    fwu_writer_close(writer);
    append(100);

    const run_result refused = sh("$K msg");
    EXPECT_EQ(1, refused.status);
    EXPECT_THAT(refused.err,
                HasSubstr("CAPERR: Invalid record size.\nError writing to capture file: msg\n"
                          "Update of TESTDB.LETTERS makes a record of 40062 bytes (header 62, "
                          "images 2 x 20000), and a message file takes 32761 at most: capture "
                          "TESTDB:LETTERS into a text file (-ascii), "));
    const run_result again = sh("$K -ascii -dset TESTDB:LETTERS text -dset TESTDB:COUNTER msg");
    EXPECT_EQ(0, again.status) << again.err;
    EXPECT_EQ("", again.err);
    EXPECT_EQ(62 + 2 * 20000 + 1U, read_file(dir.file("text")).size());
    EXPECT_EQ(std::to_string(logged) + "\n",
              sh("$TMF info msg | sed -n 's/ *records  \\([0-9]*\\),.*/\\1/p'").out);
}

TEST_F(Remedy, KilledRunsThatAppend)
{
    const auto whole = all();
    options.env["KESTRO_TEXT"] = "append";
    unsigned kills = 0;
    for (uintmax_t more = 0; more < 40 * LINE; more += 5 * LINE) {
        std::error_code absent;
        const auto size = [&] {
            const auto bytes = std::filesystem::file_size(dir.file("cap"), absent);
            return absent ? 0 : bytes;
        };
        const uintmax_t target = std::min(size() + more, whole.size() * LINE - 1);
        const pid_t pid = start_program({"sh", "-c", "exec $K -ascii cap"}, options, "", "");
        EXPECT_TRUE(poll_until([&] { return size() > target; }, 10));
        kill(pid, SIGKILL);
        kills += wait_program(pid) == 128 + SIGKILL ? 1 : 0;
        if (size() >= whole.size() * LINE)
            break;
    }
    EXPECT_EQ(0, sh("$K -ascii cap").status);
    auto lines = records(read_file(dir.file("cap")));
    EXPECT_LE(lines.size(), whole.size() + kills) << "the record in hand may come again";
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    EXPECT_EQ(whole, lines);
}

// "Start again" as the library's message says it: the text file aside first, since the
// default empties it, or kept in use by the setting.
TEST_F(Remedy, ALogReplacedUnderAFollowerAndAStartThatKeepsItsRecords)
{
    for (const bool aside : {true, false}) {
        for (const char *name : {"fwutil.status", "cap", "kept"})
            std::filesystem::remove(dir.file(name));
        const auto before = static_cast<size_t>(logged);
        const pid_t pid = start_program({KESTRO_BUILD_DIR "/bin/Kestro", "-ascii", "cap"}, options,
                                        "", dir.file("err"));
        std::error_code absent;
        EXPECT_TRUE(poll_until(
            [&] { return std::filesystem::file_size(dir.file("cap"), absent) == before * LINE; },
            10));
        EXPECT_EQ(0, sh("cp -r log copy && rm -r log && mv copy log").status);
        EXPECT_EQ(1, wait_program(pid));
        EXPECT_THAT(read_file(dir.file("err")),
                    HasSubstr(": start again to go on with the log that is there now; a start may "
                              "empty the program's text files: keep them aside first\n"));
        append(100);
        const char *remedy =
            aside ? "mv cap kept && $K -ascii cap" : "KESTRO_TEXT=append $K -ascii cap";
        EXPECT_EQ(0, sh(remedy).status);
        EXPECT_EQ(aside ? 100 : before + 100, records(read_file(dir.file("cap"))).size());
        EXPECT_EQ(aside ? before : 0, records(read_file(dir.file("kept"))).size());
    }
}

// The copy of a torn line would take the place of another capture file of the run.
TEST_F(Remedy, ACaptureFileWithTheNameOfACopyGetsAnotherName)
{
    const auto whole = all();
    write_file(dir.file("a"), "torn");
    write_file(dir.file("a.cut"), "line\n");
    std::filesystem::create_symlink("a.cut", dir.file("link"));
    for (const char *files : {"-ascii a -ascii a.cut", "-ascii ./a.cut -ascii a", "-ascii a link",
                              "-ascii a -dset @ -ascii link"}) {
        SCOPED_TRACE(files);
        const run_result run = sh(std::string("KESTRO_TEXT=append $K ") + files);
        EXPECT_EQ(1, run.status);
        EXPECT_THAT(run.err, HasSubstr(" has the name of the copy that "));
        EXPECT_EQ("torn", read_file(dir.file("a")));
        EXPECT_EQ("line\n", read_file(dir.file("a.cut")));
        EXPECT_FALSE(std::filesystem::exists(dir.file("fwutil.status")));
    }
    EXPECT_EQ(0, sh("KESTRO_TEXT=append $K -ascii a -ascii b").status);
    EXPECT_EQ(whole, records(read_file(dir.file("a"))));
    EXPECT_EQ(whole, records(read_file(dir.file("b"))));
    EXPECT_EQ("torn", read_file(dir.file("a.cut")));
}

// A kill, and a start on a system that says it has been started anew: what came behind
// the position on disk is taken away and comes again.
TEST_F(Remedy, APowerCutAndARunThatAppends)
{
    const auto whole = all();
    options.env["KESTRO_SYNC"] = "interval 86400000"; // behind the first record only
    options.env["KESTRO_TEXT"] = "append";
    const pid_t pid =
        start_program({KESTRO_BUILD_DIR "/bin/Kestro", "-ascii", "cap", "msg"}, options, "", "");
    std::error_code absent;
    EXPECT_TRUE(poll_until(
        [&] { return std::filesystem::file_size(dir.file("cap"), absent) == whole.size() * LINE; },
        10));
    kill(pid, SIGKILL);
    wait_program(pid);
    const run_result run = sh("exec unshare -m sh -c '"
                              "echo 01234567-89ab-cdef-0123-456789abcdef >boot\n"
                              "mount --bind boot /proc/sys/kernel/random/boot_id || exit 77\n"
                              "$K -ascii cap msg >out 2>err; echo $? >status'");
    if (run.status != 0)
        GTEST_SKIP() << "no mounts of one's own: " << run.err;
    EXPECT_EQ("0\n", read_file(dir.file("status"))) << read_file(dir.file("err"));
    EXPECT_EQ(std::to_string(whole.size() - 1) + " Vostrel forward log file records processed.\n",
              read_file(dir.file("out")).substr(0, read_file(dir.file("out")).find('\n') + 1));
    EXPECT_EQ(whole, records(read_file(dir.file("cap"))));
    EXPECT_EQ((whole.size() - 1) * LINE, std::filesystem::file_size(dir.file("cap.cut"), absent));
    EXPECT_EQ(std::to_string(RECORDS) + "\n",
              sh("$TMF info msg | sed -n 's/ *records  \\([0-9]*\\),.*/\\1/p'").out);
    const std::string err = read_file(dir.file("err"));
    EXPECT_THAT(err, HasSubstr("/cap: what comes again, "));
    EXPECT_THAT(err, HasSubstr("/msg: cut back to what does not come again; as it was in "));
}
