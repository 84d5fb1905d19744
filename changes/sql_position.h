// The position table: how far the log has been applied, in the database itself, so that each
// transaction is applied once whatever is repeated.
//
// It has one row.  A transaction begins by making itself the pending one, which only the
// transaction that comes next can; each of its statements asks for that, and at its end it
// becomes the position.  So one that is there already does nothing, and one whose beginning
// was refused does nothing either, even when the client goes on after the error.
#ifndef CHANGES_SQL_POSITION_H
#define CHANGES_SQL_POSITION_H

#include "changes/sql_dialect.h"
#include "fwutil/fwu_identity.h"
#include "fwutil/fwu_start.h"

#include <cstdint>
#include <string>

struct sql_position {
    const sql_dialect *dialect = nullptr;
    std::string table;       // in quotes; empty: there is none
    fwu_position before;     // the transaction that must have been applied
    std::string condition;   // of each statement in the transaction in hand; empty: none
    uint64_t statements = 0; // of them, which each change one row
    bool altered = false;    // one that depends on nothing changes a layout
};

// "0001-00000025.0000000344": texts in the order of the positions.
std::string sql_position_text(const fwu_position &position);

// The table of the name that the user gives.
void sql_position_name(sql_position &position, const std::string &name);

// Append: the table, if it is missing, with the position before everything that comes; the
// beginning of a transaction; what stands around a statement that changes any number of
// rows and leaves none in a table; the end of a transaction.
void sql_position_create(sql_position &position, std::string &out, const fwu_identity &log);
void sql_position_begin(sql_position &position, std::string &out, const fwu_identity &log,
                        const fwu_position &here);
void sql_position_put_emptying(sql_position &position, std::string &out, const std::string &table);
void sql_position_end(sql_position &position, std::string &out, const fwu_position &here);

#endif
