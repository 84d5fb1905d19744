// The statements that make a change in a table.
#ifndef CHANGES_SQL_STATEMENT_H
#define CHANGES_SQL_STATEMENT_H

#include "changes/change.h"
#include "changes/sql_literal.h"
#include "changes/sql_table.h"

#include <string>
#include <string_view>

// Appends the statement of a change that is no mark, which affects one row, without its ";".
// condition: what it depends on; empty: nothing.  put: whether there is one; an update that sets
// nothing has none.  What is not known is not written.  OUTCOME_BAD when the rows have bytes that
// are no values, or nothing is known of them.
outcome sql_put_statement(std::string &out, bool &put, sql_work &work, const sql_table &table,
                          const change &of, std::string_view condition);

#endif
