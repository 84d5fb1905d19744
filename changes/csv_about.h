// The columns that tell about a change, not of its values.
#ifndef CHANGES_CSV_ABOUT_H
#define CHANGES_CSV_ABOUT_H

#include "changes/change.h"

#include <string>
#include <string_view>

struct change_csv_about {
    std::string_view name;
    // Appends the field.
    void (*put)(std::string &out, const change &next, const change_transaction &transaction);
};

// The row of a name; null: there is none.
const change_csv_about *change_csv_about_of(std::string_view name);

// All names, "_op, _position, ...".
std::string change_csv_about_names();

// Appends a text in UTF-8 as a field; an empty one is "".
void change_csv_put_text(std::string &out, std::string_view text);

#endif
