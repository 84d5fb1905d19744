// -bg and -pidfile.
#include "tests/cli/cli_fixture.h"

#include <unistd.h>

class CliBackground : public Cli {};

TEST_F(CliBackground, PidFileHoldsTheSessionsProcessId)
{
    expect({"-pidfile", "pid", "-showskip"}, 0,
           std::string("0 Vostrel forward log file records processed.\n") + no_skips, "");
    EXPECT_EQ(read_file(dir.file("calls.pid")), read_file(dir.file("pid")));
    EXPECT_TRUE(std::filesystem::exists(dir.file("pid"))) << "it stays";
}

TEST_F(CliBackground, PidFileErrorsStopTheRun)
{
    expect({"-pidfile", "no/pid", "f"}, 1,
           std::string("0 records written to capture file f\n") + failed,
           "Error opening pidfile no/pid: No such file or directory\n");
    expect({"-pidfile", "/dev/full", "-showskip"}, 1, std::string(no_skips) + failed,
           "Error writing to pidfile /dev/full: No space left on device\n");
    EXPECT_EQ("", calls());
}

TEST_F(CliBackground, PidFileIsLogged)
{
    const run_result result =
        run_program(command({"-verbose", "-pidfile", "pid", "-showskip"}), options);
    const std::string err = without_stamps(result.err);
    const std::string opened = "LOG Opened pid file pid, #";
    ASSERT_EQ(opened, err.substr(0, opened.size()));
    const std::string number = std::to_string(atoi(err.c_str() + opened.size()));
    EXPECT_EQ(opened + number + "\nLOG Closed pid file pid, #" + number + "\n", err);
}

TEST_F(CliBackground, ChildCapturesWhileTheParentHasLeft)
{
    script("item T X 1 1 0\ndata one\nrecord DB SET 1704067200 3 1 - 41\n");
    options.env["KESTRO_TEST_WAIT"] = dir.file("go");
    const pid_t parent =
        start_program(command({"-verbose", "-verbose", "-bg", "-pidfile", "pid", "-ascii", "f"}),
                      options, dir.file("out"), dir.file("err"));
    EXPECT_EQ(0, wait_program(parent)) << "at once: the log is not read before the file is there";
    ASSERT_TRUE(poll_until([&] { return std::filesystem::exists(dir.file("calls.pid")); }));
    ASSERT_TRUE(poll_until([&] { return !read_file(dir.file("calls.pid")).empty(); }));
    const std::string child = read_file(dir.file("calls.pid"));
    EXPECT_NE(std::to_string(parent) + "\n", child);
    EXPECT_EQ(child, read_file(dir.file("pid")));
    EXPECT_FALSE(std::filesystem::exists(dir.file("f")));

    write_file(dir.file("go"), "");
    // The session data is printed at set-up, before the fork, and for the record.
    const std::string expected = "session_data[0]=one\n"
                                 "session_data[0]=one\n"
                                 "1 Vostrel forward log file records processed.\n"
                                 "Current position=0-0.0\n"
                                 "1 records written to capture file f\n";
    EXPECT_TRUE(poll_until([&] { return read_file(dir.file("out")).size() >= expected.size(); }));
    EXPECT_EQ(expected, read_file(dir.file("out"))) << "nothing is printed twice";
    EXPECT_EQ("000000DB                      SET             24010100:00:00IPA\n",
              read_file(dir.file("f")));
}

TEST_F(CliBackground, ParentIsSilentAboutErrorsOfTheChild)
{
    const pid_t parent = start_program(command({"-bg", "-pidfile", "no/pid", "-showskip"}), options,
                                       dir.file("out"), dir.file("err"));
    EXPECT_EQ(0, wait_program(parent));
    const std::string expected = std::string(no_skips) + failed;
    EXPECT_TRUE(poll_until([&] { return read_file(dir.file("out")).size() >= expected.size(); }));
    EXPECT_EQ(expected, read_file(dir.file("out")));
    EXPECT_EQ("Error opening pidfile no/pid: No such file or directory\n",
              read_file(dir.file("err")));
}
