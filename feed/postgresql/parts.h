// Partitions of tables that are followed as one: what the server does to a whole partition, it does
// not tell in the stream.  The catalogue shows it: which partitions a table has, and in which files
// their rows are.
#ifndef FEED_POSTGRESQL_PARTS_H
#define FEED_POSTGRESQL_PARTS_H

#include "feed/postgresql/relations.h"
#include "feed/postgresql/server.h"
#include "feed/transaction.h"
#include "util/outcome.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

// A partition with rows as the catalogue has it.
struct pgb_part {
    uint32_t id = 0;
    pga_leaf leaf;
    bool attached = false; // it, or one that it is a part of, was a table before
    uint32_t since = 0;    // the transaction that made it a part
};

// What the catalogue has of all.
struct pgb_parts {
    std::map<uint32_t, pga_name> roots; // tables that are followed as one, by OID
    std::set<uint32_t> alone;           // the other ones that are followed
    std::set<uint32_t> below;           // parts of the former
    std::vector<pgb_part> parts;
    uint64_t xid = 0; // of the server; all older transactions had ended
};

enum pgb_part_kind {
    PGB_PART_ATTACHED, // with rows
    PGB_PART_GONE,
    PGB_PART_EMPTIED,
};

// What the stream does not tell.
struct pgb_part_change {
    pgb_part_kind kind = PGB_PART_GONE;
    uint32_t id = 0;
    pga_leaf leaf;      // as it is now; gone: as it was
    pga_name root;      // the table that it is or was a part of
    bool alone = false; // gone: it is followed by itself now
};

// The catalogue's rows about a table's partitions, for tables in "t" (oid, relkind): OID, schema
// and name of each that has rows, table's OID, file, whether it was attached, and since which
// transaction.
extern const char pgb_parts_query[];

// Compares the catalogue with the registry, which learns what needs no more; what is left is to be
// told.  ask gives the rows of a query beside the stream.  last_lsn: the log's last position.
void pgb_compare_parts(std::vector<pgb_part_change> &changes, pga_registry &registry,
                       const pgb_parts &found, uint64_t last_lsn,
                       const std::function<bool(const std::string &, pgs_result &)> &ask);

// Leaves gap marks for them in the transaction in hand, and tells what brings the rows.
outcome pgb_take_parts(const std::vector<pgb_part_change> &changes, feed_transaction &tx,
                       pgb_relations &relations);

#endif
