// A piece becomes one transaction of the log: the rows of its tables as inserts, and behind them
// the changes that it does not have.  A table that is held becomes several, the last one with the
// changes.
#include "feed/postgresql/intake.h"

#include "feed/postgresql/standing.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

constexpr int DIRECT_WAIT_MS = 500; // for a row, before the stream is looked after
constexpr uint64_t ROWS_A_LOOK = 256;

struct logging {
    pgi_intake &intake;
    const pgi_place &on;
    pgp_piece &piece; // that is logged
    const std::vector<pgp_want> &wants;
    const std::unordered_map<uint32_t, size_t> &part_of;
    const pgi_spool &kept;
    fwu_commit commit;
    pgi_held *held = nullptr; // the piece is its, and may not be whole yet
    bool waits = false;       // ... and is to be read to its end
    uint64_t rows = 0;
    uint64_t changes = 0;
    bool broken = false; // the held table's rows did not come to their end
    std::string later = {};
    std::vector<std::string> ended = {}; // to be told once the log has the piece
};

static const pgp_want &want_of(const logging &l, const pgp_part &part)
{
    return l.wants[part.want];
}

static std::string name_of(const logging &l, const pgp_part &part)
{
    return fwu_source_name(want_of(l, part).schema, want_of(l, part).table);
}

