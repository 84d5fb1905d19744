// Command lines of programs with subcommands: subcommands, options and operands are rows,
// and what all of them do alike is done here (-h, --help, --version, complaints, exit status).
//
// Each subcommand has a file of its own with its row: where the words of its options go, what
// it does, its help.  The program lists the rows.
//
// An option is written as its row names it, in full, with one hyphen or two, and its value
// behind it or behind "=".  Options and operands may come in any order; behind "--" there are
// operands only.
#ifndef UTIL_CLI_H
#define UTIL_CLI_H

#include "util/outcome.h"

#include <cstdint>
#include <span>
#include <variant>
#include <vector>

// What an option or operand takes, and the complaints.
struct cli_kind {
    const char *word = nullptr;    // that stands for the value in help: "FILE"; null: no value
    const char *lacking = nullptr; // there is no value; null: the operand may be left out
    const char *bad = nullptr;     // the value is none of this kind
    const char *again = nullptr;   // an operand, or another choice, came before
    uint64_t smallest = 0;         // of numbers
    uint64_t largest = UINT64_MAX;
    bool may_be_left_out = false; // the value, which then stands behind "=" only
    bool may_be_empty = true;
    bool may_be_hyphen = false; // an operand "-" is none of its options written wrong
};

constexpr cli_kind CLI_FLAG = {};
constexpr cli_kind CLI_FILE = {.word = "FILE", .lacking = "option lacks its file name"};

// One of several options that exclude each other.
struct cli_choice {
    int *target; // 0 while none has been made
    int value;   // not 0
};

// What becomes of a value: kept, the last one counts (words live as long as argv); added to
// the others; read as a number; or handed to a function, which is false for one of another
// kind.  A flag becomes true.
using cli_target = std::variant<bool *, const char **, std::vector<const char *> *, int *,
                                uint64_t *, cli_choice, bool (*)(const char *word)>;

// Options first, then the operand, whose name does not begin with a hyphen.
struct cli_option {
    const char *name; // as help shows it: "-cfg", "--json", "FILE"
    cli_kind kind;
    cli_target target;
};

struct cli_command {
    const char *name;
    const char *summary; // in the program's help
    outcome (*run)();    // when the command line has been taken
    std::span<const cli_option> options;
    const char *help; // "Usage: ...", an empty line, what it does and takes
    int (*status)(const outcome &done) = nullptr; // the exit status; null: outcome_exit_status
};

struct cli_program {
    const char *name;
    const char *version;
    const char *about; // in its help
    std::span<const cli_command *const> commands;
};

// Runs the subcommand that the command line names, and brings standard output to its end.
// The exit status.
int cli_main(const cli_program &program, int argc, char **argv);

// The same for a program without subcommands, whose name is the command's.
int cli_main(const cli_command &command, const char *version, int argc, char **argv);

// Takes the words behind argv[0], the subcommand's name.
outcome cli_scan(const cli_command &command, int argc, char **argv);

// The program's help, made of its rows.
std::string cli_help(const cli_program &program);

// Prints "program: text: word" and where help is to be had.
outcome cli_usage(const char *text, const char *word);

// Reports errno as that of a write to standard output.
outcome cli_output_failed();

#endif
