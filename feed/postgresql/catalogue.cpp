// The tables behind the rule: a built-in type's name by its number, and the item that
// holds its values.
#include "feed/postgresql/catalogue.h"

#include "feed/text.h"
#include "fwutil/fwu_source_name.h"

#include <algorithm>
#include <cstring>

// OIDs of the built-in types, which are the same on every server.
enum pg_type : uint32_t {
    BOOL = 16,
    CHAR_1 = 18,
    NAME = 19,
    INT8 = 20,
    INT2 = 21,
    INT4 = 23,
    OID = 26,
    FLOAT4 = 700,
    FLOAT8 = 701,
    BPCHAR = 1042,
    VARCHAR = 1043,
    DATE = 1082,
    TIME = 1083,
    TIMESTAMP = 1114,
    TIMESTAMPTZ = 1184,
    TIMETZ = 1266,
    NUMERIC = 1700,
    UUID = 2950,
};

constexpr int32_t MODIFIER_HEADER = 4; // added to lengths and precisions in a type modifier
constexpr int32_t PACKED_DIGITS_MAX = fwu_item_digits('P', FWU_PACKED_SIZE_MAX);

// What a modifier says of a type, and so where it stands in its name.
enum modifier_kind { NO_MODIFIER, LENGTH, DIGITS, DECIMALS };

struct type_row {
    uint32_t oid;
    const char *name;
    feed_type type = {};
    modifier_kind modifier = NO_MODIFIER;
};

static constexpr type_row types[] = {
    {BOOL, "boolean", {FEED_BOOLEAN, FEED_BOOLEAN}},
    {17, "bytea"},
    {CHAR_1, "\"char\""},
    {NAME, "name", {FEED_WORDS, FEED_WORDS}},
    {INT8, "bigint"},
    {INT2, "smallint"},
    {INT4, "integer"},
    {25, "text", {FEED_WORDS, FEED_WORDS}},
    {OID, "oid"},
    {114, "json"},
    {142, "xml"},
    {FLOAT4, "real"},
    {FLOAT8, "double precision"},
    {1000, "boolean[]", {FEED_PLAIN, FEED_BOOLEAN}},
    {1005, "smallint[]"},
    {1007, "integer[]"},
    {1009, "text[]", {FEED_PLAIN, FEED_WORDS}},
    {1014, "character[]", {FEED_PLAIN, FEED_FILLED_WORDS}, LENGTH},
    {1015, "character varying[]", {FEED_WORDS, FEED_WORDS}, LENGTH},
    {1016, "bigint[]"},
    {1021, "real[]"},
    {1022, "double precision[]"},
    {BPCHAR, "character", {FEED_FILLED_WORDS, FEED_FILLED_WORDS}, LENGTH},
    {VARCHAR, "character varying", {FEED_WORDS, FEED_WORDS}, LENGTH},
    {DATE, "date"},
    {TIME, "time without time zone", {}, DECIMALS},
    {TIMESTAMP, "timestamp without time zone", {FEED_TIMESTAMP, FEED_TIMESTAMP}, DECIMALS},
    {1115, "timestamp without time zone[]", {FEED_TIMESTAMP, FEED_TIMESTAMP}, DECIMALS},
    {1182, "date[]"},
    {TIMESTAMPTZ, "timestamp with time zone", {FEED_TIMESTAMP, FEED_TIMESTAMP}, DECIMALS},
    {1185, "timestamp with time zone[]", {FEED_TIMESTAMP, FEED_TIMESTAMP}, DECIMALS},
    {1186, "interval"},
    {1231, "numeric[]", {}, DIGITS},
    {TIMETZ, "time with time zone", {}, DECIMALS},
    {NUMERIC, "numeric", {}, DIGITS},
    {UUID, "uuid"},
    {2951, "uuid[]"},
    {3802, "jsonb"},
};

static const type_row *find_type(uint32_t type)
{
    for (const type_row &row : types)
        if (row.oid == type)
            return &row;
    return nullptr;
}

const char *pgc_type_name(uint32_t type)
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

std::string pgc_type_text(uint32_t type, int32_t modifier)
{
    const type_row *row = find_type(type);
    if (row == nullptr || (row->modifier == NO_MODIFIER && modifier >= 0))
        return "";
    std::string text = row->name;
    const std::string inside = modifier_text(row->modifier, modifier);
    const bool blank_filled = row->type.element == FEED_FILLED_WORDS;
    if (inside.empty() && blank_filled) // "character" is one of length 1
        return "bpchar" + text.substr(strlen("character"));
    // "timestamp(3) without time zone[]", "character varying(7)[]"
    const size_t end = row->modifier == DECIMALS ? text.find(' ') : text.find('[');
    return text.insert(std::min(end, text.size()), inside);
}

feed_type pgc_type(uint32_t type)
{
    const type_row *row = find_type(type);
    return row == nullptr ? feed_type() : row->type;
}

static void make(fwu_item &item, char type, int32_t size, int32_t scale = 0)
{
    item.type = static_cast<unsigned char>(type);
    item.size = size;
    item.item_aux = scale;
}

