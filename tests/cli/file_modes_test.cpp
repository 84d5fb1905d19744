// Who may read and write what the programs make, whatever the umask says; and what others have put
// in the place of a file that is to come.
#include "tests/cli/cli_fixture.h"
#include "tests/procs/growing_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using testing::HasSubstr;

class FileModes : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64M");
        setup.directory = dir.path();
        setup.env = {{"TZ", "UTC"}, {"KESTRO_STATUS", "run.json"}};
        setup.unset = {"KESTRO_SYNC", "KESTRO_TEXT", "KESTRO_MAXCAP", "LD_LIBRARY_PATH"};
    }
    void write_log()
    {
        fwu_config config;
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        EXPECT_TRUE(append_transaction(writer, 1, 3));
        EXPECT_EQ(fwu_writer_acknowledge(writer), 0);
        EXPECT_EQ(fwu_writer_close(writer), 0);
    }
    run_result shell(const std::string &line)
    {
        setup.env["PATH"] = std::string(KESTRO_BUILD_DIR "/bin:") + getenv("PATH");
        return run_program({"/bin/sh", "-c", line}, setup);
    }
    // The permissions of a file, in octal; "none" without it.
    std::string mode(const std::string &name) const
    {
        struct stat about = {};
        char text[16] = "none";
        if (lstat(dir.file(name).c_str(), &about) == 0)
            (void)snprintf(text, sizeof text, "%04o", about.st_mode & 07777U);
        return text;
    }
    void plant(const std::string &kind, const std::string &name)
    {
        fs::remove(dir.file(name));
        if (kind == "a link")
            fs::create_symlink(dir.file("victim"), dir.file(name));
        else if (kind == "a link to nothing")
            fs::create_symlink(dir.file("made"), dir.file(name));
        else if (kind == "a second name")
            fs::create_hard_link(dir.file("victim"), dir.file(name));
        else {
            ASSERT_EQ(mkfifo(dir.file(name).c_str(), 0666), 0);
        }
    }

    tempdir dir;
    run_setup setup;
};

TEST_F(FileModes, OfEachFileUnderEachUmask)
{
    // How a file's mode comes about: 0600 and 0666 less the umask, or as it is.
    const struct {
        const char *name;
        unsigned mode;
        bool less_umask;
    } rows[] = {
        {"log", 0700, false},
        {"log/fw0001-00000001.log", 0600, false},
        {"log/writer.lock", 0600, false},
        {"log/acknowledged", 0600, false},
        {"msg", 0600, true},
        {"text", 0666, true},
        {"pid", 0666, true},
        {"run.json", 0666, true},
        {"fwutil.status", 0666, true},
        {"queue", 0600, true},
        {"saved", 0600, true},
        {"TESTDB.COUNTER.csv", 0666, true},
    };
    for (const char *mask : {"000", "022", "027", "077", "777"}) {
        const auto bits = static_cast<mode_t>(std::stoi(mask, nullptr, 8));
        for (const auto &row : rows)
            fs::remove_all(dir.file(row.name));
        const mode_t before = umask(bits);
        write_log();
        umask(before);
        const run_result ran = shell(
            "umask " + std::string(mask) +
            "; Kestro -synconly -pidfile pid msg -ascii text && echo 1 | tmf write queue && tmf "
            "salvage queue saved && fwlog csv --dir .");
        // With 777 nobody but the superuser can use what was made.
        if (bits != 0777 || geteuid() == 0) {
            EXPECT_EQ(ran.status, 0) << mask << ran.out << ran.err;
        }
        for (const auto &row : rows) {
            char wanted[16];
            (void)snprintf(wanted, sizeof wanted, "%04o",
                           row.less_umask ? row.mode & ~bits : row.mode);
            if (ran.status == 0 || mode(row.name) != "none") {
                EXPECT_EQ(mode(row.name), wanted) << row.name << " with umask " << mask;
            }
        }
    }
}

