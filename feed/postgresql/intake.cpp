// Changes of tables that are taken in, by the key of each side: logged, kept or passed over.
#include "feed/postgresql/intake.h"

#include "feed/postgresql/old_row.h"
#include "fwutil/fwu_start.h"

#include <algorithm>

// What becomes of a side.
enum fate {
    FATE_LOG,
    FATE_KEEP,
    FATE_PASS,
};

void pgi_drop_piece(pgi_intake &intake)
{
    intake.in_hand = false;
    intake.part_of.clear();
    pgi_spool_end(intake.kept);
}

void pgi_begin_anew(pgi_intake &intake, const feed_transaction &tx, pga_registry &registry,
                    const std::string &name)
{
    const pga_record *found = pga_find(registry, name);
    pga_table *table = pga_find_table(registry, name);
    if (found == nullptr || table == nullptr)
        return;
    pga_record record = *found;
    record.replaces = record.replaces || !record.reached.empty();
    record.key.clear();
    record.reached.clear();
    record.shape = 0;
    record.rows = 0;
    // It says less than what it replaces, so that it holds at once.
    record.at = std::max(record.at, fwu_writer_last_lsn(tx.writer));
    pga_put(registry, table->schema, table->table, std::move(record));
    std::erase_if(intake.part_of, [&](const auto &part) {
        const pgp_want &want = intake.wants[intake.piece.parts[part.second].want];
        return want.schema == table->schema && want.table == table->table;
    });
    if (pgi_holds(intake, table->schema, table->table))
        pgi_drop_held(intake);
}

void pgi_judge(pgi_intake &intake, const feed_transaction &tx)
{
    const auto xid = static_cast<uint32_t>(tx.commit.xid); // as the stream gave it
    pgi_held &held = intake.held;
    if (pgi_holds(intake) && held.judged != xid) {
        held.judged = xid;
        held.has_judged = pgf_has_transaction(held.piece.snapshot, xid);
    }
    if (intake.judged == xid)
        return;
    intake.judged = xid;
    intake.has_judged = !intake.seen.empty() && pgf_has_transaction(intake.seen, xid);
    intake.noted = false;
}

// What was passed over has to be in the piece that is read next; what was logged, too: a piece that
// begins the table anew takes it away.
static void note_passed(pgi_intake &intake)
{
    if (intake.has_judged || intake.noted)
        return;
    intake.noted = true;
    intake.passed.push_back(intake.judged);
}

// How the rows of a table are told apart.
struct yardstick {
    const pgp_part *part = nullptr; // in hand, or held; null: only what was reached counts
    const pga_record &record;
    bool has = false; // the part has the transaction in hand; null: what was seen last
    pgp_order order = {};
    pgi_sides told = {}; // by the server
};

// Not of a table whose one piece has all of it.
static bool rests_on_server(const yardstick &by)
{
    const bool has_all = by.part != nullptr && by.part->from.empty() && by.part->ends;
    return !by.order.operands.empty() && !has_all;
}

// told: where the row stands as the server says.  False: the row's key is not known.
static bool find_fate(fate &found, const yardstick &by, const pgo_tuple &row, pgp_side told)
{
    std::vector<std::string_view> key;
    if (!pgp_key_of(key, by.order, row))
        return false;
    pgp_side side = by.part != nullptr ? pgp_side_of(*by.part, key)
                                       : pgp_side_of(by.order, by.record.reached, key);
    if (side == PGP_UNKNOWN) // the piece may have been dropped since it told
        side = told == PGP_PIECE && by.part == nullptr ? PGP_LATER : told;
    switch (side) {
    case PGP_TAKEN:
        found = FATE_LOG;
        return true;
    case PGP_PIECE:
        found = by.has ? FATE_PASS : FATE_KEEP;
        return true;
    case PGP_LATER:
        found = FATE_PASS;
        return true;
    default:
        return false;
    }
}

void pgi_complete(pgo_message &message)
{
    pgo_tuple &row = message.new_row;
    const pgo_tuple &old = message.old_row;
    if (message.kind != 'U' || old.kind == 0)
        return;
    for (size_t i = 0; i < std::min(row.count, old.count); i++)
        if (row.values[i].kind == 'u' && old.values[i].kind == 't')
            row.values[i] = old.values[i];
}

static bool is_complete(const pgo_tuple &row)
{
    return std::none_of(row.values.begin(), row.values.begin() + static_cast<ptrdiff_t>(row.count),
                        [](const pgo_value &value) { return value.kind == 'u'; });
}

