// An operation with everything befalling each of its system calls in turn.
//
// KESTRO_SYSTEM_CALLS is how many blows an operation gets at most, "all" for every one; by
// default a few, spread over its calls.  KESTRO_SYSTEM_CALLS_DONE names a file in which what
// came through is kept, and which is not dealt again (tests/support/blow_list.h).
#ifndef TESTS_CALLS_CALL_MATRIX_H
#define TESTS_CALLS_CALL_MATRIX_H

#include "tests/calls/traced.h"

#include <functional>
#include <string>

// One blow: on the call of this number, from 1, of those that the undisturbed run made.
struct struck_call {
    const traced_run &undisturbed;
    size_t number;
    blow what;
    call_place place; // which of its kind it is

    const traced_call &call() const
    {
        return undisturbed.calls[number - 1];
    }
    // The call behind it; null for the last one.
    const traced_call *next() const
    {
        return number < undisturbed.calls.size() ? &undisturbed.calls[number] : nullptr;
    }
};

struct matrix_operation {
    std::string name;
    // Makes the operation's world anew and runs it, with the blow on the call of the number,
    // 0 for none.
    std::function<traced_run(size_t number, blow what)> run;
    // Looks at what the run has left; failures are told with EXPECT.
    std::function<void(const struck_call &struck, const traced_run &run)> look;
    // Where the calls are not quite the same each time: the run with the blow at a place among the
    // calls of its kind, which may not be reached.
    std::function<traced_run(const call_place &place, blow what)> run_at = nullptr;
    size_t few = 12; // blows where not all are asked for
};

// Runs the operation undisturbed and then with the blows, and prints how many calls and
// blows there were.  No traced processes, or an operation done before: nothing.
void expect_survives_blows(const matrix_operation &operation);

#endif
