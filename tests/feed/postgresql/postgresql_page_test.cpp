// docs/postgresql.md against the code: what columns become, and the members of the state file.
#include "feed/names.h"
#include "feed/postgresql/state.h"
#include "feed/postgresql/types.h"
#include "fwutil/fwutil.h"
#include "tests/support/markdown.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>

#include <map>
#include <regex>
#include <set>

using testing::HasSubstr;

static const char PAGE[] = "docs/postgresql.md";

// The parts of a cell between commas with a blank behind them.
static std::vector<std::string> listed(const std::string &cell)
{
    static const std::regex comma(", ");
    return {std::sregex_token_iterator(cell.begin(), cell.end(), comma, -1), {}};
}

// The OID of a type by the page's name for it; 0: there is none.
static uint32_t oid_of(const std::string &name)
{
    static const std::map<std::string, std::string> long_names = {
        {"char(n)", "character"},
        {"varchar(n)", "character varying"},
        {"varchar", "character varying"},
        {"numeric(p,s)", "numeric"},
        {"time(p)", "time without time zone"},
        {"time(p) with time zone", "time with time zone"},
        {"timestamp(p)", "timestamp without time zone"},
        {"with time zone too", "timestamp with time zone"},
        {"char without length", "character"},
        {"numeric without precision", "numeric"},
        {"bit(n)", "bit"},
        {"bit varying(n)", "bit varying"},
    };
    const auto found = long_names.find(name);
    for (uint32_t oid = 1; oid < 10000; oid++) {
        const char *built_in = pgt_name(oid);
        if (built_in != nullptr && built_in == (found == long_names.end() ? name : found->second))
            return oid;
    }
    return 0;
}

// "P 5 scale=2" for a column of that type; "by default X 255" where that is no length of its own.
static std::string item_of(uint32_t oid, int32_t modifier, fwu_encoding encoding = FWU_LATIN1,
                           const pgt_facts &facts = {})
{
    const pgt_item made = pgt_item_of(oid, modifier, encoding, facts);
    return (made.length == PGT_DEFAULT ? "by default " : "") +
           std::string(1, static_cast<char>(made.item.type)) + " " +
           std::to_string(made.item.size) +
           (made.item.item_aux == 0 ? "" : " scale=" + std::to_string(made.item.item_aux));
}

// What a catalogue says of a type that the page has a word for.
static const std::map<std::string, pgt_fact> words = {
    {"other numbers", {.category = 'N'}},
    {"enums", {.kind = 'e', .category = 'E'}},
    {"ranges", {.kind = 'r', .category = 'R'}},
    {"arrays", {.category = 'A', .element = 23}},
    {"composite types", {.kind = 'c', .category = 'C'}},
    {"multiranges", {.kind = 'm', .category = 'R'}},
    {"all others", {.category = 'U'}},
};

// The modifier of numeric(precision,scale).
static int32_t numeric(int precision, int scale)
{
    return (precision << 16 | (scale & 0x7FF)) + 4;
}

static int number(const std::ssub_match &text)
{
    return std::stoi(text);
}

