// What the databases that statements are written for differ in, a row for each.
#ifndef CHANGES_SQL_DIALECT_H
#define CHANGES_SQL_DIALECT_H

#include "changes/value.h"
#include "fwutil/fwu_items.h"

#include <string>
#include <string_view>

struct sql_around;
struct sql_column;
struct sql_compared;

struct sql_dialect {
    const char *name;        // as --dialect takes it
    const char *head;        // statements in front of all others
    const char *overriding;  // behind the columns of an INSERT
    bool schemas;            // tables stand in schemas; else its schema is part of a table's name
    bool folds_names;        // names that differ in the case of ASCII letters are the same
    bool alters_types;       // of the columns of a table that is there
    bool counts_changes;     // total_changes() tells how many rows all statements have changed
    const char *rows[3];     // what tells the rows of a table apart, the first that names no column
    const char *booleans[2]; // literals of false and true
    // Appends a literal of UTF-8 text, which has no NUL.
    void (*put_text)(std::string &out, std::string_view text);
    // Appends the literal of a number or special value.
    void (*put_number)(std::string &out, const fwu_item &item, change_value kind,
                       std::string_view text);
    // What has to be compared with a value, so that exactly the same is found.
    sql_compared (*compared)(const sql_column &column, const fwu_item &item);
    // What a value has to have around it where a column of the key is compared with it.
    sql_around (*around)(const sql_column &column);
    // The type that the column of a new table gets; it may be empty.
    std::string (*declared)(const sql_column &column, const fwu_item &item);
    // Appends a statement that changes a table's layout, given without ";".  condition: what
    // it depends on where the dialect can say so; empty: nothing.
    void (*put_layout_change)(std::string &out, std::string_view statement,
                              std::string_view condition);
    const char *position_columns; // of the position table, behind its first one
};

// A name, or one in quotes, as the database compares it with others.
std::string sql_same_name(const sql_dialect &dialect, std::string name);

// The row of a name; null: there is none.
const sql_dialect *sql_dialect_of(std::string_view name);

#endif
