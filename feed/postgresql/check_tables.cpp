// The tables as a run finds them, all at once: it is asked for their columns like a stream that
// describes each of them, so that the datasets are the same.
#include "feed/postgresql/aside.h"
#include "feed/postgresql/catalogue.h"
#include "feed/postgresql/check_report.h"
#include "feed/postgresql/identity.h"
#include "feed/postgresql/published.h"
#include "feed/postgresql/query.h"
#include "feed/text.h"
#include "fwutil/fwu_source_name.h"

constexpr int VERSION_WITH_PARTITION_ROOT = 130000;
constexpr int VERSION_WITH_COLUMN_LISTS = 150000;
constexpr int VERSION_WITH_GENERATED_COLUMNS = 180000; // where the publication wants them

// What the publication has, or what it would have as --create makes it.
static std::string query_for(const pgk_report &report)
{
    const int version = PQserverVersion(report.server.sql.get());
    const bool lists = version >= VERSION_WITH_COLUMN_LISTS;
    const std::string published =
        std::string("SELECT p.relid, ") + (lists ? pgb_published_names : "NULL::name[]") + ", " +
        (lists ? pgb_published_filter : "NULL") + " FROM " + pgb_published + " p" +
        (lists ? pgb_published_lists : "") + " WHERE p.pubname = $1";
    // Numbers below 16384 belong to the server's own.
    const std::string all =
        std::string("SELECT c.oid, NULL::name[], NULL FROM pg_class c"
                    " WHERE c.relpersistence = 'p' AND c.oid >= 16384 AND ") +
        (version >= VERSION_WITH_PARTITION_ROOT ? "c.relkind IN ('r', 'p') AND NOT c.relispartition"
                                                : "c.relkind = 'r'") +
        " AND $1::text IS NOT NULL";
    // That of --create=minimal.
    const std::string identified = std::string("WITH ") + pgb_all_tables +
                                   " SELECT oid, NULL::name[], NULL FROM t WHERE NOT is_part AND " +
                                   pgb_identified_tables() + " AND $1::text IS NOT NULL";
    const bool minimal = report.options.create && report.options.minimal;
    return "WITH t (id, columns, filter) AS (" +
           (report.found.publication ? published
            : minimal                ? identified
                                     : all) +
           ") SELECT t.id, n.nspname, c.relname, format('%I.%I', n.nspname, c.relname),"
           " c.relkind = 'p', t.filter, c.reltuples::bigint,"
           " a.attname, a.atttypid, a.atttypmod, a.attgenerated <> ''" +
           (version >= VERSION_WITH_GENERATED_COLUMNS
                ? " AND NOT coalesce(a.attname = ANY (t.columns), a.attgenerated = 's')"
                : "") +
           " FROM t JOIN pg_class c ON c.oid = t.id JOIN pg_namespace n ON n.oid = c.relnamespace"
           " LEFT JOIN pg_attribute a ON a.attrelid = t.id AND a.attnum > 0"
           " AND NOT a.attisdropped"
           " AND (t.columns IS NULL OR a.attname = ANY (t.columns) OR a.attgenerated <> '')"
           " ORDER BY 2, 3, a.attnum";
}

static outcome bad_answer(const pgs_result &rows, int row)
{
    return outcome_failed(
        "the server's catalogue gives %s, %s and %s as the numbers of table "
        "%s.%s and its column's type",
        feed_quote(pgs_value(rows, row, 0)).c_str(), feed_quote(pgs_value(rows, row, 8)).c_str(),
        feed_quote(pgs_value(rows, row, 9)).c_str(), std::string(pgs_value(rows, row, 1)).c_str(),
        std::string(pgs_value(rows, row, 2)).c_str());
}

