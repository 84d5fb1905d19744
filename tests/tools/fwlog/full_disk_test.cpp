// The load command where files may not grow any more: it stops with an error, the
// log stays sound, and the same load goes on when there is room.
#include "tests/support/log_lines.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";
static const std::string example = KESTRO_SOURCE_DIR "/examples/orders/";

class FwlogFullDiskTest : public testing::Test {
  protected:
    FwlogFullDiskTest()
    {
        options.directory = dir.path();
        configure("full.cfg", "log");
        configure("whole.cfg", "undisturbed");
    }
    void configure(const std::string &name, const std::string &log)
    {
        std::string text = read_file(example + "fwutil.cfg");
        const std::string line = "\nlog-directory log\nlog-file-size 4M\n";
        const size_t at = text.find(line);
        ASSERT_NE(at, std::string::npos);
        text.replace(at, line.size(), "\nlog-directory " + log + "\nlog-file-size 256K\n");
        write_file(dir.file(name), text);
    }
    static std::string load(const std::string &cfg)
    {
        return program + " load -cfg " + cfg + " " + example + "orders-changes.jsonl";
    }
    run_result sh(const std::string &script)
    {
        return run_program({"sh", "-c", script}, options);
    }
    std::vector<std::string> undisturbed()
    {
        EXPECT_EQ(sh(load("whole.cfg")).status, 0);
        return log_lines(dir.file("undisturbed"));
    }
    tempdir dir;
    run_setup options;
};

TEST_F(FwlogFullDiskTest, AFileSizeLimitStopsTheLoadAndWithoutItTheLoadGoesOn)
{
    size_t commits = 0;
    for (const int blocks : {0, 1, 7, 100, 300}) { // of 512 bytes
        const run_result stopped =
            sh("ulimit -f " + std::to_string(blocks) + "; " + load("full.cfg"));
        EXPECT_EQ(stopped.status, 1) << blocks;
        if (blocks > 0) { // else the message has no room either
            EXPECT_THAT(stopped.err, HasSubstr(": File too large\n"));
        }
        const run_result verify = sh(program + " verify -cfg full.cfg");
        EXPECT_EQ(verify.status, 0) << verify.out << verify.err;
        const size_t now = count_lines(log_lines(dir.file("log")), "commit ");
        EXPECT_GE(now, commits);
        commits = now;
    }
    EXPECT_GT(commits, 0U);
    EXPECT_EQ(sh(load("full.cfg")).status, 0);
    EXPECT_EQ(log_lines(dir.file("log")), undisturbed());
}

TEST_F(FwlogFullDiskTest, AFileSystemThatIsFullStopsTheLoadAndWithRoomTheLoadGoesOn)
{
    std::filesystem::create_directory(dir.file("log"));
    const run_result probe = sh("unshare -Urm mount -t tmpfs none log");
    if (probe.status != 0)
        GTEST_SKIP() << "no file system of one's own is to be had here: " << probe.err;
    const run_result result =
        sh("unshare -Urm sh -c 'mount -t tmpfs -o size=300k none log && " + load("full.cfg") +
           " 2>&1; " + program + " verify -cfg full.cfg >/dev/null && echo sound; " +
           "mount -o remount,size=64m log && " + load("full.cfg") + " && cp -r log copy'");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("fwlog: log/fw0001-0000000"));
    EXPECT_THAT(result.out, HasSubstr(": No space left on device\n"));
    EXPECT_THAT(result.out, HasSubstr("\nsound\n"));
    EXPECT_EQ(log_lines(dir.file("copy")), undisturbed());
}
