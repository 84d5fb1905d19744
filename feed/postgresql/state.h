// What the bridge tells of itself: how far it is, in a small JSON file and on
// standard error.  The next run believes the file: told_lsn is on disk before the server
// is told as much, snapshot before the slot is made and again once its rows are logged.
#ifndef FEED_POSTGRESQL_STATE_H
#define FEED_POSTGRESQL_STATE_H

#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

struct pgb_state {
    std::string path;               // of the JSON file
    mode_t mode = 0600;             // that the file gets
    const char *phase = "starting"; // starting snapshot streaming waiting stopped
    std::string slot;
    std::string publication;
    std::string system;            // the server's system identifier; empty: not known yet
    std::string database;          // likewise
    uint32_t timeline = 0;         // of its history; 0: not known yet
    std::string snapshot = "none"; // or begun: it may have been cut short; done
    uint64_t server_lsn = 0;       // end of the server's log as it said last
    uint64_t received_lsn = 0;     // everything before it was received
    uint64_t logged_lsn = 0;       // everything before it is logged
    uint64_t told_lsn = 0;         // the furthest position that the server was told
    int64_t commit_us = 0;         // commit time of the transaction logged last, 0 for none
    uint64_t transactions = 0;     // logged since the start
    uint64_t changes = 0;
    uint64_t reconnects = 0;
};

// Reads what a run before left: system, database and timeline, and, if it used the
// same slot, snapshot and told_lsn.  A file that is not there, or damaged, leaves
// state as it is.
void pgb_state_read(pgb_state &state);

// Writes the file anew, under its name only once it is whole.  durable: it is on
// disk when the call returns.  OUTCOME_FAILED when it could not be written.
outcome pgb_state_write(const pgb_state &state, bool durable);

// Bytes and seconds that the log is behind the server.
uint64_t pgb_lag_bytes(const pgb_state &state);
double pgb_lag_seconds(const pgb_state &state);

// Prints the state as a line on standard error.
void pgb_state_print(const pgb_state &state);

#endif
