// The stream: messages into transactions, positions back to the server.
#ifndef FEED_POSTGRESQL_FOLLOW_H
#define FEED_POSTGRESQL_FOLLOW_H

#include "feed/postgresql/apply.h"
#include "feed/postgresql/reload.h"
#include "feed/postgresql/request.h"
#include "feed/postgresql/server.h"
#include "feed/postgresql/state.h"

#include <cstdint>

struct pgb_follow_settings {
    bool durable = true;  // the state is brought to disk before the server is told
    bool verbose = false; // tell every ten seconds how far it is
    bool once = false;    // end when the log has reached stop_at, and has all tables' rows
    uint64_t stop_at = 0;
    pgr_requests *requests = nullptr; // to be looked at
    pgl_reload *reload = nullptr;     // likewise
};

// Follows the stream until something ends it; all went well when that is a signal, or once.
outcome pgb_follow(pgs_server &server, pgb_state &state, feed_transaction &tx,
                   pgb_relations &relations, pgb_apply &apply, const pgb_follow_settings &settings);

#endif
