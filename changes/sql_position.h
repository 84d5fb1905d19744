// The position table: how far the log has been applied, in the database itself, so that each
// transaction is applied once whatever is repeated.
//
// It has one row.  A transaction begins by making itself the pending one, which only the
// transaction that comes next can; each of its statements asks for that, and at its end it
// becomes the position.  So one that is there already does nothing, and one whose beginning
// was refused does nothing either, even when the client goes on after the error.
//
// Which of two transactions comes first, their positions in the source tell: a log that was cut
// back and goes on has its own positions again, of other transactions.
#ifndef CHANGES_SQL_POSITION_H
#define CHANGES_SQL_POSITION_H

#include "changes/change.h"
#include "changes/sql_dialect.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>

// What tells a transaction from those before it.
enum sql_order {
    SQL_BY_POSITION, // that in the log, since the source's is not known
    SQL_BY_LSN,      // no transaction before it has its lsn
    SQL_BY_BOTH,     // where the lsn is the same the position in the log
};

struct sql_place {
    sql_order by = SQL_BY_POSITION;
    uint64_t lsn = 0;
    fwu_position position;
};

struct sql_position {
    const sql_dialect *dialect = nullptr;
    std::string table;       // in quotes; empty: there is none
    std::string selection;   // which changes of the log are wanted, as a literal
    sql_place before;        // the transaction that must have been applied
    sql_place here;          // the one in hand
    std::string condition;   // of each statement in the transaction in hand; empty: none
    uint64_t statements = 0; // of them, which each change one row
    bool altered = false;    // one that depends on nothing changes a layout
};

// "0001-00000025.0000000344": texts in the order of the positions.
std::string sql_position_text(const fwu_position &position);

// The place of a transaction that comes behind another one, or behind a position.
sql_place sql_place_behind(const sql_place &before, const change_transaction &transaction);

// The table of the name that the user gives.
void sql_position_name(sql_position &position, const std::string &name);

// Append: the table, if it is missing, with the position before everything that comes; the
// beginning of a transaction; what stands in front of a statement that has to change one row
// of a table that is there, and behind it, without its ";"; what stands around one that
// changes any number of rows and leaves none in a table; the end of a transaction.
//
// OUTCOME_BAD when the transaction comes behind one that came later in the source.
void sql_position_create(const sql_position &position, std::string &out, const fwu_identity &log);
outcome sql_position_begin(sql_position &position, std::string &out,
                           const change_transaction &transaction);
void sql_position_begin_row(const sql_position &position, std::string &out);
void sql_position_end_row(const sql_position &position, std::string &out, const std::string &table);
void sql_position_put_emptying(sql_position &position, std::string &out, const std::string &table);
void sql_position_end(sql_position &position, std::string &out);

#endif
