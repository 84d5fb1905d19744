// A table's items come from the configuration when it has them, else from the
// columns that the server describes; then a changed table changes the dataset's
// layout with its next change.  The server describes a table again when anything has changed
// about it, its key included, which the description does not tell: it is asked for now and then.
#include "feed/postgresql/relations.h"

#include "feed/postgresql/catalogue.h"
#include "feed/postgresql/idle_lines.h"
#include "feed/postgresql/query.h"
#include "feed/source.h"
#include "feed/text.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_source_name.h"

#include <algorithm>

// All tables get their datasets' names at once, in an order of their own: which one changes first
// makes no difference to them.
static outcome name_tables(pgb_relations &relations)
{
    const fwu_config &config = *relations.tables.config;
    std::vector<feed_table_name> tables;
    for (const auto &[id, table] : relations.facts.tables)
        if (!table.name.empty() &&
            !feed_is_skipped(config, fwu_source_name(table.schema, table.name)))
            tables.push_back({.schema = table.schema, .table = table.name});
    std::vector<std::string> notes;
    feed_names_tables(relations.names, config, std::move(tables), notes);
    for (const std::string &note : notes)
        tell("%s", note.c_str());
    return feed_names_keep(relations.names, true);
}

outcome pgb_get_facts(pgs_server &server, pgb_relations &relations)
{
    pgs_result rows;
    outcome asked = pgs_query(server, server.sql.get(), rows, pgf_query_published(),
                              {server.publication.c_str()});
    if (!asked)
        return asked;
    relations.facts.snapshot.clear();
    pgf_take(relations.facts, rows);
    // Else what is left of it would say that there are no tables.
    if (!pgf_is_snapshot(relations.facts.snapshot))
        return pgs_lost(server,
                        "the server's answer about the published tables holds no snapshot: " +
                            feed_quote(relations.facts.snapshot) + "; is it a PostgreSQL server?");
    if (!relations.idle_told)
        for (const std::string &note : pgb_idle_lines(*relations.tables.config, relations.facts))
            tell("warning: %s", note.c_str());
    relations.idle_told = true;
    return name_tables(relations);
}

static void set_columns(pgb_relation &relation)
{
    for (feed_row *row : {&relation.fresh, &relation.old}) {
        row->present = true;
        row->count = relation.told.columns.size();
        row->columns.resize(row->count);
        for (size_t i = 0; i < row->count; i++)
            row->columns[i].name = relation.told.columns[i].name;
    }
}

// Columns that a table has got since it was described before.
static void note_added(pgb_relation &relation, const pgo_relation &told)
{
    if (relation.told.columns.empty() || relation.told.name != told.name)
        return;
    for (const pgo_column &column : told.columns)
        if (std::none_of(relation.told.columns.begin(), relation.told.columns.end(),
                         [&](const pgo_column &before) { return before.name == column.name; }))
            relation.added.push_back(column.name);
}

// The rows that were there have a new column's default value on the server; the log does not tell
// that of any.
static void tell_added(pgb_relation &relation, const pgb_relations &relations,
                       std::vector<std::string> &notes)
{
    const std::vector<std::string> added = std::move(relation.added);
    relation.added.clear();
    if (added.empty() || relations.facts.ask == nullptr)
        return;
    std::string list;
    for (const std::string &column : added)
        list += (list.empty() ? "" : ", ") + pgs_literal(column);
    pgs_result rows;
    if (!relations.facts.ask("SELECT a.attname FROM pg_attribute a WHERE a.attrelid = " +
                                 std::to_string(relation.told.id) +
                                 " AND (a.atthasdef OR a.atthasmissing OR a.attidentity <> '')"
                                 " AND a.attname IN (" +
                                 list + ") ORDER BY a.attnum",
                             rows) ||
        PQntuples(rows.get()) == 0)
        return;
    std::string columns;
    for (int i = 0; i < PQntuples(rows.get()); i++)
        columns += (i == 0 ? "" : ", ") + std::string(pgs_value(rows, i, 0));
    const std::string name = fwu_source_name(relation.told.schema, relation.told.name);
    notes.push_back("table " + name + " has a new column with a default (" + columns +
                    "): the rows that were there have it on the server, and the log does not tell "
                    "so; to have it there, " +
                    pga_resume_command(name));
}

// Whether the table was made of what the server says, and so can be made again.
static bool is_own(const pgb_relation &relation)
{
    return relation.table != nullptr && relation.table->own != nullptr;
}

// What a table takes besides its columns is worth three of them.
static size_t weight_of(const pgb_relation &relation)
{
    return relation.told.columns.size() + 3;
}

// The relation's table is to be looked up, or made, by the next look.
static void let_go(pgb_relations &relations, pgb_relation &relation)
{
    if (is_own(relation))
        relations.columns -= weight_of(relation);
    relation.table = nullptr;
}

