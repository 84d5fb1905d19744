// Before the stream: is it the server that the log belongs to, is there a publication, and
// does the slot go on where the log ends?
#ifndef FEED_POSTGRESQL_PREPARE_H
#define FEED_POSTGRESQL_PREPARE_H

#include "feed/postgresql/options.h"
#include "feed/postgresql/server.h"
#include "feed/postgresql/state.h"
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_entry.h"

#include <cstdint>
#include <functional>
#include <string>

struct pgb_found {
    uint64_t server_end = 0;   // of the server's log when it was asked; 0: it was not
    fwu_commit sent = {};      // the last transaction of the server's that the log has, as far as
                               // that is known
    bool expects_sent = false; // the server has to send it first
    // Told, before what was found is kept, that changes are missing from here on, as --accept-gap
    // allows.  begin: of a log that has nothing yet, where it begins; 0: it has something, or the
    // tables are to come whole.
    std::function<outcome(const std::string &why, uint64_t begin)> log_gap = {};
};

// Checks the server and what is to be followed, and makes slot and publication where that
// is asked for.  last is the last transaction of the log.
outcome pgb_prepare(pgb_found &found, pgs_server &server, pgb_state &state,
                    const fwu_config &config, const pgb_options &options, const fwu_commit &last);

#endif
