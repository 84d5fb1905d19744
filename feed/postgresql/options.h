// What the user asks of the bridge from a PostgreSQL server.  Words live as long as the
// program.
#ifndef FEED_POSTGRESQL_OPTIONS_H
#define FEED_POSTGRESQL_OPTIONS_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

// A transaction that is to be passed over.
struct pgb_skip {
    uint64_t lsn = 0;                     // position of its commit
    std::vector<std::string> tables = {}; // by fwu_source_name, that get the gap mark; empty: all
    bool met = false;                     // it came, or a later one, or the log is beyond it
    bool in_hand = false;                 // it comes, and its marks are written behind it
    std::set<std::string> others = {};    // tables that it changes and that were not named
};

struct pgb_options {
    const char *cfg = nullptr; // configuration file; null: the usual one
    const char *conninfo = ""; // empty: the environment's settings count
    const char *slot = "kestro";
    const char *publication = "kestro";
    const char *status = nullptr; // JSON file; null: postgresql.json in the log directory
    int timeout_s = 60;           // of silence after which the server is taken for gone
    bool create = false;          // make slot and publication when they are missing
    bool minimal = false;         // ... and touch no table
    bool snapshot = false;        // take in what the tables hold, as long as nothing is logged
    bool truncate = false;        // cut texts that are too long for their item
    bool accept_gap = false;      // go on where the slot is although changes are missing
    std::vector<pgb_skip> skips = {};
    bool once = false; // end when the log has what the server had at the start
    bool verbose = false;
    std::vector<const char *> resume = {}; // tables to be taken in, as pgr_table_name has them
    bool check = false;                    // tell what a run would find, and change nothing; the
                                           // others below go with it
    bool scan = false;                     // read the tables, too
    int scan_timeout_s = 60;               // for each query that does
    bool json = false;                     // print one JSON object
    const char *write_config = nullptr;    // file that gets the configuration; null: none
};

#endif
