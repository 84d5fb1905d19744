// What the benchmarks over a forward log share: the log, and programs measured over it.
#ifndef BENCH_LOG_BENCH_H
#define BENCH_LOG_BENCH_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

// Prints what went wrong and ends the program.
[[noreturn]] void bench_fail(const char *what);

struct fwu_writer;

// Opens a new log for writing, with its configuration fwutil.cfg in the directory.
fwu_writer *bench_open_log(const std::string &directory);

// Makes a log of inserts and updates of an order line in turn, five to a transaction.
void bench_make_log(const std::string &directory, int changes);

struct bench_measure {
    double seconds = 0;
    double cpu_seconds = 0; // of them at work
    long peak_kib = 0;
};

using bench_clock = std::chrono::steady_clock;

double bench_since(bench_clock::time_point begin);

// Runs body, which ends the process, in a child process.  This process stays small, since
// a child's peak memory begins with what it was forked from.
bench_measure bench_run(const std::function<void()> &body);

double bench_median(std::vector<double> values);

#endif
