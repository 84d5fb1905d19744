// The processes and files of a benchmark run: children, their results in shared
// memory, one temporary directory.  Whatever ends the run (an error in any of its
// processes, SIGINT, SIGTERM, SIGHUP) ends the children and removes the directory.
#ifndef BENCH_MESSAGE_RUN_H
#define BENCH_MESSAGE_RUN_H

#include <functional>
#include <string>

// Makes a temporary directory below parent, which becomes the run's, and takes
// charge of the signals.
void run_begin(const std::string &parent);

// The path of a file of the run.
std::string run_file(const std::string &name);

// Removes all files of the run.
void run_clear();

// Removes the directory.
void run_end();

// Starts a child process that runs body and exits.
void run_start(const std::function<void()> &body);

// Waits until all children have ended.
void run_wait();

// Memory that children started later share with this process, all zero.
void *run_shared(size_t size);

// Ends the process with a message; in the process that began the run, all of it.
[[noreturn]] void run_fail(const char *what);

#endif
