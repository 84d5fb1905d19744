// The measurements of message_bench, each in processes of its own on a file of
// its own.  Every record carries its number, which its taker compares.
#ifndef BENCH_MESSAGE_MEASURE_H
#define BENCH_MESSAGE_MEASURE_H

#include "bench/message_queue.h"

// How a reader whose queue does not wake it waits for the next record, and how a
// writer waits for the latency's reader.
constexpr long POLL_MICROSECONDS = 100;

// No backlog has more bytes of data than this, whatever number of records is asked
// for: it stays in memory and far below a message file's 2 GiB.
constexpr int MAX_BACKLOG = 256 << 20;

struct queue_load {
    int records;
    int size;      // of a record in bytes
    int buffer;    // of the reader in bytes, at least size
    int batch = 1; // records of a call; records is a multiple of it
};

// Seconds for the load, from the first call to the return of the last.
double measure_append(const queue_kind &kind, const queue_load &load);

// Takes the load, which filler has appended.  The file's last record, whose taking
// empties the file, comes behind it and is not timed.
double measure_take(const queue_kind &kind, const queue_kind &filler, const queue_load &load);

// A writer and a reader at once: from the writer's first call to the reader's last
// return.
double measure_both(const queue_kind &kind, const queue_load &load);

struct latency {
    double median; // microseconds
    double p99;
};

// From the writer's call to the reader's return, while the reader waits.
latency measure_latency(const queue_kind &kind, int size, int handovers);

// Writes records with one kind and takes them with the other, in turn and from a
// file opened anew; all bytes must come back in order.  Ends the run when not.
void check_exchange(const queue_kind &writer, const queue_kind &reader, int size);

double median(const double *values, int n);

#endif
