// The system calls that a program's files, sockets and waits are made of, and what may
// befall each of them: a row per call.
#ifndef TESTS_CALLS_CALL_ROWS_H
#define TESTS_CALLS_CALL_ROWS_H

#include <string>
#include <vector>

// What befalls one call.
enum blow_kind {
    BLOW_NONE,
    BLOW_FAIL,        // the call is not made, and gives an error; a close is made, and an
                      // interrupted connect
    BLOW_HALF,        // half of the bytes are read or written, and their number given
    BLOW_KILL_BEFORE, // the process is killed, and the call not made
    BLOW_KILL_AFTER,  // the call is made, and the process killed
};

struct blow {
    blow_kind kind = BLOW_NONE;
    int os_errno = 0; // of BLOW_FAIL

    bool kills() const
    {
        return kind == BLOW_KILL_BEFORE || kind == BLOW_KILL_AFTER;
    }
    std::string text() const; // "EIO", "half of the bytes", "killed before", ...
};

// Which errors a row's call is made to give.
enum : unsigned {
    GIVES_IO = 1,        // EIO
    GIVES_EINTR = 2,     // EINTR
    GIVES_SPACE = 4,     // ENOSPC and EDQUOT
    GIVES_FILES = 8,     // EMFILE
    GIVES_LOCKS = 16,    // ENOLCK
    GIVES_MEMORY = 32,   // ENOMEM
    GIVES_ACCESS = 64,   // EACCES
    GIVES_BUFFERS = 128, // ENOBUFS
    GIVES_HALF = 256,    // half of the bytes
    GIVES_RESET = 512,   // ECONNRESET
};

// Which calls of a row count.
enum call_subject {
    OF_PATH,   // the path is below the directory
    OF_FILE,   // the descriptor is of a file below the directory, or of a socket
    OF_SOCKET, // the first argument is an address family
    OF_ANY,    // all
};

struct call_row {
    long number;
    const char *name;
    call_subject subject;
    int arg;       // the path's or descriptor's place among the arguments
    int directory; // the place of the descriptor that the path goes from; -1: none
    int length;    // the place of the number of bytes; -1: none
    int offset;    // the place of the offset; -1: the descriptor's own
    unsigned gives;
};

// The row of a system call; null for one that is none of these.
const call_row *find_call_row(long number);

// All that may befall a call of this row: errors, half of the bytes, kills.
std::vector<blow> blows_of(const call_row &row);

#endif
