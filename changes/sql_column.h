// A column of a table that changes go into.
#ifndef CHANGES_SQL_COLUMN_H
#define CHANGES_SQL_COLUMN_H

#include <cstddef>
#include <string>
#include <string_view>

struct sql_column {
    size_t item = 0;
    std::string name;     // in UTF-8
    std::string quoted;   // as it stands in statements
    std::string type;     // as the source writes it; empty: not known
    bool boolean = false; // its values are true and false
    bool as_text = false; // compared as text, unless it is part of the key
};

// Whether a type is one of a list of names separated by blanks, as it is, with a size, or as
// the type of an array's elements.
bool sql_type_is(std::string_view type, std::string_view names);

#endif
