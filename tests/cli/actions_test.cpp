// The informational actions, and -pause.
#include "tests/cli/cli_fixture.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

class CliActions : public Cli {};

static const char version[] = "Kestro - 2.21 (Linux x86)\nscripted library\n";

TEST_F(CliActions, Version)
{
    expect({"-version"}, 0, version, "");
    EXPECT_EQ("version\n", calls());
    expect({"-Version"}, 0, version, "");
    expect({"-showstat", "-help", "-versnum", "-version"}, 0, version, "");
    EXPECT_EQ("version\n", calls());
}

TEST_F(CliActions, Versnum)
{
    expect({"-versnum"}, 0, "2.21\n", "");
    expect({"-help", "-showstat", "-VERSNUM", "-bg"}, 0, "2.21\n", "");
    EXPECT_EQ("", calls());
}

TEST_F(CliActions, Help)
{
    expect({"-help"}, 0, help(), "");
    expect({"-?"}, 0, help(), "");
    expect({"-showstat", "-HELP"}, 0, help(), "");
    EXPECT_EQ("", calls());
}

TEST_F(CliActions, Showstat)
{
    expect({"-showstat"}, 0, "", "");
    EXPECT_EQ("status (null) 0\n", calls());
    expect({"-stat", "some.status", "-showstat", "-verbose"}, 0, "", "");
    EXPECT_EQ("status some.status 1\n", calls());
}

TEST_F(CliActions, ActionsAreCarriedOutAfterAnError)
{
    expect({"-help", "-foo"}, 1, help() + failed, "Unrecognized option -foo\n");
    expect({"-version", "-foo"}, 1, std::string(version) + failed, "Unrecognized option -foo\n");
    expect({"-versnum", "-dset"}, 1, std::string("2.21\n") + failed,
           "Expecting Vostrel dataset name.\n");
    expect({"-showstat", "-foo"}, 1, failed, "Unrecognized option -foo\n");
    EXPECT_EQ("status (null) 0\n", calls());
}

TEST_F(CliActions, CaptureFilesOfAnActionGetNothing)
{
    script("record DB SET 0 3 1 - 41\n");
    const std::string totals = "0 Vostrel forward log file records processed.\n"
                               "0 records written to capture file f\n";
    expect({"-versnum", "f"}, 0, "2.21\n" + totals, "");
    expect({"f", "-version"}, 0, version + totals, "");
    expect({"f", "-help"}, 0, help() + totals, "");
    expect({"f", "-showstat"}, 0, totals, "");
    EXPECT_EQ("status (null) 0\n", calls());
    expect({"-versnum", "-showskip"}, 0,
           std::string("2.21\n0 Vostrel forward log file records processed.\n") + no_skips, "");
    EXPECT_FALSE(std::filesystem::exists(dir.file("f")));
}

TEST_F(CliActions, PauseAsksLast)
{
    options.input = "\n";
    expect({"-pause", "-versnum"}, 0, "2.21\nPress ENTER to continue...", "");
    expect({"-pause", "-foo"}, 1, std::string(failed) + "Press ENTER to continue...",
           "Unrecognized option -foo\n");
    expect({"-foo", "-pause"}, 1, failed, "Unrecognized option -foo\n");
    options.input = "";
    expect({"-versnum", "-pause"}, 0, "2.21\nPress ENTER to continue...", "");
    options.input = std::string(100000, 'x');
    expect({"-versnum", "-pause"}, 0, "2.21\nPress ENTER to continue...", "");
}

TEST_F(CliActions, PauseWaitsForALine)
{
    int to[2];
    ASSERT_EQ(0, pipe2(to, O_CLOEXEC));
    const std::string out = dir.file("out");
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(to[0], 0);
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666), 1);
        setenv("LD_LIBRARY_PATH", KESTRO_SCRIPTED_DIR, 1);
        execl(program, program, "-pause", "-versnum", static_cast<char *>(nullptr));
        _exit(127);
    }
    ASSERT_TRUE(poll_until([&] { return read_file(out) == "2.21\nPress ENTER to continue..."; }))
        << "the question is there before the answer";
    EXPECT_EQ(0, waitpid(pid, nullptr, WNOHANG)) << "it is still there";
    ASSERT_EQ(1, write(to[1], "\n", 1));
    EXPECT_EQ(0, wait_program(pid));
    int left = -1;
    EXPECT_EQ(0, ioctl(to[0], FIONREAD, &left));
    EXPECT_EQ(0, left) << "the line was read";
    close(to[0]);
    close(to[1]);
}
