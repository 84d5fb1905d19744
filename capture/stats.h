// Counting captured and skipped records by database and dataset.
#ifndef CAPTURE_STATS_H
#define CAPTURE_STATS_H

#include <cstdint>

struct capinfo;
struct log_record;
struct slist;

struct setstats {
    int32_t inserts;
    int32_t updates;
    int32_t deletes;
};

// What add_capstat counts a record as.
constexpr int STAT_INSERT = 1;
constexpr int STAT_UPDATE = 2;
constexpr int STAT_DELETE = 3;

setstats *new_setstats(); // zero counters

// Counts one record in a statistics list: database name, then dataset name,
// then setstats.  Any other code makes the entries and counts nothing.
void add_capstat(slist *stats, const log_record *record, int code);

// Gives every capture file an empty statistics list.
void init_capstats(capinfo *ci);

// Release functions for the values of the two levels of a statistics list.
void free_setstats(void *stats);
void free_dbsl(void *dbsl);

#endif
