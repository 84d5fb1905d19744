// The tables behind the rules: a row for each type that is built in and something special,
// one for each kind and category of all others.
#include "feed/postgresql/types.h"

#include <algorithm>
#include <cstring>

// OIDs of the built-in types that have a rule of their own; they are the same on every server.
enum pg_type : uint32_t {
    BPCHAR = 1042,
    VARCHAR = 1043,
    BIT = 1560,
    VARBIT = 1562,
    NUMERIC = 1700,
};

constexpr int32_t MODIFIER_HEADER = 4; // added to lengths and precisions in a type modifier
constexpr int32_t PACKED_DIGITS_MAX = fwu_item_digits('P', FWU_PACKED_SIZE_MAX);
constexpr int DOMAINS_MAX = 100; // over each other

// Default widths.
constexpr int32_t TEXT_WIDTH = 1000;
constexpr int32_t LINE_WIDTH = 255; // what mostly is a line or a list
constexpr int32_t BYTES_WIDTH = 512;
constexpr int32_t DIGITS_WIDTH = 40;
constexpr int32_t LABEL_WIDTH = 63; // the longest that a server takes, without --with-...
constexpr int32_t NAME_WIDTH = 131; // two of these, in quotes, and a dot
constexpr int32_t RANGE_WIDTH = 80; // of two timestamps
constexpr int32_t MONEY_WIDTH = 32; // it is written as the server's locale likes it

// What a modifier says of a type, and so where it stands in its name.
enum modifier_kind { NO_MODIFIER, LENGTH, BITS, DIGITS, DECIMALS };

struct type_row {
    uint32_t oid;
    const char *name;
    char letter = 'X';
    int32_t size = LINE_WIDTH; // DECIMALS: without them
    pgt_length length = PGT_DEFAULT;
    feed_type type = {};
    modifier_kind modifier = NO_MODIFIER;
};

constexpr feed_type WORDS = {FEED_WORDS, FEED_WORDS};
constexpr feed_type LIST = {FEED_WORDS, FEED_PLAIN};
constexpr feed_type STAMP = {FEED_TIMESTAMP, FEED_TIMESTAMP};
constexpr feed_type STAMPS = {FEED_WORDS, FEED_TIMESTAMP};