// Checks a row; false when it says something that nothing here checks.
static bool check(const std::string &columns, const std::string &item)
{
    static const std::regex fixed("[A-Z] [0-9]+(, [A-Z] [0-9]+)*(: .*)?");
    static const std::regex by_default("(by default X [0-9]+)([:,] .*)?");
    static const std::regex with_decimals(
        "X ([0-9]+) \\+ 1 \\+ p \\(X ([0-9]+) for p = 0; without p ([0-9]+)\\).*");
    static const std::regex digits("numeric\\(p,s\\) up to ([0-9]+) digits");
    std::smatch found;
    if (std::regex_match(item, fixed)) {
        const std::vector<std::string> names = listed(columns);
        const std::vector<std::string> items = listed(item.substr(0, item.find(':')));
        EXPECT_EQ(names.size(), items.size()) << columns;
        for (size_t i = 0; i < std::min(names.size(), items.size()); i++)
            EXPECT_EQ(item_of(oid_of(names[i]), -1), items[i]) << names[i];
        return true;
    }
    if (std::regex_match(item, found, with_decimals)) {
        for (const std::string &name : listed(columns)) {
            const uint32_t oid = oid_of(name);
            EXPECT_EQ(item_of(oid, 0), "X " + found[2].str()) << name;
            EXPECT_EQ(item_of(oid, -1), "X " + found[3].str()) << name;
            for (const int p : {1, 3, 6})
                EXPECT_EQ(item_of(oid, p), "X " + std::to_string(number(found[1]) + 1 + p)) << name;
        }
        return true;
    }
    if (std::regex_match(columns, found, digits)) {
        EXPECT_THAT(item, HasSubstr("P of p / 2 + 1 bytes (rounded down), scale s"));
        for (int p = 1; p <= number(found[1]); p++)
            EXPECT_EQ(item_of(oid_of("numeric"), numeric(p, 1)),
                      "P " + std::to_string(p / 2 + 1) + " scale=1");
        EXPECT_THAT(item_of(oid_of("numeric"), numeric(number(found[1]) + 1, 1)),
                    testing::StartsWith("X "));
        return true;
    }
    if (columns == "numeric(p,s) of more digits, of negative scale, or with s > p") {
        EXPECT_THAT(item, testing::StartsWith("X, "));
        for (const int32_t modifier : {numeric(40, 2), numeric(3, -2), numeric(3, 5)})
            EXPECT_THAT(item_of(oid_of("numeric"), modifier), testing::StartsWith("X "));
        return true;
    }
    if (item == "X n") {
        for (const std::string &name : listed(columns))
            EXPECT_EQ(item_of(oid_of(name), 40), "X 40") << name;
        return true;
    }
    if (item == "X n in ISO 8859-1; in UTF-8 X 2n + 2, but X 4 for n = 1; at most X 32767") {
        for (const std::string &name : listed(columns)) {
            EXPECT_EQ(item_of(oid_of(name), 4 + 40), "X 40") << name;
            EXPECT_EQ(item_of(oid_of(name), 4 + 40, FWU_UTF8), "X 82") << name;
            EXPECT_EQ(item_of(oid_of(name), 4 + 1, FWU_UTF8), "X 4") << name;
            for (const fwu_encoding encoding : {FWU_LATIN1, FWU_UTF8})
                EXPECT_EQ(item_of(oid_of(name), 4 + 40000, encoding), "X 32767") << name;
        }
        return true;
    }
    if (columns == "a domain") {
        const pgt_facts facts = {{100, {.kind = 'd', .base = 1043, .modifier = 4 + 40}}};
        EXPECT_EQ(item_of(100, -1, FWU_LATIN1, facts), "X 40");
        return true;
    }
    if (std::regex_match(item, found, by_default)) {
        for (const std::string &name : listed(columns)) {
            const auto word = words.find(name);
            const uint32_t oid = word == words.end() ? oid_of(name) : 100;
            EXPECT_NE(oid, 0U) << name;
            pgt_facts facts;
            if (word != words.end())
                facts[oid] = word->second;
            for (const fwu_encoding encoding : {FWU_LATIN1, FWU_UTF8})
                EXPECT_EQ(item_of(oid, -1, encoding, facts), found[1]) << name;
        }
        return true;
    }
    return false;
}

TEST(PostgresqlPage, ColumnsBecomeTheItemsOfTheTable)
{
    for (const auto &row : md_find_table(md_page(PAGE), "column").rows)
        EXPECT_TRUE(check(row[0], row[1])) << row[0] << ": " << row[1];
}

TEST(PostgresqlPage, AShortenedNameIsWhatTheRuleGives)
{
    std::string dbname;
    std::string dsetname;
    feed_names names;
    std::vector<std::string> notes;
    feed_names_table(dbname, dsetname, names, {}, "sales", "order_lines_archive", notes);
    EXPECT_THAT(md_page(PAGE), HasSubstr("`sales.order_lines_archive` becomes `" + dsetname + "`"));
}

TEST(PostgresqlPage, MembersAreThoseOfTheStateFile)
{
    const tempdir dir;
    pgb_state state;
    state.path = dir.file("state.json");
    fwu_config config;
    pgb_relations relations;
    relations.tables.config = &config;
    pga_put(relations.aside, "sales", "orders", {.standing = PGA_ASIDE});
    pga_put(relations.aside, "sales", "lines", {.standing = PGA_TAKING});
    state.relations = &relations;
    const std::map<std::string, std::string> untold = {{"a", "b"}};
    state.untold = &untold;
    const fwu_retained retained;
    state.retained = &retained;
    ASSERT_TRUE(pgb_state_write(state));
    const std::string text = read_file(state.path);
    static const std::regex member("\"([a-z_]+)\":");
    std::set<std::string> written;
    for (std::sregex_iterator at(text.begin(), text.end(), member), end; at != end; ++at)
        written.insert((*at)[1]);
    std::set<std::string> shown;
    for (const auto &row : md_find_table(md_page(PAGE), "member").rows) {
        for (const std::string &name : md_code(row[0]))
            EXPECT_TRUE(shown.insert(name).second) << name;
    }
    EXPECT_EQ(shown, written);
}
