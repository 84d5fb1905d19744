// Types come from the source's catalogue by way of the log, and are looked at before they
// become part of a statement.
#include "changes/sql_layout.h"

#include "changes/sql_dialect.h"

#include <algorithm>

// Whether the text can be a type and nothing else: names, in quotes too, with sizes in brackets.
static bool is_type(std::string_view text)
{
    int depth = 0;
    bool quoted = false;
    for (const char c : text) {
        quoted = quoted != (c == '"');
        depth += quoted ? 0 : c == '(' ? 1 : c == ')' ? -1 : 0;
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                            (c >= '0' && c <= '9') || (c & 0x80) != 0 || c == '_' || c == ' ';
        const bool mark = c == '.' || c == '[' || c == ']' || c == '"' || c == '(' || c == ')' ||
                          ((c == ',' || c == '-') && depth > 0);
        if (depth < 0 || depth > 1 || !(quoted || letter || mark))
            return false;
    }
    return depth == 0 && !quoted;
}

static outcome declare(std::string &out, const sql_table &table, const sql_column &column)
{
    const fwu_item &item = table.dataset->layout.items[column.item];
    const std::string type = table.dialect->declared(column, item);
    if (!is_type(type))
        return outcome_bad(table.origin + " column " + column.name +
                           " has a type that is none: " + type +
                           "; make the table by hand and leave --create-tables out, or go "
                           "on with --keep-tables");
    out += type.empty() ? column.quoted : column.quoted + " " + type;
    return {};
}

outcome sql_create_table(std::vector<std::string> &statements, const sql_table &table)
{
    if (!table.schema.empty())
        statements.push_back("CREATE SCHEMA IF NOT EXISTS " + table.schema);
    std::string text = "CREATE TABLE IF NOT EXISTS " + table.name + " (";
    for (const sql_column &column : table.columns) {
        if (&column != table.columns.data())
            text += ", ";
        if (outcome done = declare(text, table, column); !done)
            return done;
    }
    for (const size_t at : table.key)
        text += (at == table.key.front() ? ", PRIMARY KEY (" : ", ") + table.columns[at].quoted;
    statements.push_back(text + (table.key.empty() ? ")" : "))"));
    return {};
}

static const sql_column *find_column(const sql_table &table, const std::string &name)
{
    const auto found =
        std::find_if(table.columns.begin(), table.columns.end(),
                     [&name](const sql_column &column) { return column.name == name; });
    return found == table.columns.end() ? nullptr : &*found;
}

static std::string names_of(const std::vector<const sql_column *> &columns)
{
    std::string text;
    for (const sql_column *column : columns)
        text += (text.empty() ? "" : ", ") + column->name;
    return text;
}

namespace {

// The columns of two layouts side by side.
struct difference {
    std::vector<const sql_column *> gone;
    std::vector<const sql_column *> added;
    std::vector<std::pair<const sql_column *, const sql_column *>> kept;
};

} // namespace

static difference compare(const sql_table &from, const sql_table &to)
{
    difference found;
    for (const sql_column &column : from.columns)
        if (find_column(to, column.name) == nullptr)
            found.gone.push_back(&column);
    for (const sql_column &column : to.columns)
        if (const sql_column *before = find_column(from, column.name); before != nullptr)
            found.kept.emplace_back(before, &column);
        else
            found.added.push_back(&column);
    return found;
}

// Takes out of what is gone and added what the user says is the same column.
static void take_renames(std::vector<std::string> &statements, difference &found,
                         const std::string &alter, const sql_layout_options &options)
{
    for (const auto &[old_name, new_name] : options.renames) {
        const auto is = [](const std::string &name) {
            return [&name](const sql_column *column) { return column->name == name; };
        };
        const auto gone = std::find_if(found.gone.begin(), found.gone.end(), is(old_name));
        const auto added = std::find_if(found.added.begin(), found.added.end(), is(new_name));
        if (gone == found.gone.end() || added == found.added.end())
            continue;
        statements.push_back(alter + " RENAME COLUMN " + (*gone)->quoted + " TO " +
                             (*added)->quoted);
        found.kept.emplace_back(*gone, *added);
        found.gone.erase(gone);
        found.added.erase(added);
    }
}

// The place of a column among those of the source; CHANGE_NO_ITEM: not known.
static int source_place(const sql_table &table, const sql_column &column)
{
    return table.dataset->column[column.item];
}

