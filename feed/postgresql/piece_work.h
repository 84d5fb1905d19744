// What the reading of pieces is made of: for its own files alone.
#ifndef FEED_POSTGRESQL_PIECE_WORK_H
#define FEED_POSTGRESQL_PIECE_WORK_H

#include "feed/postgresql/piece.h"
#include "feed/postgresql/query.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// ---- tables

// A table as the transaction's snapshot shows it.
struct pgp_table {
    size_t want = 0;
    pgo_relation relation;
    std::vector<std::string> key; // that orders it here, as it is kept
    pgp_order order;
    std::string rows;      // "SELECT ... FROM ..."
    std::string filter;    // of the publication; empty: all rows
    int64_t estimate = -1; // rows; -1: not known
    int64_t size = 0;      // bytes on disk
};

// Those of the tables wanted (by their places) that are there and published, in this order.
outcome pgp_describe(std::vector<pgp_table> &tables, pgs_server &server,
                     const std::vector<pgp_want> &wants, const std::vector<size_t> &places);

// COPY of the rows behind one (empty: from the first on), at most so many, by the key; limit 0:
// all, in any order.
std::string pgp_command(const pgp_table &table, pgs_server &server,
                        const std::vector<std::string> &behind, uint64_t limit);

// "shop"."orders"
std::string pgp_sql_name(const pgp_want &want);

// ---- keys

// An entry of a key as it is kept; operand: null where it is compared here.
std::string pgp_key_text(const pgo_column &column, uint32_t compared_as,
                         const pgp_operand *operand);

// A row of these columns, as SQL has them, is behind one of these values.
std::string pgp_is_behind(const pgp_order &order, PGconn *connection,
                          const std::vector<std::string> &columns,
                          const std::vector<std::string> &values);

// What stands behind ORDER BY.
std::string pgp_order_by(const pgp_order &order, const std::vector<std::string> &columns);

// ---- answers

// Runs a query that no table is to blame for: a refusal passes by itself, OUTCOME_LOST.
outcome pgp_ask(pgs_server &server, pgs_result &result, const std::string &query);
outcome pgp_ask(pgs_server &server, PGconn *connection, pgs_result &result,
                const std::string &query);

// A value in SQL, whatever it holds and however the server reads texts.
std::string pgp_literal(PGconn *connection, std::string_view text);
std::string pgp_literal(const pgs_server &server, std::string_view text);

// What a refusal means for the table that was read.
enum pgp_trouble {
    PGP_REFUSED,
    PGP_GONE,
    PGP_PASSES, // by itself
    PGP_SLOW,   // it took longer than a piece may
};
pgp_trouble pgp_trouble_of(const pgs_refusal &refusal);

// "permission denied for table orders; give the role the right: ..."
std::string pgp_reason(const pgs_refusal &refusal);

// The same of a table that the connection's role was to read: the remedy names both.
std::string pgp_reason(const pgs_refusal &refusal, const PGconn *connection,
                       const std::string &schema, const std::string &table);

// Takes a line of COPY's text format apart, in place.
void pgp_split(pgo_tuple &tuple, char *line, size_t length);

// Whether the tables still have the names that they were read by; OUTCOME_LOST: one does not.
outcome pgp_check_names(const pgp_piece &piece, pgs_server &server, PGconn *connection);

#endif