// But for what is made anew each time.
TEST_F(FileModes, WhatSomebodyHasSetStays)
{
    const std::string run = "Kestro -synconly -pidfile pid msg -ascii text";
    setup.env["KESTRO_TEXT"] = "append";
    write_log();
    EXPECT_EQ(shell(run).status, 0);
    const std::vector<std::string> names = {"log/fw0001-00000001.log",
                                            "log/writer.lock",
                                            "log/acknowledged",
                                            "msg",
                                            "text",
                                            "pid",
                                            "fwutil.status"};
    for (const std::string &name : names)
        ASSERT_EQ(chmod(dir.file(name).c_str(), 0641), 0) << name;
    ASSERT_EQ(chmod(dir.file("run.json").c_str(), 0641), 0);
    write_log();
    const run_result again = shell("umask 022; " + run);
    EXPECT_THAT(again.out, HasSubstr("3 records written to capture file text"));
    for (const std::string &name : names)
        EXPECT_EQ(mode(name), "0641") << name;
    EXPECT_EQ(mode("run.json"), "0644");
}

// log-mode opens the log to a group, and nothing else of it to anybody.  Who may read a file may
// hold it locked: files for that are for those who may write.
TEST_F(FileModes, OfALogForAGroup)
{
    const struct {
        const char *log_mode;
        const char *locks;
        const char *directory;
    } rows[] = {
        {"0640", "0600", "0750"}, {"0660", "0660", "0770"}, {"0664", "0660", "0775"},
        {"0666", "0666", "0777"}, {"0604", "0600", "0705"}, {"0606", "0606", "0707"},
    };
    for (const auto &row : rows) {
        write_file(dir.file("fwutil.cfg"),
                   "log-directory log\nlog-mode " + std::string(row.log_mode) + "\n");
        for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
            fs::remove_all(dir.file("log"));
            const mode_t before = umask(mask);
            write_log();
            umask(before);
            EXPECT_EQ(shell("fwlog readers --add " + dir.file("no.status")).status, 0);
            EXPECT_EQ(mode("log"), row.directory) << row.log_mode;
            for (const char *name : {"fw0001-00000001.log", "acknowledged", "readers"})
                EXPECT_EQ(mode(std::string("log/") + name), row.log_mode) << name;
            for (const char *name : {"writer.lock", "readers.lock"})
                EXPECT_EQ(mode(std::string("log/") + name), row.locks) << name << row.log_mode;
        }
    }
}

// Whoever may read a file that a run locks can hold the run up; it is named, and nothing is lost.
TEST_F(FileModes, AReaderThatLocksIsNamed)
{
    write_log();
    EXPECT_EQ(shell("Kestro -synconly -ascii first").status, 0);
    const int fd = open(dir.file("fwutil.status").c_str(), O_RDONLY | O_CLOEXEC);
    struct flock shared = {};
    shared.l_type = F_RDLCK;
    shared.l_whence = SEEK_SET;
    ASSERT_EQ(fcntl(fd, F_SETLK, &shared), 0);
    const run_result refused = shell("Kestro -synconly -ascii second");
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("the status file is in use by process " +
                                       std::to_string(getpid()) + "; "));
    EXPECT_FALSE(fs::exists(dir.file("second")));
    close(fd);
    EXPECT_EQ(shell("Kestro -synconly -start 1 -ascii second").status, 0);
    EXPECT_EQ(read_file(dir.file("second")), read_file(dir.file("first")));
}

// What stands under the names of files in the making is taken away; what it leads to stays as it
// is.
TEST_F(FileModes, NothingIsWrittenThroughWhatOthersPutThere)
{
    write_log();
    const std::string lines = "a line\nand a torn one";
    for (const char *name : {"run.json.new", "fwutil.status.new", "text.cut.part"}) {
        for (const char *kind : {"a link", "a link to nothing", "a second name", "a pipe"}) {
            const std::string what = name + std::string(", ") + kind;
            // No status file yet, a text file with half a line at its end, which is moved aside.
            for (const char *old : {"run.json", "fwutil.status", "text", "text.cut", "made"})
                fs::remove(dir.file(old));
            write_file(dir.file("victim"), "");
            write_file(dir.file("text"), lines);
            plant(kind, name);
            setup.env["KESTRO_TEXT"] = "append";
            const run_result ran = shell("Kestro -synconly -ascii text");
            if (name == std::string("run.json.new") && kind == std::string("a pipe")) {
                EXPECT_EQ(ran.status, 1) << "a start tells what is no status file";
                EXPECT_THAT(ran.err, HasSubstr("run.json.new is no regular file"));
                fs::remove(dir.file(name));
                continue;
            }
            EXPECT_EQ(ran.status, 0) << what << ran.err;
            EXPECT_EQ(read_file(dir.file("victim")), "") << what;
            EXPECT_FALSE(fs::exists(dir.file("made"))) << what;
            EXPECT_EQ(read_file(dir.file("text.cut")), "and a torn one") << what;
            EXPECT_THAT(read_file(dir.file("run.json")), HasSubstr("\"state\":\"stopped\""))
                << what;
            for (const char *made : {"run.json", "fwutil.status", "text.cut"}) {
                struct stat about = {};
                EXPECT_EQ(lstat(dir.file(made).c_str(), &about), 0) << what << made;
                EXPECT_TRUE(S_ISREG(about.st_mode) && about.st_nlink == 1) << what << made;
            }
            EXPECT_EQ(mode(name), "none") << what;
        }
    }
}

