// What a check finds of a server, of each table, and of what is missing; and the steps that
// find and print it.  None of them changes anything on the server or in the log directory.
#ifndef FEED_POSTGRESQL_CHECK_REPORT_H
#define FEED_POSTGRESQL_CHECK_REPORT_H

#include "feed/postgresql/kept.h"
#include "feed/postgresql/options.h"
#include "feed/postgresql/relations.h"
#include "feed/postgresql/server.h"
#include "feed/row.h"
#include "feed/table.h"
#include "fwutil/fwu_config.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

// What is missing, or what whoever starts a run should know.
struct pgk_finding {
    bool stops = false;                  // a run would not start
    bool aside = false;                  // tables are or would be set aside, the others go on
    const char *kind = "";               // server setting right publication slot identity table
                                         // record values configuration
    std::string text = {};               // what is wrong, and what to do
    std::vector<std::string> sql = {};   // to be pasted, each with ";"
    std::vector<std::string> lines = {}; // for the configuration
    std::vector<std::string> notes = {}; // what else there is to it
};

struct pgk_server {
    std::string version;
    std::string database;
    std::string role;
    std::string encoding; // of the server's texts
    bool superuser = false;
    bool replication = false; // a connection for it could be made
    bool standby = false;
    bool publication = false; // is there
    bool updates = true;      // it publishes updates or deletes
    bool slot = false;        // is there
};

// What a column holds now.
struct pgk_scanned {
    bool looked = false;
    int64_t longest = -1; // of its values, as its item counts; -1: not measured, or there is none
    int64_t nulls = 0;    // that the dataset has no place for
    int64_t cut = 0;      // rows of each kind
    int64_t replaced = 0;
    int64_t left_out = 0;
};

struct pgk_column {
    std::string name;     // as the server names it
    std::string type;     // as it writes it
    int item = -1;        // index in the layout; -1: it has none
    std::string why;      // the item is as it is
    bool chosen = false;  // its width is none that the type or the configuration gives
    bool counted = false; // ... but the type says how many characters there are
    int32_t wanted = 0;   // the width that it would have in a record of any length
    int32_t width = 0;    // that a written configuration gives; 0: none
    uint32_t base = 0;    // number of its type, or of the one that its domain restricts
    feed_meaning meaning = FEED_PLAIN;
    fwu_policy policy = FWU_POLICY_MARK;
    pgk_scanned scanned;
};

struct pgk_table {
    std::string name; // as messages and the configuration write it
    std::string sql;  // as SQL does
    bool partitioned = false;
    std::string filter;              // rows that are published; empty: all
    pgo_relation relation;           // with the columns that are published
    const feed_table *fed = nullptr; // null: it will be set aside
    std::string refused;             // then: why
    bool skipped = false;            // by the configuration
    bool described = false;          // its items are
    std::vector<pgk_column> columns;
    std::vector<std::string> generated = {}; // columns that the server computes and does not send
    int64_t about = -1;      // rows as the server's statistics have it; -1: not known
    int64_t rows = -1;       // counted by a scan; -1: not scanned
    std::string not_scanned; // why it was not
};

struct pgk_report {
    const pgb_options &options;
    bool configured = true; // there is a configuration file
    fwu_config config = {};
    fwu_encoding encoding = FWU_UTF8; // of texts in the log
    bool log_begun = false;           // the log directory has files of one
    pgb_kept kept = {};               // what a run before left there
    pgs_server server = {};
    pgk_server found = {};
    pgb_relations relations = {};
    std::vector<pgk_table> tables = {};
    std::unordered_map<uint32_t, size_t> table_of_id = {}; // index in tables
    std::vector<pgk_finding> findings = {};
};

bool pgk_starts(const pgk_report &report);

// The largest record of the table's changes: the longest header that Kestro writes, and both
// images of an update; and what a message file takes.
constexpr int32_t PGK_HEADER_MAX = 141;
constexpr int32_t PGK_RECORD_MAX = 32761;
int64_t pgk_record_length(const pgk_table &table);

// "I 4", "P 5 scale=2", "utf-8", "mark", as the configuration writes them.
std::string pgk_item_text(const fwu_item &item);
const char *pgk_encoding_word(fwu_encoding encoding);
const char *pgk_policy_word(fwu_policy policy);

// What becomes of values that do not fit, where nothing else is said of their table or column.
fwu_policy pgk_policy(const pgk_report &report);

// Adds what was found.
void pgk_stop(pgk_report &report, const char *kind, std::string text,
              std::vector<std::string> sql = {});
void pgk_note(pgk_report &report, const char *kind, std::string text,
              std::vector<std::string> sql = {});

// The server, the role's rights, publication and slot; then the same for replication.
outcome pgk_look_at_server(pgk_report &report);

// The tables that are followed, or would be, and their datasets.
outcome pgk_look_at_tables(pgk_report &report);

// Which old rows the server sends of them, and whether the role may read them.
outcome pgk_look_at_identities(pgk_report &report);
outcome pgk_look_at_reading(pgk_report &report);

// Reads the tables: what they hold that would be cut, replaced or left out.
outcome pgk_scan(pgk_report &report);

// The widths for a written configuration: those that a run would choose now, or such that what
// was found in the columns has room.
void pgk_choose_widths(pgk_report &report);

std::string pgk_text(const pgk_report &report);
std::string pgk_json(const pgk_report &report);

// The configuration, for a file of this path, that gives the same datasets and stays with them.
std::string pgk_config(const pgk_report &report, const std::string &path);

#endif
