// Tables made, and changed where a dataset gets a new layout.
#ifndef CHANGES_SQL_LAYOUT_H
#define CHANGES_SQL_LAYOUT_H

#include "changes/sql_table.h"
#include "util/outcome.h"

#include <string>
#include <utility>
#include <vector>

// What a layout does not tell of the one before.
struct sql_layout_options {
    std::vector<std::pair<std::string, std::string>> renames; // old and new name of a column
    bool drop_columns = false; // columns that are gone are dropped, though others are new
};

// Adds the statements, without ";", that make a table which is not there.  OUTCOME_BAD when
// the log has a type that is none.
outcome sql_create_table(std::vector<std::string> &statements, const sql_table &table);

// Adds the statements that make of a table what it is in a new layout.  OUTCOME_BAD when
// it cannot be told which ones, or the database has none for it.
outcome sql_alter_table(std::vector<std::string> &statements, const sql_table &from,
                        const sql_table &to, const sql_layout_options &options);

#endif
