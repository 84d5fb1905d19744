// Values as they stand in statements, whatever bytes they have.
#ifndef CHANGES_SQL_LITERAL_H
#define CHANGES_SQL_LITERAL_H

#include "changes/change.h"
#include "changes/sql_table.h"

#include <string>
#include <string_view>
#include <vector>

// What the making of statements keeps from value to value.
struct sql_work {
    std::string digits;
    std::string text;
    std::vector<const sql_column *> known; // columns by which a row is found
    std::vector<std::string> left_out;     // columns that the INSERT made last does not have
};

// Appends the literal of a column's value in a row; NULL where it is null.  False: the bytes
// there are no value of the column, which has to be told.  The value must be known.
// trimmed: without the blanks at its end.
bool sql_put_value(std::string &out, sql_work &work, const sql_table &table,
                   const sql_column &column, const change_row &row, bool trimmed = false);

// What is wrong with bytes that are no value.
std::string sql_no_value(const sql_table &table, const sql_column &column, const change_row &row);

#endif
