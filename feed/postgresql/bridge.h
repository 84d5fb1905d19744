// What the parts of "fwlog postgresql" work on.
#ifndef FEED_POSTGRESQL_BRIDGE_H
#define FEED_POSTGRESQL_BRIDGE_H

#include "feed/postgresql/relations.h"
#include "feed/postgresql/server.h"
#include "feed/postgresql/state.h"
#include "feed/transaction.h"
#include "fwutil/fwu_config.h"

#include <cstdint>

struct pgb_options {
    bool create = false;          // make slot and publication when they are missing
    bool snapshot = false;        // begin a new slot with the tables' contents
    bool ignore_truncate = false; // pass over truncates instead of stopping
    bool accept_gap = false;      // go on where the slot is although changes are missing
    bool once = false;            // end when the log has what the server had at the start
    bool verbose = false;
};

struct pgb_bridge {
    pgb_options options;
    fwu_config config;
    pgs_server server;
    pgb_state state;
    pgb_relations relations;
    feed_transaction tx;
    bool expects_last = false; // the server has to send the log's last transaction first
    bool connected = false;    // the server was reached once
    bool session_told = false; // that a session message is too long
    uint64_t stop_at = 0;      // --once: position that the log has to reach; 0: not known yet
};

// Checks the server and what is to be followed; makes slot and publication and takes
// the snapshot where that is asked for and due.
pgs_outcome pgb_prepare(pgb_bridge &bridge);

// Takes the contents of the publication's tables, as the exported snapshot shows
// them, into the log as one transaction of inserts before position lsn.
pgs_outcome pgb_take_snapshot(pgb_bridge &bridge, const std::string &snapshot, uint64_t lsn);

// Follows the stream until something ends it: PGS_OK is a signal, or --once.
pgs_outcome pgb_follow(pgb_bridge &bridge);

// Tells what the last change or message gave cause to tell.
void pgb_tell_notes(pgb_bridge &bridge);

// Reports an error in what the server sent; PGS_REFUSED.
pgs_outcome pgb_bad(const pgb_bridge &bridge, const std::string &error);

#endif
