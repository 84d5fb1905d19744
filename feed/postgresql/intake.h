// Tables that are taken in: their rows are read in pieces while the stream goes on, and each piece
// is logged where it belongs between the changes.
//
// A piece is read between two transactions of the stream, and has what one snapshot of the server
// shows.  It says exactly which transactions it has, all of them committed before position high.
// While the stream goes on up to high, a change of such a table is, by its key,
// - of a row that was logged before: logged as usual;
// - of a row in the piece's range: passed over when the piece has its transaction, else kept, and
//   logged behind the rows of the piece;
// - of a row behind it: passed over, a later piece will have it.
// Where the key's order is the server's own, it is asked where rows stand, for many changes at
// once. A key that moves is a delete here and an insert there.  What was passed over has to be in
// the snapshot of the piece that is read next, which is asked of it.  The piece is logged when the
// stream has passed high, as one transaction of position high - 7, which is free: positions of the
// server's commits are multiples of 8.  A table's standing says how far it has come, and goes with
// that transaction.  Whatever ends a run before, the piece is read again.
//
// A table whose rows have no order here, and are too many for a piece, is held: one snapshot of it
// stays open, its rows are logged bit by bit between the changes of the others, in any order, and
// all changes of it that the snapshot does not have are logged behind the last of them.  Whatever
// ends that before begins the table anew.
#ifndef FEED_POSTGRESQL_INTAKE_H
#define FEED_POSTGRESQL_INTAKE_H

#include "feed/postgresql/change.h"
#include "feed/postgresql/piece.h"
#include "feed/postgresql/relations.h"
#include "feed/postgresql/server.h"
#include "feed/postgresql/spool.h"
#include "feed/postgresql/state.h"
#include "feed/transaction.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// A piece is logged so far below its high mark: behind all commits there, and with positions
// behind it for gap marks.
constexpr uint64_t PGI_BELOW_HIGH = 7;

// The table that is held.
struct pgi_held {
    pgp_piece piece;                              // direct; without parts: none is
    std::vector<pgp_want> wants;                  // the one table
    std::unordered_map<uint32_t, size_t> part_of; // by OID: its part
    pgi_spool kept;                               // changes that belong behind its rows
    uint32_t judged = 0;                          // transaction looked for last, 0: none
    bool has_judged = false;                      // ... which the snapshot has
    pgp_came came = PGP_NOT_YET;                  // at the last look for rows
    bool begun = false;                           // rows of it are in the log
    int64_t again_ms = 0;                         // rows are not looked for before, monotonic
    int64_t go_on_ms = 0;                         // nor is the server's log made to go on
    int64_t begun_ms = 0;                         // when the snapshot was taken
    int64_t logged_ms = 0;                        // ... and when rows were logged last, or begun_ms
    std::set<std::string> waiting;                // tables that are to be held, too
};

// Where the rows of a change stand, as the server says.
struct pgi_sides {
    bool asked = false;
    pgp_side old = PGP_UNKNOWN;
    pgp_side fresh = PGP_UNKNOWN;
};

struct pgi_intake {
    // The piece in hand: read, and not logged yet.
    bool in_hand = false;
    pgp_piece piece;
    std::vector<pgp_want> wants;                  // what it was asked for
    std::unordered_map<uint32_t, size_t> part_of; // by OID: parts that count
    pgi_spool kept;                               // changes that belong behind its rows
    pgi_held held;

    // Where rows stand that the server orders.
    pgs_server *server = nullptr;      // that is asked
    std::vector<std::string> gathered; // changes of the transaction in hand that wait for that, and
                                       // those that came behind them
    size_t gathered_bytes = 0;
    const pgi_sides *sides = nullptr; // of the change in hand; null: nobody has asked yet
    std::map<std::string, int> anew;  // by name: how often it could not tell

    // Transactions whose changes of these tables have come, or may have, and that no snapshot was
    // seen to have.
    std::vector<uint32_t> passed;
    std::vector<uint32_t> before; // likewise, of before the tables in names were taken in
    int64_t before_until_ms = 0;  // monotonic; then these have not committed; 0: no such time
    std::string seen;             // the last snapshot
    uint32_t judged = 0;          // transaction looked for last, 0: none
    bool has_judged = false;      // ... which the last snapshot has
    bool noted = false;           // ... is in passed already

