// The server decodes record after record until one ends at or behind the position given, and sends
// a transaction when it comes to its commit.  So it fails exactly if the record in front of that
// commit ends before the position: the last position that it takes is where that one ends, and
// there, or behind the header of a block, the commit stands.
#include "feed/postgresql/unsent.h"

#include "feed/backoff.h"
#include "feed/postgresql/query.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_start.h"

constexpr uint64_t STEP = 8;            // positions of records are multiples of it
constexpr uint64_t BLOCK_HEADER = 24;   // of the server's log
constexpr uint64_t SEGMENT_HEADER = 40; // of the first block of a file
constexpr uint64_t FIRST_REACH = 1024;  // how far behind the change the commit is looked for first
constexpr char SLOT_IN_USE[] = "55006";

// Asks; the stream's process may still be about to leave the slot.
static outcome ask(pgs_refusal &refused, pgs_server &server, const pgb_failure &failure,
                   const std::string &query)
{
    feed_backoff pauses;
    for (;;) {
        if (fwu_monotonic_ms() >= failure.deadline_ms)
            return outcome_bad("it takes too long; give it more time with --timeout");
        pgs_result rows;
        outcome done = pgs_try(server, server.sql.get(), rows, query, refused);
        if (!done || refused.state != SLOT_IN_USE)
            return done;
        if (!feed_backoff_wait(pauses))
            return OUTCOME_STOPPED;
    }
}

static outcome refuse(const pgs_refusal &refused)
{
    return outcome_bad("the server says " + refused.message);
}

outcome pgb_peek_begin(pgs_server &server, pgb_failure &failure, uint64_t told_lsn)
{
    pgs_result sizes;
    outcome done = pgs_query(server, server.sql.get(), sizes,
                             "SELECT current_setting('wal_block_size'),"
                             " pg_size_bytes(current_setting('wal_segment_size'))");
    if (!done)
        return done;
    if (!pgs_number(failure.block, pgs_value(sizes, 0, 0)) || failure.block == 0 ||
        !pgs_number(failure.segment, pgs_value(sizes, 0, 1)) || failure.segment == 0)
        return outcome_bad("the server does not tell the sizes of its log");
    pgs_refusal refused;
    const std::string told = "'" + fwu_lsn_text(told_lsn) + "'";
    done = ask(refused, server, failure,
               "SELECT pg_replication_slot_advance(slot_name, " + told +
                   ") FROM pg_replication_slots WHERE slot_name = " + pgs_literal(server.slot) +
                   " AND confirmed_flush_lsn < " + told);
    return done && !refused.state.empty() ? refuse(refused) : std::move(done);
}

// Whether it fails again up to a position, and in the same way.
static outcome peek(bool &fails, pgs_server &server, const pgb_failure &failure, uint64_t upto)
{
    pgs_refusal refused;
    outcome done = ask(refused, server, failure,
                       "SELECT count(*) FROM pg_logical_slot_peek_binary_changes(" +
                           pgs_literal(server.slot) + ", '" + fwu_lsn_text(upto) +
                           "', NULL, 'proto_version', '1', 'publication_names', " +
                           pgs_literal(pgs_name(server.publication)) + ")");
    fails = !refused.state.empty();
    if (done && fails && (refused.state != failure.state || refused.message != failure.message))
        return refuse(refused);
    return done;
}

// Where the record in front of the one at a position ends, and the other way round.
static uint64_t end_before(const pgb_failure &failure, uint64_t lsn)
{
    const uint64_t in_block = lsn % failure.block;
    return in_block == BLOCK_HEADER || in_block == SEGMENT_HEADER ? lsn - in_block : lsn;
}

static uint64_t record_behind(const pgb_failure &failure, uint64_t end)
{
    if (end % failure.block != 0)
        return end;
    return end + (end % failure.segment == 0 ? SEGMENT_HEADER : BLOCK_HEADER);
}

outcome pgb_peek_commit(bool &commits, pgs_server &server, const pgb_failure &failure, uint64_t lsn)
{
    commits = false;
    if (lsn % STEP != 0)
        return {};
    const uint64_t end = end_before(failure, lsn);
    bool before = true;
    outcome done = peek(before, server, failure, end);
    if (done && !before)
        done = peek(commits, server, failure, end + STEP);
    return done;
}

outcome pgb_peek_find(uint64_t &lsn, pgs_server &server, const pgb_failure &failure)
{
    pgs_result result;
    uint64_t last = 0;
    outcome done = pgs_query(server, server.sql.get(), result, "SELECT pg_current_wal_flush_lsn()");
    if (!done)
        return done;
    if (!fwu_lsn_parse(last, pgs_value(result, 0, 0)))
        return outcome_bad("the server does not tell where its log ends");
    uint64_t low = end_before(failure, failure.at - failure.at % STEP); // it takes that
    uint64_t high = low;
    bool fails = false;
    done = peek(fails, server, failure, low);
    if (done && fails)
        return outcome_bad("the server fails in front of that change, too");
    for (uint64_t reach = FIRST_REACH; done && !fails; reach *= 2) {
        if (high > last)
            return outcome_bad("the server does not fail again");
        low = high;
        high = low + reach;
        done = peek(fails, server, failure, high);
    }
    while (done && high - low > STEP) {
        const uint64_t middle = low + (high - low) / (2 * STEP) * STEP;
        done = peek(fails, server, failure, middle);
        (fails ? high : low) = middle;
    }
    lsn = record_behind(failure, low);
    return done;
}