// Sizes of exact texts: the longest one that the server writes.
// clang-format off
static constexpr type_row types[] = {
    {16, "boolean", 'X', 1, PGT_EXACT, {FEED_BOOLEAN, FEED_BOOLEAN}},
    {17, "bytea", 'X', BYTES_WIDTH, PGT_DEFAULT, WORDS},
    {18, "\"char\"", 'X', 1, PGT_EXACT},
    {19, "name", 'X', 63, PGT_EXACT, WORDS},
    {20, "bigint", 'I', 8, PGT_EXACT},
    {21, "smallint", 'I', 2, PGT_EXACT},
    {23, "integer", 'I', 4, PGT_EXACT},
    {24, "regproc", 'X', NAME_WIDTH},
    {25, "text", 'X', TEXT_WIDTH, PGT_DEFAULT, WORDS},
    {26, "oid", 'K', 4, PGT_EXACT},
    {27, "tid", 'X', 18, PGT_EXACT},  // (4294967295,65535)
    {28, "xid", 'X', 10, PGT_EXACT},
    {29, "cid", 'X', 10, PGT_EXACT},
    {114, "json", 'X', TEXT_WIDTH, PGT_DEFAULT, WORDS},
    {142, "xml", 'X', TEXT_WIDTH, PGT_DEFAULT, WORDS},
    {600, "point", 'X', 51, PGT_EXACT}, // (-2.2250738585072014e-308,...)
    {601, "lseg", 'X', 105, PGT_EXACT},
    {603, "box", 'X', 103, PGT_EXACT},
    {628, "line", 'X', 76, PGT_EXACT},
    {650, "cidr", 'X', 43, PGT_EXACT}, // 39 of IPv6, /128
    {700, "real", 'E', 4, PGT_EXACT},
    {701, "double precision", 'E', 8, PGT_EXACT},
    {718, "circle", 'X', 78, PGT_EXACT},
    {774, "macaddr8", 'X', 23, PGT_EXACT},
    {790, "money", 'X', MONEY_WIDTH},
    {829, "macaddr", 'X', 17, PGT_EXACT},
    {869, "inet", 'X', 43, PGT_EXACT},
    {1000, "boolean[]", 'X', LINE_WIDTH, PGT_DEFAULT, {FEED_WORDS, FEED_BOOLEAN}},
    {1005, "smallint[]", 'X', LINE_WIDTH, PGT_DEFAULT, LIST},
    {1007, "integer[]", 'X', LINE_WIDTH, PGT_DEFAULT, LIST},
    {1009, "text[]", 'X', LINE_WIDTH, PGT_DEFAULT, WORDS},
    {1014, "character[]", 'X', LINE_WIDTH, PGT_DEFAULT, {FEED_WORDS, FEED_FILLED_WORDS}, LENGTH},
    {1015, "character varying[]", 'X', LINE_WIDTH, PGT_DEFAULT, WORDS, LENGTH},
    {1016, "bigint[]", 'X', LINE_WIDTH, PGT_DEFAULT, LIST},
    {1021, "real[]", 'X', LINE_WIDTH, PGT_DEFAULT, LIST},
    {1022, "double precision[]", 'X', LINE_WIDTH, PGT_DEFAULT, LIST},
    {BPCHAR, "character", 'X', LINE_WIDTH, PGT_DEFAULT, {FEED_FILLED_WORDS, FEED_FILLED_WORDS},
     LENGTH},
    {VARCHAR, "character varying", 'X', LINE_WIDTH, PGT_DEFAULT, WORDS, LENGTH},
    {1082, "date", 'X', 10, PGT_EXACT},
    {1083, "time without time zone", 'X', 8, PGT_EXACT, {}, DECIMALS},
    {1114, "timestamp without time zone", 'X', 19, PGT_EXACT, STAMP, DECIMALS},
    {1115, "timestamp without time zone[]", 'X', LINE_WIDTH, PGT_DEFAULT, STAMPS, DECIMALS},
    {1182, "date[]", 'X', LINE_WIDTH, PGT_DEFAULT, LIST},
    {1184, "timestamp with time zone", 'X', 19, PGT_EXACT, STAMP, DECIMALS},
    {1185, "timestamp with time zone[]", 'X', LINE_WIDTH, PGT_DEFAULT, STAMPS, DECIMALS},
    // -178956969 years -11 mons -2147483648 days -2562047788:00:54.775808
    {1186, "interval", 'X', 67, PGT_EXACT},
    {1231, "numeric[]", 'X', LINE_WIDTH, PGT_DEFAULT, LIST, DIGITS},
    // "+15:59:59" behind the time
    {1266, "time with time zone", 'X', 17, PGT_EXACT, {}, DECIMALS},
    {BIT, "bit", 'X', LINE_WIDTH, PGT_DEFAULT, {}, BITS},
    {VARBIT, "bit varying", 'X', LINE_WIDTH, PGT_DEFAULT, {}, BITS},
    {NUMERIC, "numeric", 'X', DIGITS_WIDTH, PGT_DEFAULT, {}, DIGITS},
    {2205, "regclass", 'X', NAME_WIDTH},
    {2206, "regtype", 'X', NAME_WIDTH},
    {2950, "uuid", 'X', 36, PGT_EXACT},
    {2951, "uuid[]", 'X', LINE_WIDTH, PGT_DEFAULT, LIST},
    {3220, "pg_lsn", 'X', 17, PGT_EXACT},
    {3614, "tsvector", 'X', TEXT_WIDTH, PGT_DEFAULT, WORDS},
    {3802, "jsonb", 'X', TEXT_WIDTH, PGT_DEFAULT, WORDS},
    {3904, "int4range", 'X', 25, PGT_EXACT}, // [-2147483648,-2147483647)
    {3926, "int8range", 'X', 43, PGT_EXACT},
    {5069, "xid8", 'X', 20, PGT_EXACT},
};
// clang-format on

