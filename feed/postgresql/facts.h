// What a server tells of tables only when it is asked: their primary keys, and the names of
// types that are not built in.
#ifndef FEED_POSTGRESQL_FACTS_H
#define FEED_POSTGRESQL_FACTS_H

#include "feed/postgresql/pgoutput.h"
#include "feed/postgresql/server.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

using pgf_type = std::pair<uint32_t, int32_t>; // OID and modifier

struct pgf_facts {
    // Runs a query beside the stream; false when there is no answer.  Not set: nobody is asked.
    std::function<bool(const std::string &query, pgs_result &rows)> ask;
    int64_t pause_ms = 10'000; // before it is asked again, when that is not urgent or failed
    int64_t retry_ms = 0;      // not asked at all before this time, monotonic
    int64_t again_ms = 0;      // not asked again for what is known before this time

    // By the table's OID, the columns of its key in their order: of the primary key, else of the
    // index that identifies its rows; empty: it has none.
    std::unordered_map<uint32_t, std::vector<std::string>> keys;
    std::map<pgf_type, std::string> types; // empty: the server does not know them
};

// The query for all tables of the publication that is parameter $1, and that for these tables.
std::string pgf_query_published();
std::string pgf_query(const std::vector<const pgo_relation *> &tables);

// Takes the rows of these queries, in the place of what was known of the same tables and types.
void pgf_take(pgf_facts &facts, const pgs_result &rows);

// Whether nothing is missing to describe the table: its key is known and one of its columns, and
// the names of its types are.
bool pgf_knows(const pgf_facts &facts, const pgo_relation &table);

// Asks for these tables, unless that is to wait.  False: nothing new is known.
bool pgf_refresh(pgf_facts &facts, const std::vector<const pgo_relation *> &tables);

// The type of a column as the server writes it; empty: not known.
std::string pgf_type_text(const pgf_facts &facts, const pgo_column &column);

#endif
