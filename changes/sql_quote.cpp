// Both kinds of quotes are doubled inside, and nothing else is special there.
#include "changes/sql_quote.h"

static void put_doubled(std::string &out, std::string_view text, char quote)
{
    out.push_back(quote);
    for (const char c : text) {
        if (c == quote)
            out.push_back(quote);
        out.push_back(c);
    }
    out.push_back(quote);
}

void sql_put_name(std::string &out, std::string_view name)
{
    put_doubled(out, name, '"');
}

void sql_put_quoted(std::string &out, std::string_view text)
{
    put_doubled(out, text, '\'');
}
