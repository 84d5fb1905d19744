// What all that talks to the server needs of its answers.
#include "feed/postgresql/server.h"

#include <cerrno>
#include <cstring>

outcome pgs_lost(pgs_server &server, std::string why)
{
    server.slot_in_use = false;
    return {OUTCOME_LOST, std::move(why)};
}

outcome pgs_wait_failed()
{
    return outcome_failed("waiting for the server: %s", strerror(errno));
}

std::string_view pgs_value(const pgs_result &result, int row, int column)
{
    return {PQgetvalue(result.get(), row, column),
            static_cast<size_t>(PQgetlength(result.get(), row, column))};
}

static std::string quoted(std::string_view text, char quote)
{
    std::string out(1, quote);
    for (const char c : text) {
        out += c;
        if (c == quote)
            out += c;
    }
    return out + quote;
}

std::string pgs_name(std::string_view name)
{
    return quoted(name, '"');
}

std::string pgs_literal(std::string_view text)
{
    return quoted(text, '\'');
}

std::string pgs_one_line(const char *message)
{
    std::string text = message;
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    for (char &c : text)
        if (c == '\n' || c == '\t')
            c = ' ';
    return text;
}
