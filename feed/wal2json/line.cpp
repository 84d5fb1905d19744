// The parser calls back for every piece of the line; no tree is built.  Members
// that nothing here needs are passed over whatever they hold.
#include "feed/wal2json/line.h"

#include "fwutil/fwu_source_name.h"

#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>

// The parser refuses numbers beyond the range of its floating-point type, although
// only their digits are used here: the widest type refuses least.
using wide_json =
    nlohmann::basic_json<std::map, std::vector, std::string, bool, int64_t, uint64_t, long double>;

// Members of a line, in the order of the table below; the bit of a member tells
// that it has been seen.
enum member : unsigned {
    ACTION,
    XID,
    LSN,
    TIMESTAMP,
    SCHEMA,
    TABLE,
    COLUMNS,
    IDENTITY,
    KEY,
    TRANSACTIONAL,
    PREFIX,
    CONTENT,
    MEMBERS,
    OTHER = MEMBERS,
};

static constexpr std::string_view member_names[MEMBERS] = {
    "action",  "xid",      "lsn", "timestamp",     "schema", "table",
    "columns", "identity", "pk",  "transactional", "prefix", "content"};

static constexpr unsigned bit(member m)
{
    return 1U << m;
}

struct action_row {
    char action;
    unsigned needs; // members that lines of this kind must have
};

static const action_row actions[] = {
    {'B', bit(XID) | bit(LSN) | bit(TIMESTAMP)},
    {'C', bit(XID) | bit(LSN) | bit(TIMESTAMP)},
    {'I', bit(XID) | bit(SCHEMA) | bit(TABLE) | bit(COLUMNS)},
    {'U', bit(XID) | bit(SCHEMA) | bit(TABLE) | bit(COLUMNS)},
    {'D', bit(XID) | bit(SCHEMA) | bit(TABLE)},
    {'T', bit(XID) | bit(SCHEMA) | bit(TABLE)},
    {'M', bit(TRANSACTIONAL) | bit(PREFIX) | bit(CONTENT)},
};

