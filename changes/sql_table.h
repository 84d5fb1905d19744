// A dataset as the table that its changes go into.
#ifndef CHANGES_SQL_TABLE_H
#define CHANGES_SQL_TABLE_H

#include "changes/change.h"
#include "changes/sql_column.h"
#include "util/outcome.h"

#include <cstddef>
#include <string>
#include <vector>

struct sql_dialect;

struct sql_table {
    const sql_dialect *dialect = nullptr;
    const change_dataset *dataset = nullptr;
    std::string origin; // "sales.orders", or its dataset "SALES.ORDERS"
    std::string schema; // in quotes; empty: none
    std::string name;   // in quotes, with its schema
    std::vector<sql_column> columns;
    std::vector<size_t> key; // places in columns; empty: rows are known by all they have
    std::string insert;      // the statement up to its values
    std::string row;         // what tells rows apart in the database
};

// The name of a table in statements; the schema may be empty.
std::string sql_table_name(const sql_dialect &dialect, const std::string &schema,
                           const std::string &table);

// A key that the user gives a dataset.
struct sql_key {
    std::string dataset;              // "ORDERS" of any database, "SALES:ORDERS"
    std::vector<std::string> columns; // their names, or those of their items
};

// Makes the table of a dataset.  OUTCOME_BAD when it has no columns, or lacks one of its key.
outcome sql_table_make(sql_table &table, const sql_dialect &dialect,
                       const std::vector<sql_key> &keys, const change_dataset &dataset);

// An INSERT of these columns up to its values.
std::string sql_insert_into(const sql_table &table, const std::string &columns);

#endif
