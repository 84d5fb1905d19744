// What the tables hold that their items do not: counted by the server, a query for each table
// (several where it has very many columns), so that no row crosses the network.  A table that
// takes too long, or may not be read, is passed over, and said so.
#include "feed/postgresql/check_report.h"
#include "feed/postgresql/query.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <unistd.h>

// A query's list has room for 1,664 values.
constexpr size_t COLUMNS_IN_QUERY = 300;
constexpr int VALUES_OF_COLUMN = 5; // longest, null, cut, replaced, left out
constexpr int32_t STAMP_DECIMALS_MAX = 6;

// Numbers of types, which are the same on every server.
constexpr uint32_t INT8 = 20;
constexpr uint32_t INT2 = 21;
constexpr uint32_t INT4 = 23;
constexpr uint32_t TIMESTAMPTZ = 1184;
constexpr uint32_t NUMERIC = 1700;

// The conditions under which a value of a column is cut, has characters replaced, and is left
// out; and how long it is.
struct column_terms {
    std::string length = "NULL::int";
    std::string cut = "false";
    std::string replaced = "false";
    std::string left_out = "false";
};

static bool is_words(feed_meaning meaning)
{
    return meaning == FEED_WORDS || meaning == FEED_FILLED_WORDS;
}

static bool is_exact_number(uint32_t type)
{
    return type == INT2 || type == INT4 || type == INT8 || type == NUMERIC;
}

// The value as the server sends it: no cast gives the same for all types.
static std::string text_of(const std::string &column, feed_meaning meaning)
{
    const std::string text = "concat(" + column + ")";
    return meaning == FEED_FILLED_WORDS ? "rtrim(" + text + ", ' ')" : text;
}

// The hexadecimal digits of a text in UTF-8.  Of a database without an encoding they are what it
// holds: the server itself takes any bytes there.
static std::string digits_of(const pgk_report &report, const std::string &text)
{
    const bool any_bytes = report.found.encoding == "SQL_ASCII";
    return "encode(convert_to(" + text + (any_bytes ? ", 'SQL_ASCII'" : ", 'UTF8'") + "), 'hex')";
}

static std::string length_of(const pgk_report &report, const std::string &text)
{
    const std::string &encoding = report.found.encoding;
    const bool any_bytes = encoding == "SQL_ASCII";
    if (report.encoding == FWU_LATIN1)
        return any_bytes // a byte that does not continue a character is one
                   ? "length(regexp_replace(" + digits_of(report, text) +
                         ", '([^89ab].)|[89ab].', '\\1', 'g')) / 2"
                   : "char_length(" + text + ")";
    return encoding == "UTF8" || any_bytes ? "octet_length(" + text + ")"
                                           : "octet_length(convert_to(" + text + ", 'UTF8'))";
}

// Whether a text has characters, or bytes, without a place in the log.
static std::string no_place(const pgk_report &report, const std::string &text)
{
    const std::string &encoding = report.found.encoding;
    if (report.encoding == FWU_LATIN1)
        return encoding == "UTF8" ? text + " ~ '[^\\u0001-\\u00FF]'"
                                  : digits_of(report, text) + " !~ '^([0-7].|c[23][89ab].)*$'";
    if (encoding != "SQL_ASCII")
        return "false";
    return digits_of(report, text) +
           " !~ '^([0-7].|(c[2-9a-f]|d.)[89ab].|e0[ab].[89ab].|e[1-9abcef]([89ab].){2}"
           "|ed[89].[89ab].|f0[9ab].([89ab].){2}|f[1-3]([89ab].){3}|f48.([89ab].){2})*$'";
}

static column_terms stamp_terms(const std::string &column, const std::string &type,
                                const fwu_item &item)
{
    column_terms terms;
    const std::string literal = "::" + type;
    terms.left_out = "isfinite(" + column + ") AND (" + column + " < '0001-01-01'" + literal +
                     " OR " + column + " >= '10000-01-01'" + literal;
    const int32_t decimals = item.size <= 20 ? 0 : std::min(item.size - 20, STAMP_DECIMALS_MAX);
    if (decimals < STAMP_DECIMALS_MAX)
        terms.left_out +=
            " OR " + column + " <> " + column + literal + "(" + std::to_string(decimals) + ")";
    terms.left_out += ")";
    return terms;
}

static column_terms text_terms(const pgk_report &report, const pgk_column &column,
                               const std::string &name, const fwu_item &item)
{
    column_terms terms;
    const std::string text = text_of(name, column.meaning);
    terms.length = length_of(report, text);
    const std::string over = terms.length + " > " + std::to_string(item.size);
    if (!is_words(column.meaning)) {
        terms.left_out = over;
        return terms;
    }
    terms.cut = over;
    const std::string replaced = no_place(report, text);
    if (replaced != terms.replaced)
        terms.replaced = replaced + " AND NOT " + over;
    return terms;
}

// "1" and so many zeros.
static std::string power_of_ten(int32_t exponent)
{
    return "1" + std::string(static_cast<size_t>(std::max(exponent, 0)), '0');
}

static column_terms number_terms(const std::string &column, const fwu_item &item)
{
    column_terms terms;
    const std::string number = column + "::numeric";
    if (item.type == 'P' || item.type == 'Z') {
        const int32_t digits = fwu_item_digits(item.type, item.size);
        terms.left_out = number + " = 'NaN' OR abs(" + number +
                         ") >= " + power_of_ten(digits - item.item_aux) + " OR " + number +
                         " <> round(" + number + ", " + std::to_string(item.item_aux) + ")";
    } else if (item.type != 'E' && item.type != 'R') {
        const int bits = 8 * item.size - (item.type == 'K' ? 0 : 1);
        const std::string most = "2::numeric ^ " + std::to_string(bits);
        terms.left_out = number + " = 'NaN' OR " + number + " >= " + most + " OR " + number +
                         " < " + (item.type == 'K' ? "0" : "-(" + most + ")") + " OR " + number +
                         " <> trunc(" + number + ")";
    }
    return terms;
}

