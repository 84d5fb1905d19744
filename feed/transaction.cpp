// A transaction reaches the writer with its first change, once its session is
// known; one without changes never does.
#include "feed/transaction.h"

#include "feed/text.h"
#include "fwutil/fwu_start.h"
#include "fwutil/fwu_time.h"
#include "fwutil/fwutil.h"

#include <algorithm>
#include <cinttypes>

// Bytes of a mark's reason: enough for any that is made here, whatever names stand in it.
constexpr size_t REASON_MAX = 4096;

void feed_session_from(fwu_session &session, std::string_view content)
{
    session = {};
    while (!content.empty()) {
        const size_t end = content.find(';');
        const std::string_view part = content.substr(0, end);
        content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
        if (part.empty())
            continue;
        session.data.push_back(feed_latin1(part));
        const size_t equals = part.find('=');
        if (equals == std::string_view::npos)
            continue;
        std::optional<std::string> *entry = fwu_session_entry(session, part.substr(0, equals));
        // The first one counts: what a client sets of its own stands behind the rest.
        if (entry != nullptr && !entry->has_value())
            *entry = feed_latin1(part.substr(equals + 1));
    }
}

void feed_abandon(feed_transaction &tx)
{
    if (tx.begun)
        fwu_writer_rollback(tx.writer);
    if (tx.open) {
        tx.work.truncated = tx.truncated_before;
        tx.work.marked = tx.marked_before;
    }
    tx.begun = false;
    tx.open = false;
}

void feed_begin(feed_transaction &tx, const fwu_commit &commit)
{
    tx.open = true;
    tx.begun = false;
    tx.commit = commit;
    tx.skipping = commit.lsn <= fwu_writer_last_lsn(tx.writer);
    tx.has_session = false;
    tx.session_changed = false;
    tx.data.clear();
    tx.changes = {};
    tx.truncated_before = tx.work.truncated;
    tx.marked_before = tx.work.marked;
}

void feed_set_session(feed_transaction &tx, std::string_view content)
{
    if (tx.has_session && tx.content == content)
        return;
    tx.content = content;
    tx.has_session = true;
    tx.session_changed = tx.begun;
    if (!tx.begun || tx.session_told)
        return;
    tx.session_told = true;
    tx.work.notes.push_back("transaction " + std::to_string(tx.commit.xid) +
                            ": a session message comes behind the first change and counts from "
                            "there on (this is told once)");
}

static void add_changes(feed_totals &totals, const feed_totals &changes)
{
    totals.inserts += changes.inserts;
    totals.updates += changes.updates;
    totals.deletes += changes.deletes;
}

outcome feed_commit(feed_transaction &tx)
{
    if (tx.skipping) {
        tx.totals.skipped++;
    } else if (!tx.begun) {
        tx.totals.empty++;
    } else {
        tx.begun = false; // a commit that fails has forgotten the transaction, too
        if (fwu_writer_commit(tx.writer, tx.commit) != 0 || fwu_writer_settle(tx.writer, true) != 0)
            return OUTCOME_FAILED;
        tx.totals.transactions++;
        add_changes(tx.totals, tx.changes);
        tx.totals.marked = tx.work.marked;
    }
    tx.open = false;
    return {};
}

static void make_session(feed_transaction &tx)
{
    feed_session_from(tx.session, tx.has_session ? tx.content : std::string_view());
    tx.session.data.push_back("xid=" + std::to_string(tx.commit.xid));
    tx.session.data.push_back("lsn=" + fwu_lsn_text(tx.commit.lsn));
    tx.session.data.insert(tx.session.data.end(), tx.data.begin(), tx.data.end());
}

// Has the writer ready for a change in the session in hand.
static bool begin_in_log(feed_transaction &tx)
{
    if (tx.begun && !tx.session_changed)
        return true;
    make_session(tx);
    if ((tx.begun ? fwu_writer_session(tx.writer, tx.session)
                  : fwu_writer_begin(tx.writer, &tx.session)) != 0)
        return false;
    tx.begun = true;
    tx.session_changed = false;
    return true;
}

outcome feed_change(feed_transaction &tx, feed_table &table, const feed_row *fresh,
                    const feed_row *old)
{
    outcome made;
    tx.work.values.clear();
    if (old != nullptr)
        made = feed_old_image(tx.work, tx.before, table, *old);
    if (made && fresh != nullptr)
        made = feed_new_image(tx.work, tx.after, table, *fresh, old);
    if (!made)
        return made;
    const int32_t opcode = old == nullptr     ? FWU_OP_INSERT
                           : fresh == nullptr ? FWU_OP_DELETE
                                              : FWU_OP_UPDATE;
    if (!begin_in_log(tx) ||
        fwu_writer_record(tx.writer, opcode, table.layout, fwu_second_of(tx.commit.time_us),
                          table.image_length, old == nullptr ? nullptr : tx.before.data(),
                          fresh == nullptr ? nullptr : tx.after.data(), tx.work.values) != 0)
        return OUTCOME_FAILED;
    (opcode == FWU_OP_INSERT   ? tx.changes.inserts
     : opcode == FWU_OP_UPDATE ? tx.changes.updates
                               : tx.changes.deletes)++;
    return {};
}

outcome feed_put_mark(feed_transaction &tx, const fwu_mark &mark)
{
    if (tx.skipping)
        return {};
    fwu_mark taken = mark;
    taken.reason.clear();
    (void)feed_encode(taken.reason, mark.reason, FWU_UTF8, REASON_MAX); // the rest is cut off
    std::replace(taken.reason.begin(), taken.reason.end(), '\0', ' ');
    const bool put = begin_in_log(tx) && fwu_writer_mark(tx.writer, taken) == 0;
    return put ? OUTCOME_OK : OUTCOME_FAILED;
}

outcome feed_put_truncate(feed_transaction &tx, const feed_table &table, std::string_view schema,
                          std::string_view name)
{
    return feed_put_mark(tx, {.kind = FWU_MARK_TRUNCATE,
                              .dbname = table.layout.dbname,
                              .dsetname = table.layout.dsetname,
                              .schema = std::string(schema),
                              .table = std::string(name),
                              .reason = "TRUNCATE"});
}

void feed_tell_notes(feed_transaction &tx, const std::string &place)
{
    for (const std::string &note : tx.work.notes)
        tell("%swarning: %s", place.c_str(), note.c_str());
    tx.work.notes.clear();
}

outcome feed_tell_bad(const feed_transaction &tx, outcome done)
{
    if (done.kind() != OUTCOME_BAD)
        return done;
    if (!tx.open)
        return outcome_failed("%s", done.text().c_str());
    return outcome_failed("transaction %" PRIu64 " of %s: %s", tx.commit.xid,
                          fwu_lsn_text(tx.commit.lsn).c_str(), done.text().c_str());
}
