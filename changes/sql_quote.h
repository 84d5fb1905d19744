// Names and texts in the quotes that statements have around them.
#ifndef CHANGES_SQL_QUOTE_H
#define CHANGES_SQL_QUOTE_H

#include <string>
#include <string_view>

// Appends a name in double quotes.
void sql_put_name(std::string &out, std::string_view name);

// Appends text in single quotes, which are doubled in it; nothing else is.
void sql_put_quoted(std::string &out, std::string_view text);

#endif
