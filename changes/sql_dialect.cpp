// PostgreSQL takes every value as a text, which gets the type of its column.  SQLite has no
// types but those of the values: integers are integers, what a double would round is text.
#include "changes/sql_dialect.h"

#include "changes/sql_column.h"
#include "changes/sql_quote.h"

#include <charconv>
#include <cmath>
#include <cstdint>

// ---- PostgreSQL

// The form with E tells backslashes and control characters whatever the server is set to, and
// keeps a statement in one line.
static void put_text_postgresql(std::string &out, std::string_view text)
{
    static constexpr char DIGITS[] = "01234567";
    const auto is_control = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    };
    bool plain = true;
    for (const char c : text)
        plain = plain && c != '\\' && !is_control(c);
    if (plain)
        return sql_put_quoted(out, text);
    out += "E'";
    for (const char c : text) {
        if (is_control(c)) {
            const auto byte = static_cast<unsigned char>(c);
            out.push_back('\\');
            out.push_back(DIGITS[byte >> 6]);
            out.push_back(DIGITS[byte >> 3 & 7]);
            out.push_back(DIGITS[byte & 7]);
        } else {
            if (c == '\\' || c == '\'')
                out.push_back(c);
            out.push_back(c);
        }
    }
    out.push_back('\'');
}

static void put_number_postgresql(std::string &out, const fwu_item & /*item*/,
                                  change_value /*kind*/, std::string_view text)
{
    out.push_back('\'');
    out += text;
    out.push_back('\'');
}

static bool is_text(const fwu_item &item)
{
    return item.type == 'X' || item.type == 'U';
}

// Types whose "=" holds for the same value only.  The text of some of them is another one than
// the log's, which may have cut it, or may be of a server that was set to something else.
static constexpr std::string_view EXACT =
    "smallint integer bigint oid boolean real double money date time timestamp uuid bytea inet "
    "cidr macaddr macaddr8 pg_lsn int4range int8range daterange tsrange tstzrange";

// Types whose cast to text is what the server shows of them.
static constexpr std::string_view CAST =
    "text character name json jsonb xml numeric point line lseg box path polygon circle";

// Types have no "=", or one that means something else, or for which values that are written in
// different ways are equal: their texts tell them apart.  The text of a type that is not known
// is the one that format() makes: a cast may make another one.
static sql_compared compared_postgresql(const sql_column &column, const fwu_item &item)
{
    if (!is_text(item) || column.type.empty() || sql_type_is(column.type, EXACT))
        return {column.quoted};
    std::string text;
    const bool trims = item.count == 1 && !sql_type_is(column.type, CAST);
    if (item.count > 1)
        text = "CAST(" + column.quoted + " AS text[])";
    else if (!trims)
        text = "CAST(" + column.quoted + " AS text)";
    else // images do not tell of blanks at the end
        text = "rtrim(format('%s', " + column.quoted + "), ' ')";
    return {text + " COLLATE \"C\"", trims};
}

// The "=" of composite types is one of all records, which a text in quotes would become: beside
// its column it gets that one's type, whatever it is here.  Types that are not built in have a
// schema; the server plans the value as a constant.
static sql_around around_postgresql(const sql_column &column)
{
    if (column.type.find('.') == std::string::npos || column.type.starts_with("pg_catalog."))
        return {};
    return {"CASE WHEN false THEN " + column.quoted + " ELSE ", " END"};
}

static std::string number(int32_t value)
{
    return std::to_string(value);
}

static std::string declared_postgresql(const sql_column &column, const fwu_item &item)
{
    if (!column.type.empty())
        return column.type;
    std::string type;
    const std::string scale = "," + number(item.item_aux) + ")";
    switch (item.type) {
    case 'I':
    case 'J':
        type = item.size == 2 ? "smallint" : item.size == 4 ? "integer" : "bigint";
        break;
    case 'K':
        type = item.size == 2 ? "integer" : item.size == 4 ? "bigint" : "numeric(20,0)";
        break;
    case 'E':
    case 'R':
        type = item.size == 4 ? "real" : "double precision";
        break;
    case 'P':
    case 'Z':
        type = "numeric(" + number(fwu_item_digits(item.type, item.size)) + scale;
        break;
    default:
        type = "character varying(" + number(item.size) + ")";
    }
    return item.count > 1 ? type + "[]" : type;
}

