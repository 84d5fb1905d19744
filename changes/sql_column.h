// A column of a table that changes go into.
#ifndef CHANGES_SQL_COLUMN_H
#define CHANGES_SQL_COLUMN_H

#include <cstddef>
#include <string>
#include <string_view>

// What stands for a column where it is compared with a value.
struct sql_compared {
    std::string text;
    bool trims = false; // it is without the blanks at its end
};

// What stands around a value that a column of the key is compared with.
struct sql_around {
    std::string before;
    std::string behind;
};

struct sql_column {
    size_t item = 0;
    std::string name;      // in UTF-8
    std::string quoted;    // as it stands in statements
    std::string type;      // as the source writes it; empty: not known
    sql_compared compared; // unless it is part of the key
    sql_around around;     // if it is
    bool boolean = false;  // its values are true and false
};

// Whether a type, or the type of an array's elements, begins with one of a list of words
// separated by blanks: "double precision" with "double", "numeric(9,2)" with "numeric".
bool sql_type_is(std::string_view type, std::string_view names);

#endif
