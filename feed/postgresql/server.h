// The server that is followed: owned handles, what is kept of its connections, values of
// its answers, and names as its SQL writes them.
#ifndef FEED_POSTGRESQL_SERVER_H
#define FEED_POSTGRESQL_SERVER_H

#include "util/outcome.h"

#include <charconv>
#include <cstdint>
#include <libpq-fe.h>
#include <map>
#include <memory>
#include <string>
#include <string_view>

struct pgs_close {
    void operator()(PGconn *connection) const
    {
        PQfinish(connection);
    }
    void operator()(PGresult *result) const
    {
        PQclear(result);
    }
    void operator()(char *bytes) const
    {
        PQfreemem(bytes);
    }
};
using pgs_connection = std::unique_ptr<PGconn, pgs_close>;
using pgs_result = std::unique_ptr<PGresult, pgs_close>;
using pgs_memory = std::unique_ptr<char, pgs_close>;

struct pge_texts; // feed/postgresql/encoding.h

struct pgs_server {
    std::string conninfo; // may be empty: the environment's settings count
    std::string slot;
    std::string publication;
    pgs_connection sql;           // for queries
    pgs_connection order;         // for where keys stand that the server orders
    pgs_connection replication;   // for the stream
    pgs_memory row;               // of a COPY, that came last
    const char *remedy = nullptr; // after OUTCOME_LOST: what to do about it, if that is known
    std::string encoding;         // of the database, as the server calls it; empty: not known yet
    std::shared_ptr<pge_texts> texts;  // what is known of its characters; null: the server converts
    mutable bool texts_failed = false; // it could not, on a connection beside these
    std::string row_text;              // the same, converted; else not used
    // What the server refuses to tell beside the stream: why, by what it is about.
    mutable std::map<std::string, std::string> untold;
    bool any_bytes = false;       // the database has no encoding: texts are not always UTF-8
    bool slot_in_use = false;     // after OUTCOME_LOST: it was that another process has the slot
    bool refused = false;         // after OUTCOME_FAILED: the server has said so itself
    int64_t timeout_ms = 60'000;  // of silence after which the server is taken for gone
    int64_t patience_ms = 60'000; // the same, longer after each time
};

// OUTCOME_LOST for this reason, which is not that somebody else has the slot.
outcome pgs_lost(pgs_server &server, std::string why);

// The system could not wait for the server: errno.
outcome pgs_wait_failed();

// A value of a result; nulls are empty.
std::string_view pgs_value(const pgs_result &result, int row, int column);

// A number that the server wrote.  False, number stays: it is none, or out of range.
template <typename Number> bool pgs_number(Number &number, std::string_view text)
{
    Number found = 0;
    const char *const end = text.data() + text.size();
    const auto [rest, code] = std::from_chars(text.data(), end, found);
    if (code != std::errc() || rest != end)
        return false;
    number = found;
    return true;
}

// A name or a text as SQL writes them.
std::string pgs_name(std::string_view name);
std::string pgs_literal(std::string_view text);

// The server's message without its line ends.
std::string pgs_one_line(const char *message);

#endif
