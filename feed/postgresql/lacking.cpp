// One mark stands where that was seen, however long it lasts; file "aside" knows which ones have
// it.
#include "feed/postgresql/lacking.h"

#include "feed/postgresql/query.h"
#include "feed/postgresql/standing.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

bool pgb_is_lacked(const pgb_relations &relations, uint32_t id)
{
    const pga_registry &registry = relations.aside;
    const auto known = registry.ids.find(id);
    if (known == registry.ids.end() || known->second.back().lost || registry.lacking.contains(id))
        return false;
    const std::string name =
        fwu_source_name(known->second.back().schema, known->second.back().table);
    const pga_record *const record = pga_find(registry, name);
    return (record == nullptr || record->standing == PGA_FOLLOWED) &&
           !feed_is_skipped(*relations.tables.config, name);
}

outcome pgb_take_lacked(const std::vector<pgb_lacked> &lacked, const pgs_server &server,
                        feed_transaction &tx, pgb_relations &relations)
{
    for (const pgb_lacked &table : lacked) {
        if (!pgb_is_lacked(relations, table.id)) // the stream has told something since
            continue;
        const pga_name &known = relations.aside.ids.at(table.id).back();
        const std::string name = fwu_source_name(known.schema, known.table);
        const std::string sql = pgs_name(known.schema) + "." + pgs_name(known.table);
        const std::string mends =
            table.unlogged
                ? "ALTER TABLE " + sql + " SET LOGGED"
                : "ALTER PUBLICATION " + pgs_name(server.publication) + " ADD TABLE " + sql;
        const std::string why = table.unlogged ? "it is unlogged" : "the publication lacks it";
        outcome done = feed_put_mark(tx, pgb_gap_of(relations, known.schema, known.table, why));
        if (!done)
            return done;
        relations.aside.lacking[table.id] = tx.commit.lsn;
        relations.aside.dirty = true;
        tell("warning: table %s is not followed any more: %s, and the log has a gap mark; to "
             "follow it again, %s, then %s",
             name.c_str(), why.c_str(), mends.c_str(), pga_resume_command(name).c_str());
    }
    return {};
}

void pgb_tell_returned(pgb_relations &relations, const std::function<bool(uint32_t)> &is_published)
{
    pga_registry &registry = relations.aside;
    const size_t returned = std::erase_if(registry.lacking, [&](const auto &lacked) {
        const auto known = registry.ids.find(lacked.first);
        if (known == registry.ids.end())
            return true;
        if (!is_published(lacked.first))
            return false;
        const pga_name &table = known->second.back();
        const std::string name = fwu_source_name(table.schema, table.table);
        const pga_record *const record = pga_find(registry, name);
        if (record == nullptr || record->standing == PGA_FOLLOWED)
            tell("warning: table %s is followed again: what was changed in between is missing; to "
                 "have it right, %s",
                 name.c_str(), pga_resume_command(name).c_str());
        return true;
    });
    registry.dirty = registry.dirty || returned != 0;
}
