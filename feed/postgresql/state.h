// What the bridge tells of itself: how far it is, in a small JSON file for monitors and on
// standard error.
#ifndef FEED_POSTGRESQL_STATE_H
#define FEED_POSTGRESQL_STATE_H

#include "feed/image_work.h"
#include "feed/postgresql/kept.h"
#include "feed/postgresql/relations.h"
#include "fwutil/fwu_retention.h"
#include "util/outcome.h"

#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>

constexpr char PGB_STATE_FILE[] = "postgresql.json"; // in the log directory

struct pgb_state {
    std::string path;               // of the JSON file; empty: it is another bridge's
    int held = -1;                  // owned; the file that stands there, locked as this bridge's
    const char *phase = "starting"; // streaming waiting stopped failed
    std::string error;              // failed: what ended it; waiting: what for; else empty
    int64_t error_us = 0;           // when that was
    uint64_t error_lsn = 0;         // and how far the log was then
    int64_t started_us = 0;
    bool alive = false; // the server has answered, or was asked and is away, since that was told
    bool ready = false; // a service manager knows that the stream flows
    std::string slot;
    std::string publication;
    std::string system;   // as the server said last; empty: not yet
    std::string database; // likewise
    pgb_kept kept;
    uint64_t server_lsn = 0;   // end of the server's log as it said last
    uint64_t received_lsn = 0; // everything before it was received
    uint64_t logged_lsn = 0;   // everything before it is logged
    int64_t commit_us = 0;     // commit time of the transaction logged last, 0 for none
    uint64_t transactions = 0; // logged since the start
    uint64_t changes = 0;
    feed_marked marked; // items of these changes that do not hold what the source has
    uint64_t reconnects = 0;
    const std::map<std::string, std::string> *untold = nullptr; // of pgs_server; null: nothing is
    const fwu_retained *retained =
        nullptr; // what becomes of the log's old files; null: not known yet
    const pgb_relations *relations = nullptr; // whose standings are told; null: none are
};

// Enters a phase; what was wrong before is over.
void pgb_state_enter(pgb_state &state, const char *phase);

// The same for one that something wrong has led to.
void pgb_state_enter(pgb_state &state, const char *phase, const std::string &error);

// Whether a path that the user gave may become the file: nothing in the log directory but the usual
// name, and nothing that is there and no such file.  OUTCOME_FAILED when it may not.
outcome pgb_state_check_path(const std::string &path, const std::string &log_directory);

// Takes the file that a run before has left.  OUTCOME_FAILED when another bridge writes it: this
// one will not.
outcome pgb_state_take(pgb_state &state);
void pgb_state_release(pgb_state &state);

// Writes the file anew, under its name only once it is whole.  OUTCOME_FAILED when it could not
// be written.
outcome pgb_state_write(pgb_state &state);

// The same, and tells a service manager.
outcome pgb_state_tell(pgb_state &state);

// Bytes and seconds that the log is behind the server.
uint64_t pgb_lag_bytes(const pgb_state &state);
double pgb_lag_seconds(const pgb_state &state);

// Prints the state as a line on standard error, and lines for the tables that are not just
// followed.
void pgb_state_print(const pgb_state &state);

// Tells which tables are set aside, if any are, and how they come back.
void pgb_state_tell_aside(const pgb_state &state);

#endif
