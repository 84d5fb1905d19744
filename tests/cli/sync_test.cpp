// What the built program brings to disk, and when: with its own forward-log library,
// which asks, and with one that does not.
#include "tests/cli/cli_fixture.h"
#include "tests/procs/growing_log.h"

#include <gmock/gmock.h>
#include <unistd.h>

using testing::HasSubstr;

constexpr size_t LINE = 62 + 14 + 20 + 1; // bytes of a record of growing_log.h

static std::string capture_of(size_t records)
{
    return "cap " + std::to_string(records * LINE) + "\n";
}

// ---- its own library

class LogSync : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64M");
        options.directory = dir.path();
        options.env = {{"TZ", "UTC"}, {"LD_PRELOAD", NOTING_SYNC}, {"NOTING_SYNC", dir.file("n")}};
        options.unset = {"KESTRO_SYNC", "KESTRO_TEXT", "LD_LIBRARY_PATH"};
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        EXPECT_TRUE(append_transaction(writer, 1, 3));
    }
    void TearDown() override
    {
        fwu_writer_close(writer);
    }

    // What a run from the first record on brought to disk: its capture files, the
    // directory of a new one, and "position" for the status file.
    std::string synced(const char *setting)
    {
        for (const char *name : {"n", "fwutil.status", "cap"})
            std::filesystem::remove(dir.file(name));
        options.env["KESTRO_SYNC"] = setting;
        const run_result run =
            run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-ascii", "cap"}, options);
        EXPECT_EQ(0, run.status) << run.err;
        EXPECT_EQ("", run.err);
        return notes();
    }
    std::string notes() const
    {
        std::istringstream lines(read_file(dir.file("n")));
        std::string result;
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("fwutil.status", 0) == 0)
                line = "position";
            if (line.rfind("fw0001-", 0) != 0) // the log's own files
                result += line + "\n";
        }
        return result;
    }

    tempdir dir;
    run_setup options;
    fwu_writer *writer = nullptr;
};

TEST_F(LogSync, CaptureFilesAreOnDiskBeforeThePosition)
{
    const std::string first = capture_of(1) + "directory\nposition\n";
    // Behind the first record since its file is new, and at the end.
    EXPECT_THAT(synced(""), HasSubstr(first + capture_of(3) + "position\n"));
    EXPECT_THAT(synced("interval 60000"), HasSubstr(first + capture_of(3) + "position\n"));
    EXPECT_THAT(synced("record"),
                HasSubstr(first + capture_of(2) + "position\n" + capture_of(3) + "position\n"));
    EXPECT_THAT(synced("off"), testing::Not(HasSubstr("cap")));
}

TEST_F(LogSync, WhenReadingRestsEverythingIsOnDisk)
{
    options.env["KESTRO_SYNC"] = "idle";
    const pid_t pid =
        start_program({KESTRO_BUILD_DIR "/bin/Kestro", "-ascii", "cap"}, options, "", "");
    EXPECT_TRUE(poll_until(
        [&] { return notes().find(capture_of(3) + "position\n") != std::string::npos; }, 10))
        << notes();
    EXPECT_TRUE(append_transaction(writer, 4, 2));
    EXPECT_TRUE(poll_until(
        [&] { return notes().find(capture_of(5) + "position\n") != std::string::npos; }, 10))
        << notes();
    kill(pid, SIGKILL);
    wait_program(pid);
}

// The run that goes on behind a kill may write under other names: what the killed one
// left in memory is on disk before a position that covers it.
TEST_F(LogSync, WhatAKilledRunLeftIsOnDiskBeforeTheNextRunsPosition)
{
    options.env["KESTRO_SYNC"] = "interval 86400000"; // behind the first record only
    for (const bool moved : {false, true}) {
        for (const char *name : {"fwutil.status", "cap", "msg", "next"})
            std::filesystem::remove(dir.file(name));
        const pid_t pid = start_program({KESTRO_BUILD_DIR "/bin/Kestro", "msg", "-ascii", "cap"},
                                        options, "", "");
        EXPECT_TRUE(poll_until([&] { return read_file(dir.file("cap")).size() == 3 * LINE; }, 10));
        kill(pid, SIGKILL);
        wait_program(pid);
        std::filesystem::remove(dir.file("n"));
        if (moved)
            std::filesystem::rename(dir.file("cap"), dir.file("taken"));
        const run_result run =
            run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-ascii", "next"}, options);
        EXPECT_EQ(0, run.status) << run.err;
        EXPECT_EQ("", run.err);
        const std::string before = notes().substr(0, notes().find("position\n"));
        EXPECT_THAT(before, HasSubstr("msg 4630\n"));
        EXPECT_THAT(before, HasSubstr(moved ? "everything\n" : capture_of(3).c_str()));
    }
}