// Another table has this name from here on, or none: relations may share what was known by it.
static void forget_name(pgb_relations &relations, const std::string &name)
{
    if (!relations.tables.known.contains(name))
        return;
    for (auto &[id, other] : relations.known)
        if (other.table != nullptr && other.table->name == name)
            let_go(relations, other);
}

void pgb_describe(pgb_relations &relations, const pgo_relation &told)
{
    pgb_relation &relation = relations.known[told.id];
    relation.stale = true;
    if (relation.told == told)
        return;
    if (relation.table != nullptr && relation.told.name != told.name) {
        const std::string name = relation.table->name;
        forget_name(relations, name);
        relations.tables.known.erase(name); // renamed: its dataset is free
    }
    note_added(relation, told);
    let_go(relations, relation);
    relation.told = told;
    relation.shape = pgo_shape(told);
    relation.identified = false;
    relation.aside_version = 0;
    relation.marks_told.clear();
    relation.key_told = false;
    set_columns(relation);
}

void pgb_forget_all(pgb_relations &relations)
{
    relations.known.clear();
    relations.columns = 0;
    std::erase_if(relations.tables.known,
                  [](const auto &table) { return table.second->own != nullptr; });
}

// What is told once of a table is remembered.
static void forget_table(pgb_relations &relations, pgb_relation &relation)
{
    relation.marks_told = std::move(relation.table->marks_told);
    relation.key_told = relation.table->key_told;
    const std::string name = relation.table->name;
    let_go(relations, relation);
    relations.tables.known.erase(name); // no other relation has one that is its own
    relation.choices = {};
    relation.remedy_found = false;
    for (feed_row *row : {&relation.fresh, &relation.old, &relation.partial, &relation.partial_old})
        *row = {};
}

static void remember_table(pgb_relations &relations, pgb_relation &relation)
{
    if (!is_own(relation))
        return;
    relations.columns += weight_of(relation);
    if (relation.marks_told.size() == relation.table->marks_told.size())
        relation.table->marks_told = std::move(relation.marks_told);
    relation.table->key_told = relation.key_told;
    relation.marks_told = {};
}

// Makes room for a table.  Of those that the configuration describes there are few, and those that
// are passed over take little.
static void forget_idle(pgb_relations &relations, const pgb_relation &needed)
{
    if (relations.columns + weight_of(needed) <= relations.columns_max)
        return;
    std::vector<pgb_relation *> idle;
    for (auto &[id, other] : relations.known)
        if (is_own(other))
            idle.push_back(&other);
    std::sort(idle.begin(), idle.end(),
              [](const pgb_relation *a, const pgb_relation *b) { return a->used < b->used; });
    for (pgb_relation *other : idle) {
        if (relations.columns <= relations.columns_max / 4 * 3) // not for each look again
            return;
        forget_table(relations, *other);
    }
}

static const fwu_column *find_width(const fwu_config &config, const std::string &table,
                                    const std::string &column)
{
    for (const fwu_column &said : fwu_columns_of(config, table))
        if (said.width != 0 && said.column == column)
            return &said;
    return nullptr;
}

// Asks what the types are of the columns whose items depend on it.
static outcome need_types(pgb_relations &relations, pgo_relation told, const std::string &name)
{
    std::erase_if(told.columns, [&](const pgo_column &column) {
        return find_width(*relations.tables.config, name, column.name) != nullptr;
    });
    return pgf_need_types(relations.facts, told);
}

// Looks the table up, or makes its dataset from what the server says.
static outcome find_table(pgb_relation &relation, pgb_relations &relations,
                          std::vector<std::string> &notes)
{
    feed_table *&table = relation.table;
    const pgo_relation &told = relation.told;
    const fwu_config &config = *relations.tables.config;
    const std::string name = fwu_source_name(told.schema, told.name);
    const fwu_dataset *said = feed_configured(config, told.schema, told.name);
    if (feed_is_skipped(config, name) || (said != nullptr && !said->layout.items.empty()))
        return feed_find_table(table, relations.tables, told.schema, told.name);
    if (told.columns.empty()) {
        notes.push_back("table " + name +
                        " has no columns that the server sends, nothing of its "
                        "rows could be logged: they are passed over");
        forget_name(relations, name);
        table = feed_pass_over(relations.tables, name);
        return {};
    }
    fwu_dataset dataset;
    feed_names_table(dataset.layout.dbname, dataset.layout.dsetname, relations.names, config,
                     told.schema, told.name, notes);
    const pgc_rules rules = {.config = config,
                             .facts = relations.facts,
                             .names = relations.names,
                             .notes = notes,
                             .encoding = relations.encoding};
    outcome made = need_types(relations, told, name);
    if (made)
        made = pgc_make_dataset(dataset, relation.choices, rules, told);
    if (made)
        made = feed_names_keep(relations.names);
    if (!made)
        return made;
    forget_name(relations, name);
    std::vector<std::string> columns;
    for (const pgo_column &column : told.columns)
        columns.push_back(column.name);
    return feed_put_table(table, relations.tables, name, std::move(dataset), std::move(columns));
}

