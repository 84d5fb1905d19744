// Rows of tables as one moment of the server shows them, between whose changes they belong, piece
// by piece in the order of their keys.
//
// A piece is read in a transaction that sees one snapshot: it says exactly which transactions it
// has (pgf_has_transaction), all of which have committed before position high of the server's log.
// Its tables are locked against whatever would make another table of them before it is taken.
#ifndef FEED_POSTGRESQL_PIECE_H
#define FEED_POSTGRESQL_PIECE_H

#include "feed/postgresql/pgoutput.h"
#include "feed/postgresql/query.h"
#include "feed/postgresql/server.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A table whose rows are wanted, and how far it has been read.
struct pgp_want {
    std::string schema;
    std::string table;
    std::vector<std::string> key = {}; // of the part before, as it is; empty: nothing was read yet
    std::vector<std::string> reached = {}; // values of the key in the last row that was read
    uint32_t id = 0;                       // OID of the table that was read; 0: none, or not known
    uint32_t shape = 0;                    // of the part before; 0: not known
    bool whole = false;                    // directly, whatever its key is
};

// How the server compares values of a key's column, as SQL.
struct pgp_operand {
    std::string type;     // of a value
    std::string collate;  // " COLLATE ..."; empty: its type has no such thing
    std::string less;     // "OPERATOR(pg_catalog.<)"
    std::string at_least; // ">="
    std::string greater;  // ">"
    std::string version;  // of what this rests on there
    bool operator==(const pgp_operand &) const = default;
};

// The columns of a key, by their places in a relation, and how they are ordered.
struct pgp_order {
    std::vector<size_t> columns = {};
    std::vector<uint32_t> types = {}; // that they are compared as here; 0: the server compares them
    std::vector<pgp_operand> operands = {}; // ... in this way; empty: all are compared here
};

// A table's rows behind those read before, up to the last one in the piece, or all of them.
struct pgp_part {
    size_t want = 0;               // which of those wanted
    pgo_relation relation;         // as the stream describes it
    std::vector<std::string> key;  // that orders it, an entry a column, to be kept as it is; empty:
                                   // none can, the rows are all there are, in any order
    pgp_order order;               // the same in relation
    std::vector<std::string> from; // the rows are behind this one; empty: from the first one on
    std::vector<std::string> to;   // the last row; empty: none came, or no key
    bool ends = false;             // with it, the table has been read to its end
    uint32_t shape = 0;            // pgo_shape of relation
    bool anew = false;             // from the first row on, though something was read: that was of
                                   // another table, or ordered by another key, or had other columns
    std::string lines;             // the rows, see pgp_next
    uint64_t rows = 0;
    int64_t estimate = -1; // rows of the whole table, as the server guesses; -1: it does not
    std::string refused;   // the server does not give its rows: why.  All the above is empty then
    bool gone = false;     // there is no such table, or it is not published: the same
};

struct pgp_piece {
    std::string snapshot; // "xmin:xmax:xip,..."
    uint64_t high = 0;    // everything in the snapshot has committed before it
    int64_t time_us = 0;  // since 1970, by the server's clock
    std::vector<pgp_part> parts;
    std::vector<size_t> left = {}; // of those wanted: could be read only directly, see pgp_limits

    // Direct: the rows of the one part that is neither refused nor gone are still to come, by
    // pgp_direct_rows; its range is known already.
    bool direct = false;
    pgs_connection reader = {}; // has the snapshot and the lock
    std::string command = {};   // gives the rows
    bool sent = false;          // it was sent
    bool copying = false;       // the rows come
    uint64_t given = 0;         // so many have come
    uint64_t at_hand = 0;       // so many are in the part's lines
    int64_t heard_ms = 0;       // when something came last, monotonic
};

// Where a piece ends, so that the stream waits for it for a moment only.
struct pgp_limits {
    uint64_t rows = 20'000;
    uint64_t bytes = 4U << 20; // of texts; a row more, where it is longer
    size_t tables = 500;
    int64_t time_ms = 2000; // no further table is begun after that
    bool direct = true;     // a table that does not fit may be left to be read directly
};

