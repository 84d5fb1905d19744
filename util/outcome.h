// How a step ended, and the one place where a program tells what went wrong.
//
// A failure is made where it is found, with its whole text; callers pass it up as it is.
// It is told once: where it is found when nobody above has more to say (outcome_failed()), else
// by the caller that knows the place (the line of the input, the transaction).
#ifndef UTIL_OUTCOME_H
#define UTIL_OUTCOME_H

#include <memory>
#include <string>
#include <string_view>

enum outcome_kind {
    OUTCOME_OK,
    OUTCOME_BAD,     // what came in is wrong: the text says how; to be told
    OUTCOME_LOST,    // the other side is gone and may come back: the text says why; to be told
    OUTCOME_FAILED,  // told
    OUTCOME_USAGE,   // the command line is wrong: told
    OUTCOME_STOPPED, // a signal asks to stop
};

// One pointer, null when all went well, so that a step that goes well costs nothing:
//     if (outcome done = step(); !done)
//         return done;
class [[nodiscard]] outcome {
  public:
    outcome() = default; // all went well
    outcome(outcome_kind kind, std::string text)
        : failure(kind == OUTCOME_OK ? nullptr : new parts{kind, std::move(text)})
    {
    }
    outcome(outcome_kind kind) : outcome(kind, std::string())
    {
    }
    explicit operator bool() const
    {
        return failure == nullptr;
    }
    outcome_kind kind() const
    {
        return failure == nullptr ? OUTCOME_OK : failure->kind;
    }
    // Empty unless there is something to be told.
    const std::string &text() const;
    // Puts where it was in front of the text of a failure.
    outcome &&at(std::string_view place) &&;

  private:
    struct parts {
        outcome_kind kind;
        std::string text;
    };
    std::unique_ptr<parts> failure;
};

// OUTCOME_BAD with this text.
outcome outcome_bad(std::string text);

// The name in front of every line that is told.  It is not copied.
void tell_as(const char *program);
const char *told_as();

// Prints "program: text" and a line end on standard error in one write.  Leaves errno alone.
__attribute__((format(printf, 1, 2))) void tell(const char *format, ...);

// The same, for what ends the step: OUTCOME_FAILED.
__attribute__((format(printf, 1, 2))) outcome outcome_failed(const char *format, ...);

// The text that outcome_failed told last; empty: it has told nothing yet.
const std::string &outcome_failed_last();

// What the program ends with; what is to be told is told: 0, 1 for a failure, 2 for
// a wrong command line, 128 and the signal's number.
constexpr int EXIT_STATUS_OK = 0;
constexpr int EXIT_STATUS_FAILED = 1;
constexpr int EXIT_STATUS_USAGE = 2;
constexpr int EXIT_STATUS_SIGNAL = 128;
int outcome_exit_status(const outcome &done);

#endif
