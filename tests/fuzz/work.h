// Where targets work: a directory of the process's own, what is printed meanwhile, and programs
// that are called as functions.
#ifndef TESTS_FUZZ_WORK_H
#define TESTS_FUZZ_WORK_H

#include "util/cli.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// A name in the process's directory, which goes with the process.
std::string fuzz_path(const std::string &name);

// The whole file; fuzz_get of one that is not there is empty.
void fuzz_put(const std::string &path, std::string_view bytes);
std::string fuzz_get(const std::string &path);

// Removes a directory of files that fuzz_path has named, if it is there.
void fuzz_remove(const std::string &directory);

struct fuzz_said {
    int status = 0;
    std::string out; // standard output
    std::string err; // standard error
    bool operator==(const fuzz_said &) const = default;
};

// What is printed while body works, and its result.
fuzz_said fuzz_listen(const std::function<int()> &body);

// Runs a program's subcommand with a command line, all its options as they are at first.
fuzz_said fuzz_call(const cli_program &program, std::vector<std::string> words);

// All options of a subcommand as they are at the process's first call of this.
void fuzz_reset_options(const cli_command &command);

#endif
