// System calls that fail in turn: of those that an operation makes on files, the first in one
// run, the second in the next, and so on.  The linker leads them here.
#ifndef TESTS_SUPPORT_FAILING_CALLS_H
#define TESTS_SUPPORT_FAILING_CALLS_H

#include <functional>
#include <string>
#include <vector>

// How the call fails: with EIO; with EINTR, for those that are made again then; a read or a
// write, with half of its bytes; or with EIO like all that come behind it, on a disk that is gone.
enum blow_kind { BLOW_ERROR, BLOW_INTERRUPT, BLOW_HALF, BLOW_GONE };

struct blow_told {
    std::string call; // which one it was; "": all went through
    blow_kind kind = BLOW_ERROR;

    bool fatal() const
    {
        return !call.empty() && kind == BLOW_ERROR;
    }
};

// For each kind of blow and each call of the operation: prepare(), operation() with the blow,
// look().  Ends with a run in which no call is left to be struck.  Returns the number of blows.
int strike_each(const std::function<void()> &prepare, const std::function<void()> &operation,
                const std::function<void(const blow_told &)> &look,
                const std::vector<blow_kind> &kinds = {BLOW_ERROR, BLOW_INTERRUPT, BLOW_HALF});

// For functions of a test that the linker leads further calls to: whether this one is struck,
// with errno set.
bool strike_call(const char *name);

#endif