// Of an update that brought no old row the key is the same in it, where the key is part of what
// identifies rows; else nobody knows.
static bool find_fates(fate &old, fate &fresh, const yardstick &by, const pgb_relations &relations,
                       const pgb_relation &relation, const pgo_message &message)
{
    if (message.kind != 'D' && !find_fate(fresh, by, message.new_row, by.told.fresh))
        return false;
    if (message.kind == 'I')
        return true;
    if (message.old_row.kind != 0)
        return find_fate(old, by, message.old_row, by.told.old);
    old = fresh;
    return std::all_of(by.order.columns.begin(), by.order.columns.end(),
                       [&](size_t column) { return pgb_stays(relation, relations, column); });
}

// What is too much beside a piece makes it be read again; a held table then has the stream wait.
static outcome keep(pgi_intake &intake, const pgb_relations &relations, bool held,
                    std::string_view bytes, pgb_sides sides)
{
    pgi_spool &kept = held ? intake.held.kept : intake.kept;
    outcome done = pgi_spool_add(kept, relations.tables.config->log_directory, bytes, sides);
    if (!held && pgi_spool_size(kept) > PGI_SPOOL_MAX)
        pgi_drop_piece(intake);
    return done;
}

const pgp_part *pgi_find_part(const pgi_intake &intake, uint32_t id)
{
    if (intake.held.part_of.contains(id))
        return &intake.held.piece.parts.front();
    const auto found = intake.part_of.find(id);
    return intake.in_hand && found != intake.part_of.end() ? &intake.piece.parts[found->second]
                                                           : nullptr;
}

bool pgi_has(const pgi_intake &intake, uint32_t id)
{
    return intake.held.part_of.contains(id) ? intake.held.has_judged : intake.has_judged;
}

// Of the old rows that come now, the server sends another key than the rows are read by.
static bool has_other_identity(const pgp_order &order, const pgb_relations &relations,
                               const pgb_relation &relation)
{
    return !std::all_of(order.columns.begin(), order.columns.end(),
                        [&](size_t column) { return pgb_is_brought(relation, relations, column); });
}

// What was taken has other columns than the changes that come now: values of theirs may be missing,
// or be others.
static bool has_other_columns(const pga_record &record, const pgb_relation &relation)
{
    return record.shape != 0 && record.shape != relation.shape;
}

outcome pgi_sort(pgb_sides &now, pgi_intake &intake, const feed_transaction &tx,
                 pgb_relations &relations, const pgb_relation &relation, pgo_message &message,
                 std::string_view bytes)
{
    now = {.old = false, .fresh = false};
    pgi_judge(intake, tx);
    const std::string &name = relation.table->name;
    const pga_record *const record = pga_find(relations.aside, name);
    const bool held = intake.held.part_of.contains(relation.told.id);
    yardstick by = {.part = pgi_find_part(intake, relation.told.id),
                    .record = *record,
                    .has = pgi_has(intake, relation.told.id)};
    if (intake.sides != nullptr)
        by.told = *intake.sides;
    const bool nothing_taken = by.part != nullptr ? by.part->from.empty() : record->reached.empty();
    fate old = FATE_PASS;
    fate fresh = FATE_PASS;
    if (nothing_taken && (by.part == nullptr || by.has)) {
        // No row of it is in the log, and a piece will have it, or has it.
    } else if (by.part != nullptr && by.part->key.empty()) {
        old = fresh = FATE_KEEP;
    } else if (has_other_columns(*record, relation) ||
               !pgp_find_order(by.order, relation.told,
                               by.part != nullptr ? by.part->key : record->key) ||
               has_other_identity(by.order, relations, relation) ||
               (rests_on_server(by) && !by.told.asked)) {
        pgi_begin_anew(intake, tx, relations.aside, name);
    } else {
        pgi_complete(message);
        if (!find_fates(old, fresh, by, relations, relation, message))
            return outcome_bad(pgb_no_old_row_text(relation, relations));
    }
    if (message.kind == 'I')
        old = fresh;
    if (message.kind == 'D')
        fresh = old;
    // A row that comes to those that are logged, or kept, has to come whole.
    if (old != fresh && fresh != FATE_PASS && !is_complete(message.new_row)) {
        pgi_begin_anew(intake, tx, relations.aside, name);
        old = fresh = FATE_PASS;
    }
    note_passed(intake);
    now = {.old = old == FATE_LOG, .fresh = fresh == FATE_LOG};
    if (old != FATE_KEEP && fresh != FATE_KEEP)
        return {};
    return keep(intake, relations, held, bytes,
                {.old = old == FATE_KEEP, .fresh = fresh == FATE_KEEP});
}

bool pgi_is_truncated(const pga_record &record)
{
    return record.replaces || !record.reached.empty();
}