// A file that its owner has closed to others, or whose directory is: what the system
// has of it goes to disk with everything else.
TEST_F(LogSync, WhatAKilledRunLeftNeedNotBeOpenToTheNextRun)
{
    options.env["KESTRO_SYNC"] = "interval 86400000";
    std::filesystem::create_directory(dir.file("in"));
    const pid_t pid =
        start_program({KESTRO_BUILD_DIR "/bin/Kestro", "-ascii", "in/cap"}, options, "", "");
    EXPECT_TRUE(poll_until([&] { return read_file(dir.file("in/cap")).size() == 3 * LINE; }, 10));
    kill(pid, SIGKILL);
    wait_program(pid);
    const std::string status = read_file(dir.file("fwutil.status"));
    options.env.erase("LD_PRELOAD"); // for the program alone
    const bool root = geteuid() == 0;
    const std::string nobody = "setpriv --reuid 65534 --regid 65534 --clear-groups ";
    const std::string start = "exec " + (root ? nobody : "") +
                              "env LD_PRELOAD=" NOTING_SYNC " " KESTRO_BUILD_DIR
                              "/bin/Kestro -synconly -ascii next";
    const char *owners =
        root ? "chmod 755 . && chown -R 65534:65534 . && chown 0 in in/cap" : "true";
    ASSERT_EQ(0, run_program({"sh", "-c", owners}, options).status);
    const std::string reach =
        "test -w " + dir.path() + " && test -x " KESTRO_BUILD_DIR "/bin/Kestro";
    if (root && run_program({"sh", "-c", nobody + "sh -c '" + reach + "'"}, options).status != 0)
        GTEST_SKIP() << "another user cannot reach the program or the test's directory";
    for (const char *closed : {"chmod 0 in/cap", "chmod 644 in/cap; chmod 311 in", "chmod 0 in"}) {
        SCOPED_TRACE(closed);
        for (const char *name : {"n", "next"})
            std::filesystem::remove(dir.file(name));
        write_file(dir.file("fwutil.status"), status);
        const run_result run = run_program({"sh", "-c", closed + ("; " + start)}, options);
        EXPECT_EQ(0, run.status) << run.err;
        EXPECT_EQ("", run.err);
        EXPECT_THAT(notes().substr(0, notes().find("position\n")), HasSubstr("everything\n"));
    }
    run_program({"chmod", "755", "in"}, options);
}

// The system forgets what it could not write; a later call says that all is well.
TEST_F(LogSync, RecordsThatAFailedSyncLostComeAgain)
{
    options.env["KESTRO_TEXT"] = "append";
    const std::vector<std::string> command = {KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-ascii",
                                              "cap"};
    for (const char *which : {"cap 2", "fw0001-00000001.log 2", "fwutil.status 3"}) {
        SCOPED_TRACE(which);
        for (const char *name : {"n", "fwutil.status", "cap"})
            std::filesystem::remove(dir.file(name));
        options.env["LOSING_SYNC"] = which;
        const run_result lost = run_program(command, options);
        EXPECT_EQ(1, lost.status);
        EXPECT_THAT(lost.err, HasSubstr(" to disk: "));
        options.env.erase("LOSING_SYNC");
        const run_result again = run_program(command, options);
        EXPECT_EQ(0, again.status) << again.err;
        EXPECT_THAT(again.err, HasSubstr("the last run could not bring to disk all that it had "
                                         "written: going on behind "));
        EXPECT_EQ(3 * LINE, read_file(dir.file("cap")).size()) << "each record once";
    }
}

// Closing the file is not the end of it: what it held is behind the position.
TEST_F(LogSync, AFullFileThatIsNotOnDiskKeepsThePositionBack)
{
    options.env["KESTRO_MAXCAP"] = "4600"; // three records: two are behind
    options.env["KESTRO_SYNC"] = "interval 86400000";
    options.env["LOSING_SYNC"] = "msg 2";
    const run_result lost =
        run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-rollover", "msg"}, options);
    EXPECT_EQ(1, lost.status);
    const std::string word = "Error bringing capture file to disk: ";
    EXPECT_NE(lost.err.find(word), lost.err.npos);
    EXPECT_EQ(lost.err.find(word), lost.err.rfind(word)) << "once";
    options.env.erase("LOSING_SYNC");
    const run_result again =
        run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-ascii", "cap"}, options);
    EXPECT_THAT(again.err, HasSubstr("the last run could not bring to disk all that it had "
                                     "written: going on behind 1-1.2,"));
    EXPECT_EQ(2 * LINE, read_file(dir.file("cap")).size());
}

// Nothing tells how far the files were: everything that the system has goes to disk.
TEST_F(LogSync, BehindARunThatForcedNothingTheNextOneBringsEverythingToDisk)
{
    (void)synced("off");
    std::filesystem::remove(dir.file("n"));
    for (const bool off : {true, false}) {
        options.env["KESTRO_SYNC"] = off ? "off" : "idle";
        const run_result run =
            run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-ascii", "next"}, options);
        EXPECT_EQ(0, run.status) << run.err;
        EXPECT_EQ(off, notes().find("everything\n") == std::string::npos);
    }
}