// The server hears of the bridge now and then, however much there is to log.
static outcome touch(logging &l)
{
    return l.changes++ % ROWS_A_LOOK == 0 && l.on.touch != nullptr ? l.on.touch() : outcome();
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

static outcome add_lines(logging &l, pgp_part &part, pgb_relation &relation)
{
    pgo_message message;
    message.kind = 'I';
    size_t at = 0;
    outcome done;
    while (done && pgp_next(message.new_row, part.lines, at)) {
        done = pgb_log_change(l.on.tx, l.on.relations, relation, message);
        feed_tell_notes(l.on.tx);
        l.rows++;
        if (done)
            done = touch(l);
    }
    return done;
}

// The rest of a held table's rows, which the stream waits for.
static outcome add_rest(logging &l, pgp_part &part, pgb_relation &relation)
{
    outcome done;
    while (done && (l.held->came == PGP_FULL || l.held->came == PGP_NOT_YET)) {
        part.lines.clear();
        done = pgp_direct_rows(l.held->came, l.piece, l.on.server, DIRECT_WAIT_MS, l.later);
        l.broken = l.held->came == PGP_BROKEN;
        if (done && l.on.touch != nullptr)
            done = l.on.touch();
        if (done && !l.broken)
            done = add_lines(l, part, relation);
    }
    return done;
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

// How far a table has come, part of which was logged.  A held table can only be begun anew.
static pga_record next_of(const logging &l, const pgp_part &part, pga_record record)
{
    record.replaces = l.held != nullptr;
    record.key = part.key;
    if (!part.to.empty()) {
        record.reached = part.to;
        record.shape = part.shape;
    }
    if (l.held != nullptr) {
        record.key.clear();
        record.reached.clear();
        record.shape = 0;
    }
    return record;
}

static outcome log_rows(logging &l, pgp_part &part)
{
    pga_record record = *pga_find(l.on.relations.aside, name_of(l, part));
    pgb_relation *relation = nullptr;
    outcome done = find_relation(relation, l, part);
    const uint64_t rows = l.rows;
    if (done && relation->table->dataset != nullptr) {
        const bool begun = l.held != nullptr && l.held->begun;
        if (record.replaces && record.reached.empty() && !begun)
            done = feed_put_truncate(l.on.tx, *relation->table, want_of(l, part).schema,
                                     want_of(l, part).table);
        if (done)
            done = add_lines(l, part, *relation);
        if (done && l.waits)
            done = add_rest(l, part, *relation);
    }
    if (done.kind() == OUTCOME_BAD)
        return set_aside(l, part, done.text());
    if (!done || l.broken)
        return done;
    record.rows += l.rows - rows;
    if (l.held == nullptr ? !part.ends : l.held->came != PGP_LAST) {
        put_standing(l, part, next_of(l, part, std::move(record)));
        return {};
    }
    l.on.relations.aside.taken[name_of(l, part)] = record.rows;
    if (l.on.verbose)
        l.ended.push_back(name_of(l, part) + " is taken in (" + record.why +
                          "): " + std::to_string(record.rows) + " rows");
    put_standing(l, part, {});
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
    if (!l.part_of.contains(part.relation.id)) // begun anew since
        return {};
    return log_rows(l, part);
}

static outcome log_kept(logging &l, std::string_view bytes, pgb_sides sides)
{
    pgo_message message;
    if (outcome decoded = pgo_decode(message, bytes); !decoded)
        return decoded;
    const auto found = l.part_of.find(message.relation_id);
    if (found == l.part_of.end())
        return {};
    const pgp_part &part = l.piece.parts[found->second];
    const pga_record *const record = pga_find(l.on.relations.aside, name_of(l, part));
    if (record != nullptr && record->standing == PGA_ASIDE)
        return {};
    pgb_relation *relation = nullptr;
    outcome done = pgb_find(relation, l.on.relations, message.relation_id, l.on.tx.work.notes);
    if (done && relation->table->dataset == nullptr)
        return {};
    pgi_complete(message);
    if (done)
        done = pgb_log_change(l.on.tx, l.on.relations, *relation, message, sides);
    feed_tell_notes(l.on.tx);
    return done.kind() == OUTCOME_BAD ? set_aside(l, part, done.text()) : std::move(done);
}

static outcome log_all_kept(logging &l)
{
    const std::string &directory = l.on.relations.tables.config->log_directory;
    pgi_spool_reader reader;
    std::string_view bytes;
    pgb_sides sides;
    bool more = true;
    for (;;) {
        outcome done = pgi_spool_next(more, bytes, sides, reader, l.kept, directory);
        if (!done || !more)
            return done;
        done = log_kept(l, bytes, sides);
        if (done)
            done = touch(l);
        if (!done)
            return done;
    }
}

// Nothing was logged, so that the log will not have a transaction of this position: what the piece
// says of its tables holds from the log's last one on.
static void stand_at_last(const logging &l)
{
    pga_registry &registry = l.on.relations.aside;
    const uint64_t last = fwu_writer_last_lsn(l.on.tx.writer);
    std::vector<std::pair<const pgp_want *, pga_record>> put;
    for (const pgp_part &part : l.piece.parts)
        if (const pga_record *const record = pga_find(registry, name_of(l, part));
            record != nullptr && record->at == l.commit.lsn)
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
    feed_begin(tx, l.commit);
    tx.data.push_back("snapshot=" + fwu_lsn_text(l.commit.lsn + PGI_BELOW_HIGH));
    outcome done;
    for (size_t i = 0; done && !l.broken && i < l.piece.parts.size(); i++)
        done = log_part(l, l.piece.parts[i]);
    if (done && !l.broken && (l.held == nullptr || l.held->came == PGP_LAST))
        done = log_all_kept(l);
    if (!done || l.broken)
        return done;
    const bool logs = tx.begun;
    if (!logs)
        stand_at_last(l);
    done = pgb_commit(tx, l.on.relations, PGB_OWN_JOINS);
    for (size_t i = 0; done && i < l.ended.size(); i++)
        tell("%s", l.ended[i].c_str());
    if (done && logs)
        l.on.state.commit_us = l.commit.time_us;
    if (done)
        l.intake.rows += l.rows;
    return done;
}

// A transaction of a piece, of which the log knows the place and the time.
static fwu_commit commit_of(uint64_t high, int64_t time_us)
{
    fwu_commit commit;
    commit.lsn = high - PGI_BELOW_HIGH;
    commit.time_us = time_us;
    return commit;
}

outcome pgi_log_piece(pgi_intake &intake, const pgi_place &on)
{
    logging l = {.intake = intake,
                 .on = on,
                 .piece = intake.piece,
                 .wants = intake.wants,
                 .part_of = intake.part_of,
                 .kept = intake.kept,
                 .commit = commit_of(intake.piece.high, intake.piece.time_us)};
    if (outcome done = feed_tell_bad(on.tx, log_all(l)); !done)
        return done;
    pgi_drop_piece(intake);
    intake.piece = {};
    return {};
}

outcome pgi_log_held(bool &whole, std::string &later, pgi_intake &intake, const pgi_place &on,
                     uint64_t position, bool waits)
{
    pgi_held &held = intake.held;
    const int64_t age_us = (fwu_monotonic_ms() - held.begun_ms) * 1000;
    logging l = {.intake = intake,
                 .on = on,
                 .piece = held.piece,
                 .wants = held.wants,
                 .part_of = held.part_of,
                 .kept = held.kept,
                 .commit = commit_of(position, held.piece.time_us + age_us),
                 .held = &held,
                 .waits = waits};
    outcome done = feed_tell_bad(on.tx, log_all(l));
    whole = done && !l.broken;
    later = std::move(l.later);
    if (!done || whole)
        return done;
    feed_abandon(on.tx);
    pga_withdraw(on.relations.aside, fwu_writer_last_lsn(on.tx.writer));
    return {};
}
