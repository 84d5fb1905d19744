// Tables that are not followed, and those whose updates the server refuses: told when the stream
// begins, and when one appears.
#ifndef FEED_POSTGRESQL_WATCH_H
#define FEED_POSTGRESQL_WATCH_H

#include "feed/postgresql/server.h"
#include "fwutil/fwu_config.h"

#include <set>
#include <string>

struct pgb_watch {
    const fwu_config *config = nullptr;
    std::set<std::string> told; // those that the last look has found
};

// Looks over a connection of its own; says nothing when it gets no answer.
void pgb_watch_look(pgb_watch &watch, const pgs_server &server);

// The query for publication $1, and what is told of its rows; empty: nothing new.
std::string pgb_watch_query();
std::string pgb_watch_text(pgb_watch &watch, const std::string &publication,
                           const pgs_result &rows);

#endif
