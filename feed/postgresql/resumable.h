// Whether a table can be taken into the log: what the server says of it, and why not.
#ifndef FEED_POSTGRESQL_RESUMABLE_H
#define FEED_POSTGRESQL_RESUMABLE_H

#include "feed/postgresql/relations.h"
#include "feed/postgresql/server.h"

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

// A table of the server.
struct pgr_found {
    std::string sql;        // its name as SQL writes it
    bool published = false; // by itself
    std::string root;       // published partitioned table that it is a part of, by fwu_source_name
    bool parts = false;     // partitions of it are published
    bool logged = true;     // its changes are in the server's log
    bool all = false;       // the publication is one of all tables
    int64_t estimate = -1;  // rows, as the server guesses; -1: it does not
    std::string unreadable; // why the role cannot read it; empty: it can
};

// The query for tables by their fwu_source_names, and its rows by them; one that is not there has
// none.
std::string pgr_query(std::span<const std::string> names, const std::string &publication);
std::map<std::string, pgr_found> pgr_take_rows(const pgs_result &rows);

// Why a table is not taken in; empty: it can be.  found: null where the server has none of this
// name.  One that is set aside and gone is taken in: the stream may still be before its end.
std::string pgr_refusal(const std::string &name, const pgr_found *found,
                        const pgb_relations &relations, const std::string &publication);

// Has a table be taken in behind the log's last position, unless it is already.
void pgr_put(pga_registry &aside, const std::string &name, uint64_t last_lsn);

#endif