// What may not be taken away, since the directory is everybody's, is not written to either.
TEST_F(FileModes, AnothersUnfinishedStatusFileStopsTheRunAndStaysAsItIs)
{
    const std::vector<std::string> nobody = {
        "setpriv",   "--reuid", "65534", "--regid", "65534",    "--clear-groups", "Kestro",
        "-synconly", "-cfg",    "c",     "-stat",   "shared/s", "-ascii",         "shared/text"};
    write_log();
    write_file(dir.file("c"), "log-directory log\nlog-mode 0644\n");
    ASSERT_EQ(shell("chmod 711 . && chmod -R a+rX log c && mkdir shared && chmod 1777 shared && "
                    "echo theirs >shared/s.new && chmod 666 shared/s.new")
                  .status,
              0);
    if (geteuid() != 0 || run_program({"setpriv", "--reuid", "65534", "--regid", "65534",
                                       "--clear-groups", "Kestro", "-version"},
                                      setup)
                                  .status != 0)
        GTEST_SKIP() << "no other user reaches the program";
    const run_result refused = run_program(nobody, setup);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("fwutil: shared/s.new: cannot open the status file: "
                                       "Operation not permitted\n"));
    EXPECT_EQ(read_file(dir.file("shared/s.new")), "theirs\n");
    EXPECT_FALSE(fs::exists(dir.file("shared/s")));
    fs::remove(dir.file("shared/s.new"));
    EXPECT_EQ(run_program(nobody, setup).status, 0);
    EXPECT_NE(read_file(dir.file("shared/text")), "");
}

// A file that is not a queue, for all that its name says, is left as it is.
TEST_F(FileModes, MessageFilesAreMadeOfNothingElse)
{
    write_log();
    write_file(dir.file("victim"), "somebody's file\n");
    for (const char *kind : {"a link", "a second name"}) {
        fs::remove(dir.file("fwutil.status"));
        plant(kind, "msg");
        const run_result ran = shell("Kestro -synconly msg");
        EXPECT_EQ(ran.status, 1) << kind;
        EXPECT_THAT(ran.err, HasSubstr("CAPERR: File is not a message file.")) << kind;
        EXPECT_EQ(read_file(dir.file("victim")), "somebody's file\n") << kind;
    }
}

// Bytes of names and of arguments stay bytes: no format is made of them, and no other line.
TEST_F(FileModes, NamesAreNoFormats)
{
    write_log();
    const std::string name = "%s%n%p%1$n%99999999d";
    const run_result ran = shell("Kestro -synconly -verbose -capstats -dumprecs -ascii '" + name +
                                 "' '" + name + "m' && tmf info '" + name + "m'");
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_THAT(ran.err, HasSubstr("Opened capture file " + name + ", #"));
    EXPECT_TRUE(fs::exists(dir.file(name)));
    for (const std::string &line :
         {"Kestro -synconly -stat '" + name + "/" + name + "' x",
          "Kestro -synconly -cfg '" + name + "c' x", "Kestro -synconly -pidfile '" + name + "/p' x",
          "Kestro '-" + name + "'", "Kestro -synconly -start '" + name + "' x",
          "tmf read '" + name + "/q'", "fwlog dump -cfg '" + name + "c'", "fwlog '" + name + "'"}) {
        const run_result failed_run = shell(line);
        EXPECT_GT(failed_run.status, 0) << line;
        EXPECT_LT(failed_run.status, 128) << line << failed_run.err;
        EXPECT_THAT(failed_run.out + failed_run.err, HasSubstr("%s%n%p%1$n%99999999d")) << line;
    }
}