// A row for each column, or one for a table without.
static outcome list_tables(pgk_report &report)
{
    pgs_server &server = report.server;
    pgs_result rows;
    outcome asked =
        pgs_query(server, server.sql.get(), rows, query_for(report), {server.publication.c_str()});
    for (int i = 0; asked && i < PQntuples(rows.get()); i++) {
        uint32_t id = 0;
        if (!pgs_number(id, pgs_value(rows, i, 0)))
            return bad_answer(rows, i);
        if (report.tables.empty() || report.tables.back().relation.id != id) {
            report.table_of_id[id] = report.tables.size();
            pgk_table &table = report.tables.emplace_back();
            table.relation.id = id;
            table.relation.schema = pgs_value(rows, i, 1);
            table.relation.name = pgs_value(rows, i, 2);
            table.name = fwu_source_name(table.relation.schema, table.relation.name);
            table.sql = pgs_value(rows, i, 3);
            table.partitioned = pgs_value(rows, i, 4) == "t";
            table.filter = pgs_value(rows, i, 5);
            (void)pgs_number(table.about, pgs_value(rows, i, 6)); // else not known
        }
        pgo_column column;
        column.name = pgs_value(rows, i, 7);
        if (column.name.empty())
            continue;
        if (pgs_value(rows, i, 10) == "t") {
            report.tables.back().generated.push_back(column.name);
            continue;
        }
        if (!pgs_number(column.type, pgs_value(rows, i, 8)) ||
            !pgs_number(column.modifier, pgs_value(rows, i, 9)))
            return bad_answer(rows, i);
        report.tables.back().relation.columns.push_back(std::move(column));
    }
    return asked;
}

// Asks for what is to be known of all tables and types, with one query.
static outcome get_facts(pgk_report &report)
{
    std::vector<const pgo_relation *> relations;
    for (const pgk_table &table : report.tables)
        relations.push_back(&table.relation);
    pgs_result rows;
    outcome asked = pgs_command(report.server, report.server.sql.get(), rows, pgf_query(relations));
    if (asked)
        pgf_take(report.relations.facts, rows);
    return asked;
}

// The item that a column feeds; -1: none.
static int item_of(const feed_table &table, const std::string &column)
{
    const std::string name = feed_name(column);
    for (size_t i = 0; i < table.layout.items.size(); i++)
        if (feed_feeds(table, column, name, i))
            return static_cast<int>(i);
    return -1;
}

static void describe_column(const pgk_report &report, pgk_table &table,
                            const pgb_relation &relation, size_t index)
{
    const pgf_facts &facts = report.relations.facts;
    const pgo_column &told = table.relation.columns[index];
    pgk_column column;
    column.name = told.name;
    column.type = pgf_type_text(facts, told);
    column.item = item_of(*table.fed, told.name);
    column.base = pgt_resolve(told.type, told.modifier, facts.kinds).type;
    column.meaning = relation.fresh.columns[index].type.whole;
    if (column.item >= 0)
        column.policy = table.fed->policies[static_cast<size_t>(column.item)];
    if (table.described) {
        column.why = column.type + ": " + report.config.path;
    } else {
        const pgc_choice &choice = relation.choices[index];
        column.why = column.type + ": " + choice.why;
        if (choice.shrunk)
            column.why += ", " + std::to_string(choice.wanted) + " shrunk to fit the record";
        column.chosen = choice.shrinks;
        column.wanted = choice.wanted;
        column.counted =
            pgt_item_of(told.type, told.modifier, report.encoding, facts.kinds).length ==
            PGT_COUNTED;
    }
    table.columns.push_back(std::move(column));
}

// Whether the record would fit with texts of another width.
static bool can_shrink(const pgk_table &table)
{
    int64_t length = table.fed->image_length;
    for (const pgk_column &column : table.columns)
        if (column.item >= 0 &&
            (column.meaning == FEED_WORDS || column.meaning == FEED_FILLED_WORDS)) {
            const fwu_item &item = table.fed->layout.items[static_cast<size_t>(column.item)];
            if (item.type == 'X' && item.count == 1 && item.size > 1)
                length -= item.size - 1;
        }
    return PGK_HEADER_MAX + 2 * length <= PGK_RECORD_MAX;
}

static void find_record(pgk_report &report, const pgk_table &table)
{
    const int64_t length = pgk_record_length(table);
    if (length <= PGK_RECORD_MAX)
        return;
    const fwu_layout &layout = table.fed->layout;
    pgk_note(report, "record",
             table.name + ": the record of an update of " + layout.dbname + "." + layout.dsetname +
                 " takes up to " + std::to_string(length) + " bytes, twice " +
                 std::to_string(table.fed->image_length) +
                 " and a header; a message file refuses more than " +
                 std::to_string(PGK_RECORD_MAX) +
                 (!can_shrink(table) ? ": no width of its texts makes it fit, capture it as text"
                  : table.described  ? ": make its widest items smaller, or capture it as text"
                                     : ": give its widest columns less with width=, or capture it "
                                       "as text"));
}

