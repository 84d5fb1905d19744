// Where tables stand, as file "aside" keeps it.
#ifndef FEED_POSTGRESQL_ASIDE_RECORDS_H
#define FEED_POSTGRESQL_ASIDE_RECORDS_H

#include "fwutil/fwu_entry.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

enum pga_standing {
    PGA_FOLLOWED,
    PGA_ASIDE,  // its changes are passed over
    PGA_TAKING, // its rows are read while it is followed
};

struct pga_record {
    pga_standing standing = PGA_FOLLOWED;
    uint64_t at = 0; // position of the log's transaction that it holds from; the log's last one
                     // where no transaction goes with it

    // Set aside, and kept while it is taken in again:
    uint64_t since = 0;   // position of the transaction from which on changes are missing
    int64_t since_us = 0; // when that was, microseconds since 1970; 0: not known
    std::string reason = {};

    // While it is taken in:
    bool replaces = false;                 // rows of it may be in the log: a truncate mark stands
                                           // before the first one
    std::string why = {};                  // "snapshot", "resume" or "renamed"
    std::vector<std::string> key = {};     // columns by which its rows are read
    std::vector<std::string> reached = {}; // their values in the last row taken; empty: none yet
    uint32_t shape = 0;                    // pgo_shape of the table then; 0: not known
    uint64_t rows = 0;                     // taken so far
    bool operator==(const pga_record &) const = default;
};

struct pga_table {
    std::string schema = {};
    std::string table = {};
    std::vector<pga_record> records = {}; // oldest first, one for a position
    uint64_t missed = 0;                  // changes passed over since the start
    int64_t estimate = -1;                // rows, as the server guesses; -1: not known
};

// What an OID stands for from a position on.
struct pga_name {
    std::string schema = {};
    std::string table = {};
    uint64_t at = 0;
    bool lost = false;    // another OID has the name by now: dropped, or renamed as will be told
    uint64_t guessed = 0; // the catalogue said so at this position of the server; 0: the stream
    bool operator==(const pga_name &) const = default;
};

// A partition with rows, of a partitioned table that is followed as one.
struct pga_leaf {
    std::string schema = {};
    std::string table = {};
    uint32_t root = 0; // OID of that table
    uint32_t node =
        0; // of the file with its rows; 0: not known, the next look at the catalogue says
    uint64_t at = 0;
    bool gone = false; // it is none any more
    bool operator==(const pga_leaf &) const = default;
};

struct pga_registry {
    std::string path = {}; // of the file; empty: it is kept nowhere
    mode_t mode = 0600;
    std::map<std::string, pga_table> tables = {};          // by fwu_source_name
    std::map<std::string, uint64_t> taken = {};            // rows of those taken in since the start
    std::set<std::string> skipped = {};                    // left out on purpose by a run before
    std::map<uint32_t, std::vector<pga_name>> ids = {};    // by OID, oldest name first
    std::map<std::string, uint32_t> holders = {};          // whose newest name it is
    std::map<uint32_t, std::vector<pga_leaf>> leaves = {}; // by OID, oldest first
    std::map<uint32_t, uint64_t> lacking = {}; // by OID: tables that the publication has
                                               // no more, and where the log says so
    uint64_t leaves_xid = 0; // of the server when the catalogue was asked for these, and all older
                             // transactions had ended; 0: never yet
    fwu_commit sent = {};    // where the log ends with transactions of our own: the last one of the
                             // server's in front of them, by position, xid and time; 0: not known
    uint64_t version = 1;    // of any standing: what is found holds as long as it stays
    bool dirty = false;      // the file says something else
    bool anew = false;       // there is no file yet, or a damaged one
    bool damaged = false;    // ... which is to be replaced
};

#endif
