// A process whose system calls are counted and told, and one of which is made to fail, to
// do half of its work, or to be the last one.  The kernel stops the process at each of them
// (ptrace), so that all are seen, whatever library makes them, in a program as it is built.
#ifndef TESTS_CALLS_TRACED_H
#define TESTS_CALLS_TRACED_H

#include "tests/calls/call_rows.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// One call that counts.
struct traced_call {
    const call_row *row = nullptr;
    std::string file;    // its name below the directory, or "socket"; "" for neither
    int64_t offset = 0;  // where it reads, writes or locks
    int64_t length = 0;  // of how many bytes
    int64_t moved = 0;   // as many as the file has of them
    long command = 0;    // of fcntl
    int lock_type = -1;  // of an fcntl that locks
    bool makes = false;  // an open that makes the file
    bool stream = false; // of a socket to a server, not one of datagrams

    bool is(const char *name) const
    {
        return std::string(name) == row->name;
    }
    std::string text() const; // "pwrite64 queue 4352+16"
    // All that may befall it: errors that make sense, half of the bytes, kills.
    std::vector<blow> blows() const;
};

// Of the calls of a kind on a file the one that comes at this place, from 1.
struct call_place {
    const call_row *row = nullptr;
    std::string file;
    size_t nth = 0;
};

struct traced_setup {
    std::string directory;      // calls on files below it count, and on sockets
    std::function<int()> body;  // what the process does; its result is the exit status
    bool between_marks = false; // calls count from begin_counting to end_counting only
    bool time_is_over = false;  // waits for a datagram end at once
    // Called by the test while the process is stopped before a call that counts.
    std::function<void(const traced_call &)> before_call = {};
    size_t struck = 0; // the number of the call that the blow falls on, from 1; 0: none
    // Or the call, where what comes in between is not the same each time.
    call_place place = {};
    blow what = {};
};

struct traced_run {
    std::vector<traced_call> calls; // up to the process's end
    size_t struck = 0;              // the number of the call that the blow fell on, from 1; 0: none
    int status = -1;                // exit status, or 128 + signal number

    // Where a call stands among those of its kind and file.
    call_place place_of(size_t number) const;
};

// Runs the process to its end.  One that does not come to it within five minutes ends by
// SIGALRM, which a status of 142 tells.
traced_run run_traced(const traced_setup &setup);

// For the body: where counting begins and ends.
void begin_counting();
void end_counting();

// Whether processes may be traced here.
bool can_trace();

#endif
