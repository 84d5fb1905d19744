// What the tracer tells of a process, and that each blow does what its name says.
#include "tests/calls/traced.h"
#include "tests/support/tempdir.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

class TracedProcess : public ::testing::Test {
  protected:
    tempdir dir;
    std::string path = dir.file("f");

    void SetUp() override
    {
        if (!can_trace())
            GTEST_SKIP() << "processes cannot be traced here";
    }
    // Writes six bytes in two calls; the errno of the first that fails, or 100 + what they wrote.
    int write_file_of_six() const
    {
        const int null = open("/dev/null", O_RDONLY); // of no interest
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
        if (fd < 0)
            return errno;
        const ssize_t first = write(fd, "abcd", 4);
        if (first < 0)
            return errno;
        const ssize_t second = pwrite(fd, "ef", 2, 4);
        if (second < 0)
            return errno;
        close(null);
        return close(fd) != 0 ? errno : static_cast<int>(100 + first + second);
    }
    traced_run run(size_t struck, blow what) const
    {
        unlink(path.c_str());
        return run_traced({.directory = dir.path(),
                           .body = [this] { return write_file_of_six(); },
                           .struck = struck,
                           .what = what});
    }
};

static std::vector<std::string> texts(const traced_run &run)
{
    std::vector<std::string> all;
    for (const traced_call &call : run.calls)
        all.push_back(call.text());
    return all;
}

TEST_F(TracedProcess, CallsOnFilesOfTheDirectoryAreTold)
{
    const traced_run whole = run(0, {});
    EXPECT_EQ(whole.status, 106);
    EXPECT_THAT(texts(whole),
                testing::ElementsAre("openat f", "write f 0+4", "pwrite64 f 4+2", "close f"));
    EXPECT_EQ(whole.struck, 0U);
}

TEST_F(TracedProcess, AFailureIsGivenAndTheCallNotMade)
{
    EXPECT_EQ(run(1, {BLOW_FAIL, EMFILE}).status, EMFILE);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    const traced_run second = run(3, {BLOW_FAIL, ENOSPC});
    EXPECT_EQ(second.status, ENOSPC);
    EXPECT_NE(second.struck, 0U);
    EXPECT_EQ(read_file(path), "abcd");
    EXPECT_EQ(run(4, {BLOW_FAIL, EIO}).status, EIO);
    EXPECT_EQ(read_file(path), "abcdef");
}

TEST_F(TracedProcess, HalfOfTheBytesAreWritten)
{
    EXPECT_EQ(run(2, {BLOW_HALF}).status, 104);
    EXPECT_EQ(read_file(path), std::string("ab\0\0ef", 6));
}

TEST_F(TracedProcess, AKillComesBeforeOrBehind)
{
    EXPECT_EQ(run(3, {BLOW_KILL_BEFORE}).status, 128 + SIGKILL);
    EXPECT_EQ(read_file(path), "abcd");
    const traced_run behind = run(3, {BLOW_KILL_AFTER});
    EXPECT_EQ(behind.status, 128 + SIGKILL);
    EXPECT_EQ(behind.calls.size(), 3U);
    EXPECT_EQ(read_file(path), "abcdef");
    EXPECT_EQ(run(1, {BLOW_KILL_BEFORE}).status, 128 + SIGKILL);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(TracedProcess, MarksSayWhatCounts)
{
    const traced_run marked = run_traced({.directory = dir.path(),
                                          .body =
                                              [this] {
                                                  const int fd =
                                                      open(path.c_str(), O_RDWR | O_CREAT, 0600);
                                                  begin_counting();
                                                  const int locked = lockf(fd, F_LOCK, 8);
                                                  end_counting();
                                                  return locked + close(fd);
                                              },
                                          .between_marks = true});
    EXPECT_EQ(marked.status, 0);
    EXPECT_THAT(texts(marked), testing::ElementsAre("fcntl f 0+8 lock"));
}

TEST_F(TracedProcess, SocketsAndWaitsCount)
{
    int waits = 0;
    const traced_run waited =
        run_traced({.directory = dir.path(),
                    .body =
                        [] {
                            pollfd one = {socket(AF_INET, SOCK_DGRAM, 0), POLLIN, 0};
                            return poll(&one, 1, -1);
                        },
                    .time_is_over = true,
                    .before_call = [&](const traced_call &call) { waits += call.is("poll"); }});
    EXPECT_EQ(waited.status, 0);
    EXPECT_EQ(waits, 1);
    EXPECT_THAT(texts(waited), testing::ElementsAre("socket", "poll"));
}

TEST_F(TracedProcess, EveryCallHasBlowsThatMakeSense)
{
    const traced_run whole = run(0, {});
    std::vector<std::string> of_open;
    for (const blow &what : whole.calls[0].blows())
        of_open.push_back(what.text());
    EXPECT_THAT(of_open, testing::ElementsAre("killed before", "killed behind", "EIO", "EINTR",
                                              "ENOSPC", "EDQUOT", "EMFILE", "EACCES"));
    std::vector<std::string> of_write;
    for (const blow &what : whole.calls[1].blows())
        of_write.push_back(what.text());
    EXPECT_THAT(of_write, testing::ElementsAre("killed before", "killed behind", "EIO", "EINTR",
                                               "ENOSPC", "EDQUOT", "half of the bytes"));
}
