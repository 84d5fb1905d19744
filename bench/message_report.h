// The figures of a run and how they are shown.
#ifndef BENCH_MESSAGE_REPORT_H
#define BENCH_MESSAGE_REPORT_H

#include <cstdio>
#include <string>
#include <vector>

// One kind's figures in one measurement, a value each round.
struct figure {
    std::string name;
    std::vector<double> values; // records a second, or microseconds
    std::vector<double> p99;    // microseconds; empty where values are rates
};

// One measurement: the library's figure comes first, the others are compared with
// it.
struct measurement {
    std::string what; // "append", "take", "both", "latency", "buffer"
    int size;         // of a record in bytes
    int count;        // records or hand-overs a round
    std::vector<figure> figures;
};

struct report {
    std::string file_system;
    int rounds;
    std::vector<measurement> measurements;
};

void report_table(FILE *out, const report &r);
void report_json(FILE *out, const report &r);

#endif
