// Users of message files in processes of their own: the library's worker, built
// for this machine and for others, and the second implementation in Python.
// All take the same steps, described in tmf_worker.cpp.
#ifndef TESTS_MSGPEER_PARTICIPANT_H
#define TESTS_MSGPEER_PARTICIPANT_H

#include "tests/support/run.h"

#include <string>
#include <sys/types.h>
#include <vector>

enum class peer {
    library,    // as built here
    library32,  // 32-bit build for the same machine
    s390x,      // big-endian, run by an emulator
    python,     // second implementation
    python_big, // the same, acting as a big-endian host
};

// What is missing to start one of them, empty when nothing is.
std::string missing_for(peer kind);

// Whether it writes the file's integers with the high byte first.
bool is_big_endian(peer kind);

// Runs a command of the Python program to its end.
run_result run_python_peer(const std::vector<std::string> &words);

// The lines of its command `check` about a file that nobody uses: none
// when counters and maps agree with the records, or when there is no Python.
std::string disagreements(const std::string &path);

class participant {
  public:
    explicit participant(peer kind);
    ~participant(); // kills it
    participant(const participant &) = delete;
    participant &operator=(const participant &) = delete;

    // Takes a step and gives its result: a number, or the code of a failure.
    int run(const std::string &step);
    // Begins a step.
    void start(const std::string &step);
    // The result of the step begun; throws when there is none within half the
    // time of the longest round that a reader waits, or the process is gone.
    int result();
    // What the last step read, in hexadecimal, and what it printed besides.
    const std::vector<std::string> &records() const
    {
        return records_;
    }
    const std::string &info() const
    {
        return info_;
    }

    // Ends the process with no chance to clean up; on return it holds no lock.
    void kill();
    // Sends signals until the step begun ends by one, and gives its result.
    int interrupt();
    pid_t pid() const
    {
        return pid_;
    }

  private:
    bool take_line();
    bool answered();

    pid_t pid_ = -1;
    int steps_ = -1;   // the other end of its standard input
    int answers_ = -1; // its standard output: a file, so that it never blocks
    off_t taken_ = 0;  // how much of it was looked at
    std::string line_;
    std::string step_;
    std::string value_; // result of the step, empty until it is there
    std::vector<std::string> records_;
    std::string info_;
};

#endif
