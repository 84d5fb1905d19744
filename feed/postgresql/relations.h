// The tables that a server has told of, and rows of theirs.
#ifndef FEED_POSTGRESQL_RELATIONS_H
#define FEED_POSTGRESQL_RELATIONS_H

#include "feed/names.h"
#include "feed/postgresql/aside.h"
#include "feed/postgresql/catalogue.h"
#include "feed/postgresql/facts.h"
#include "feed/postgresql/pgoutput.h"
#include "feed/row.h"
#include "feed/table.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

struct pgb_relation {
    pgo_relation told;               // as the server describes it
    feed_table *table = nullptr;     // null: not looked up yet
    std::vector<std::string> added;  // columns that it did not have before, as long as nobody asked
    std::vector<pgc_choice> choices; // of its columns, where they make its items
    uint32_t shape = 0;              // pgo_shape of told
    bool stale = true;               // the catalogue may say something else of it by now
    bool urgent = false;             // ... and what is known does not fit
    bool news = false;               // what is known was not handed on to the table yet
    feed_row fresh;                  // names and types of all columns, values of the row in hand
    feed_row old;
    feed_row partial;             // of a new row of which not all was sent
    feed_row partial_old;         // of an old row of which not all is known
    uint32_t next = 0;            // described directly behind it, before any change; 0: none
    std::vector<uint32_t> leaves; // partitions that its changes came from in this connection
    bool remedy_found = false;    // its table's old_row_remedy names its partitions
    bool identified = false;      // its OID and name are in the registry as they are described
    uint64_t aside_version = 0;   // of the registry when aside was looked up
    pga_table *aside = nullptr;   // its standing there; null: it is followed
    uint64_t used = 0;            // when it was looked for last, by pgb_relations::uses
    std::vector<uint8_t> marks_told = {}; // of its table, while that is forgotten
    bool key_told = false;                // likewise
};

struct pgb_relations {
    feed_tables tables = {.old_row_remedy = "run ALTER TABLE % REPLICA IDENTITY FULL"};
    std::unordered_map<uint32_t, pgb_relation> known = {};
    pgf_facts facts = {};
    feed_names names = {};              // of datasets and items, kept beside the log
    uint32_t described = 0;             // last, and no change came since; 0: none
    fwu_encoding encoding = FWU_LATIN1; // of the log's texts
    bool idle_told = false;             // the configuration's lines about nothing
    pga_registry aside = {};            // where tables stand that are not just followed
    size_t columns_max = 20'000;        // of tables that are kept; a column takes some 800 bytes
    size_t columns = 0;                 // of those now, and three more for each table
    uint64_t uses = 0;                  // looks for a table so far
};

// Asks over the sql connection for what is to be known of all tables of the publication, and
// gives them their names.
outcome pgb_get_facts(pgs_server &server, pgb_relations &relations);

// Takes the server's description of a table, which holds from now on.
void pgb_describe(pgb_relations &relations, const pgo_relation &told);

// OUTCOME_BAD: something came of a relation of this number, which was not described.
outcome pgb_undescribed(uint32_t id);

// A new connection, in which the server describes all tables anew.
void pgb_forget_all(pgb_relations &relations);

// The relation of this number, with its table.  OUTCOME_BAD when it was not described or
// cannot become a dataset.  Tables that were not looked for for longest may be forgotten by that;
// the next look for one makes it again.
outcome pgb_find(pgb_relation *&relation, pgb_relations &relations, uint32_t id,
                 std::vector<std::string> &notes);

// The new row of a tuple, valid until the next one of this relation and as long as the message's
// bytes, which its values are; columns that were not sent are left out.  OUTCOME_BAD when the tuple
// does not fit the description.
outcome pgb_row(const feed_row *&row, pgb_relation &relation, const pgo_tuple &tuple);

// Fills the values of a row with all columns of its relation.  OUTCOME_BAD as above.
outcome pgb_fill(feed_row &row, const pgb_relation &relation, const pgo_tuple &tuple);

#endif
