// The state is where the last piece stood: before the line's object, in it, in a row, in a column
// of a row; no tree is built.
#include "feed/wal2json/pieces.h"

#include "fwutil/fwu_source_name.h"

#include <charconv>
#include <cstring>

static constexpr std::string_view member_names[W2J_MEMBERS] = {
    "action",  "xid",      "lsn", "timestamp",     "schema", "table",
    "columns", "identity", "pk",  "transactional", "prefix", "content"};

// Compared without a call: there are several names for each value of a line.
template <size_t SIZE> static bool is(std::string_view text, const char (&word)[SIZE])
{
    return text.size() == SIZE - 1 && memcmp(text.data(), word, SIZE - 1) == 0;
}

static constexpr unsigned bit(w2j_member m)
{
    return 1U << m;
}

struct action_row {
    char action;
    unsigned needs; // members that lines of this kind must have
};

static const action_row actions[] = {
    {'B', bit(W2J_XID) | bit(W2J_LSN) | bit(W2J_TIMESTAMP)},
    {'C', bit(W2J_XID) | bit(W2J_LSN) | bit(W2J_TIMESTAMP)},
    {'I', bit(W2J_XID) | bit(W2J_SCHEMA) | bit(W2J_TABLE) | bit(W2J_COLUMNS)},
    {'U', bit(W2J_XID) | bit(W2J_SCHEMA) | bit(W2J_TABLE) | bit(W2J_COLUMNS)},
    {'D', bit(W2J_XID) | bit(W2J_SCHEMA) | bit(W2J_TABLE)},
    {'T', bit(W2J_XID) | bit(W2J_SCHEMA) | bit(W2J_TABLE)},
    {'M', bit(W2J_TRANSACTIONAL) | bit(W2J_PREFIX) | bit(W2J_CONTENT)},
};

// Members that an option of the plugin adds, for the message when one is missing.
static const char *member_option(w2j_member m)
{
    switch (m) {
    case W2J_XID:
        return " (set the plugin's option include-xids)";
    case W2J_LSN:
        return " (set the plugin's option include-lsn)";
    case W2J_TIMESTAMP:
        return " (set the plugin's option include-timestamp)";
    default:
        return "";
    }
}

static feed_meaning meaning_of(std::string_view type)
{
    if (type == "boolean")
        return FEED_BOOLEAN;
    // "timestamp(3) without time zone", but no type of somebody's own with such a name
    if (type.starts_with("timestamp ") || type.starts_with("timestamp("))
        return FEED_TIMESTAMP;
    if (type == "text" || type == "name" || type.starts_with("character varying"))
        return FEED_WORDS;
    if (type == "character" || type.starts_with("character("))
        return FEED_FILLED_WORDS;
    return FEED_PLAIN;
}

// A list's type is that of its elements and "[]".
static feed_type type_of(std::string_view name)
{
    const feed_meaning whole = meaning_of(name);
    if (!name.ends_with("[]"))
        return {whole, whole};
    return {whole, meaning_of(name.substr(0, name.size() - 2))};
}

static feed_row &row_of(const w2j_pieces &pieces)
{
    w2j_line &line = pieces.line;
    return pieces.now == W2J_COLUMNS    ? line.columns
           : pieces.now == W2J_IDENTITY ? line.identity
                                        : line.key;
}

static std::string name_of(w2j_member member)
{
    return std::string(member_names[member]);
}

// What refuses a line stands apart from what takes each of its pieces.

[[gnu::cold, gnu::noinline]] static bool twice(w2j_pieces &pieces)
{
    return pieces.fail("member \"" + name_of(pieces.now) + "\" is given twice");
}

[[gnu::cold, gnu::noinline]] static bool column_twice(w2j_pieces &pieces, std::string_view name)
{
    return pieces.fail("a column in \"" + name_of(pieces.now) + "\" has two members \"" +
                       std::string(name) + "\"");
}

[[gnu::cold, gnu::noinline]] static bool column_lacks(w2j_pieces &pieces)
{
    return pieces.fail("a column in \"" + name_of(pieces.now) + "\" lacks its " +
                       (pieces.now == W2J_KEY ? "name" : "name, type or value"));
}

