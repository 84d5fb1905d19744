// A log under system calls that fail: what each failure is told as, and what is there behind it.
#ifndef TESTS_FWUTIL_FAILING_FIXTURE_H
#define TESTS_FWUTIL_FAILING_FIXTURE_H

#include "tests/fwutil/log_fixture.h"
#include "tests/support/failing_calls.h"

#include <functional>
#include <string>

extern bool no_getrandom; // the kernel has no such call

class failing_test : public log_test {
  protected:
    using step = std::function<void()>;

    // Fails each call of the operation in turn, which leaves its result in rc and what it told in
    // err.  A line each, behind an empty one: the call, "goes on" where the operation came through,
    // and what it told, with LOG and DIR for the directories and EIO for its text; equal lines are
    // one.  A disk that is gone is told, too.  An interruption changes nothing, nor does, with
    // halves, half of the bytes.
    std::string failures(const step &prepare, const step &operation, const step &look,
                         bool halves = true);

    // The step, with what it tells in err.
    step noted(const step &made);

    // Nothing is there, and nothing was written.
    void clear();
    // All records are there and no others, and the next writer adds one.
    void expect_goes_on();
    // What the log holds is what was written, by a reader without a status file.
    void expect_written();
    void drop_writer();

    int rc = 0;
    std::string err;
};

#endif
