// What the server sends first may have to be the last one of its own that the log has: no
// other proof is there that its history is the one that the log has.
#include "feed/postgresql/apply.h"

#include "feed/postgresql/change.h"
#include "feed/postgresql/gap.h"
#include "feed/postgresql/old_row.h"
#include "feed/postgresql/standing.h"
#include "fwutil/fwu_start.h"

#include <cinttypes>

constexpr size_t SESSION_LENGTH_MAX = 64 * 1024;

// Changes that are gathered until the server is asked where their rows stand; a longer one is not.
constexpr size_t GATHERED_MAX = 1000;
constexpr size_t GATHERED_BYTES_MAX = 8 * 1024 * 1024;

outcome pgb_diverged(const pgb_apply &apply, feed_transaction &tx, pgb_relations &relations)
{
    const fwu_commit &last = apply.sent;
    const std::string text = "the server does not have transaction " + std::to_string(last.xid) +
                             " of " + fwu_lsn_text(last.lsn) + ", the last one in the log";
    if (apply.accepts_gap)
        return pgb_log_gaps(tx, relations, {}, text);
    return outcome_failed(
        "%s: it was set back to an older state, or the publication has lost a table; begin a new "
        "log directory with --create --snapshot, or go on as it is with --accept-gap",
        text.c_str());
}

static outcome take_begin(pgb_apply &apply, feed_transaction &tx, pgb_relations &relations)
{
    fwu_commit commit;
    commit.lsn = apply.message.lsn;
    commit.time_us = apply.message.time_us;
    commit.xid = apply.message.xid;
    if (apply.expects_sent) {
        const fwu_commit &last = apply.sent;
        apply.expects_sent = false;
        if (commit.lsn != last.lsn || commit.xid != last.xid || commit.time_us != last.time_us)
            if (outcome done = pgb_diverged(apply, tx, relations); !done)
                return done;
    }
    outcome skipped = pgb_skip_begin(apply.skips, tx, relations, commit);
    if (skipped) {
        feed_begin(tx, commit);
        pgb_skip_take(apply.skips, tx);
    }
    return skipped;
}

static outcome take_commit(pgb_apply &apply, feed_transaction &tx, pgb_relations &relations)
{
    if (!tx.open)
        return outcome_bad("a commit came outside a transaction");
    const bool logs = tx.begun;
    outcome done = pgb_commit(tx, relations);
    if (done)
        done = pgb_skip_end(apply.skips, tx, relations);
    if (!done)
        return done;
    if (logs)
        apply.commit_us = tx.commit.time_us;
    apply.end = apply.message.end_lsn;
    return {};
}

// What is too long for the log is not worth a stop.
static void refuse_session(pgb_apply &apply, feed_transaction &tx)
{
    if (!apply.session_told)
        tx.work.notes.push_back(
            "transaction " + std::to_string(tx.commit.xid) + ": a session message is longer than " +
            std::to_string(SESSION_LENGTH_MAX) + " bytes and is not taken (this is told once)");
    apply.session_told = true;
}

static outcome take_session(pgb_apply &apply, feed_transaction &tx)
{
    const pgo_message &message = apply.message;
    if (!message.transactional || message.prefix != FEED_SESSION_PREFIX || !tx.open)
        return {};
    if (message.content.size() > SESSION_LENGTH_MAX)
        refuse_session(apply, tx);
    else
        feed_set_session(tx, message.content.substr(0, message.content.find('\0')));
    feed_tell_notes(tx);
    return {};
}

// Something came of a table; passes: it is set aside.
static outcome meet(bool &passes, feed_transaction &tx, pgb_relations &relations, uint32_t id)
{
    const auto found = relations.known.find(id);
    if (found == relations.known.end())
        return pgb_undescribed(id);
    pgb_relation &relation = found->second;
    if (outcome done = pgb_identify(tx, relations, relation); !done)
        return done;
    passes = pgb_standing(relation, relations) == PGA_ASIDE;
    if (passes)
        relation.aside->missed++;
    return {};
}

// Changes wait only for those before them.
static bool gather(pgi_intake &intake, std::string_view bytes)
{
    if (intake.gathered.size() >= GATHERED_MAX ||
        bytes.size() > GATHERED_BYTES_MAX - intake.gathered_bytes)
        return false;
    intake.gathered.emplace_back(bytes);
    intake.gathered_bytes += bytes.size();
    return true;
}

// A change that is too long to be gathered.
static outcome sort_alone(pgb_sides &now, pgb_apply &apply, feed_transaction &tx,
                          pgb_relations &relations, pgb_relation &relation, std::string_view bytes)
{
    std::vector<pgi_sides> sides;
    outcome done = pgi_ask(sides, apply.intake, tx, relations, {bytes});
    if (!done)
        return done;
    apply.intake.sides = sides.data();
    done = pgi_sort(now, apply.intake, tx, relations, relation, apply.message, bytes);
    apply.intake.sides = nullptr;
    return done;
}