[[gnu::cold, gnu::noinline]] static bool wrong_type(w2j_pieces &pieces)
{
    if (pieces.at == w2j_pieces::BEFORE)
        return pieces.fail("is not a JSON object");
    if (pieces.at == w2j_pieces::IN_LINE)
        return pieces.fail("member \"" + name_of(pieces.now) + "\" has the wrong type");
    if (pieces.at == w2j_pieces::IN_ROW)
        return pieces.fail("an element of \"" + name_of(pieces.now) + "\" is not an object");
    return pieces.fail("a column in \"" + name_of(pieces.now) +
                       "\" has a name, type or value of the wrong type");
}

static bool at_value(const w2j_pieces &pieces)
{
    return pieces.at == w2j_pieces::IN_COLUMN && pieces.column_now == w2j_pieces::VALUE;
}

// The plugin writes values that are objects or arrays as texts.
[[gnu::cold, gnu::noinline]] static bool no_value(w2j_pieces &pieces, const char *what)
{
    if (!at_value(pieces))
        return wrong_type(pieces);
    const feed_row &whole = row_of(pieces);
    const bool named = (pieces.column_seen & w2j_pieces::NAME) != 0;
    const std::string name =
        named ? whole.columns[whole.count].name : std::to_string(whole.count + 1);
    const unsigned table = bit(W2J_SCHEMA) | bit(W2J_TABLE);
    const bool known = named && (pieces.seen & table) == table;
    return pieces.fail((known ? fwu_source_name(pieces.line.schema, pieces.line.table, name)
                              : "column " + name + " in \"" + name_of(pieces.now) + "\"") +
                       " has a JSON " + what + " as its value: let the server send it as a text");
}

static bool passed_over(const w2j_pieces &pieces)
{
    return pieces.skip > 0 || (pieces.at == w2j_pieces::IN_LINE && pieces.now == W2J_OTHER) ||
           (pieces.at == w2j_pieces::IN_COLUMN && pieces.column_now == w2j_pieces::OTHER_OF_COLUMN);
}

static std::string_view keep(w2j_line &line, std::string_view text)
{
    if (line.used == line.texts.size())
        line.texts.emplace_back();
    return line.texts[line.used++] = text;
}

static bool column_value(w2j_pieces &pieces, feed_kind kind, std::string_view text)
{
    if (!at_value(pieces))
        return wrong_type(pieces);
    feed_row &row = row_of(pieces);
    feed_column &column = row.columns[row.count];
    column.kind = kind;
    column.value = pieces.texts_stay || text.empty() ? text : keep(pieces.line, text);
    return true;
}

static bool line_string(w2j_pieces &pieces, std::string_view text)
{
    w2j_line &line = pieces.line;
    switch (pieces.now) {
    case W2J_ACTION:
        if (text.size() != 1)
            return pieces.fail("action \"" + std::string(text.substr(0, 20)) +
                               "\" is none of B, I, U, D, C, M, T");
        line.action = text[0];
        return true;
    case W2J_LSN:
        line.lsn = text;
        return true;
    case W2J_TIMESTAMP:
        line.timestamp = text;
        return true;
    case W2J_SCHEMA:
        line.schema = text;
        return true;
    case W2J_TABLE:
        line.table = text;
        return true;
    case W2J_PREFIX:
        line.prefix = text;
        return true;
    case W2J_CONTENT:
        line.content = text;
        return true;
    default:
        return wrong_type(pieces);
    }
}

static bool line_key(w2j_pieces &pieces, std::string_view name)
{
    unsigned i = 0;
    while (i < W2J_MEMBERS && name != member_names[i])
        i++;
    pieces.now = static_cast<w2j_member>(i);
    if (pieces.now == W2J_OTHER)
        return true;
    if (pieces.seen & bit(pieces.now))
        return twice(pieces);
    pieces.seen |= bit(pieces.now);
    return true;
}

static bool column_key(w2j_pieces &pieces, std::string_view name)
{
    pieces.column_now = is(name, "name")    ? w2j_pieces::NAME
                        : is(name, "type")  ? w2j_pieces::TYPE
                        : is(name, "value") ? w2j_pieces::VALUE
                                            : w2j_pieces::OTHER_OF_COLUMN;
    if (pieces.column_seen & pieces.column_now)
        return column_twice(pieces, name);
    pieces.column_seen |= pieces.column_now;
    return true;
}