static void put_layout_change_postgresql(std::string &out, std::string_view statement,
                                         std::string_view condition)
{
    if (condition.empty()) {
        out += statement;
        out += ";\n";
        return;
    }
    const std::string block =
        "BEGIN IF " + std::string(condition) + " THEN " + std::string(statement) + "; END IF; END";
    out += "DO ";
    put_text_postgresql(out, block);
    out += ";\n";
}

// ---- SQLite

// The program sqlite3 takes the end of a line for its own, CR included.
static void put_text_sqlite(std::string &out, std::string_view text)
{
    struct row {
        char character;
        const char *mark, *code;
        std::string used = {};
    };
    row rows[] = {{'\n', "\\n", "char(10)"}, {'\r', "\\r", "char(13)"}};
    std::string marked(text);
    for (row &of : rows) {
        if (text.find(of.character) == text.npos)
            continue;
        of.used = of.mark;
        for (int i = 0; marked.find(of.used) != marked.npos; i++)
            of.used = of.mark + std::to_string(i);
        std::string with;
        for (const char c : marked)
            if (c == of.character)
                with += of.used;
            else
                with.push_back(c);
        marked = with;
        out += "replace(";
    }
    sql_put_quoted(out, marked);
    for (size_t i = std::size(rows); i > 0; i--)
        if (const row &of = rows[i - 1]; !of.used.empty())
            out += ",'" + of.used + "'," + of.code + ")";
}

// Whether all values of the item are integers that SQLite has.
static bool is_integer(const fwu_item &item)
{
    constexpr int32_t digits_max = 18;
    if (item.type == 'I' || item.type == 'J' || item.type == 'K')
        return item.type != 'K' || item.size < 8;
    return (item.type == 'P' || item.type == 'Z') && item.item_aux == 0 &&
           fwu_item_digits(item.type, item.size) <= digits_max;
}

static bool is_big_unsigned(const fwu_item &item)
{
    return item.type == 'K' && item.size == 8;
}

static bool is_float(const fwu_item &item)
{
    return item.type == 'E' || item.type == 'R';
}

// SQLite reads a number with an error that its last digits can show, all the more the smaller
// it is: 17 digits lie so near to the bits that they are found all the same, and tiny numbers
// come as the product of two that are not.
static void put_double_sqlite(std::string &out, std::string_view text)
{
    constexpr double TINY = 1e-200;
    constexpr double DOWN = 0x1p-512;
    constexpr double UP = 0x1p512;
    constexpr int DIGITS = 17;
    double value = 0;
    (void)std::from_chars(text.data(), text.data() + text.size(), value); // it is one
    const auto put = [&out](double number) {
        char digits[64];
        out.append(digits, std::to_chars(digits, digits + sizeof digits, number,
                                         std::chars_format::general, DIGITS)
                               .ptr);
    };
    if (value == 0 || std::abs(value) >= TINY)
        return put(value);
    out.push_back('(');
    put(value * UP);
    out += " * ";
    put(DOWN);
    out.push_back(')');
}

static void put_number_sqlite(std::string &out, const fwu_item &item, change_value kind,
                              std::string_view text)
{
    int64_t ignored = 0;
    const char *const end = text.data() + text.size();
    const bool fits =
        is_big_unsigned(item) && std::from_chars(text.data(), end, ignored).ec == std::errc();
    if (kind == CHANGE_SPECIAL && text.ends_with("Infinity"))
        out += text.front() == '-' ? "-9e999" : "9e999";
    else if (kind == CHANGE_NUMBER && is_float(item) && item.size == 8)
        put_double_sqlite(out, text);
    else if (kind == CHANGE_NUMBER && (is_integer(item) || is_float(item) || fits))
        out += text;
    else
        put_number_postgresql(out, item, kind, text);
}

