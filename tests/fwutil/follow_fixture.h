// A process that follows the log of a test, tells what it is given, and is signalled
// and killed.
#ifndef TESTS_FWUTIL_FOLLOW_FIXTURE_H
#define TESTS_FWUTIL_FOLLOW_FIXTURE_H

#include "tests/fwutil/log_fixture.h"
#include "tests/support/run.h"

class follow_test : public log_test {
  protected:
    ~follow_test() override;

    // Starts a process that follows the log and tells record numbers to a pipe
    // or, when a file is named, to that.  stepwise: each record waits for a byte in step.
    void start(const std::string &into = "", bool sync_only = false, bool stepwise = false);
    // The next record number; -1 when the reader has ended.
    int32_t next() const;
    int end(int signal);
    int finish();
    // As finish, but kills a reader that has not ended in time.
    int finish_within(int seconds);
    bool waiting() const;
    // What it has printed on standard error, verbose.
    std::string told() const;

    pid_t reader = -1;
    int numbers = -1;
    int step = -1;
};

#endif