w2j_pieces::w2j_pieces(w2j_line &into) : line(into)
{
    line.action = 0;
    line.xid = 0;
    line.transactional = false;
    line.used = 0;
    for (feed_row *row : {&line.columns, &line.identity, &line.key}) {
        row->present = false;
        row->count = 0;
    }
}

bool w2j_pieces::fail(std::string text)
{
    done = outcome_bad(std::move(text));
    return false;
}

// Messages outside a transaction have neither its id nor its time, and a table may have
// no key.
bool w2j_pieces::null()
{
    if (at == IN_LINE &&
        (now == W2J_XID || now == W2J_LSN || now == W2J_TIMESTAMP || now == W2J_KEY)) {
        seen &= ~bit(now);
        return true;
    }
    return passed_over(*this) || column_value(*this, FEED_NULL, "");
}

bool w2j_pieces::boolean(bool value)
{
    if (passed_over(*this))
        return true;
    if (at == IN_LINE && now == W2J_TRANSACTIONAL) {
        line.transactional = value;
        return true;
    }
    return column_value(*this, value ? FEED_TRUE : FEED_FALSE, "");
}

bool w2j_pieces::number(std::string_view digits)
{
    if (passed_over(*this))
        return true;
    if (at != IN_LINE || now != W2J_XID)
        return column_value(*this, FEED_DIGITS, digits);
    const char *const end = digits.data() + digits.size();
    const auto [behind, error] = std::from_chars(digits.data(), end, line.xid);
    return (error == std::errc() && behind == end) || wrong_type(*this);
}

bool w2j_pieces::string(std::string_view text)
{
    if (passed_over(*this))
        return true;
    if (at == IN_LINE)
        return line_string(*this, text);
    if (at != IN_COLUMN)
        return wrong_type(*this);
    if (column_now == VALUE)
        return column_value(*this, FEED_TEXT, text);
    feed_row &row = row_of(*this);
    feed_column &column = row.columns[row.count];
    // Lines of a table mostly follow each other: both are known from the line before.
    if (column_now == NAME && column.name != text) {
        column.name = text;
    } else if (column_now == TYPE && column.type_name != text) {
        column.type_name = text;
        column.type = type_of(text);
    }
    return true;
}

bool w2j_pieces::start_object()
{
    if (at == BEFORE) {
        at = IN_LINE;
        return true;
    }
    if (passed_over(*this)) {
        skip++;
        return true;
    }
    if (at != IN_ROW)
        return no_value(*this, "object");
    at = IN_COLUMN;
    column_seen = 0;
    feed_row &row = row_of(*this);
    if (row.count == row.columns.size())
        row.columns.emplace_back();
    return true;
}

bool w2j_pieces::key(std::string_view name)
{
    if (skip > 0)
        return true;
    return at == IN_COLUMN ? column_key(*this, name) : line_key(*this, name);
}

bool w2j_pieces::end_object()
{
    if (skip > 0) {
        skip--;
        return true;
    }
    if (at == IN_LINE)
        return true;
    at = IN_ROW;
    const unsigned needs = now == W2J_KEY ? unsigned{NAME} : NAME | TYPE | VALUE;
    if ((column_seen & needs) != needs)
        return column_lacks(*this);
    row_of(*this).count++;
    return true;
}

bool w2j_pieces::start_array()
{
    if (passed_over(*this)) {
        skip++;
        return true;
    }
    if (at != IN_LINE || (now != W2J_COLUMNS && now != W2J_IDENTITY && now != W2J_KEY))
        return no_value(*this, "array");
    at = IN_ROW;
    row_of(*this).present = true;
    return true;
}

bool w2j_pieces::end_array()
{
    if (skip > 0)
        skip--;
    else
        at = IN_LINE;
    return true;
}

outcome w2j_pieces::check() const
{
    if (!(seen & bit(W2J_ACTION)))
        return outcome_bad("member \"action\" is missing: is this wal2json's format version 2?");
    for (const action_row &row : actions) {
        if (row.action != line.action)
            continue;
        for (unsigned m = 0; m < W2J_MEMBERS; m++) {
            if (row.needs & ~seen & bit(static_cast<w2j_member>(m)))
                return outcome_bad("member \"" + std::string(member_names[m]) + "\" is missing" +
                                   member_option(static_cast<w2j_member>(m)));
        }
        return {};
    }
    return outcome_bad("action \"" + std::string(1, line.action) +
                       "\" is none of B, I, U, D, C, M, T");
}
