// A dataset's table is made once for each of its layouts; a new one changes the table in the
// database right in front of its first change.
#include "changes/sql.h"

#include "changes/sql_dialect.h"
#include "changes/sql_position.h"
#include "changes/sql_quote.h"
#include "changes/sql_statement.h"

#include <set>
#include <unordered_map>

struct sql_writer::parts {
    std::unordered_map<std::string, sql_table> tables;    // by dataset
    std::unordered_map<std::string, std::string> origins; // by name in the database
    const sql_table *last = nullptr;
    sql_position position;
    sql_work work;
    std::set<std::string> left_out; // columns of which it was told
    bool headed = false;            // what stands in front of everything has been put
    bool begun = false;             // a transaction
};

sql_writer::sql_writer(sql_options given)
    : options(std::move(given)), own(std::make_unique<parts>())
{
    own->position.dialect = options.dialect;
    if (!options.position_table.empty())
        sql_position_name(own->position, options.position_table);
    sql_put_quoted(own->position.selection, options.selection);
}

sql_writer::~sql_writer() = default;

void sql_begin_behind(sql_writer &writer, const fwu_position &position)
{
    writer.own->position.before = {SQL_BY_POSITION, 0, position};
}

void sql_pass(sql_writer &writer, const change_transaction &transaction)
{
    sql_place &before = writer.own->position.before;
    before = sql_place_behind(before, transaction);
}

// Makes the table of a dataset; another one's table must not have its name.
static outcome make_table(sql_writer &writer, sql_table &table, const change_dataset &dataset)
{
    if (outcome done = sql_table_make(table, *writer.options.dialect, writer.options.keys, dataset);
        !done)
        return done;
    const auto [taken, fresh] = writer.own->origins.try_emplace(
        sql_same_name(*writer.options.dialect, table.name), table.origin);
    if (fresh || taken->second == table.origin)
        return {};
    return outcome_bad(table.origin + " and " + taken->second + " would both become table " +
                       table.name + ": take one of them with --dset");
}

static std::string key_of(const change_dataset &dataset)
{
    return dataset.layout.dbname + '\0' + dataset.layout.dsetname;
}

outcome sql_learn(sql_writer &writer, const change_dataset &dataset)
{
    if (writer.own->last != nullptr && writer.own->last->dataset == &dataset)
        return {};
    sql_table &table = writer.own->tables[key_of(dataset)];
    writer.own->last = &table;
    return make_table(writer, table, dataset);
}

// Puts the statements that make the table, or make it what its dataset's new layout says.
static outcome change_layout(sql_writer &writer, std::string &out, const sql_table *from,
                             const sql_table &to)
{
    sql_position &position = writer.own->position;
    std::vector<std::string> statements;
    outcome done;
    if (from != nullptr && !writer.options.keep_tables)
        done = sql_alter_table(statements, *from, to, writer.options.layouts);
    else if (from == nullptr && writer.options.create_tables)
        done = sql_create_table(statements, to);
    // What makes a table does nothing where it is.
    for (const std::string &statement : statements)
        writer.options.dialect->put_layout_change(out, statement,
                                                  from == nullptr ? "" : position.condition);
    position.altered = position.altered || (from != nullptr && !statements.empty());
    return done;
}

// The table of a dataset as its layout is now.
static outcome find_table(sql_writer &writer, std::string &out, const change_dataset &dataset,
                          const sql_table *&table)
{
    sql_writer::parts &own = *writer.own;
    table = own.last;
    if (table != nullptr && table->dataset == &dataset)
        return {};
    const std::string key = key_of(dataset);
    const auto known = own.tables.find(key);
    if (known == own.tables.end() || known->second.dataset != &dataset) {
        sql_table fresh;
        outcome done = make_table(writer, fresh, dataset);
        if (done)
            done = change_layout(writer, out, known == own.tables.end() ? nullptr : &known->second,
                                 fresh);
        if (!done)
            return done;
        own.tables[key] = std::move(fresh);
    }
    table = own.last = &own.tables[key];
    return {};
}

static std::string mark_name(const fwu_mark &mark)
{
    if (!mark.table.empty())
        return change_table_name(mark.schema, mark.table);
    return mark.dsetname.empty() ? "all tables" : mark.dbname + "." + mark.dsetname;
}

