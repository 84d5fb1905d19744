// Changes as SQL statements, transaction by transaction.
//
// The text of a transaction begins with BEGIN and ends with COMMIT; what has to be given up in
// between is without effect, since the database takes back what has no COMMIT.  Values of texts
// end where their blanks begin, as in the log.
#ifndef CHANGES_SQL_H
#define CHANGES_SQL_H

#include "changes/change.h"
#include "changes/sql_layout.h"
#include "changes/sql_table.h"
#include "util/outcome.h"

#include <memory>
#include <string>
#include <vector>

enum sql_on_mark { SQL_STOP, SQL_SKIP, SQL_APPLY };

struct sql_options {
    const sql_dialect *dialect = nullptr;
    std::string position_table; // its name; empty: none
    std::string selection;      // what is known as the selection of these changes; empty: all
    bool create_tables = false; // make tables that are not there
    bool keep_tables = false;   // a new layout of a dataset changes no table
    sql_layout_options layouts;
    sql_on_mark truncate = SQL_STOP;
    sql_on_mark gap = SQL_STOP; // SQL_APPLY: the same as SQL_SKIP
    std::vector<sql_key> keys;
};

// Only the functions here change a writer.
struct sql_writer {
    sql_options options;
    std::vector<std::string> notes; // what is to be told; whoever tells it takes it away
    struct parts;
    std::unique_ptr<parts> own;
    explicit sql_writer(sql_options options);
    ~sql_writer();
};

// What was applied before the first transaction that will be given: everything up to this
// position of the log, where nothing is known of the transaction before it; this transaction.
void sql_begin_behind(sql_writer &writer, const fwu_position &position);
void sql_pass(sql_writer &writer, const change_transaction &transaction);

// Takes a layout of a dataset as the one that its table has.  OUTCOME_BAD as sql_table_make.
outcome sql_learn(sql_writer &writer, const change_dataset &dataset);

// Appends the statements of a change, and in front of a transaction's first one what begins
// it.  The dataset has to live as long as the writer.  OUTCOME_BAD, with the reason and what
// to do, when there are none for it: the transaction must be given up then.
outcome sql_put(sql_writer &writer, std::string &out, const change &of,
                const change_transaction &transaction);

// Appends the end of the transaction whose changes were put.
void sql_end(sql_writer &writer, std::string &out);

// Appends what takes back the part of a transaction that was appended.
void sql_give_up(std::string &out);

#endif