// Reads the next rows of tables wanted, from the first one on as many of them as make a piece.
// Connects server.sql where it is not; a lost connection, a table that is locked, and what else may
// pass by itself go to later (it may be told): tables that are not in piece.parts are to be wanted
// again, shortly after if there are no parts at all.  passed are transactions that the piece has
// to have, and whose changes of these tables have been passed over or logged.
// Fails by OUTCOME_STOPPED, by OUTCOME_LOST when all connections have to be made anew, since the
// server is to convert no texts any more, and by OUTCOME_FAILED.
outcome pgp_read(pgp_piece &piece, pgs_server &server, const std::vector<pgp_want> &wants,
                 const std::vector<uint32_t> &passed, std::string &later,
                 const pgp_limits &limits = {});

// Takes the next row of lines, from byte at on, apart in its place; false at the end.  A line can
// be taken once.  Valid as long as lines is.
bool pgp_next(pgo_tuple &row, std::string &lines, size_t &at);

enum pgp_came {
    PGP_NOT_YET, // there may be more, but nothing came in the time given
    PGP_FULL,    // ... as much as makes a piece is at hand
    PGP_LAST,    // all rows have come
    PGP_BROKEN,  // what came does not count: the part is refused or gone now, else later says why
};

// Puts the next rows of a direct piece behind what its part's lines hold, and waits wait_ms at most
// for each.  Whoever takes them empties lines before the next call.  Behind the last one the table
// stays locked until pgp_end.  Fails like pgp_read.
outcome pgp_direct_rows(pgp_came &came, pgp_piece &piece, pgs_server &server, int wait_ms,
                        std::string &later, const pgp_limits &limits = {});

// Ends the transaction of a direct piece, wherever it is; for others there is nothing to do.
void pgp_end(pgp_piece &piece);

// Makes the server's log go on a little, which the stream shows then.  Connects server.sql where
// it is not; what may pass by itself is no failure.
outcome pgp_go_on(pgs_server &server);

// The columns of a part's key in a relation as the stream describes it.  False: it lacks one, or
// has it in another type; the table has to be read anew.
bool pgp_find_order(pgp_order &order, const pgo_relation &relation,
                    const std::vector<std::string> &key);

// Values of the key in a row.  False: the row lacks one.
bool pgp_key_of(std::vector<std::string_view> &key, const pgp_order &order, const pgo_tuple &row);

// Where a row stands.
enum pgp_side {
    PGP_TAKEN,   // at or before the rows read before
    PGP_PIECE,   // in the part's range
    PGP_LATER,   // behind it
    PGP_UNKNOWN, // a value of its key is none of its type, or the server has to be asked
};
pgp_side pgp_side_of(const pgp_part &part, const std::vector<std::string_view> &key);

// The same while no part is in hand, only what was reached (empty: nothing): PGP_TAKEN or
// PGP_LATER, or PGP_UNKNOWN.
pgp_side pgp_side_of(const pgp_order &order, const std::vector<std::string> &reached,
                     const std::vector<std::string_view> &key);

// Rows between two keys, of a table that the server orders.
struct pgp_range {
    pgp_order order;
    std::vector<std::string> from; // behind this one; empty: from the first one on
    std::vector<std::string> to;   // up to this one; empty: to the last one
};

// The range that a part's rows are of, or all behind what was reached.
pgp_range pgp_range_of(const pgp_part &part);
pgp_range pgp_range_behind(const pgp_order &order, const std::vector<std::string> &reached);

// Whether the order of a key, as it is kept, is the server's.
bool pgp_is_ordered_there(const std::vector<std::string> &key);

// Asks where rows of these keys stand, over the connection server.order, which is made where it is
// not, and once more when it is lost.  refusal says why the server compares them no more: a value
// is none of its type by now, or the type is gone.
outcome pgp_ask_sides(std::vector<pgp_side> &sides, pgs_server &server, const pgp_range &range,
                      const std::vector<std::vector<std::string_view>> &keys, pgs_refusal &refusal);

#endif
