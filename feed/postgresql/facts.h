// What a server tells of tables only when it is asked: their primary keys, and what types are
// that are not built in.
#ifndef FEED_POSTGRESQL_FACTS_H
#define FEED_POSTGRESQL_FACTS_H

#include "feed/postgresql/pgoutput.h"
#include "feed/postgresql/server.h"
#include "feed/postgresql/types.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

struct pgf_table {
    std::string columns = {};        // names, types and modifiers of all, to be compared
    std::string with_generated = {}; // and of all with those that are generated; empty: none is
    // Columns of the primary key in its order, else those of the index that identifies the
    // rows; empty: there is none.
    std::vector<std::string> key = {};
    std::string schema = {};
    std::string name = {};
};

using pgf_type = std::pair<uint32_t, int32_t>; // OID and modifier

struct pgf_facts {
    // Runs a query beside the stream; false when there is no answer.  Not set: nobody is asked.
    std::function<bool(const std::string &query, pgs_result &rows)> ask;
    int64_t pause_ms = 10'000; // before it is asked again, when that is not urgent or failed
    int64_t retry_ms = 0;      // not asked at all before this time, monotonic
    int64_t again_ms = 0;      // not asked again for what is known before this time

    uint32_t xid = 0; // transaction in hand, which is sent before others see it; 0: none

    std::unordered_map<uint32_t, pgf_table> tables; // by OID
    std::map<pgf_type, std::string> types;          // names; empty: the server does not know them
    pgt_facts kinds;                                // what types are, by OID
    std::string snapshot;                           // of the last answer, "xmin:xmax:xip,..."
};

// The query for all tables of the publication that is parameter $1, and that for these tables.
std::string pgf_query_published();
std::string pgf_query(const std::vector<const pgo_relation *> &tables);

// Takes the rows of these queries, in the place of what was known of the same tables and types.
void pgf_take(pgf_facts &facts, const pgs_result &rows);

// Whether what is known is of the table as it is described, and nothing is missing.
bool pgf_knows(const pgf_facts &facts, const pgo_relation &table);

enum pgf_answer {
    PGF_NO_ANSWER,
    PGF_OLDER, // than the transaction in hand
    PGF_ANSWER,
};

// Asks for these tables, unless that is to wait.
pgf_answer pgf_refresh(pgf_facts &facts, const std::vector<const pgo_relation *> &tables);

// Asks, if there is need, what the types of a table's columns are.  OUTCOME_LOST when there is no
// answer yet; a type that an answer lacks was dropped since.
outcome pgf_need_types(pgf_facts &facts, const pgo_relation &table);

// Whether a text is a snapshot as the server writes it: "xmin:xmax:xip,...".
bool pgf_is_snapshot(std::string_view text);

// Whether a snapshot has a transaction: it has ended in it.
bool pgf_has_transaction(std::string_view snapshot, uint32_t xid);

// The type of a column as the server writes it; empty: not known.
std::string pgf_type_text(const pgf_facts &facts, const pgo_column &column);

#endif