// Where the configuration gives an item, a value is the server's text, but for what the server
// itself calls a truth value, and in a table of configured items a timestamp, too.
static feed_type type_of(const feed_table &table, const pgb_relations &relations,
                         const pgo_column &column)
{
    feed_type type = pgt_meaning(column.type, relations.facts.kinds);
    const bool configured = table.own == nullptr;
    const bool width =
        !configured && find_width(*relations.tables.config, table.name, column.name) != nullptr;
    const bool built_in = pgt_name(column.type) != nullptr;
    if ((width && type.whole == FEED_TIMESTAMP) ||
        ((width || configured) && !built_in &&
         (type.whole == FEED_TIMESTAMP || type.whole == FEED_BOOLEAN)))
        type.whole = FEED_PLAIN;
    return type;
}

static void set_types(pgb_relation &relation, const pgb_relations &relations)
{
    set_columns(relation);
    for (feed_row *row : {&relation.fresh, &relation.old})
        for (size_t i = 0; i < row->count; i++)
            row->columns[i].type = type_of(*relation.table, relations, relation.told.columns[i]);
}

// Hands what is known of a table on to it.
static void describe(pgb_relation &relation, const pgb_relations &relations,
                     std::vector<std::string> &notes)
{
    const pgo_relation &told = relation.told;
    feed_told source;
    source.schema = told.schema;
    source.table = told.name;
    for (const pgo_column &column : told.columns)
        source.columns.push_back(
            {.name = column.name, .type = pgf_type_text(relations.facts, column)});
    const auto known = relations.facts.tables.find(told.id);
    if (known != relations.facts.tables.end())
        source.key = known->second.key;
    feed_describe(*relation.table, *relations.tables.config, std::move(source), notes);
}

// Asks for all that may have changed, where it is time for that.  What an answer says that lacks
// the transaction in hand may be something else soon.
static void refresh(const pgb_relation &relation, pgb_relations &relations)
{
    pgf_facts &facts = relations.facts;
    if (fwu_monotonic_ms() < (relation.urgent ? facts.retry_ms : facts.again_ms))
        return;
    std::vector<pgb_relation *> stale;
    std::vector<const pgo_relation *> tables;
    for (auto &[id, other] : relations.known) {
        if (!other.stale || other.table == nullptr || other.table->dataset == nullptr)
            continue;
        stale.push_back(&other);
        tables.push_back(&other.told);
    }
    const pgf_answer answer = pgf_refresh(facts, tables);
    if (answer == PGF_NO_ANSWER)
        return;
    for (pgb_relation *other : stale) {
        other->stale = answer == PGF_OLDER;
        other->news = true;
        other->urgent = false;
    }
}

outcome pgb_undescribed(uint32_t id)
{
    return outcome_bad("a change came of table number " + std::to_string(id) +
                       ", which the server has not described");
}

outcome pgb_find(pgb_relation *&relation, pgb_relations &relations, uint32_t id,
                 std::vector<std::string> &notes)
{
    const auto found = relations.known.find(id);
    if (found == relations.known.end())
        return pgb_undescribed(id);
    relation = &found->second;
    relation->used = ++relations.uses;
    if (relation->table == nullptr) {
        forget_idle(relations, *relation);
        if (outcome looked = find_table(*relation, relations, notes); !looked)
            return looked;
        remember_table(relations, *relation);
        set_types(*relation, relations);
        relation->news = relation->table->dataset != nullptr;
        relation->urgent = !pgf_knows(relations.facts, relation->told);
    }
    if (relation->stale && relation->table->dataset != nullptr)
        refresh(*relation, relations);
    if (!relation->added.empty() && relation->table->dataset != nullptr)
        tell_added(*relation, relations, notes);
    if (relation->news)
        describe(*relation, relations, notes);
    relation->news = false;
    return {};
}

static void set_value(feed_column &column, const pgo_value &value)
{
    column.value = value.text;
    column.kind = value.kind == 'n' ? FEED_NULL : FEED_TEXT;
    if (column.kind == FEED_TEXT && column.type.whole == FEED_BOOLEAN)
        column.kind = value.text == "t" ? FEED_TRUE : FEED_FALSE;
}

outcome pgb_fill(feed_row &row, const pgb_relation &relation, const pgo_tuple &tuple)
{
    if (tuple.count != row.count)
        return outcome_bad(fwu_source_name(relation.told.schema, relation.told.name) +
                           ": a row of " + std::to_string(tuple.count) +
                           " columns came, the table has " + std::to_string(row.count));
    for (size_t i = 0; i < tuple.count; i++)
        set_value(row.columns[i], tuple.values[i]);
    return {};
}

outcome pgb_row(const feed_row *&taken, pgb_relation &relation, const pgo_tuple &tuple)
{
    if (outcome filled = pgb_fill(relation.fresh, relation, tuple); !filled)
        return filled;
    const auto was_sent = [&](size_t i) { return tuple.values[i].kind != 'u'; };
    taken = &feed_take_columns(relation.partial, relation.fresh, was_sent);
    return {};
}
