// System calls of the message-file library that a test makes fail, answers
// itself, or watches; the real ones otherwise.
#ifndef TESTS_MSGFILE_SYSTEM_CALLS_H
#define TESTS_MSGFILE_SYSTEM_CALLS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

enum call_kind {
    CALL_OPEN,
    CALL_LSEEK,
    CALL_READ,
    CALL_WRITE,
    CALL_PREAD,
    CALL_PWRITE,
    CALL_FTRUNCATE,
    CALL_LOCKF,
    CALL_FCNTL,
    CALL_SOCKET,
    CALL_BIND,
    CALL_SENDTO,
    CALL_RECVFROM,
    CALL_POLL,
    CALL_MALLOC,
    CALL_CALLOC,
    CALL_STRDUP,
    CALL_TIME,
    CALL_KINDS
};

// One call as it was made.  a and b are its telling arguments:
//   open: flags, permissions        lseek: offset, whence
//   read, write: length, -          pread, pwrite: length, offset
//   ftruncate: length, -            lockf: command, length
//   fcntl: command, offset of a lock or the number given
//   bind: port, -                   sendto: length, port
//   recvfrom: length, -             poll: milliseconds, -
struct call_made {
    call_kind kind;
    int fd;
    int64_t a;
    int64_t b;
};

// All calls since the guard was made, in order.
const std::vector<call_made> &calls_made();
// Those of one kind.
std::vector<call_made> calls_made(call_kind kind);
// All calls as text, with what matters of their arguments: "open", "lseek 0",
// "lock 256" (lockf: also "trylock", "testlock", "unlock"), "pwrite 18 at 4352",
// "setlkw 0" (fcntl: also "setlk"), "sendto 12", "time".
std::vector<std::string> calls_as_text();
void forget_calls();

// Makes calls of a kind fail with os_errno: the next one, or after letting `after`
// calls through; `times` of them (-1: all).
void fail_call(call_kind kind, int os_errno, int after = 0, int times = 1);

// Makes calls of a kind give this result.  read, write, pread, pwrite move that
// many bytes; the others do nothing but return it.
void answer_call(call_kind kind, int64_t result, int after = 0, int times = 1);

// Runs before each call of a kind: what another process does at that moment.
void before_call(call_kind kind, std::function<void()> action);

// Puts everything back at the beginning and at the end of a test.
struct system_calls_guard {
    system_calls_guard();
    ~system_calls_guard();
};

#endif