static sql_around around_sqlite(const sql_column & /*column*/)
{
    return {};
}

static sql_compared compared_sqlite(const sql_column &column, const fwu_item & /*item*/)
{
    return {column.quoted};
}

// Without a type a column keeps integers as integers and texts as texts.
static std::string declared_sqlite(const sql_column &column, const fwu_item &item)
{
    if (item.count > 1)
        return "TEXT";
    if (column.boolean || is_integer(item))
        return "INTEGER";
    if (is_big_unsigned(item))
        return "";
    return is_float(item) ? "REAL" : "TEXT";
}

static void put_layout_change_sqlite(std::string &out, std::string_view statement,
                                     std::string_view /*condition*/)
{
    out += statement;
    out += ";\n";
}

// ----

#define SQL_POSITION_CHECKS                                                                \
    ", CONSTRAINT transactions_before_this_one_are_missing CHECK (\"pending\" <> 'gap')"   \
    ", CONSTRAINT the_position_is_one_of_another_log CHECK (\"pending\" <> 'another log')" \
    ", CONSTRAINT the_position_is_one_of_another_selection "                               \
    "CHECK (\"pending\" <> 'another selection')"

static constexpr sql_dialect rows[] = {
    {
        .name = "postgresql",
        .head = "SET client_encoding = 'UTF8';\n"
                "SET client_min_messages = 'warning';\n"
                "SET standard_conforming_strings = on;\n"
                "SET DateStyle = 'ISO';\n"
                "SET TimeZone = 'UTC';\n"
                "SET IntervalStyle = 'postgres';\n",
        .overriding = " OVERRIDING SYSTEM VALUE",
        .schemas = true,
        .folds_names = false,
        .alters_types = true,
        .counts_changes = false,
        .rows = {"tableoid, ctid"},
        .booleans = {"'f'", "'t'"},
        .put_text = put_text_postgresql,
        .put_number = put_number_postgresql,
        .compared = compared_postgresql,
        .around = around_postgresql,
        .declared = declared_postgresql,
        .put_layout_change = put_layout_change_postgresql,
        .position_columns =
            "\"log\" text NOT NULL, \"selection\" text NOT NULL, "
            "\"lsn\" text COLLATE \"C\" NOT NULL, \"position\" text COLLATE \"C\" NOT NULL, "
            "\"pending\" text" SQL_POSITION_CHECKS ", CONSTRAINT a_change_met_no_row_or_several "
            "CHECK (\"pending\" NOT LIKE 'not one row of %')",
    },
    {
        .name = "sqlite",
        .head = "",
        .overriding = "",
        .schemas = false,
        .folds_names = true,
        .alters_types = false,
        .counts_changes = true,
        .rows = {"rowid", "_rowid_", "oid"},
        .booleans = {"0", "1"},
        .put_text = put_text_sqlite,
        .put_number = put_number_sqlite,
        .compared = compared_sqlite,
        .around = around_sqlite,
        .declared = declared_sqlite,
        .put_layout_change = put_layout_change_sqlite,
        .position_columns =
            "\"log\" TEXT NOT NULL, \"selection\" TEXT NOT NULL, \"lsn\" TEXT NOT NULL, "
            "\"position\" TEXT NOT NULL, \"pending\" TEXT, \"changed\" INTEGER" SQL_POSITION_CHECKS
            ", CONSTRAINT a_statement_of_this_transaction_failed CHECK (\"pending\" <> 'failed')"
            ", CONSTRAINT this_transaction_was_applied_before CHECK (\"pending\" <> 'applied')",
    },
};

std::string sql_same_name(const sql_dialect &dialect, std::string name)
{
    for (char &c : name)
        if (dialect.folds_names && c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return name;
}

const sql_dialect *sql_dialect_of(std::string_view name)
{
    for (const sql_dialect &row : rows)
        if (row.name == name)
            return &row;
    return nullptr;
}