// Takes for gone and added what was dropped and made again under its name: it stands behind
// columns that it stood before.  What stands further behind came later still.  Returns the names.
static std::string take_again(difference &found, const sql_table &from, const sql_table &to)
{
    std::stable_sort(found.kept.begin(), found.kept.end(),
                     [&to](const auto &one, const auto &other) {
                         return source_place(to, *one.second) < source_place(to, *other.second);
                     });
    decltype(found.kept) kept;
    std::vector<const sql_column *> again;
    int last = CHANGE_NO_ITEM;
    for (const auto &[before, now] : found.kept) {
        const int place = source_place(from, *before);
        const bool known = place != CHANGE_NO_ITEM && source_place(to, *now) != CHANGE_NO_ITEM;
        if (known && before->name == now->name && (place < last || !again.empty())) {
            again.push_back(now);
            found.gone.push_back(before);
            found.added.push_back(now);
            continue;
        }
        kept.emplace_back(before, now);
        last = known ? std::max(last, place) : last;
    }
    found.kept = std::move(kept);
    return names_of(again);
}

static outcome take_type(std::vector<std::string> &statements, const sql_table &from,
                         const sql_table &to, const sql_column &old_column,
                         const sql_column &new_column)
{
    const auto type_of = [](const sql_table &table, const sql_column &column) {
        return table.dialect->declared(column, table.dataset->layout.items[column.item]);
    };
    const std::string before = type_of(from, old_column);
    const std::string now = type_of(to, new_column);
    if (before == now)
        return {};
    if (!to.dialect->alters_types)
        return outcome_bad(to.origin + " column " + new_column.name + " was " +
                           (before.empty() ? "of no type" : before) + " and is " +
                           (now.empty() ? "of no type" : now) +
                           " from here on, which no statement can change: make the table anew by "
                           "hand, then go on behind the transaction before with --after and "
                           "--keep-tables");
    std::string ignored;
    if (outcome done = declare(ignored, to, new_column); !done)
        return done;
    statements.push_back("ALTER TABLE " + to.name + " ALTER COLUMN " + new_column.quoted +
                         " TYPE " + now + " USING CAST(" + new_column.quoted + " AS " + now + ")");
    return {};
}

outcome sql_alter_table(std::vector<std::string> &statements, const sql_table &from,
                        const sql_table &to, const sql_layout_options &options)
{
    if (from.name != to.name)
        return outcome_bad(from.origin + " is " + to.origin +
                           " from here on: rename the table by hand, then go on behind the "
                           "transaction before with --after and --keep-tables");
    const std::string alter = "ALTER TABLE " + to.name;
    difference found = compare(from, to);
    take_renames(statements, found, alter, options);
    if (!found.gone.empty() && !found.added.empty() && !options.drop_columns)
        return outcome_bad(to.origin + " has columns no more (" + names_of(found.gone) +
                           ") and new ones (" + names_of(found.added) + "): --rename " +
                           found.gone.front()->name + "=" + found.added.front()->name +
                           " says that one has become the other, --drop-columns that none has");
    if (const std::string again = take_again(found, from, to);
        !again.empty() && !options.drop_columns)
        return outcome_bad(to.origin + " has columns (" + again +
                           ") behind others that they stood before: --drop-columns says that they "
                           "were dropped and made again; where they were not, change the table by "
                           "hand and go on with --keep-tables");
    for (const sql_column *column : found.gone) {
        const bool in_key = std::any_of(from.key.begin(), from.key.end(),
                                        [&](size_t at) { return &from.columns[at] == column; });
        if (in_key && !to.dialect->alters_types)
            return outcome_bad(to.origin + " has lost column " + column->name +
                               ", a part of its key, which no statement can drop: make the table "
                               "anew by hand, then go on behind the transaction before with "
                               "--after and --keep-tables");
        statements.push_back(alter + " DROP COLUMN " + column->quoted);
    }
    for (const auto &[before, now] : found.kept)
        if (outcome done = take_type(statements, from, to, *before, *now); !done)
            return done;
    for (const sql_column *column : found.added) {
        std::string text = alter + " ADD COLUMN ";
        if (outcome done = declare(text, to, *column); !done)
            return done;
        statements.push_back(text);
    }
    return {};
}
