// A program in the background of a test: started, signalled, waited for, and killed
// with the test at the latest.
#ifndef TESTS_POSTGRESQL_BACKGROUND_H
#define TESTS_POSTGRESQL_BACKGROUND_H

#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <csignal>
#include <sys/wait.h>

class background {
  public:
    background() = default;
    background(const background &) = delete;
    background &operator=(const background &) = delete;
    ~background()
    {
        end(SIGKILL);
    }

    // Starts a program; standard output and error go to files beside each other,
    // NAME.out and NAME.err.
    void start(std::vector<std::string> argv, const run_setup &options, const std::string &name)
    {
        end(SIGKILL);
        // It dies with this process, however that ends.
        argv.insert(argv.begin(), {"setpriv", "--pdeathsig", "KILL", "--"});
        files = name;
        pid = start_program(argv, options, name + ".out", name + ".err");
    }

    // Whether it still runs; status is how it ended (see run_result).
    bool running()
    {
        int code = 0;
        if (pid > 0 && waitpid(pid, &code, WNOHANG) == pid) {
            status = WIFSIGNALED(code) ? 128 + WTERMSIG(code) : WEXITSTATUS(code);
            pid = -1;
        }
        return pid > 0;
    }

    void signal(int number) const
    {
        if (pid > 0)
            kill(pid, number);
    }

    // Sends the signal and waits; the status.  A program that does not end within a
    // minute is killed.
    int end(int number)
    {
        signal(number);
        return wait();
    }

    int wait()
    {
        if (!poll_until([this] { return !running(); })) {
            signal(SIGKILL);
            poll_until([this] { return !running(); });
        }
        return status;
    }

    std::string out() const
    {
        return read_file(files + ".out");
    }
    std::string err() const
    {
        return read_file(files + ".err");
    }

    pid_t pid = -1;
    int status = -1;

  private:
    std::string files;
};

#endif
