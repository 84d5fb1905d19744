// A row is found by its key, or, where there is none, by all that it had, and then one of
// those that are equal is taken.
#include "changes/sql_statement.h"

#include <cstring>

namespace {

struct statement {
    std::string &out;
    sql_work &work;
    const sql_table &table;
    std::string wrong; // what is wrong with an image
};

} // namespace

static bool put_value(statement &to, const sql_column &column, const unsigned char *image)
{
    if (sql_put_value(to.out, to.work, to.table, column, image))
        return true;
    to.wrong = sql_no_value(to.table, column, image);
    return false;
}

static bool put_comparison(statement &to, const sql_column &column, const unsigned char *image,
                           const std::string &compared)
{
    if (change_is_null(*to.table.dataset, image, column.item)) {
        to.out += column.quoted + " IS NULL";
        return true;
    }
    to.out += compared + " = ";
    return put_value(to, column, image);
}

// Terms in brackets of their own: databases bound how deep an expression may be.
static bool put_whole_row(statement &to, const unsigned char *image)
{
    constexpr size_t TERMS = 100;
    const std::vector<sql_column> &columns = to.table.columns;
    const bool grouped = columns.size() > TERMS;
    if (grouped)
        to.out.push_back('(');
    for (size_t i = 0; i < columns.size(); i++) {
        if (i > 0)
            to.out += i % TERMS == 0 ? ") AND (" : " AND ";
        if (!put_comparison(to, columns[i], image, columns[i].compared))
            return false;
    }
    if (grouped)
        to.out.push_back(')');
    return true;
}

static bool put_where(statement &to, const unsigned char *image, std::string_view condition)
{
    const sql_table &table = to.table;
    to.out += " WHERE ";
    for (const size_t at : table.key) {
        if (at != table.key.front())
            to.out += " AND ";
        if (!put_comparison(to, table.columns[at], image, table.columns[at].quoted))
            return false;
    }
    if (table.key.empty()) {
        to.out += "(" + table.row + ") = (SELECT " + table.row + " FROM " + table.name + " WHERE ";
        if (!put_whole_row(to, image))
            return false;
        to.out += " LIMIT 1)";
    }
    if (!condition.empty())
        to.out += " AND ";
    to.out += condition;
    return true;
}

static bool put_insert(statement &to, const unsigned char *image, std::string_view condition)
{
    to.out += to.table.insert;
    to.out += condition.empty() ? " VALUES (" : " SELECT ";
    for (const sql_column &column : to.table.columns) {
        if (&column != to.table.columns.data())
            to.out += ", ";
        if (!put_value(to, column, image))
            return false;
    }
    if (condition.empty())
        to.out.push_back(')');
    else
        to.out += " WHERE ";
    to.out += condition;
    return true;
}

// Whether both images have the same value of an item.
static bool same_value(const change_dataset &dataset, const change &of, size_t item)
{
    const bool was_null = change_is_null(dataset, of.before, item);
    if (was_null || change_is_null(dataset, of.after, item))
        return was_null == change_is_null(dataset, of.after, item);
    const fwu_item &as = dataset.layout.items[item];
    const int64_t at = dataset.offsets[item];
    return memcmp(of.before + at, of.after + at,
                  static_cast<size_t>(as.size) * static_cast<size_t>(as.count)) == 0;
}

// Columns that stay are not set: some databases make a column's values themselves and let
// nobody set them.
static bool put_update(statement &to, const change &of, std::string_view condition, bool &put)
{
    const sql_table &table = to.table;
    const size_t begin = to.out.size();
    to.out += "UPDATE " + table.name + " SET ";
    const size_t bare = to.out.size();
    for (const sql_column &column : table.columns) {
        if (same_value(*table.dataset, of, column.item))
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
    put = true;
    if (!put_change(to, of, condition, put))
        return outcome_bad(std::move(to.wrong));
    return {};
}