// All others, by the first row that fits.  0: any.
struct kind_row {
    char kind;
    char category;
    int32_t width;
    feed_meaning meaning;
};
static constexpr kind_row kinds[] = {
    {'e', 0, LABEL_WIDTH, FEED_WORDS},    {'r', 0, RANGE_WIDTH, FEED_PLAIN},
    {'m', 0, LINE_WIDTH, FEED_PLAIN},     {'b', 'N', DIGITS_WIDTH, FEED_PLAIN}, // numbers
    {'b', 'D', DIGITS_WIDTH, FEED_PLAIN},                                       // dates and times
    {'b', 'T', RANGE_WIDTH, FEED_PLAIN},                                        // times that pass
    {'b', 'I', DIGITS_WIDTH, FEED_PLAIN},                                       // addresses
    {'b', 'B', DIGITS_WIDTH, FEED_PLAIN},                                       // truth values
    {'b', 'G', LINE_WIDTH, FEED_PLAIN},                                         // figures
    {'b', 'V', LINE_WIDTH, FEED_PLAIN},                                         // bits
    {0, 0, LINE_WIDTH, FEED_WORDS},
};

static const type_row *find_type(uint32_t type)
{
    for (const type_row &row : types)
        if (row.oid == type)
            return &row;
    return nullptr;
}

static const pgt_fact *find_fact(uint32_t type, const pgt_facts &facts)
{
    const auto found = facts.find(type);
    return found == facts.end() ? nullptr : &found->second;
}

static const kind_row &kind_of(const pgt_fact *fact)
{
    const pgt_fact unknown = {.kind = '?'};
    const pgt_fact &is = fact == nullptr ? unknown : *fact;
    const kind_row *row = kinds;
    while ((row->kind != 0 && row->kind != is.kind) ||
           (row->category != 0 && row->category != is.category))
        row++;
    return *row;
}

const char *pgt_name(uint32_t type)
{
    const type_row *row = find_type(type);
    return row == nullptr ? nullptr : row->name;
}

// Digits and decimal places of numeric(p,s).
static int32_t precision_of(int32_t modifier)
{
    return (modifier - MODIFIER_HEADER) >> 16 & 0xFFFF;
}

static int32_t scale_of(int32_t modifier)
{
    const int32_t low = (modifier - MODIFIER_HEADER) & 0x7FF;
    return (low ^ 1024) - 1024; // 11 bits with a sign
}

// "(9,2)"; empty: the type stands without.
static std::string modifier_text(modifier_kind kind, int32_t modifier)
{
    const bool counted = kind == LENGTH || kind == DIGITS;
    if (modifier < 0 || (counted && modifier <= MODIFIER_HEADER))
        return "";
    if (kind == DIGITS)
        return "(" + std::to_string(precision_of(modifier)) + "," +
               std::to_string(scale_of(modifier)) + ")";
    return "(" + std::to_string(counted ? modifier - MODIFIER_HEADER : modifier) + ")";
}

std::string pgt_text(uint32_t type, int32_t modifier)
{
    const type_row *row = find_type(type);
    if (row == nullptr || (row->modifier == NO_MODIFIER && modifier >= 0))
        return "";
    std::string text = row->name;
    const std::string inside = modifier_text(row->modifier, modifier);
    const bool blank_filled = row->type.element == FEED_FILLED_WORDS;
    if (inside.empty() && blank_filled) // "character" is one of length 1
        return "bpchar" + text.substr(strlen("character"));
    if (inside.empty() && row->oid == BIT) // and "bit" one bit
        return "\"bit\"";
    // "timestamp(3) without time zone[]", "character varying(7)[]"
    const size_t end = row->modifier == DECIMALS ? text.find(' ') : text.find('[');
    return text.insert(std::min(end, text.size()), inside);
}

pgt_type pgt_resolve(uint32_t type, int32_t modifier, const pgt_facts &facts)
{
    for (int i = 0; i < DOMAINS_MAX; i++) {
        const pgt_fact *fact = find_fact(type, facts);
        if (find_type(type) != nullptr || (fact != nullptr && fact->kind != 'd'))
            return {.type = type, .modifier = modifier, .known = true};
        if (fact == nullptr)
            break;
        type = fact->base;
        modifier = fact->modifier;
    }
    return {.type = type, .modifier = modifier};
}

std::vector<std::string> pgt_names(uint32_t type, const pgt_facts &facts)
{
    std::vector<std::string> names;
    for (int i = 0; i < DOMAINS_MAX; i++) {
        const type_row *row = find_type(type);
        const pgt_fact *fact = find_fact(type, facts);
        if (row != nullptr)
            names.insert(names.end(), {pgt_text(type, -1), row->name});
        else if (fact != nullptr)
            names.push_back(fact->name);
        if (row != nullptr || fact == nullptr || fact->kind != 'd')
            break;
        type = fact->base;
    }
    return names;
}