static column_terms terms_of(const pgk_report &report, const pgk_table &table,
                             const pgk_column &column, const std::string &name)
{
    const fwu_item &item = table.fed->layout.items[static_cast<size_t>(column.item)];
    if (item.count > 1 || column.meaning == FEED_BOOLEAN)
        return {};
    if (item.type != 'X' && item.type != 'U')
        return is_exact_number(column.base) ? number_terms(name, item) : column_terms();
    if (column.meaning == FEED_TIMESTAMP)
        return stamp_terms(name, column.base == TIMESTAMPTZ ? "timestamptz" : "timestamp", item);
    return text_terms(report, column, name, item);
}

// The query for the columns from first to last, which is not among them.
static std::string query_for(const pgk_report &report, const pgk_table &table, size_t first,
                             size_t last)
{
    const bool no_map = table.fed->dataset->null_map < 0;
    std::string query = "SELECT count(*)";
    const auto count = [&](const std::string &term) {
        query += term == "false" ? ", 0" : ", count(*) FILTER (WHERE " + term + ")";
    };
    for (size_t i = first; i < last; i++) {
        const pgk_column &column = table.columns[i];
        const std::string name = pgs_name(column.name);
        const column_terms terms =
            column.item < 0 ? column_terms() : terms_of(report, table, column, name);
        query += terms.length == column_terms().length ? ", NULL" : ", max(" + terms.length + ")";
        count(no_map && column.item >= 0 ? name + " IS NULL" : "false");
        count(terms.cut);
        count(terms.replaced);
        count(terms.left_out);
    }
    // The rows that a snapshot would take.
    return query + " FROM " + (table.partitioned ? "" : "ONLY ") + table.sql +
           (table.filter.empty() ? "" : " WHERE " + table.filter);
}

// Null stays what it was: nothing was measured.
static bool number_at(int64_t &number, const pgs_result &result, int column)
{
    const std::string_view text = pgs_value(result, 0, column);
    return text.empty() || pgs_number(number, text);
}

static outcome take_counts(pgk_table &table, const pgs_result &result, size_t first, size_t last)
{
    bool good = PQntuples(result.get()) == 1 && number_at(table.rows, result, 0);
    int place = 1;
    for (size_t i = first; i < last && good; i++, place += VALUES_OF_COLUMN) {
        pgk_scanned &scanned = table.columns[i].scanned;
        scanned.looked = table.columns[i].item >= 0;
        good = number_at(scanned.longest, result, place) &&
               number_at(scanned.nulls, result, place + 1) &&
               number_at(scanned.cut, result, place + 2) &&
               number_at(scanned.replaced, result, place + 3) &&
               number_at(scanned.left_out, result, place + 4);
    }
    if (good)
        return {};
    return outcome_failed("the server's answer to the scan of table %s holds no counts",
                          table.name.c_str());
}

static outcome scan_table(pgk_report &report, pgk_table &table)
{
    pgs_server &server = report.server;
    for (size_t first = 0; first < table.columns.size(); first += COLUMNS_IN_QUERY) {
        const size_t last = std::min(first + COLUMNS_IN_QUERY, table.columns.size());
        pgs_result result;
        pgs_refusal refused;
        outcome asked = pgs_try(server, server.sql.get(), result,
                                query_for(report, table, first, last), refused);
        table.not_scanned = refused.message;
        if (!asked || !refused.state.empty())
            return asked;
        if (outcome taken = take_counts(table, result, first, last); !taken)
            return taken;
    }
    return {};
}

// ---- progress

// A line on a terminal, which the next one replaces; the cursor stays at its beginning.
static void show_progress(const pgk_report &report, const pgk_table &table, size_t number)
{
    if (isatty(STDERR_FILENO) == 0)
        return;
    fprintf(stderr, "fwlog: scanning table %zu of %zu, %s", number, report.tables.size(),
            table.name.c_str());
    if (table.about >= 0)
        fprintf(stderr, " (about %" PRId64 " rows)", table.about);
    fputs("\033[K\r", stderr);
    fflush(stderr);
}

static void erase_progress()
{
    if (isatty(STDERR_FILENO) == 0)
        return;
    fputs("\033[K", stderr);
    fflush(stderr);
}

// A query that a signal leaves behind would go on for nobody.
static void cancel(const pgs_server &server)
{
    PGcancel *const handle = PQgetCancel(server.sql.get());
    char why[256];
    if (handle != nullptr)
        (void)PQcancel(handle, why, sizeof why); // the connection ends anyway
    PQfreeCancel(handle);
}

outcome pgk_scan(pgk_report &report)
{
    pgs_server &server = report.server;
    pgs_result result;
    const int64_t limit_ms = int64_t{1000} * report.options.scan_timeout_s;
    // The server is silent while it counts.
    server.patience_ms = std::max(server.patience_ms, limit_ms + server.timeout_ms);
    outcome done = pgs_command(server, server.sql.get(), result,
                               "SET statement_timeout = " + std::to_string(limit_ms));
    size_t number = 0;
    for (pgk_table &table : report.tables) {
        number++;
        if (!done || table.skipped || table.fed == nullptr)
            continue;
        show_progress(report, table, number);
        done = scan_table(report, table);
    }
    erase_progress();
    if (done.kind() == OUTCOME_STOPPED)
        cancel(server);
    return done;
}
