// Where rows stand whose order is the server's own: it is asked for many changes at once, of each
// table in one query.  What it can tell no more (a label of an enumeration was renamed, a type is
// gone) begins the table anew, and is not asked for again and again.
#include "feed/postgresql/intake.h"

#include "feed/postgresql/standing.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

// What a table is asked for.
struct question {
    pgp_range range = {};
    std::vector<std::vector<std::string_view>> keys = {};
    std::vector<pgp_side *> answers = {}; // where that goes which is told of a key
};

using questions = std::map<uint32_t, question>; // by OID

bool pgi_has_to_ask(pgi_intake &intake, const feed_transaction &tx, pgb_relations &relations,
                    pgb_relation &relation)
{
    if (pgb_standing(relation, relations) != PGA_TAKING)
        return false;
    pgi_judge(intake, tx);
    const pga_record &record = relation.aside->records.back();
    const pgp_part *const part = pgi_find_part(intake, relation.told.id);
    if (!pgp_is_ordered_there(part != nullptr ? part->key : record.key))
        return false;
    // All that the snapshot has stands in the rows of the piece, or comes later.
    if (part == nullptr || !part->from.empty())
        return !(part != nullptr ? part->from : record.reached).empty();
    return !part->ends && !pgi_has(intake, relation.told.id);
}

// False: its key has changed.
static bool begin_question(question &asked, const pgi_intake &intake, const pgb_relation &relation)
{
    const pga_record &record = relation.aside->records.back();
    const pgp_part *const part = pgi_find_part(intake, relation.told.id);
    pgp_order order;
    if (!pgp_find_order(order, relation.told, part != nullptr ? part->key : record.key))
        return false;
    asked.range = pgp_range_behind(order, part != nullptr ? part->from : record.reached);
    if (part != nullptr && !pgi_has(intake, relation.told.id))
        asked.range = pgp_range_of(*part);
    return true;
}

static void add_key(question &asked, const pgp_order &order, const pgo_tuple &row, pgp_side &answer)
{
    std::vector<std::string_view> key;
    if (!pgp_key_of(key, order, row)) // which is found out later
        return;
    asked.keys.push_back(std::move(key));
    asked.answers.push_back(&answer);
}

// The texts of keys are those of the change's bytes.
static outcome add_change(questions &all, pgi_sides &sides, pgi_intake &intake,
                          const feed_transaction &tx, pgb_relations &relations,
                          std::string_view bytes)
{
    pgo_message message;
    if (outcome decoded = pgo_decode(message, bytes); !decoded)
        return decoded;
    const auto known = relations.known.find(message.relation_id);
    if (known == relations.known.end() || !pgi_has_to_ask(intake, tx, relations, known->second))
        return {};
    question &asked = all[message.relation_id];
    if (asked.range.order.columns.empty() && !begin_question(asked, intake, known->second))
        return {};
    pgi_complete(message);
    if (message.kind != 'D')
        add_key(asked, asked.range.order, message.new_row, sides.fresh);
    if (message.kind != 'I' && message.old_row.kind != 0)
        add_key(asked, asked.range.order, message.old_row, sides.old);
    sides.asked = true;
    return {};
}

static outcome ask(question &asked, pgi_intake &intake, const feed_transaction &tx,
                   pgb_relations &relations, uint32_t id)
{
    std::vector<pgp_side> told;
    pgs_refusal refusal;
    outcome done = pgp_ask_sides(told, *intake.server, asked.range, asked.keys, refusal);
    for (size_t i = 0; done && i < told.size(); i++)
        *asked.answers[i] = told[i];
    if (!done || refusal.state.empty())
        return done;
    const pgo_relation &table = relations.known.find(id)->second.told;
    const std::string name = fwu_source_name(table.schema, table.name);
    tell("table %s is read anew from its first row on, since the server does not compare keys of "
         "it with those that were read: %s",
         name.c_str(), refusal.message.c_str());
    intake.anew[name]++;
    pgi_begin_anew(intake, tx, relations.aside, name);
    return {};
}

outcome pgi_ask(std::vector<pgi_sides> &sides, pgi_intake &intake, const feed_transaction &tx,
                pgb_relations &relations, const std::vector<std::string_view> &changes)
{
    questions all;
    sides.assign(changes.size(), {});
    outcome done;
    for (size_t i = 0; done && i < changes.size(); i++)
        done = add_change(all, sides[i], intake, tx, relations, changes[i]);
    for (auto &[id, asked] : all)
        if (done && !asked.keys.empty())
            done = ask(asked, intake, tx, relations, id);
    return done;
}
