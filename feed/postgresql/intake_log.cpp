// A piece becomes one transaction of the log: the rows of its tables as inserts, and behind them
// the changes that it does not have.
#include "feed/postgresql/intake.h"

#include "feed/postgresql/standing.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

constexpr int DIRECT_WAIT_MS = 500; // for a row, before the stream is looked after

struct logging {
    pgi_intake &intake;
    const pgi_place &on;
    uint64_t rows = 0;
    bool broken = false; // the rows of a direct piece did not come to their end
    std::string later = {};
    std::vector<std::string> ended = {}; // to be told once the log has the piece
};

static const pgp_want &want_of(const logging &l, const pgp_part &part)
{
    return l.intake.wants[part.want];
}

static std::string name_of(const logging &l, const pgp_part &part)
{
    return fwu_source_name(want_of(l, part).schema, want_of(l, part).table);
}

static void put_standing(const logging &l, const pgp_part &part, pga_record record)
{
    record.at = l.on.tx.commit.lsn;
    pga_put(l.on.relations.aside, want_of(l, part).schema, want_of(l, part).table,
            std::move(record));
}

// Sets a table aside from this transaction on.
static outcome set_aside(const logging &l, const pgp_part &part, const std::string &reason)
{
    return pgb_set_aside(l.on.tx, l.on.relations, want_of(l, part).schema, want_of(l, part).table,
                         reason);
}

static outcome add_row(logging &l, pgb_relation &relation, pgo_message &message)
{
    outcome done = pgb_log_change(l.on.tx, l.on.relations, relation, message);
    feed_tell_notes(l.on.tx);
    l.rows++;
    return done;
}

static outcome add_lines(logging &l, pgp_part &part, pgb_relation &relation)
{
    pgo_message message;
    message.kind = 'I';
    size_t at = 0;
    outcome done;
    while (done && pgp_next(message.new_row, part.lines, at))
        done = add_row(l, relation, message);
    return done;
}

static outcome add_direct(logging &l, pgb_relation &relation)
{
    pgo_message message;
    message.kind = 'I';
    for (;;) {
        pgp_came came = PGP_NOT_YET;
        outcome done = pgp_direct_row(came, message.new_row, l.intake.piece, l.on.server,
                                      DIRECT_WAIT_MS, l.later);
        if (done && came == PGP_ROW)
            done = add_row(l, relation, message);
        if (done && (came == PGP_NOT_YET || l.rows % 256 == 0) && l.on.touch != nullptr)
            done = l.on.touch();
        l.broken = came == PGP_BROKEN;
        if (!done || came == PGP_BROKEN || came == PGP_LAST)
            return done;
    }
}

static bool is_as_told(const pgo_relation &told, const pgo_relation &part)
{
    return told.schema == part.schema && told.name == part.name && told.columns == part.columns;
}

// The stream may not have described the table yet, or as it was before: of other columns, or by
// another name.
static outcome find_relation(pgb_relation *&relation, const logging &l, const pgp_part &part)
{
    pgb_relations &relations = l.on.relations;
    const auto known = relations.known.find(part.relation.id);
    if (known == relations.known.end() || !is_as_told(known->second.told, part.relation))
        pgb_describe(relations, part.relation);
    return pgb_find(relation, relations, part.relation.id, l.on.tx.work.notes);
}

static outcome log_rows(logging &l, pgp_part &part)
{
    const pga_record record = *pga_find(l.on.relations.aside, name_of(l, part));
    pgb_relation *relation = nullptr;
    outcome done = find_relation(relation, l, part);
    const uint64_t rows = l.rows;
    if (done && relation->table->dataset != nullptr) {
        if (record.replaces && record.reached.empty())
            done = feed_put_truncate(l.on.tx, *relation->table, want_of(l, part).schema,
                                     want_of(l, part).table);
        if (done)
            done = l.intake.piece.direct ? add_direct(l, *relation) : add_lines(l, part, *relation);
    }
    if (done.kind() == OUTCOME_BAD)
        return set_aside(l, part, done.text());
    if (!done || l.broken)
        return done;
    if (part.ends) {
        l.on.relations.aside.taken[name_of(l, part)] = record.rows + l.rows - rows;
        if (l.on.verbose)
            l.ended.push_back(name_of(l, part) + " is taken in (" + record.why +
                              "): " + std::to_string(record.rows + l.rows - rows) + " rows");
        put_standing(l, part, {});
        return {};
    }
    pga_record next = record;
    next.replaces = false;
    next.key = part.key;
    if (!part.to.empty()) {
        next.reached = part.to;
        next.shape = part.shape;
    }
    next.rows += l.rows - rows;
    put_standing(l, part, std::move(next));
    return {};
}

