// Commands that stand in a page with what they print, run as they stand there: code blocks
// whose first line begins with "$ ".
//
//     $ first command 'with
//     > a second line'
//     what it prints
//
// A last line "^C" is the interrupt that ends a command which goes on by itself.
#ifndef TESTS_DOCS_PAGE_SESSION_H
#define TESTS_DOCS_PAGE_SESSION_H

#include "tests/support/run.h"

#include <string>
#include <vector>

struct page_command {
    std::string command;
    std::string output;       // standard output and error
    bool interrupted = false; // by ^C, once that output has come
};

// The commands of a block; none when it is no session.
std::vector<page_command> page_commands(const std::string &block);

// What a command prints, with "status N" behind it where it fails; of an interrupted one what
// there is when the expected output has come, or has not for a minute.
std::string page_output(const page_command &command, const run_setup &setup);

#endif