    std::set<std::string> names; // of the tables at the last look
    uint64_t version = 0;        // of the registry then
    int64_t again_ms = 0;        // nothing is read before this time, monotonic
    int64_t told_ms = 0;         // that it waits; 0: not yet
    std::string turn;            // name behind which the next piece begins, all round
    uint64_t rows = 0;           // logged since the start
};

// What an intake works on.
struct pgi_place {
    pgs_server &server;
    pgb_state &state;
    feed_transaction &tx;
    pgb_relations &relations;
    bool verbose = false;
    std::function<outcome()> touch = {}; // to be called now and then in what takes long
};

// A connection begins: nothing is in hand.
void pgi_open(pgi_intake &intake);

// All tables of the publication are to be taken in, behind last_lsn, the log's last position.
// replaces: it may have rows of them.
void pgi_want_all(pgb_relations &relations, uint64_t last_lsn, bool replaces);

// Whether anything is left to take in.
bool pgi_busy(pgi_intake &intake, const pga_registry &registry);

// Which sides of a change, of a table that is taken in, are to be logged now.  What the new side
// lacks is taken from the old one.  OUTCOME_BAD when the change does not bring the row's key.
outcome pgi_sort(pgb_sides &now, pgi_intake &intake, const feed_transaction &tx,
                 pgb_relations &relations, const pgb_relation &relation, pgo_message &message,
                 std::string_view bytes);

// Whether the server has to be asked first where the rows of changes of a relation stand.
bool pgi_has_to_ask(pgi_intake &intake, const feed_transaction &tx, pgb_relations &relations,
                    pgb_relation &relation);

// Asks it for changes, given as their messages' bytes; those that need no answer get none.
outcome pgi_ask(std::vector<pgi_sides> &sides, pgi_intake &intake, const feed_transaction &tx,
                pgb_relations &relations, const std::vector<std::string_view> &changes);

// Whether a truncate of a table that is taken in says something of rows in the log.
bool pgi_is_truncated(const pga_record &record);

// Logs the piece in hand, or reads one, when it is time for that.  To be called between two
// transactions of the stream, all those before position having come.
outcome pgi_pass(pgi_intake &intake, const pgi_place &on, uint64_t position);

// Milliseconds until pgi_pass has something to do by the clock; -1: nothing.
int pgi_due_in(pgi_intake &intake, const pga_registry &registry);

// The steps of these:

// Logs the piece in hand as one transaction.
outcome pgi_log_piece(pgi_intake &intake, const pgi_place &on);

// Forgets the piece in hand; it will be read again.
void pgi_drop_piece(pgi_intake &intake);

// Holds the table of a direct piece that was read just now; what else the piece has stays.
void pgi_hold(pgi_intake &intake);

// Whether a table is held, and this one.
bool pgi_holds(const pgi_intake &intake);
bool pgi_holds(const pgi_intake &intake, const std::string &schema, const std::string &table);

// Reads rows of the held table and logs them, when it is time for that.
outcome pgi_pass_held(pgi_intake &intake, const pgi_place &on, uint64_t position);

// Logs the rows of the held table that are at hand, behind position; waits: all that it has, which
// the stream waits for.  False goes to whole when what was read of it does not count, and why to
// later.
outcome pgi_log_held(bool &whole, std::string &later, pgi_intake &intake, const pgi_place &on,
                     uint64_t position, bool waits);

// Forgets the held table; it begins anew.
void pgi_drop_held(pgi_intake &intake);

// What cannot be read now is tried again soon; that is told when it takes long.
void pgi_wait_for(pgi_intake &intake, const pgi_place &on, int64_t since_ms,
                  const std::string &why);

// Begins a table from its first row on.
void pgi_begin_anew(pgi_intake &intake, const feed_transaction &tx, pga_registry &registry,
                    const std::string &name);

// Looks whether the last snapshot has the transaction in hand, and that of the held table.
void pgi_judge(pgi_intake &intake, const feed_transaction &tx);

// The part in hand, or held, that has a table's range; null: none.
const pgp_part *pgi_find_part(const pgi_intake &intake, uint32_t id);

// Whether its snapshot has the transaction that was looked for; where there is none, the last one.
bool pgi_has(const pgi_intake &intake, uint32_t id);

// Takes values that an update did not send again from its old row, as far as that has them.
void pgi_complete(pgo_message &message);

#endif