// Of a table that is gone, rows may be in the log that nobody will change any more.
static outcome log_gone(const logging &l, const pgp_part &part)
{
    const pga_record &record = *pga_find(l.on.relations.aside, name_of(l, part));
    outcome done;
    if (pgi_is_truncated(record))
        done = feed_put_mark(
            l.on.tx, pgb_gap_of(l.on.relations, want_of(l, part).schema, want_of(l, part).table,
                                "the table was gone before its rows could be read"));
    if (done)
        put_standing(l, part, {});
    return done;
}

static outcome log_part(logging &l, pgp_part &part)
{
    const pga_record *const record = pga_find(l.on.relations.aside, name_of(l, part));
    if (record == nullptr || record->standing != PGA_TAKING) // set aside since
        return {};
    if (!part.refused.empty())
        return set_aside(l, part, part.refused);
    if (part.gone)
        return log_gone(l, part);
    if (!l.intake.part_of.contains(part.relation.id)) // begun anew since
        return {};
    return log_rows(l, part);
}

static outcome log_kept(logging &l, const pgi_kept &kept)
{
    pgo_message message;
    if (outcome decoded = pgo_decode(message, kept.bytes); !decoded)
        return decoded;
    const auto found = l.intake.part_of.find(message.relation_id);
    if (found == l.intake.part_of.end())
        return {};
    pgp_part &part = l.intake.piece.parts[found->second];
    const pga_record *const record = pga_find(l.on.relations.aside, name_of(l, part));
    if (record != nullptr && record->standing == PGA_ASIDE)
        return {};
    pgb_relation *relation = nullptr;
    outcome done = pgb_find(relation, l.on.relations, message.relation_id, l.on.tx.work.notes);
    if (done && relation->table->dataset == nullptr)
        return {};
    pgi_complete(message);
    if (done)
        done = pgb_log_change(l.on.tx, l.on.relations, *relation, message, kept.sides);
    feed_tell_notes(l.on.tx);
    return done.kind() == OUTCOME_BAD ? set_aside(l, part, done.text()) : std::move(done);
}

// Nothing was logged, so that the log will not have a transaction of this position: what the piece
// says of its tables holds from the log's last one on.
static void stand_at_last(const logging &l)
{
    pga_registry &registry = l.on.relations.aside;
    const uint64_t last = fwu_writer_last_lsn(l.on.tx.writer);
    std::vector<std::pair<const pgp_want *, pga_record>> put;
    for (const pgp_part &part : l.intake.piece.parts)
        if (const pga_record *const record = pga_find(registry, name_of(l, part));
            record != nullptr && record->at == l.on.tx.commit.lsn)
            put.emplace_back(&want_of(l, part), *record);
    pga_withdraw(registry, last);
    for (auto &[want, record] : put) {
        record.at = last;
        pga_put(registry, want->schema, want->table, std::move(record));
    }
}

static outcome log_all(logging &l)
{
    feed_transaction &tx = l.on.tx;
    const pgp_piece &piece = l.intake.piece;
    fwu_commit commit;
    commit.lsn = piece.high - PGI_BELOW_HIGH;
    commit.time_us = piece.time_us;
    feed_begin(tx, commit);
    tx.data.push_back("snapshot=" + fwu_lsn_text(piece.high));
    outcome done;
    for (size_t i = 0; done && !l.broken && i < l.intake.piece.parts.size(); i++)
        done = log_part(l, l.intake.piece.parts[i]);
    for (size_t i = 0; done && !l.broken && i < l.intake.kept.size(); i++)
        done = log_kept(l, l.intake.kept[i]);
    if (!done || l.broken)
        return done;
    const bool logs = tx.begun;
    if (!logs)
        stand_at_last(l);
    done = pgb_commit(tx, l.on.relations);
    for (size_t i = 0; done && i < l.ended.size(); i++)
        tell("%s", l.ended[i].c_str());
    if (done && logs)
        l.on.state.commit_us = commit.time_us;
    return done;
}

outcome pgi_log_piece(pgi_intake &intake, const pgi_place &on)
{
    for (;;) {
        logging l = {.intake = intake, .on = on};
        if (outcome done = feed_tell_bad(on.tx, log_all(l)); !done)
            return done;
        if (!l.broken) {
            intake.rows += l.rows;
            break;
        }
        feed_abandon(on.tx);
        pga_withdraw(on.relations.aside, fwu_writer_last_lsn(on.tx.writer));
        intake.piece.direct = false; // it is refused or gone now, or to be read again
        if (!l.later.empty())
            break;
    }
    pgi_drop_piece(intake);
    pgp_end(intake.piece, on.server);
    intake.piece = {};
    return {};
}
