// Running a program in a test: arguments, working directory, environment,
// standard input; what it printed, and how it ended.
#ifndef TESTS_SUPPORT_RUN_H
#define TESTS_SUPPORT_RUN_H

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

struct run_setup {
    std::string directory;                  // working directory; empty: the caller's
    std::string input;                      // standard input
    std::map<std::string, std::string> env; // added to or replacing the caller's
    std::vector<std::string> unset;         // variables taken away
};

struct run_result {
    int status = -1; // exit status, or 128 + signal number
    std::string out; // standard output
    std::string err; // standard error
};

// Runs argv[0] to its end.
run_result run_program(const std::vector<std::string> &argv, const run_setup &options = {});

// Starts argv[0] in the background, standard output and error into the files
// named (empty: /dev/null), and returns its process id.
pid_t start_program(const std::vector<std::string> &argv, const run_setup &options,
                    const std::string &out_file, const std::string &err_file);

// Waits for a process that start_program started; status as in run_result.
int wait_program(pid_t pid);

// Calls done() every millisecond until it returns true; false after seconds.
template <typename F> bool poll_until(F done, int seconds = 60);

#include <chrono>
#include <thread>

template <typename F> bool poll_until(F done, int seconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#endif
