// Whatever changes a table's standing puts a mark into the same transaction, so that the log has a
// transaction of that position and the change counts.
#include "feed/postgresql/standing.h"

#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

#include <cinttypes>

pga_standing pgb_standing(pgb_relation &relation, pgb_relations &relations)
{
    pga_registry &registry = relations.aside;
    if (relation.aside_version != registry.version) {
        relation.aside = registry.tables.empty()
                             ? nullptr
                             : pga_find_table(registry, fwu_source_name(relation.told.schema,
                                                                        relation.told.name));
        relation.aside_version = registry.version;
    }
    return relation.aside == nullptr ? PGA_FOLLOWED : relation.aside->records.back().standing;
}

feed_dataset_name pgb_dataset_of(const pgb_relations &relations, const std::string &schema,
                                 const std::string &table)
{
    const fwu_dataset *said = feed_configured(*relations.tables.config, schema, table);
    const auto known = relations.names.tables.find(fwu_source_name(schema, table));
    if (said != nullptr)
        return {.dbname = said->layout.dbname, .dsetname = said->layout.dsetname};
    return known == relations.names.tables.end() ? feed_dataset_name() : known->second;
}

static fwu_mark mark_of(const pgb_relations &relations, fwu_mark_kind kind,
                        const std::string &schema, const std::string &table,
                        const std::string &reason)
{
    feed_dataset_name dataset = pgb_dataset_of(relations, schema, table);
    return {.kind = kind,
            .dbname = std::move(dataset.dbname),
            .dsetname = std::move(dataset.dsetname),
            .schema = schema,
            .table = table,
            .reason = reason};
}

fwu_mark pgb_gap_of(const pgb_relations &relations, const std::string &schema,
                    const std::string &table, const std::string &reason)
{
    return mark_of(relations, FWU_MARK_GAP, schema, table, reason);
}

fwu_commit pgb_last_sent(const feed_transaction &tx, const pgb_relations &relations)
{
    const fwu_commit &last = fwu_writer_last_commit(tx.writer);
    const fwu_commit &before = relations.aside.sent;
    return last.xid != 0 || before.lsn >= last.lsn ? last : before;
}

// A transaction of our own shows nobody what the server had in front of it.
static void note_sent(const feed_transaction &tx, pgb_relations &relations, pgb_own own)
{
    const fwu_commit sent = own == PGB_OWN_JOINS ? pgb_last_sent(tx, relations) : fwu_commit();
    fwu_commit &known = relations.aside.sent;
    if (sent.xid == 0 && known.lsn == 0)
        return;
    relations.aside.dirty = relations.aside.dirty || known.lsn != sent.lsn;
    known = sent.xid == 0 ? fwu_commit() : sent;
}

outcome pgb_commit(feed_transaction &tx, pgb_relations &relations, pgb_own own)
{
    if (!tx.skipping && tx.commit.xid == 0)
        note_sent(tx, relations, own);
    outcome kept =
        tx.skipping ? outcome() : pga_keep(relations.aside, fwu_writer_durable_lsn(tx.writer));
    return kept ? feed_commit(tx) : std::move(kept);
}

static std::string from_text(const feed_transaction &tx)
{
    const std::string lsn = fwu_lsn_text(tx.commit.lsn);
    return tx.commit.xid == 0 ? lsn : "transaction " + std::to_string(tx.commit.xid) + " of " + lsn;
}

outcome pgb_set_aside(feed_transaction &tx, pgb_relations &relations, const std::string &schema,
                      const std::string &table, const std::string &reason)
{
    const std::string name = fwu_source_name(schema, table);
    pga_record record = {.standing = PGA_ASIDE,
                         .at = tx.commit.lsn,
                         .since = tx.commit.lsn,
                         .since_us = tx.commit.time_us,
                         .reason = reason};
    if (outcome put = feed_put_mark(tx, pgb_gap_of(relations, schema, table, reason)); !put)
        return put;
    pga_put(relations.aside, schema, table, std::move(record));
    tell("warning: table %s is set aside from %s on: %s; the others go on; mend that, then %s",
         name.c_str(), from_text(tx).c_str(), reason.c_str(), pga_resume_command(name).c_str());
    return {};
}