bool pgt_has_name(std::string_view name)
{
    return std::any_of(std::begin(types), std::end(types), [&](const type_row &row) {
        return name == row.name || name == pgt_text(row.oid, -1);
    });
}

static feed_meaning meaning_of(uint32_t type, const pgt_facts &facts)
{
    const uint32_t base = pgt_resolve(type, -1, facts).type;
    const type_row *row = find_type(base);
    return row != nullptr ? row->type.whole : kind_of(find_fact(base, facts)).meaning;
}

feed_type pgt_meaning(uint32_t type, const pgt_facts &facts)
{
    const uint32_t base = pgt_resolve(type, -1, facts).type;
    if (const type_row *row = find_type(base); row != nullptr)
        return row->type;
    const pgt_fact *fact = find_fact(base, facts);
    const bool list = fact != nullptr && fact->category == 'A';
    return {.whole = meaning_of(base, facts),
            .element = list ? meaning_of(fact->element, facts) : FEED_PLAIN};
}

static pgt_item make(char type, int32_t size, int32_t scale = 0)
{
    pgt_item made;
    made.item.type = static_cast<unsigned char>(type);
    made.item.size = size;
    made.item.item_aux = scale;
    return made;
}

// numeric(p,s): a packed decimal; a text where none is long enough.
static pgt_item make_numeric(int32_t modifier)
{
    const int32_t precision = precision_of(modifier);
    const int32_t scale = scale_of(modifier);
    if (scale >= 0 && scale <= precision && precision <= PACKED_DIGITS_MAX)
        return make('P', precision / 2 + 1, scale);
    // sign, digits, a zero before the point, the point
    return make('X', std::max(precision - std::min(scale, 0), scale) + 3);
}

// char(n) and varchar(n).  Most letters that are no ASCII take two bytes of UTF-8, none more
// than four; room for as many of the longest would mostly be blanks.
static pgt_item make_text(int64_t characters, fwu_encoding encoding)
{
    constexpr int64_t most = FWU_TEXT_SIZE_MAX;
    const bool bytes = encoding == FWU_LATIN1;
    const int64_t wanted = bytes ? characters : std::min(2 * characters + 2, 4 * characters);
    pgt_item made = make('X', static_cast<int32_t>(std::min(wanted, most)));
    made.length = bytes && characters <= most ? PGT_EXACT : PGT_COUNTED;
    return made;
}

static pgt_item make_bits(int32_t bits)
{
    pgt_item made = make('X', std::min(bits, FWU_TEXT_SIZE_MAX));
    made.length = bits <= FWU_TEXT_SIZE_MAX ? PGT_EXACT : PGT_DEFAULT;
    return made;
}

// Bytes behind "HH:MM:SS" or a longer form for so many decimals; -1 is six, the most.
static int32_t decimals_width(int32_t decimals)
{
    constexpr int32_t most = 6;
    return decimals == 0 ? 0 : 1 + (decimals < 0 || decimals > most ? most : decimals);
}

pgt_item pgt_item_of(uint32_t type, int32_t modifier, fwu_encoding encoding, const pgt_facts &facts)
{
    const pgt_type is = pgt_resolve(type, modifier, facts);
    const type_row *row = find_type(is.type);
    if (is.type == NUMERIC && is.modifier >= MODIFIER_HEADER)
        return make_numeric(is.modifier);
    if ((is.type == BPCHAR || is.type == VARCHAR) && is.modifier > MODIFIER_HEADER)
        return make_text(int64_t{is.modifier} - MODIFIER_HEADER, encoding);
    if ((is.type == BIT || is.type == VARBIT) && is.modifier > 0)
        return make_bits(is.modifier);
    if (row == nullptr) {
        pgt_item made = make('X', kind_of(find_fact(is.type, facts)).width);
        made.length = PGT_DEFAULT;
        return made;
    }
    const bool decimals = row->modifier == DECIMALS && row->length == PGT_EXACT;
    pgt_item made = make(row->letter, row->size + (decimals ? decimals_width(is.modifier) : 0));
    made.length = row->length;
    return made;
}
