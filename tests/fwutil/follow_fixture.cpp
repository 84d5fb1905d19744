// The process that follows.
#include "tests/fwutil/follow_fixture.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

static int to_reader = -1;   // a reader that is let go on byte by byte; -1: at once
static int from_reader = -1; // record numbers, 4 bytes each

static int tell(uint32_t, const char *, const char *, int32_t, int32_t, int32_t recnum, int32_t,
                const void *, const void *)
{
    char go = 0;
    if (write(from_reader, &recnum, sizeof recnum) != sizeof recnum)
        return -1;
    return to_reader < 0 || read(to_reader, &go, 1) == 1 ? 0 : -1;
}

follow_test::~follow_test()
{
    if (reader > 0)
        (void)end(SIGKILL);
}

void follow_test::start(const std::string &into, bool sync_only, bool stepwise)
{
    int out[2] = {-1, -1};
    int steps[2] = {-1, -1};
    ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(steps, O_CLOEXEC), 0);
    reader = fork();
    if (reader == 0) {
        from_reader =
            into.empty() ? out[1] : open(into.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
        to_reader = stepwise ? steps[0] : -1;
        close(out[0]);
        close(steps[1]);
        const int err = open(dir.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        dup2(err, 2);
        Fwu_synconly(sync_only ? 1 : 0);
        Fwu_verbose(1);
        _exit(Fwu_process(tell, cfg.c_str(), status.c_str(), nullptr) == 0 ? 0 : 1);
    }
    close(out[1]);
    close(steps[0]);
    numbers = out[0];
    step = steps[1];
}

int32_t follow_test::next() const
{
    int32_t number = -1;
    pollfd row = {numbers, POLLIN, 0};
    EXPECT_EQ(poll(&row, 1, 60000), 1) << "no record came";
    return read(numbers, &number, sizeof number) == sizeof number ? number : -1;
}

int follow_test::end(int signal)
{
    kill(reader, signal);
    return finish();
}

int follow_test::finish()
{
    const int result = wait_program(reader);
    reader = -1;
    close(numbers);
    close(step);
    return result;
}

int follow_test::finish_within(int seconds)
{
    siginfo_t about = {};
    const bool ended = poll_until(
        [&] {
            return waitid(P_PID, static_cast<id_t>(reader), &about, WEXITED | WNOHANG | WNOWAIT) ==
                       0 &&
                   about.si_pid != 0;
        },
        seconds);
    return ended ? finish() : end(SIGKILL);
}

bool follow_test::waiting() const
{
    return poll_until([&] { return told().find("waiting for more") != std::string::npos; });
}

std::string follow_test::told() const
{
    return read_file(dir.file("err"));
}
