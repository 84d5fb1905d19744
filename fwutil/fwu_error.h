// Reports of the library on standard error: "fwutil: ..." lines.
#ifndef FWUTIL_FWU_ERROR_H
#define FWUTIL_FWU_ERROR_H

#include <string>

// Behind each advice to start a run again or elsewhere: a program may empty at its start
// what the records before are in.
constexpr char FWU_KEEP_FIRST[] =
    "; a start may empty the program's text files: keep them aside first";

// The name in front of every line; a program that uses the library's parts sets
// its own.  The text is not copied.
void fwu_set_program(const char *name);

// Turns fwu_note on (nonzero) or off.
void fwu_set_verbose(int on);

// Prints one line about an error; always returns -1.  Leaves errno alone.
__attribute__((format(printf, 1, 2))) int fwu_error(const char *format, ...);

// The text that fwu_error printed last; empty: it has printed nothing yet.
const std::string &fwu_error_last();

// While one lives, nothing is printed: it has the texts instead, without the program's name, and
// whoever made it tells them in a way of its own.  One at a time.
struct fwu_error_hold {
    std::string text; // of several, with "; " between them
    fwu_error_hold();
    ~fwu_error_hold();
    fwu_error_hold(const fwu_error_hold &) = delete;
    fwu_error_hold &operator=(const fwu_error_hold &) = delete;
};

// Prints one line that is no error but that an operator has to see.
__attribute__((format(printf, 1, 2))) void fwu_warn(const char *format, ...);

// Prints one line when verbose.
__attribute__((format(printf, 1, 2))) void fwu_note(const char *format, ...);

#endif