// Members that an option of the plugin adds, for the message when one is missing.
static const char *member_option(member m)
{
    switch (m) {
    case XID:
        return " (set the plugin's option include-xids)";
    case LSN:
        return " (set the plugin's option include-lsn)";
    case TIMESTAMP:
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

enum place { BEFORE, IN_LINE, IN_ROW, IN_COLUMN };

enum column_member : unsigned { NAME = 1, TYPE = 2, VALUE = 4, OTHER_OF_COLUMN = 0 };

// What the parser calls; each call returns false to stop.
struct handler {
    w2j_line &line;
    outcome done = {}; // why the parser was stopped
    place at = BEFORE;
    unsigned skip = 0; // depth inside a value that is passed over
    unsigned seen = 0;
    member now = OTHER;
    unsigned column_seen = 0;
    unsigned column_now = OTHER_OF_COLUMN;

    feed_row &row()
    {
        return now == COLUMNS ? line.columns : now == IDENTITY ? line.identity : line.key;
    }

    bool fail(std::string text)
    {
        done = outcome_bad(std::move(text));
        return false;
    }

    bool wrong_type()
    {
        if (at == BEFORE)
            return fail("is not a JSON object");
        if (at == IN_LINE)
            return fail("member \"" + std::string(member_names[now]) + "\" has the wrong type");
        if (at == IN_ROW)
            return fail("an element of \"" + std::string(member_names[now]) +
                        "\" is not an object");
        return fail("a column in \"" + std::string(member_names[now]) +
                    "\" has a name, type or value of the wrong type");
    }

    // The plugin writes values that are objects or arrays as texts.
    bool no_value(const char *what)
    {
        if (at != IN_COLUMN || column_now != VALUE)
            return wrong_type();
        const feed_row &whole = row();
        const bool named = (column_seen & NAME) != 0;
        const std::string name =
            named ? whole.columns[whole.count].name : std::to_string(whole.count + 1);
        const unsigned table = bit(SCHEMA) | bit(TABLE);
        const bool known = named && (seen & table) == table;
        return fail((known ? fwu_source_name(line.schema, line.table, name)
                           : "column " + name + " in \"" + std::string(member_names[now]) + "\"") +
                    " has a JSON " + what + " as its value: let the server send it as a text");
    }

    bool passed_over() const
    {
        return skip > 0 || (at == IN_LINE && now == OTHER) ||
               (at == IN_COLUMN && column_now == OTHER_OF_COLUMN);
    }

    // The parser's text is gone with the call.
    std::string_view keep(std::string_view text)
    {
        if (line.used == line.texts.size())
            line.texts.emplace_back();
        return line.texts[line.used++] = text;
    }

    bool column_value(feed_kind kind, std::string_view text)
    {
        if (at != IN_COLUMN || column_now != VALUE)
            return wrong_type();
        feed_column &column = row().columns[row().count];
        column.kind = kind;
        column.value = keep(text);
        return true;
    }

    // Messages outside a transaction have neither its id nor its time, and a table may have
    // no key.
    bool null()
    {
        if (at == IN_LINE && (now == XID || now == LSN || now == TIMESTAMP || now == KEY)) {
            seen &= ~bit(now);
            return true;
        }
        return passed_over() || column_value(FEED_NULL, {});
    }

    bool boolean(bool value)
    {
        if (passed_over())
            return true;
        if (at == IN_LINE && now == TRANSACTIONAL) {
            line.transactional = value;
            return true;
        }
        return column_value(value ? FEED_TRUE : FEED_FALSE, {});
    }

    template <typename Integer> bool integer(Integer value)
    {
        char digits[32];
        const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        return column_value(FEED_DIGITS, {digits, static_cast<size_t>(end - digits)});
    }

    // Called for numbers with a minus sign only, so that 0 was written "-0".
    bool number_integer(int64_t value)
    {
        if (passed_over())
            return true;
        return value == 0 ? column_value(FEED_DIGITS, "-0") : integer(value);
    }

    bool number_unsigned(uint64_t value)
    {
        if (passed_over())
            return true;
        if (at == IN_LINE && now == XID) {
            line.xid = value;
            return true;
        }
        return integer(value);
    }

    bool number_float(long double, const std::string &digits)
    {
        return passed_over() || column_value(FEED_DIGITS, digits);
    }

    bool string(const std::string &text)
    {
        if (passed_over())
            return true;
        if (at == IN_LINE)
            return line_string(text);
        if (at != IN_COLUMN)
            return wrong_type();
        if (column_now == NAME)
            row().columns[row().count].name = text;
        else if (column_now == TYPE)
            set_type(row().columns[row().count], text);
        else
            return column_value(FEED_TEXT, text);
        return true;
    }

    // Lines of a table mostly follow each other: the type is known from the line before.
    static void set_type(feed_column &column, const std::string &name)
    {
        if (column.type_name == name)
            return;
        column.type_name = name;
        column.type = type_of(name);
    }

    bool line_string(const std::string &text)
    {
        switch (now) {
        case ACTION:
            if (text.size() != 1)
                return fail("action \"" + text.substr(0, 20) + "\" is none of B, I, U, D, C, M, T");
            line.action = text[0];
            return true;
        case LSN:
            line.lsn = text;
            return true;
        case TIMESTAMP:
            line.timestamp = text;
            return true;
        case SCHEMA:
            line.schema = text;
            return true;
        case TABLE:
            line.table = text;
            return true;
        case PREFIX:
            line.prefix = text;
            return true;
        case CONTENT:
            line.content = text;
            return true;
        default:
            return wrong_type();
        }
    }

    bool binary(wide_json::binary_t &)
    {
        return wrong_type();
    }

    bool start_object(size_t)
    {
        if (at == BEFORE) {
            at = IN_LINE;
            return true;
        }
        if (passed_over()) {
            skip++;
            return true;
        }
        if (at != IN_ROW)
            return no_value("object");
        at = IN_COLUMN;
        column_seen = 0;
        if (row().count == row().columns.size())
            row().columns.emplace_back();
        return true;
    }

    bool key(const std::string &name)
    {
        if (skip > 0)
            return true;
        return at == IN_COLUMN ? column_key(name) : line_key(name);
    }

    bool line_key(const std::string &name)
    {
        unsigned i = 0;
        while (i < MEMBERS && name != member_names[i])
            i++;
        now = static_cast<member>(i);
        if (now == OTHER)
            return true;
        if (seen & bit(now))
            return fail("member \"" + name + "\" is given twice");
        seen |= bit(now);
        return true;
    }

    bool column_key(const std::string &name)
    {
        column_now = name == "name"    ? NAME
                     : name == "type"  ? TYPE
                     : name == "value" ? VALUE
                                       : OTHER_OF_COLUMN;
        if (column_seen & column_now)
            return fail("a column in \"" + std::string(member_names[now]) +
                        "\" has two members \"" + name + "\"");
        column_seen |= column_now;
        return true;
    }

    bool end_object()
    {
        if (skip > 0) {
            skip--;
            return true;
        }
        if (at == IN_LINE)
            return true;
        at = IN_ROW;
        const unsigned needs = now == KEY ? unsigned{NAME} : NAME | TYPE | VALUE;
        if ((column_seen & needs) != needs)
            return fail("a column in \"" + std::string(member_names[now]) + "\" lacks its " +
                        (now == KEY ? "name" : "name, type or value"));
        row().count++;
        return true;
    }

    bool start_array(size_t)
    {
        if (passed_over()) {
            skip++;
            return true;
        }
        if (at != IN_LINE || (now != COLUMNS && now != IDENTITY && now != KEY))
            return no_value("array");
        at = IN_ROW;
        row().present = true;
        return true;
    }

    bool end_array()
    {
        if (skip > 0)
            skip--;
        else
            at = IN_LINE;
        return true;
    }

    // The library's text runs "[id] parse error at line 1, column N: syntax error
    // while parsing ... - reason; last read: '...'"; the end may repeat the line.
    bool parse_error(size_t position, const std::string &, const wide_json::exception &what)
    {
        std::string reason = what.what();
        const size_t dash = reason.find(" - ");
        const size_t id = reason.find("] ");
        if (dash != std::string::npos)
            reason.erase(0, dash + 3);
        else if (id != std::string::npos)
            reason.erase(0, id + 2);
        const size_t last = reason.find("; last read: '");
        if (last != std::string::npos) {
            const size_t expected = reason.rfind("'; expected ");
            reason = reason.substr(0, last) +
                     (expected == std::string::npos ? "" : reason.substr(expected + 1));
        }
        return fail("is not valid JSON at byte " + std::to_string(position) + ": " + reason);
    }
};

static void clear_line(w2j_line &line)
{
    line.action = 0;
    line.xid = 0;
    line.transactional = false;
    line.used = 0;
    line.columns.present = false;
    line.columns.count = 0;
    line.identity.present = false;
    line.identity.count = 0;
    line.key.present = false;
    line.key.count = 0;
}

static outcome check_members(const w2j_line &line, unsigned seen)
{
    if (!(seen & bit(ACTION)))
        return outcome_bad("member \"action\" is missing: is this wal2json's format version 2?");
    for (const action_row &row : actions) {
        if (row.action != line.action)
            continue;
        for (unsigned m = 0; m < MEMBERS; m++) {
            if (row.needs & ~seen & bit(static_cast<member>(m)))
                return outcome_bad("member \"" + std::string(member_names[m]) + "\" is missing" +
                                   member_option(static_cast<member>(m)));
        }
        return {};
    }
    return outcome_bad("action \"" + std::string(1, line.action) +
                       "\" is none of B, I, U, D, C, M, T");
}

outcome w2j_parse(w2j_line &line, std::string_view text)
{
    clear_line(line);
    // The parser takes a NUL byte for the end of its input.
    if (const void *nul = memchr(text.data(), 0, text.size()))
        return outcome_bad("is not valid JSON at byte " +
                           std::to_string(static_cast<const char *>(nul) - text.data() + 1) +
                           ": NUL byte");
    handler calls{.line = line};
    if (!wide_json::sax_parse(text.data(), text.data() + text.size(), &calls))
        return std::move(calls.done);
    return check_members(line, calls.seen);
}