// numeric(p,s): a packed decimal; a text where none is long enough.
static void make_numeric(fwu_item &item, int32_t modifier)
{
    const int32_t precision = precision_of(modifier);
    const int32_t scale = scale_of(modifier);
    if (scale >= 0 && scale <= precision && precision <= PACKED_DIGITS_MAX)
        make(item, 'P', precision / 2 + 1, scale);
    else // sign, digits, a zero before the point, the point
        make(item, 'X', std::max(precision - std::min(scale, 0), scale) + 3);
}

// Bytes behind "HH:MM:SS" or a longer form for so many decimals; -1 is six, the most.
static int32_t decimals_width(int32_t decimals)
{
    constexpr int32_t most = 6;
    return decimals == 0 ? 0 : 1 + (decimals < 0 || decimals > most ? most : decimals);
}

// Gives the item its type and size.  False: the type has no length of its own.
static bool make_item(fwu_item &item, const pgo_column &column)
{
    const int32_t modifier = column.modifier;
    switch (column.type) {
    case INT2:
        make(item, 'I', 2);
        return true;
    case INT4:
        make(item, 'I', 4);
        return true;
    case INT8:
        make(item, 'I', 8);
        return true;
    case OID:
        make(item, 'K', 4);
        return true;
    case FLOAT4:
        make(item, 'E', 4);
        return true;
    case FLOAT8:
        make(item, 'E', 8);
        return true;
    case NUMERIC:
        if (modifier < MODIFIER_HEADER)
            return false;
        make_numeric(item, modifier);
        return true;
    case BPCHAR:
    case VARCHAR:
        if (modifier <= MODIFIER_HEADER)
            return false;
        make(item, 'X', modifier - MODIFIER_HEADER);
        return true;
    case BOOL:
    case CHAR_1:
        make(item, 'X', 1);
        return true;
    case NAME:
        make(item, 'X', 63);
        return true;
    case DATE:
        make(item, 'X', 10);
        return true;
    case TIME:
        make(item, 'X', 8 + decimals_width(modifier));
        return true;
    case TIMETZ: // "+15:59:59" behind the time
        make(item, 'X', 17 + decimals_width(modifier));
        return true;
    case TIMESTAMP:
    case TIMESTAMPTZ:
        make(item, 'X', 19 + decimals_width(modifier));
        return true;
    case UUID:
        make(item, 'X', 36);
        return true;
    default:
        return false;
    }
}

static const fwu_column *find_column(const fwu_config &config, const std::string &table,
                                     const std::string &column)
{
    for (const fwu_column &row : config.columns)
        if (row.table == table && row.column == column)
            return &row;
    return nullptr;
}

static bool name_is_free(const fwu_layout &layout, const std::string &name)
{
    return std::none_of(layout.items.begin(), layout.items.end(),
                        [&](const fwu_item &item) { return item.name == name; });
}

static bool is_plain(const std::string &name)
{
    return std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c <= '~'; });
}

static constexpr char NULL_MAP[] = "NULL-MAP";

static outcome add_item(fwu_dataset &dataset, const fwu_config &config,
                        const pgo_relation &relation, const std::string &table,
                        const pgo_column &column)
{
    const std::string where = fwu_source_name(relation.schema, relation.name, column.name);
    const fwu_column *said = find_column(config, table, column.name);
    fwu_item item;
    item.name = said != nullptr && !said->item.empty() ? said->item : feed_name(column.name);
    if (item.name.size() > FWU_ITEM_NAME_MAX)
        return outcome_bad(where + ": " + item.name + " is longer than the " +
                           std::to_string(FWU_ITEM_NAME_MAX) +
                           " characters of an item name: put the line \"column " + where +
                           " item=SHORTER-NAME\" into " + config.path);
    if (!is_plain(item.name))
        return outcome_bad(where +
                           ": an item name has no blanks and no characters outside ASCII: put the "
                           "line \"column " +
                           where + " item=OTHER-NAME\" into " + config.path);
    if (item.name == NULL_MAP || !name_is_free(dataset.layout, item.name))
        return outcome_bad(where + ": there is another item " + item.name +
                           " in this dataset: put the line \"column " + where +
                           " item=OTHER-NAME\" into " + config.path);
    if (said != nullptr && said->width != 0) {
        make(item, 'X', said->width);
    } else if (!make_item(item, column) || item.size > FWU_TEXT_SIZE_MAX) {
        const char *type = pgc_type_name(column.type);
        return outcome_bad(
            where + ": values of type " +
            (type != nullptr ? std::string(type) : "number " + std::to_string(column.type)) +
            " have no greatest length that an item could have: put the line \"column " + where +
            " width=N\" into " + config.path);
    }
    dataset.layout.items.push_back(std::move(item));
    return {};
}

outcome pgc_make_dataset(fwu_dataset &dataset, const fwu_config &config,
                         const pgo_relation &relation)
{
    const std::string table = fwu_source_name(relation.schema, relation.name);
    dataset.layout.items.clear();
    dataset.null_map = -1;
    for (const pgo_column &column : relation.columns)
        if (outcome added = add_item(dataset, config, relation, table, column); !added)
            return added;
    if (dataset.layout.items.empty())
        return outcome_bad("table " + table +
                           " has no columns: leave it out with the line skip-table " + table);
    fwu_item map;
    map.name = NULL_MAP;
    make(map, 'X', static_cast<int32_t>(dataset.layout.items.size()));
    dataset.null_map = static_cast<int>(dataset.layout.items.size());
    dataset.layout.items.push_back(std::move(map));
    return {};
}
