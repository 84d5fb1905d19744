// The library's system calls in the processes of these tests: places at which a
// process ends as if killed there, and waits without an end, so that a missing
// wake-up is found and not hidden by the end of a waiting round.
#ifndef TESTS_PROCS_CALL_HOOKS_H
#define TESTS_PROCS_CALL_HOOKS_H

#include <atomic>
#include <cstdint>

// Ends the process with SIGKILL before its n-th system call from now on (1: the next).
void die_before_call(int n);

// Ends it inside its n-th write from now on that goes across the end of a page,
// with the bytes up to there written: a write that is killed stops between pages.
void die_inside_write(int n);

// How a reader of this process waits for a datagram.
enum wait_style {
    WAIT_AS_ASKED,
    WAIT_FOR_EVER, // without a time limit
    // The same, but the first wait on a port keeps its limit: the reader is on the
    // wait list before its socket is bound, and a wake-up in between is not received.
    WAIT_FOR_EVER_ONCE_BOUND,
    WAIT_NOT_AT_ALL, // the time is over at once
};
void set_wait_style(wait_style style);

// What the processes of a test did, in memory that they share.
struct call_counts {
    std::atomic<uint32_t> waits;
    std::atomic<uint32_t> truncations;
};

// Has them counted as long as it lives.
class calls_counted {
  public:
    explicit calls_counted(call_counts *counts);
    ~calls_counted();
    calls_counted(const calls_counted &) = delete;
    calls_counted &operator=(const calls_counted &) = delete;
};

#endif