outcome pgb_or_set_aside(outcome done, feed_transaction &tx, pgb_relations &relations,
                         const pgb_relation &relation)
{
    if (done.kind() != OUTCOME_BAD)
        return done;
    return pgb_set_aside(tx, relations, relation.told.schema, relation.told.name, done.text());
}

static bool is_followed(const pga_registry &registry, const std::string &name)
{
    const pga_record *const record = pga_find(registry, name);
    return record == nullptr || record->standing == PGA_FOLLOWED;
}

// Nobody but the table of this name held it: nothing is left of where that one stood.
static void forget_standing(pgb_relations &relations, const pga_name &name, uint64_t at)
{
    if (!is_followed(relations.aside, fwu_source_name(name.schema, name.table)))
        pga_put(relations.aside, name.schema, name.table, {.at = at});
}

static void take_in(pgb_relations &relations, const feed_transaction &tx, const pgo_relation &told,
                    const std::string &reason, const char *why, bool replaces)
{
    pga_put(relations.aside, told.schema, told.name,
            {.standing = PGA_TAKING,
             .at = tx.commit.lsn,
             .since = tx.commit.lsn,
             .since_us = tx.commit.time_us,
             .reason = reason,
             .replaces = replaces,
             .why = why});
}

static outcome take_renamed(feed_transaction &tx, pgb_relations &relations,
                            const pgo_relation &told, const pga_identity &found)
{
    const fwu_config &config = *relations.tables.config;
    const pga_name &before = found.before;
    const std::string name = fwu_source_name(told.schema, told.name);
    const std::string old_name = fwu_source_name(before.schema, before.table);
    outcome done;
    if (!before.lost && !feed_is_skipped(config, old_name)) {
        done = feed_put_mark(
            tx, pgb_gap_of(relations, before.schema, before.table, "renamed to " + name));
        forget_standing(relations, before, tx.commit.lsn);
    }
    if (!done || feed_is_skipped(config, name) || told.columns.empty())
        return done;
    const std::string reason = "renamed from " + old_name;
    done = feed_put_mark(tx, pgb_gap_of(relations, told.schema, told.name, reason));
    if (!done)
        return done;
    take_in(relations, tx, told, reason, "renamed", found.was_known);
    tell("table %s was renamed to %s by %s: what it holds is taken in under its new name, and the "
         "log has a gap mark for the old one",
         old_name.c_str(), name.c_str(), from_text(tx).c_str());
    return {};
}

static outcome take_remade(feed_transaction &tx, pgb_relations &relations, const pgo_relation &told)
{
    const std::string name = fwu_source_name(told.schema, told.name);
    const std::string reason = "dropped and made anew";
    if (feed_is_skipped(*relations.tables.config, name) || told.columns.empty())
        return {};
    outcome done =
        feed_put_mark(tx, mark_of(relations, FWU_MARK_TRUNCATE, told.schema, told.name, reason));
    if (!done)
        return done;
    // What it has had so far may have been passed over.
    if (!is_followed(relations.aside, name))
        take_in(relations, tx, told, reason, "made anew", false);
    return {};
}

outcome pgb_identify_as(feed_transaction &tx, pgb_relations &relations, const pgo_relation &told)
{
    const pga_identity found =
        pga_describe(relations.aside, told.id, told.schema, told.name, tx.commit.lsn);
    switch (found.what) {
    case PGA_RENAMED:
        return take_renamed(tx, relations, told, found);
    case PGA_REMADE:
        return take_remade(tx, relations, told);
    default:
        return {};
    }
}

outcome pgb_identify(feed_transaction &tx, pgb_relations &relations, pgb_relation &relation)
{
    if (relation.identified)
        return {};
    relation.identified = true;
    return pgb_identify_as(tx, relations, relation.told);
}
