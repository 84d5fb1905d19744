// A run and its terminal: closed under a run in its foreground it ends the run, and nothing else
// that SIGHUP comes from does.
#include "driver/hangup.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

class Hangup : public testing::Test {
  protected:
    enum place { FOREGROUND, BACKGROUND, NOHUP, DETACHED, WITHOUT };

    // A process that has taken the signals as a run does, in a session with a terminal of its own.
    void begin(place where)
    {
        master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(master, 0);
        ASSERT_EQ(0, grantpt(master));
        ASSERT_EQ(0, unlockpt(master));
        const std::string terminal = ptsname(master);
        int told[2];
        ASSERT_EQ(0, pipe2(told, O_CLOEXEC));
        from = told[0];
        child = fork();
        if (child == 0) {
            close(master); // else it is never closed
            run(where, terminal.c_str(), told[1]);
        }
        close(told[1]);
        ASSERT_EQ("ready", next());
    }

    // The run goes on for as long as it has not ended, and says once that it was asked.
    [[noreturn]] static void run(place where, const char *terminal, int to)
    {
        (void)setsid();
        if (where != WITHOUT) {
            const int fd = open(terminal, O_RDWR | O_NOCTTY);
            if (fd < 0 || ioctl(fd, TIOCSCTTY, 0) != 0)
                _exit(3);
        }
        if (where == NOHUP)
            (void)signal(SIGHUP, SIG_IGN);
        if (where == BACKGROUND && fork() != 0) {
            for (;;)
                pause(); // the shell; ended with its child, or by the terminal
        }
        if (where == BACKGROUND && setpgid(0, 0) != 0)
            _exit(4);
        hangup_install();
        if (where == DETACHED)
            hangup_detach();
        const pid_t self = getpid();
        const bool none = hangup_taken();
        (void)!write(to, none ? "asked too early " : "ready ", none ? 16 : 6);
        (void)!write(to, &self, sizeof self);
        while (!hangup_taken())
            (void)usleep(10'000);
        const bool twice = hangup_taken();
        (void)!write(to, twice ? "twice " : "asked ", 6);
        _exit(0);
    }

    // The next word from the process; what it never says is empty.
    std::string next()
    {
        std::string word;
        char c = 0;
        pollfd row = {from, POLLIN, 0};
        while (poll(&row, 1, 120'000) > 0 && read(from, &c, 1) == 1 && c != ' ')
            word += c;
        if (word == "ready") {
            EXPECT_EQ(static_cast<ssize_t>(sizeof run_pid), read(from, &run_pid, sizeof run_pid));
        }
        return word;
    }
    void close_terminal()
    {
        if (master >= 0)
            close(master);
        master = -1;
    }
    // How the process ended: its status, or the signal with a minus.
    int ended()
    {
        int status = 0;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        child = -1;
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }

    ~Hangup() override
    {
        close_terminal();
        if (child > 0) {
            if (run_pid > 0)
                (void)kill(run_pid, SIGKILL);
            (void)kill(child, SIGKILL);
            (void)waitpid(child, nullptr, 0);
        }
        if (from >= 0)
            close(from);
    }

    int master = -1;
    int from = -1;
    pid_t child = -1;
    pid_t run_pid = -1; // the same, but for one in the background
};

TEST_F(Hangup, ClosingTheTerminalEndsTheRunInItsForeground)
{
    begin(FOREGROUND);
    close_terminal();
    EXPECT_EQ(-SIGHUP, ended());
    EXPECT_EQ("", next()) << "it was no wish";
}

TEST_F(Hangup, WithItsTerminalThereItIsAWish)
{
    begin(FOREGROUND);
    ASSERT_EQ(0, kill(run_pid, SIGHUP));
    EXPECT_EQ("asked", next());
    EXPECT_EQ(0, ended());
}

TEST_F(Hangup, ARunThatHasLeftTheForegroundGoesOnWithoutTheTerminal)
{
    for (const place where : {NOHUP, DETACHED}) {
        begin(where);
        ASSERT_FALSE(HasFatalFailure());
        close_terminal();
        EXPECT_EQ("asked", next()) << where;
        EXPECT_EQ(0, ended()) << where;
        close(from);
        from = -1;
    }
}

TEST_F(Hangup, WithoutATerminalItIsAWish)
{
    begin(WITHOUT);
    ASSERT_EQ(0, kill(run_pid, SIGHUP));
    EXPECT_EQ("asked", next());
    EXPECT_EQ(0, ended());
}

// A job of a shell: the terminal is the shell's, and takes the shell along.
TEST_F(Hangup, AJobInTheBackgroundGoesOnWithoutTheTerminal)
{
    begin(BACKGROUND);
    close_terminal();
    EXPECT_EQ(-SIGHUP, ended());
    ASSERT_EQ(0, kill(run_pid, SIGHUP));
    EXPECT_EQ("asked", next());
}