static outcome log_change(pgb_apply &apply, feed_transaction &tx, pgb_relations &relations,
                          std::string_view bytes)
{
    pgo_message &message = apply.message;
    pgb_relation *relation = nullptr;
    pgb_sides sides;
    outcome done = pgb_find(relation, relations, message.relation_id, tx.work.notes);
    if (done && relation->table->dataset == nullptr) {
        sides = {.old = false, .fresh = false};
    } else if (done && apply.intake.sides == nullptr &&
               pgi_has_to_ask(apply.intake, tx, relations, *relation)) {
        if (gather(apply.intake, bytes))
            return {};
        done = sort_alone(sides, apply, tx, relations, *relation, bytes);
    } else if (done && pgb_standing(*relation, relations) == PGA_TAKING) {
        done = pgi_sort(sides, apply.intake, tx, relations, *relation, message, bytes);
    }
    if (done && (sides.old || sides.fresh))
        done = pgb_log_change(tx, relations, *relation, message, sides);
    feed_tell_notes(tx);
    return pgb_or_set_aside(std::move(done), tx, relations, *relation);
}

static outcome take_change(pgb_apply &apply, feed_transaction &tx, pgb_relations &relations,
                           std::string_view bytes)
{
    const pgo_message &message = apply.message;
    if (!tx.open)
        return outcome_bad("a change came outside a transaction");
    pgb_note_change(relations, message.relation_id);
    if (tx.skipping) {
        pgb_skip_note(apply.skips, tx, relations, message.relation_id);
        return {};
    }
    bool passes = false;
    outcome done = meet(passes, tx, relations, message.relation_id);
    return done && !passes ? log_change(apply, tx, relations, bytes) : std::move(done);
}

// The changes that were gathered, in their order.
static outcome take_gathered(pgb_apply &apply, feed_transaction &tx, pgb_relations &relations)
{
    pgi_intake &intake = apply.intake;
    const std::vector<std::string> gathered = std::move(intake.gathered);
    intake.gathered.clear();
    intake.gathered_bytes = 0;
    std::vector<pgi_sides> sides;
    outcome done = pgi_ask(sides, intake, tx, relations, {gathered.begin(), gathered.end()});
    for (size_t i = 0; done && i < gathered.size(); i++) {
        intake.sides = &sides[i];
        done = pgo_decode(apply.message, gathered[i]);
        if (done)
            done = take_change(apply, tx, relations, gathered[i]);
    }
    intake.sides = nullptr;
    return done;
}

static outcome log_truncate(feed_transaction &tx, pgb_relations &relations, uint32_t id)
{
    pgb_relation *relation = nullptr;
    if (outcome found = pgb_find(relation, relations, id, tx.work.notes); !found)
        return pgb_or_set_aside(std::move(found), tx, relations, *relation);
    if (relation->table->dataset == nullptr || (pgb_standing(*relation, relations) == PGA_TAKING &&
                                                !pgi_is_truncated(relation->aside->records.back())))
        return {};
    const pgo_relation &told = relation->told;
    return feed_put_truncate(tx, *relation->table, told.schema, told.name);
}

static outcome take_truncate(pgb_apply &apply, feed_transaction &tx, pgb_relations &relations)
{
    const pgo_message &message = apply.message;
    pgb_note_truncate(relations, message.truncated);
    outcome done;
    for (size_t i = 0; i < message.truncated.size() && done; i++) {
        const uint32_t id = message.truncated[i];
        if (tx.skipping) {
            pgb_skip_note(apply.skips, tx, relations, id);
            continue;
        }
        pga_forget_nodes(relations.aside, id, tx.commit.lsn);
        bool passes = false;
        done = meet(passes, tx, relations, id);
        if (done && !passes)
            done = log_truncate(tx, relations, id);
    }
    return done;
}

static outcome take_message(pgb_apply &apply, feed_transaction &tx, pgb_relations &relations,
                            std::string_view bytes)
{
    const bool changes =
        !bytes.empty() && std::string_view("IUD").find(bytes.front()) != std::string_view::npos;
    if (!apply.intake.gathered.empty()) {
        if (changes && gather(apply.intake, bytes))
            return {};
        if (outcome done = take_gathered(apply, tx, relations); !done)
            return done;
    }
    if (outcome decoded = pgo_decode(apply.message, bytes); !decoded)
        return decoded;
    switch (apply.message.kind) {
    case 'B':
        relations.facts.xid = apply.message.xid;
        return take_begin(apply, tx, relations);
    case 'C':
        return take_commit(apply, tx, relations);
    case 'M':
        return take_session(apply, tx);
    case 'O':
        tx.data.push_back("origin=" + std::string(apply.message.origin));
        return {};
    case 'R':
        pgb_describe(relations, apply.message.relation);
        pgb_note_described(relations, apply.message.relation.id);
        return {};
    case 'I':
    case 'U':
    case 'D':
        return take_change(apply, tx, relations, bytes);
    case 'T':
        return take_truncate(apply, tx, relations);
    default:
        return {};
    }
}

outcome pgb_apply_message(pgb_apply &apply, feed_transaction &tx, pgb_relations &relations,
                          std::string_view bytes)
{
    return feed_tell_bad(tx, take_message(apply, tx, relations, bytes));
}
