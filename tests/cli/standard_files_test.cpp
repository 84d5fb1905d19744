// Programs started with a standard descriptor closed: the files that they open
// hold nothing of what the programs say.
#include "tests/procs/growing_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::MatchesRegex;

static const std::string bin = KESTRO_BUILD_DIR "/bin/";

class StandardFiles : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64M");
        options.directory = dir.path();
        // Nothing of the files themselves is in the status file then.
        options.env = {{"TZ", "UTC"}, {"KESTRO_SYNC", "off"}};
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        EXPECT_TRUE(append_transaction(writer, 1, 3));
        fwu_writer_close(writer);
    }

    // Standard files as redirections name them: "2>&-" closes standard error.
    run_result sh(const std::string &command)
    {
        return run_program({"sh", "-c", command}, options);
    }

    run_result kestro(const std::string &words)
    {
        return sh("exec " + bin + "Kestro -cfg fwutil.cfg -synconly " + words);
    }

    tempdir dir;
    run_setup options;
};

static const struct {
    const char *closing;
    int status;
    const char *err;
} closed[] = {
    {"2>&-", 0, ""},
    {">&-", 1, "Error writing to standard output.\n"},
    {"<&-", 0, ""},
    {"<&- 2>&-", 0, ""},
    {"<&- >&-", 1, "Error writing to standard output.\n"},
    {"<&- >&- 2>&-", 1, ""},
};

TEST_F(StandardFiles, ARunsFilesHoldNothingElse)
{
    ASSERT_EQ(0, kestro("-stat whole.status -ascii whole").status);
    const std::string whole = read_file(dir.file("whole"));
    const std::string status = read_file(dir.file("whole.status"));
    ASSERT_NE("", whole);
    for (const auto &c : closed) {
        SCOPED_TRACE(c.closing);
        for (const char *name : {"s", "cap", "msg", "pid"})
            std::filesystem::remove(dir.file(name));
        const run_result run =
            kestro("-stat s -pidfile pid -ascii cap msg " + std::string(c.closing));
        EXPECT_EQ(c.status, run.status);
        EXPECT_EQ(c.err, run.err);
        EXPECT_EQ(whole, read_file(dir.file("cap")));
        EXPECT_EQ(status, read_file(dir.file("s")));
        EXPECT_THAT(read_file(dir.file("pid")), MatchesRegex("[0-9]+\n"));
        EXPECT_EQ(0, sh(bin + "tmf info msg").status);
    }
}

TEST_F(StandardFiles, ErrorsAndDiagnosticsGoIntoNoFileOfTheRun)
{
    ASSERT_EQ(1, kestro("-stat whole.status -ascii no/bad").status);
    ASSERT_EQ(0, kestro("-stat whole.status -ascii whole").status);
    for (const auto &c : closed) {
        SCOPED_TRACE(c.closing);
        for (const char *name : {"s", "cap", "pid"})
            std::filesystem::remove(dir.file(name));
        EXPECT_EQ(1, kestro("-verbose -verbose -dumprecs -showsets -capstats -stat s -pidfile pid "
                            "-ascii cap -ascii no/bad " +
                            std::string(c.closing))
                         .status);
        EXPECT_THAT(read_file(dir.file("pid")), MatchesRegex("[0-9]+\n"));
        EXPECT_EQ(read_file(dir.file("whole")).substr(0, read_file(dir.file("cap")).size()),
                  read_file(dir.file("cap")));
        EXPECT_THAT(read_file(dir.file("cap")), HasSubstr("\n"));
        EXPECT_EQ(0, kestro("-stat s -ascii again").status) << "the position can be read";
        EXPECT_EQ(read_file(dir.file("whole")), read_file(dir.file("again")));
    }
}

TEST_F(StandardFiles, EveryProgramFillsThemFirst)
{
    ASSERT_EQ(0, sh("echo x | " + bin + "tmf write msg").status);
    for (const char *command : {"Kestro -cfg fwutil.cfg -ascii cap",
                                "fwlog tail -f -cfg fwutil.cfg", "tmf read --follow msg"}) {
        SCOPED_TRACE(command);
        const pid_t pid =
            start_program({"sh", "-c", "exec " + bin + command + " 2>&-"}, options, "", "");
        const std::string process = "/proc/" + std::to_string(pid);
        const std::string name = std::string(command).substr(0, std::string(command).find(' '));
        std::error_code gone;
        const auto link = [&](const std::string &of) {
            return std::filesystem::read_symlink(process + of, gone).string();
        };
        // Libraries that are being loaded pass through the number too.
        poll_until([&] { return link("/exe") == bin + name && link("/fd/2") == "/dev/null"; }, 10);
        EXPECT_EQ("/dev/null", link("/fd/2"));
        kill(pid, SIGKILL);
        wait_program(pid);
    }
}

TEST_F(StandardFiles, AClosedStandardInputIsNoEmptyOne)
{
    const run_result write = sh(bin + "tmf write msg <&-");
    EXPECT_EQ(1, write.status);
    EXPECT_THAT(write.err, HasSubstr("Bad file descriptor"));
    const run_result load = sh(bin + "fwlog load -cfg fwutil.cfg - <&-");
    EXPECT_NE(0, load.status);
}

TEST_F(StandardFiles, AClosedStandardOutputIsAnError)
{
    for (const char *command : {"tmf --help", "tmf info msg", "fwlog --version",
                                "fwlog dump -cfg fwutil.cfg", "Kestro -versnum"}) {
        ASSERT_EQ(0, sh("echo x | " + bin + "tmf write msg").status);
        EXPECT_NE(0, sh(bin + command + " >&-").status) << command;
    }
}
