// The standing of tables: followed, set aside, or being taken in.
//
// A change of a table's standing goes with a transaction of the log, by its position: file "aside"
// in the log directory has it before that transaction reaches the log, and it holds once the log
// has the transaction.  Whoever reads the file drops what goes with positions behind the log's
// last one, so that what was before counts, and the server sends that transaction again.  So
// pga_keep comes right before every feed_commit, and pga_withdraw whenever a transaction was given
// up.  What a number of the server's stood for, and when, is kept in the same way.
#ifndef FEED_POSTGRESQL_ASIDE_H
#define FEED_POSTGRESQL_ASIDE_H

#include "feed/postgresql/aside_records.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

// Reads the file in a log directory that a log ends in which has last_lsn as its last position.
// OUTCOME_FAILED when it cannot be read, or is damaged and not to be replaced; what is not there is
// empty.
outcome pga_open(pga_registry &registry, const std::string &directory, mode_t mode,
                 uint64_t last_lsn, bool replaces_damaged = false);

// The newest record of a table, valid until the next change of any; null: it is followed.
const pga_record *pga_find(const pga_registry &registry, const std::string &name);

// The same, where a message is to count in it or a change of it is to come.
pga_table *pga_find_table(pga_registry &registry, const std::string &name);

// Changes a table's standing from record.at on, in the place of what was said for that position.
void pga_put(pga_registry &registry, const std::string &schema, const std::string &table,
             pga_record record);

// Drops what goes with positions behind the log's last one.
void pga_withdraw(pga_registry &registry, uint64_t last_lsn);

// Brings what has changed to disk, and drops what newer records replace which the log has for good,
// up to durable_lsn: after a power cut it may end there, and what was before counts again.
// OUTCOME_FAILED when it could not be written.
outcome pga_keep(pga_registry &registry, uint64_t durable_lsn);

enum pga_description {
    PGA_SAME,
    PGA_NEW,     // nobody had this OID or this name
    PGA_RENAMED, // the OID had another name
    PGA_REMADE,  // the name had another OID: the table before was dropped, or has another one, now
                 // or soon
};

struct pga_identity {
    pga_description what = PGA_SAME;
    pga_name before;        // PGA_RENAMED: the OID's name, which may be lost already
    bool was_known = false; // the name was another OID's, or this one's before
};

// Takes that the server, in the transaction of this position, describes the table of an OID so.
pga_identity pga_describe(pga_registry &registry, uint32_t id, const std::string &schema,
                          const std::string &table, uint64_t at);

// The same of the catalogue, which may be ahead of the stream, for what is not known yet; at is
// the server's position before it was asked.  So the file has all tables at once, instead of
// being written for each one's first change.
void pga_guess(pga_registry &registry, uint32_t id, const std::string &schema,
               const std::string &table, uint64_t at);

// Forgets a table that was dropped, and of which no change is to come any more; its name stays
// known, since the log has rows of it.  at: a position that the log has for good.
void pga_forget(pga_registry &registry, uint32_t id, uint64_t at);

// Whether this is no OID, but stands for a name that was left.
bool pga_is_left(uint32_t id);

// A partition of a table that is followed is now so; leaf.at as in pga_put.
void pga_put_leaf(pga_registry &registry, uint32_t id, pga_leaf leaf);

// All partitions of a table have new files, or will have, by the transaction of this position.
void pga_forget_nodes(pga_registry &registry, uint32_t root, uint64_t at);

// A table's name as options take it, also behind a comma: as fwu_source_name has it, a part with a
// comma in double quotes.
std::string pga_option_name(const std::string &name);

// What takes a table back in, to be pasted into a shell.
std::string pga_resume_command(const std::string &name);

#endif
