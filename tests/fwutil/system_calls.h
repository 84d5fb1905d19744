// System calls that a test makes fail or counts; the real ones otherwise.
#ifndef TESTS_FWUTIL_SYSTEM_CALLS_H
#define TESTS_FWUTIL_SYSTEM_CALLS_H

#include <cstdint>

// Calls of write, pread, ftruncate, fdatasync, fsync, rename and mkostemp are numbered
// 1, 2, 3, ...
struct system_calls {
    int numbered = 0;            // so far
    int fail_from = 0;           // number of the first one that fails; 0: none does
    int fail_to = 0;             // number of the last one that fails
    int failures = 0;            // that came of it
    int fail_errno = 0;          // with this error
    bool fail_short = false;     // the first one, a write, takes half of its bytes instead
    bool fail_writes = false;    // only calls of write fail
    int writes = 0;              // calls of write so far
    int64_t write_room = -1;     // bytes that write still takes before ENOSPC; -1: all
    bool fail_ftruncate = false; // with EIO
    bool fail_pwrite = false;    // with ENOSPC
    bool fail_inotify = false;   // with EMFILE
    bool fail_fdatasync = false; // with EIO
    bool skip_pauses = false;    // nanosleep returns at once
    int pauses = 0;              // calls of nanosleep so far
    int stop_at_pause = 0;       // the number of the one that SIGTERM interrupts; 0: none
    bool skip_syncs = false;     // fdatasync and fsync do nothing
    bool fail_mmap = false;      // with ENODEV
    int fdatasyncs = 0;          // calls of fdatasync so far
    int64_t clock_us = 0;        // what the real-time clock shows; 0: the real time
    int random_from = -1; // getrandom: identities count up from here, salts 16 behind; -1: random
    int64_t monotonic_ms = 0; // what the monotonic clock shows; 0: the real one
};

extern system_calls calls;

// Puts everything back at the end of a test.
struct system_calls_guard {
    system_calls_guard()
    {
        calls = system_calls();
    }
    ~system_calls_guard()
    {
        calls = system_calls();
    }
};

#endif
