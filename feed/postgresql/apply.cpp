// Messages of the stream to transactions of the log.
#include "feed/postgresql/apply.h"

#include "feed/lsn.h"

#include <cinttypes>
#include <cstdio>

constexpr size_t SESSION_LENGTH_MAX = 64 * 1024;

static pgs_outcome take_result(const pgb_bridge &bridge, const outcome &done)
{
    if (done.kind() == OUTCOME_BAD)
        return pgb_bad(bridge, done.text());
    return done ? PGS_OK : PGS_REFUSED;
}

pgs_outcome pgb_diverged(const pgb_bridge &bridge)
{
    const fwu_commit &last = fwu_writer_last_commit(bridge.tx.writer);
    fprintf(stderr,
            "fwlog: the server does not have transaction %" PRIu64
            " of %s, the last one in the log: it was set back to an older state, or the "
            "publication has lost a table; begin a new log directory with --create --snapshot, or "
            "go on as it is with --accept-gap\n",
            last.xid, feed_lsn_text(last.lsn).c_str());
    return PGS_REFUSED;
}

static pgs_outcome take_begin(pgb_bridge &bridge, pgb_apply &apply)
{
    fwu_commit commit;
    commit.lsn = apply.message.lsn;
    commit.time_us = apply.message.time_us;
    commit.xid = apply.message.xid;
    if (bridge.expects_last) {
        const fwu_commit &last = fwu_writer_last_commit(bridge.tx.writer);
        if (commit.lsn != last.lsn || commit.xid != last.xid || commit.time_us != last.time_us)
            return pgb_diverged(bridge);
        bridge.expects_last = false;
    }
    feed_begin(bridge.tx, commit);
    return PGS_OK;
}

static pgs_outcome take_commit(pgb_bridge &bridge, pgb_apply &apply)
{
    feed_transaction &tx = bridge.tx;
    if (!tx.open)
        return pgb_bad(bridge, "a commit came outside a transaction");
    const bool logs = tx.begun;
    const pgs_outcome outcome = take_result(bridge, feed_commit(tx));
    if (outcome != PGS_OK)
        return outcome;
    if (logs)
        bridge.state.commit_us = tx.commit.time_us;
    apply.end = apply.message.end_lsn;
    return PGS_OK;
}

void pgb_tell_notes(pgb_bridge &bridge)
{
    std::vector<std::string> &notes = bridge.tx.work.notes;
    for (const std::string &note : notes)
        fprintf(stderr, "fwlog: warning: %s\n", note.c_str());
    notes.clear();
}

// What is too long for the log is not worth a stop.
static void refuse_session(pgb_bridge &bridge)
{
    if (!bridge.session_told)
        bridge.tx.work.notes.push_back("transaction " + std::to_string(bridge.tx.commit.xid) +
                                       ": a session message is longer than " +
                                       std::to_string(SESSION_LENGTH_MAX) +
                                       " bytes and is not taken (this is told once)");
    bridge.session_told = true;
}

static pgs_outcome take_session(pgb_bridge &bridge, pgb_apply &apply)
{
    const pgo_message &message = apply.message;
    if (!message.transactional || message.prefix != "session" || !bridge.tx.open)
        return PGS_OK;
    if (message.content.size() > SESSION_LENGTH_MAX)
        refuse_session(bridge);
    else
        feed_set_session(bridge.tx, message.content.substr(0, message.content.find('\0')));
    pgb_tell_notes(bridge);
    return PGS_OK;
}

static pgs_outcome take_change(pgb_bridge &bridge, pgb_apply &apply)
{
    const pgo_message &message = apply.message;
    if (!bridge.tx.open)
        return pgb_bad(bridge, "a change came outside a transaction");
    if (bridge.tx.skipping)
        return PGS_OK;
    pgb_relation *relation = nullptr;
    if (const outcome found = pgb_find(relation, bridge.relations, message.relation_id); !found)
        return take_result(bridge, found);
    feed_table &table = *relation->table;
    if (table.dataset == nullptr)
        return PGS_OK;
    if (message.kind != 'I' && message.old_row.kind != 'O')
        return pgb_bad(bridge, feed_no_old_row_text(table) +
                                   "; what was changed before that cannot be followed: leave the "
                                   "table out with the line skip-table " +
                                   table.name + ", or begin a new log");
    const feed_row *fresh = nullptr;
    const feed_row *old = nullptr;
    outcome done;
    if (message.kind != 'D')
        done = pgb_row(fresh, *relation, message.new_row);
    if (done && message.kind != 'I')
        done = pgb_row(old, *relation, message.old_row);
    if (done)
        done = feed_change(bridge.tx, table, fresh, old);
    pgb_tell_notes(bridge);
    return take_result(bridge, done);
}

static pgs_outcome take_truncate(pgb_bridge &bridge, pgb_apply &apply)
{
    if (bridge.tx.skipping)
        return PGS_OK;
    for (const uint32_t id : apply.message.truncated) {
        pgb_relation *relation = nullptr;
        if (const outcome found = pgb_find(relation, bridge.relations, id); !found)
            return take_result(bridge, found);
        if (relation->table->dataset == nullptr)
            continue;
        if (!bridge.options.ignore_truncate)
            return pgb_bad(bridge, feed_truncated_text(*relation->table) +
                                       ", or pass over truncates with --ignore-truncate");
        fprintf(stderr,
                "fwlog: warning: table %s was truncated in transaction %" PRIu64
                ", which the log does not tell\n",
                relation->table->name.c_str(), bridge.tx.commit.xid);
    }
    return PGS_OK;
}

pgs_outcome pgb_apply_message(pgb_bridge &bridge, pgb_apply &apply, std::string_view bytes)
{
    if (const outcome decoded = pgo_decode(apply.message, bytes); !decoded)
        return take_result(bridge, decoded);
    switch (apply.message.kind) {
    case 'B':
        return take_begin(bridge, apply);
    case 'C':
        return take_commit(bridge, apply);
    case 'M':
        return take_session(bridge, apply);
    case 'O':
        bridge.tx.data.push_back("origin=" + std::string(apply.message.origin));
        return PGS_OK;
    case 'R':
        pgb_describe(bridge.relations, apply.message.relation);
        return PGS_OK;
    case 'I':
    case 'U':
    case 'D':
        return take_change(bridge, apply);
    case 'T':
        return take_truncate(bridge, apply);
    default:
        return PGS_OK;
    }
}