TEST_F(LogSync, AFileThatHasRolledOverIsOnDiskWhenItIsClosed)
{
    options.env["KESTRO_MAXCAP"] = "4500"; // two records of 62 + 24 + 6 bytes
    for (const char *setting : {"", "record"}) {
        for (const char *name : {"n", "fwutil.status", "msg", "msg1", "msg2"})
            std::filesystem::remove(dir.file(name));
        options.env["KESTRO_SYNC"] = setting;
        const run_result run =
            run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-rollover", "msg"}, options);
        EXPECT_EQ(0, run.status) << run.err;
        EXPECT_THAT(notes(), HasSubstr("msg 4538\n")) << "with its last record";
        EXPECT_THAT(notes(), HasSubstr("msg1 4446\n"));
    }
}

// ---- another library

class CliSync : public Cli {
  protected:
    CliSync()
    {
        options.env["LD_PRELOAD"] = NOTING_SYNC;
        options.env["NOTING_SYNC"] = dir.file("n");
        options.unset.push_back("KESTRO_SYNC");
        options.unset.push_back("KESTRO_TEXT");
        std::string lines = "item T X 1 1 0\n";
        for (int i = 0; i < 3; i++)
            lines += "record D S 0 3 1 - 41\n";
        script(lines);
    }

    std::string synced(const char *setting)
    {
        std::filesystem::remove(dir.file("n"));
        options.env["KESTRO_SYNC"] = setting;
        const run_result run = run_program(command({"-ascii", "cap"}), options);
        EXPECT_EQ(0, run.status) << run.err;
        return read_file(dir.file("n"));
    }
};

TEST_F(CliSync, ALibraryThatDoesNotAskGetsItsRecordsOnDiskAllTheSame)
{
    EXPECT_EQ("cap 64\ndirectory\ncap 192\n", synced(""));
    EXPECT_EQ("cap 64\ndirectory\ncap 192\n", synced("idle"));
    EXPECT_EQ("cap 64\ndirectory\ncap 128\ncap 192\n", synced("record"));
    EXPECT_EQ("", synced("off"));
}

// It has no moment of its own for it but the next record.
TEST_F(CliSync, WithALibraryThatDoesNotAskFilesAreOpenedAnewBeforeTheNextRecord)
{
    std::string lines = "item T X 1 1 0\n";
    for (int i = 0; i < 3; i++)
        lines += std::string(i == 1 ? "rotate cap\n" : "") + "record D S 0 3 1 - 41\n";
    script(lines);
    for (const char *setting : {"idle", "record", "off"}) {
        for (const char *name : {"cap", "cap.1"})
            std::filesystem::remove(dir.file(name));
        const std::string notes = synced(setting);
        EXPECT_EQ(64U, read_file(dir.file("cap.1")).size());
        EXPECT_EQ(128U, read_file(dir.file("cap")).size());
        EXPECT_EQ(std::string(setting) == "off"
                      ? ""
                      : "cap 64\ndirectory\ncap.1 64\ncap 0\ndirectory\ncap 64\ncap 128\n",
                  notes);
    }
}

TEST_F(CliSync, WrongSettingsAreRefusedBeforeAnythingIsOpened)
{
    const struct {
        const char *name, *value, *err;
    } cases[] = {
        {"KESTRO_TEXT", "apend", "KESTRO_TEXT: \"apend\" is none of truncate, append, new\n"},
        {"KESTRO_SYNC", "always",
         "KESTRO_SYNC: \"always\" is none of idle, interval MILLISECONDS (1 to 86400000), record, "
         "off\n"},
    };
    for (const auto &c : cases) {
        options.env[c.name] = c.value;
        for (const char *way : {"-synconly", "-bg"}) {
            expect({way, "-pidfile", "pid", "-ascii", "cap"}, 1,
                   "0 records written to capture file cap\n" + std::string(failed), c.err);
            EXPECT_EQ("", calls()) << "the library was not asked to do anything";
            EXPECT_FALSE(std::filesystem::exists(dir.file("pid")));
            EXPECT_FALSE(std::filesystem::exists(dir.file("cap")));
        }
        expect({"-versnum"}, 0, "2.21\n", "");
        options.env.erase(c.name);
    }
}

TEST_F(CliSync, AFileThatIsThereIsRefusedWhenItIsToBeNew)
{
    options.env["KESTRO_TEXT"] = "new";
    script("item T X 1 1 0\nrecord D S 0 3 1 - 41\nresult 1\n");
    write_file(dir.file("cap"), "kept\n");
    expect({"-ascii", "cap"}, 1, "0 records written to capture file cap\n" + std::string(failed),
           "CAPERR: File exists\nError opening ASCII capture file: cap\nFwu_process() failed.\n");
    EXPECT_EQ("kept\n", read_file(dir.file("cap")));
}
