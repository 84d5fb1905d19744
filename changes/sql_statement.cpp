// A row is found by its key, or, where there is none, by all that it had, and then one of
// those that are equal is taken.
#include "changes/sql_statement.h"

#include <algorithm>
#include <cstring>

namespace {

struct statement {
    std::string &out;
    sql_work &work;
    const sql_table &table;
    std::string wrong; // what is wrong with an image
};

} // namespace

static bool is_known(const statement &to, const sql_column &column, const change_row &row)
{
    std::string_view ignored;
    return change_place_of(ignored, *to.table.dataset, row, column.item) != CHANGE_NOT_KNOWN;
}

static bool put_value(statement &to, const sql_column &column, const change_row &row,
                      bool trimmed = false)
{
    if (sql_put_value(to.out, to.work, to.table, column, row, trimmed))
        return true;
    to.wrong = sql_no_value(to.table, column, row);
    return false;
}

static bool put_comparison(statement &to, const sql_column &column, const change_row &row,
                           const sql_compared &compared, const sql_around &around = {})
{
    std::string_view ignored;
    if (change_place_of(ignored, *to.table.dataset, row, column.item) == CHANGE_NULL) {
        to.out += column.quoted + " IS NULL";
        return true;
    }
    to.out += compared.text + " = " + around.before;
    const bool put = put_value(to, column, row, compared.trims);
    to.out += around.behind;
    return put;
}

static bool nothing_known(statement &to)
{
    to.wrong = to.table.origin +
               " has a change of a row of which nothing is known: make it by hand "
               "and go on behind this transaction with --after, or leave the "
               "dataset out with --dset";
    return false;
}

// Terms in brackets of their own: databases bound how deep an expression may be.
static bool put_columns(statement &to, const std::vector<const sql_column *> &columns,
                        const change_row &row)
{
    constexpr size_t TERMS = 100;
    const bool grouped = columns.size() > TERMS;
    if (grouped)
        to.out.push_back('(');
    for (size_t i = 0; i < columns.size(); i++) {
        if (i > 0)
            to.out += i % TERMS == 0 ? ") AND (" : " AND ";
        if (!put_comparison(to, *columns[i], row, columns[i]->compared))
            return false;
    }
    if (grouped)
        to.out.push_back(')');
    return true;
}

// A row without key, or one of whose key not all is known.  Rows that are equal in all columns
// are one as good as the other; where not all are known there has to be a single one.
static bool put_known_row(statement &to, const change_row &row)
{
    const sql_table &table = to.table;
    std::vector<const sql_column *> &known = to.work.known;
    known.clear();
    for (const sql_column &column : table.columns)
        if (is_known(to, column, row))
            known.push_back(&column);
    if (known.empty())
        return nothing_known(to);
    if (known.size() == table.columns.size()) {
        to.out += "(" + table.row + ") = (SELECT " + table.row + " FROM " + table.name + " WHERE ";
        const bool put = put_columns(to, known, row);
        to.out += " LIMIT 1)";
        return put;
    }
    const size_t begin = to.out.size();
    if (!put_columns(to, known, row))
        return false;
    const std::string terms = to.out.substr(begin);
    to.out += " AND 1 = (SELECT count(*) FROM " + table.name + " WHERE " + terms + ")";
    return true;
}

static bool put_where(statement &to, const change_row &row, std::string_view condition)
{
    const sql_table &table = to.table;
    to.out += " WHERE ";
    const bool by_key =
        !table.key.empty() && std::all_of(table.key.begin(), table.key.end(), [&](size_t at) {
            return is_known(to, table.columns[at], row);
        });
    if (!by_key && !put_known_row(to, row))
        return false;
    for (size_t i = 0; by_key && i < table.key.size(); i++) {
        const sql_column &column = table.columns[table.key[i]];
        to.out += i > 0 ? " AND " : "";
        if (!put_comparison(to, column, row, {column.quoted}, column.around))
            return false;
    }
    if (!condition.empty())
        to.out += " AND ";
    to.out += condition;
    return true;
}

// What is not known gets what the database gives it.
static void put_insert_columns(statement &to, const change_row &row)
{
    for (const sql_column &column : to.table.columns)
        if (!is_known(to, column, row))
            to.work.left_out.push_back(column.name);
    if (to.work.left_out.empty()) {
        to.out += to.table.insert;
        return;
    }
    std::string names;
    for (const sql_column &column : to.table.columns)
        if (is_known(to, column, row))
            names += (names.empty() ? "" : ", ") + column.quoted;
    to.out += sql_insert_into(to.table, names);
}

static bool put_insert(statement &to, const change_row &row, std::string_view condition)
{
    put_insert_columns(to, row);
    if (to.work.left_out.size() == to.table.columns.size())
        return nothing_known(to);
    to.out += condition.empty() ? " VALUES (" : " SELECT ";
    const bool all = to.work.left_out.empty();
    bool first = true;
    for (const sql_column &column : to.table.columns) {
        if (!all && !is_known(to, column, row))
            continue;
        to.out += first ? "" : ", ";
        first = false;
        if (!put_value(to, column, row))
            return false;
    }
    if (condition.empty())
        to.out.push_back(')');
    else
        to.out += " WHERE ";
    to.out += condition;
    return true;
}

// Whether the new row's value of an item is known and another one than the old row's.
static bool is_changed(const change_dataset &dataset, const change &of, size_t item)
{
    std::string_view was;
    std::string_view is;
    const change_place after = change_place_of(is, dataset, of.after, item);
    if (after == CHANGE_NOT_KNOWN)
        return false;
    if (after != change_place_of(was, dataset, of.before, item))
        return true;
    if (after != CHANGE_IN_IMAGE)
        return was != is;
    const fwu_item &as = dataset.layout.items[item];
    const int64_t at = dataset.offsets[item];
    return memcmp(of.before.image + at, of.after.image + at,
                  static_cast<size_t>(as.size) * static_cast<size_t>(as.count)) != 0;
}

// Columns that stay are not set: some databases make a column's values themselves and let
// nobody set them.  What is not known stays, too.
static bool put_update(statement &to, const change &of, std::string_view condition, bool &put)
{
    const sql_table &table = to.table;
    const size_t begin = to.out.size();
    to.out += "UPDATE " + table.name + " SET ";
    const size_t bare = to.out.size();
    for (const sql_column &column : table.columns) {
        if (!is_changed(*table.dataset, of, column.item))
            continue;
        if (to.out.size() > bare)
            to.out += ", ";
        to.out += column.quoted + " = ";
        if (!put_value(to, column, of.after))
            return false;
    }
    put = to.out.size() > bare;
    if (!put)
        to.out.resize(begin);
    return !put || put_where(to, of.before, condition);
}

static bool put_change(statement &to, const change &of, std::string_view condition, bool &put)
{
    switch (of.op) {
    case CHANGE_UPDATE:
        return put_update(to, of, condition, put);
    case CHANGE_DELETE:
        to.out += "DELETE FROM " + to.table.name;
        return put_where(to, of.before, condition);
    default:
        return put_insert(to, of.after, condition);
    }
}

outcome sql_put_statement(std::string &out, bool &put, sql_work &work, const sql_table &table,
                          const change &of, std::string_view condition)
{
    statement to{out, work, table, {}};
    work.left_out.clear();
    put = true;
    if (!put_change(to, of, condition, put))
        return outcome_bad(std::move(to.wrong));
    return {};
}