static outcome stop_or_skip(sql_writer &writer, const change &of, sql_on_mark what)
{
    const std::string reason = of.mark->reason.empty() ? "" : " (" + of.mark->reason + ")";
    const bool gap = of.op == CHANGE_GAP;
    const std::string text =
        gap ? "changes of " + mark_name(*of.mark) + " are missing from here on" + reason
            : mark_name(*of.mark) + " was truncated here" + reason;
    if (what == SQL_STOP)
        return outcome_bad(text + (gap ? ": see what is missing, then go on with --gap skip"
                                       : ": --truncate apply empties the table, --truncate skip "
                                         "leaves it as it is"));
    writer.notes.push_back("position " + fwu_position_text(of.position) + ": " + text +
                           "; passed over");
    return {};
}

// Layouts stand in the file in which they are used, so that a mark may come without the one
// that an earlier file had.  Empty: nothing is known of the table.
static std::string emptied_table(const sql_writer &writer, const fwu_mark &mark)
{
    const auto known = writer.own->tables.find(mark.dbname + '\0' + mark.dsetname);
    if (known != writer.own->tables.end())
        return known->second.name;
    if (writer.options.create_tables)
        return "";
    return mark.table.empty() ? sql_table_name(*writer.options.dialect, mark.dbname, mark.dsetname)
                              : sql_table_name(*writer.options.dialect, mark.schema, mark.table);
}

static outcome put_truncate(sql_writer &writer, std::string &out, const change &of)
{
    const fwu_mark &mark = *of.mark;
    if (writer.options.truncate != SQL_APPLY)
        return stop_or_skip(writer, of, writer.options.truncate);
    if (mark.table.empty() && mark.dsetname.empty())
        return outcome_bad("the log does not say which table was truncated here: empty it by hand, "
                           "then go on behind this transaction with --after");
    std::string name = emptied_table(writer, mark);
    if (of.dataset != nullptr) {
        const sql_table *table = nullptr;
        if (outcome done = find_table(writer, out, *of.dataset, table); !done)
            return done;
        name = table->name;
    }
    if (name.empty())
        return stop_or_skip(writer, of, SQL_SKIP);
    if (writer.own->position.table.empty())
        out += "DELETE FROM " + name + ";\n";
    else
        sql_position_put_emptying(writer.own->position, out, name);
    return {};
}

static outcome begin(sql_writer &writer, std::string &out, const change_transaction &transaction)
{
    sql_writer::parts &own = *writer.own;
    const bool positioned = !own.position.table.empty();
    if (!own.headed) {
        out += writer.options.dialect->head;
        if (positioned)
            sql_position_create(own.position, out, transaction.identity);
    }
    own.headed = true;
    own.begun = true;
    out += "BEGIN;\n";
    return positioned ? sql_position_begin(own.position, out, transaction) : outcome{};
}

// Tells once of each column.
static void tell_left_out(sql_writer &writer, const sql_table &table, const change &of)
{
    for (const std::string &column : writer.own->work.left_out)
        if (writer.own->left_out.insert(table.origin + "." + column).second)
            writer.notes.push_back("position " + fwu_position_text(of.position) + ": " +
                                   table.origin + " column " + column +
                                   " is not known of a new row, here for the first time; it gets "
                                   "what the database gives it");
}

static outcome put_row(sql_writer &writer, std::string &out, const sql_table &table,
                       const change &of)
{
    sql_position &position = writer.own->position;
    const bool there = of.op == CHANGE_UPDATE || of.op == CHANGE_DELETE;
    const size_t begin = out.size();
    bool put = false;
    if (there)
        sql_position_begin_row(position, out);
    outcome done = sql_put_statement(out, put, writer.own->work, table, of, position.condition);
    if (!put) {
        out.resize(begin);
        return done;
    }
    tell_left_out(writer, table, of);
    if (there)
        sql_position_end_row(position, out, table.name);
    out += ";\n";
    position.statements++;
    return done;
}

outcome sql_put(sql_writer &writer, std::string &out, const change &of,
                const change_transaction &transaction)
{
    sql_writer::parts &own = *writer.own;
    if (!own.begun)
        if (outcome done = begin(writer, out, transaction); !done)
            return done;
    if (of.op == CHANGE_TRUNCATE)
        return put_truncate(writer, out, of);
    if (of.op == CHANGE_GAP)
        return stop_or_skip(writer, of, writer.options.gap);
    const sql_table *table = nullptr;
    if (outcome done = find_table(writer, out, *of.dataset, table); !done)
        return done;
    return put_row(writer, out, *table, of);
}

void sql_end(sql_writer &writer, std::string &out)
{
    if (!writer.own->position.table.empty())
        sql_position_end(writer.own->position, out);
    out += "COMMIT;\n";
    writer.own->begun = false;
}

void sql_give_up(std::string &out)
{
    out += "ROLLBACK;\n";
}