// What the server keeps out of its log, or of the changes that it sends.
static outcome look_at_what_is_not_sent(pgk_report &report)
{
    pgs_server &server = report.server;
    pgs_result rows;
    outcome asked = pgs_query(server, server.sql.get(), rows,
                              "SELECT n.nspname, c.relname, CASE c.relkind WHEN 'f' THEN 'foreign'"
                              " ELSE 'unlogged' END FROM pg_class c"
                              " JOIN pg_namespace n ON n.oid = c.relnamespace WHERE c.oid >= 16384"
                              " AND (c.relkind = 'f' OR c.relkind IN ('r', 'p')"
                              " AND c.relpersistence = 'u') ORDER BY 1, 2");
    pgk_finding tables = {.kind = "table",
                          .text = "the server does not log the changes of these tables, they "
                                  "cannot be followed"};
    for (int i = 0; asked && i < PQntuples(rows.get()); i++) {
        const std::string name = fwu_source_name(pgs_value(rows, i, 0), pgs_value(rows, i, 1));
        if (!feed_is_skipped(report.config, name))
            tables.notes.push_back(name + ": " + std::string(pgs_value(rows, i, 2)));
    }
    pgk_finding columns = {.kind = "table",
                           .text = "the server does not send these columns, which it computes from "
                                   "others; they are left out of the log"};
    for (const pgk_table &table : report.tables)
        if (!table.skipped)
            for (const std::string &column : table.generated)
                columns.notes.push_back(
                    fwu_source_name(table.relation.schema, table.relation.name, column));
    for (pgk_finding *const finding : {&tables, &columns})
        if (!finding->notes.empty())
            report.findings.push_back(std::move(*finding));
    return asked;
}

static void note_aside(pgk_report &report, const std::string &text)
{
    pgk_note(report, "table", text);
    report.findings.back().aside = true;
}

static outcome look_at(pgk_report &report, pgk_table &table, std::vector<std::string> &notes)
{
    pgb_relation *relation = nullptr;
    const std::string resume = pga_resume_command(table.name);
    outcome found = pgb_find(relation, report.relations, table.relation.id, notes);
    if (found.kind() == OUTCOME_BAD) {
        table.refused = found.text();
        note_aside(report, "table " + table.name + " will be set aside: " + table.refused +
                               "; mend that before a start, else later, and then " + resume);
        return {};
    }
    if (!found)
        return found;
    table.skipped = relation->table->dataset == nullptr;
    if (table.skipped)
        return {};
    const pga_record *const record = pga_find(report.relations.aside, table.name);
    if (record != nullptr && record->standing == PGA_ASIDE)
        note_aside(report, "table " + table.name + " is set aside: " + record->reason +
                               "; mend that, then " + resume);
    table.fed = relation->table;
    table.described = table.fed->own == nullptr;
    for (size_t i = 0; i < table.relation.columns.size(); i++)
        describe_column(report, table, *relation, i);
    find_record(report, table);
    return {};
}

// All at once and in the order of a run, so that they are the same; nothing is kept.
static void name_tables(pgk_report &report, std::vector<std::string> &notes)
{
    std::vector<feed_table_name> tables;
    for (const pgk_table &table : report.tables)
        if (!feed_is_skipped(report.config, table.name))
            tables.push_back({.schema = table.relation.schema, .table = table.relation.name});
    feed_names_tables(report.relations.names, report.config, std::move(tables), notes);
}

outcome pgk_look_at_tables(pgk_report &report)
{
    std::vector<std::string> notes;
    outcome done = list_tables(report);
    if (done)
        done = get_facts(report);
    if (!done)
        return done;
    name_tables(report, notes);
    for (pgk_table &table : report.tables)
        pgb_describe(report.relations, table.relation);
    for (pgk_table &table : report.tables)
        if (done)
            done = look_at(report, table, notes);
    if (done)
        done = look_at_what_is_not_sent(report);
    if (!notes.empty())
        report.findings.push_back({.kind = "table",
                                   .text = "a run tells of names and columns:",
                                   .notes = std::move(notes)});
    return done;
}
