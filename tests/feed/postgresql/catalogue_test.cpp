// What columns become when the configuration does not describe their table.
#include "feed/postgresql/catalogue.h"
#include "fwutil/fwutil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

using testing::MatchesRegex;

static pgo_relation table_of(std::vector<pgo_column> columns)
{
    pgo_relation relation;
    relation.schema = "app";
    relation.name = "parts";
    relation.columns = std::move(columns);
    return relation;
}

struct made_table {
    fwu_dataset dataset;
    std::vector<pgc_choice> choices;
    feed_names names;
    std::vector<std::string> notes;
};

static made_table made(const fwu_config &config, const pgo_relation &relation,
                       const pgf_facts &facts = {}, fwu_encoding encoding = FWU_LATIN1)
{
    made_table made;
    const pgc_rules rules = {.config = config,
                             .facts = facts,
                             .names = made.names,
                             .notes = made.notes,
                             .encoding = encoding};
    const outcome done = pgc_make_dataset(made.dataset, made.choices, rules, relation);
    EXPECT_TRUE(done) << done.text();
    return made;
}

static std::string error_of(const fwu_config &config, const pgo_relation &relation)
{
    made_table made;
    const pgf_facts facts;
    const pgc_rules rules = {
        .config = config, .facts = facts, .names = made.names, .notes = made.notes};
    const outcome done = pgc_make_dataset(made.dataset, made.choices, rules, relation);
    return done ? "none" : done.text();
}

static fwu_config config_of(std::vector<fwu_column> columns = {})
{
    fwu_config config;
    config.path = "shop.cfg";
    config.columns = std::move(columns);
    return config;
}

TEST(Catalogue, NullMapStandsBehindTheColumns)
{
    const fwu_dataset dataset =
        made(config_of(), table_of({{"order_no", 23, -1}, {"qty", 21, -1}, {"unit", 1042, 7}}))
            .dataset;
    ASSERT_EQ(dataset.layout.items.size(), 4U);
    EXPECT_EQ(dataset.null_map, 3);
    EXPECT_EQ(dataset.layout.items[0].name, "ORDER-NO");
    EXPECT_EQ(dataset.layout.items[3], (fwu_item{"NULL-MAP", 'X', 3, 1, 0}));
}

TEST(Catalogue, ConfigurationGivesWidthsAndNames)
{
    const fwu_config config = config_of({{"app.other", "qty", "WRONG", 1},
                                         {"app.parts", "remarks", "", 200},
                                         {"app.parts", "a_name_of_18_chars", "SHORT", 0},
                                         {"app.parts", "no", "NUMBER", 12}});
    const fwu_dataset dataset = made(config, table_of({{"remarks", 25, -1},
                                                       {"a_name_of_18_chars", 23, -1},
                                                       {"no", 20, -1},
                                                       {"qty", 21, -1}}))
                                    .dataset;
    const fwu_item items[] = {{"REMARKS", 'X', 200, 1, 0},
                              {"SHORT", 'I', 4, 1, 0},
                              {"NUMBER", 'X', 12, 1, 0},
                              {"QTY", 'I', 2, 1, 0}};
    for (size_t i = 0; i < std::size(items); i++)
        EXPECT_EQ(dataset.layout.items[i], items[i]);
}

TEST(Catalogue, NamesOfTheConfigurationThatCannotBeAreToldWithTheRemedy)
{
    const struct {
        std::vector<fwu_column> said;
        const char *error;
    } rows[] = {
        {{{"app.parts", "a", "SAME"}, {"app.parts", "b.c", "SAME"}},
         "app.parts.\"b.c\": there is another item SAME in this dataset: give the column another "
         "one in its line of shop.cfg"},
        {{{"app.parts", "b.c", "NULL-MAP"}},
         "app.parts.\"b.c\": there is another item NULL-MAP in this dataset: give the column "
         "another one in its line of shop.cfg"},
        {{{"app.parts", "a", "B-C"}}, "none"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(error_of(config_of(row.said), table_of({{"a", 23, -1}, {"b.c", 23, -1}})),
                  row.error);
    EXPECT_EQ(error_of(config_of(), table_of({})),
              "table app.parts has no columns: leave it out with the line skip-table app.parts");
}

TEST(Catalogue, ColumnsWithoutANameOfTheirOwnGetOne)
{
    // The configuration's names go first, wherever their columns stand.
    const fwu_config config = config_of({{"app.parts", "z", "NO", 0}});
    const made_table table = made(config, table_of({{"no", 23, -1},
                                                    {"NO", 23, -1},
                                                    {"null_map", 23, -1},
                                                    {"a_name_of_18_chars", 23, -1},
                                                    {"z", 23, -1}}));
    const std::vector<fwu_item> &items = table.dataset.layout.items;
    ASSERT_EQ(items.size(), 6U);
    std::set<std::string> names;
    for (const fwu_item &item : items)
        EXPECT_TRUE(names.insert(item.name).second) << item.name;
    EXPECT_THAT(items[0].name, MatchesRegex("NO-[0-9A-V]{5}"));
    EXPECT_THAT(items[1].name, MatchesRegex("NO-[0-9A-V]{5}"));
    EXPECT_THAT(items[2].name, MatchesRegex("NULL-MAP-[0-9A-V]{5}"));
    EXPECT_THAT(items[3].name, MatchesRegex("A-NAME-OF-1-[0-9A-V]{5}"));
    EXPECT_EQ(items[4].name, "NO");
    EXPECT_EQ(items[5].name, "NULL-MAP");
    EXPECT_EQ(table.notes.size(), 4U);
    EXPECT_EQ(table.names.items.size(), 4U) << "to be kept";
}

// "NOTE X 1000: default of text; ..."
static std::string chosen(const made_table &made)
{
    std::string text;
    for (size_t i = 0; i < made.choices.size(); i++) {
        const pgc_choice &choice = made.choices[i];
        const fwu_item &item = made.dataset.layout.items[i];
        EXPECT_EQ(choice.item, item.name);
        EXPECT_EQ(choice.width, item.size);
        EXPECT_EQ(choice.shrunk, choice.width < choice.wanted);
        text += (i == 0 ? "" : "; ") + choice.column + " " + choice.type + ": " + item.name + " " +
                static_cast<char>(item.type) + " " + std::to_string(item.size) + ", " + choice.why +
                (choice.bounded ? ", bounded" : "") + (choice.shrunk ? ", shrunk" : "");
    }
    return text;
}

TEST(Catalogue, AChoiceSaysWhatGaveTheWidth)
{
    pgf_facts facts;
    facts.kinds[16400] = {.name = "public.mood", .kind = 'e', .category = 'E'};
    facts.kinds[16401] = {
        .name = "public.price", .kind = 'd', .category = 'N', .base = 1700, .modifier = 589830};
    facts.types = {{{16400, -1}, "public.mood"}, {{16401, -1}, "public.price"}};
    const fwu_config config = config_of({{"app.parts", "remarks", "", 200}});
    const made_table table = made(config,
                                  table_of({{"id", 23, -1},
                                            {"remarks", 25, -1},
                                            {"body", 25, -1},
                                            {"code", 1043, 12},
                                            {"mood", 16400, -1},
                                            {"price", 16401, -1},
                                            {"gone", 16402, -1}}),
                                  facts, FWU_UTF8);
    EXPECT_EQ(chosen(table), "id integer: ID I 4, its type, bounded; "
                             "remarks text: REMARKS X 200, width= in shop.cfg; "
                             "body text: BODY X 1000, default of text; "
                             "code character varying(8): CODE X 18, room for its characters; "
                             "mood public.mood: MOOD X 63, default of public.mood; "
                             "price public.price: PRICE P 5, its type, bounded; "
                             "gone : GONE X 255, default of types that are not known");
}

// The widths of columns of one table, "4 1000".
static std::string widths(const made_table &made)
{
    std::string text;
    for (const pgc_choice &choice : made.choices)
        text += (text.empty() ? "" : " ") + std::to_string(choice.width);
    return text;
}

TEST(Catalogue, ADefaultWidthIsThatOfTheNearestName)
{
    pgf_facts facts;
    facts.kinds[16400] = {.name = "public.note", .kind = 'd', .category = 'S', .base = 25};
    facts.kinds[16401] = {.name = "public.memo", .kind = 'd', .category = 'S', .base = 25};
    const pgo_relation table = table_of({{"note", 16400, -1},
                                         {"memo", 16401, -1},
                                         {"t", 25, -1},
                                         {"v", 1043, -1},
                                         {"c", 1042, -1},
                                         {"v7", 1043, 11},
                                         {"n", 1700, -1},
                                         {"i", 23, -1}});
    fwu_config config = config_of({{"app.parts", "v", "", 5}});
    config.default_widths = {{"text", 300}, {"public.note", 200}, {"character", 70}};
    EXPECT_EQ(chosen(made(config, table, facts)),
              "note : NOTE X 200, default-width of public.note in shop.cfg; "
              "memo : MEMO X 300, default-width of text in shop.cfg; "
              "t text: T X 300, default-width of text in shop.cfg; "
              "v character varying: V X 5, width= in shop.cfg; "
              "c bpchar: C X 70, default-width of character in shop.cfg; "
              "v7 character varying(7): V7 X 7, its type, bounded; "
              "n numeric: N X 40, default of numeric; "
              "i integer: I I 4, its type, bounded");
    config.default_widths = {{"", 20}, {"text", 300}, {"bpchar", 30}};
    EXPECT_EQ(widths(made(config, table, facts)), "300 300 300 5 30 7 20 4");
    // One width for all is a default, too: it shrinks.
    config.default_widths = {{"", 32767}};
    EXPECT_EQ(widths(made(config, table, facts)), "3255 3255 3255 5 3255 7 3255 4");
}

static pgo_relation table_of_texts(size_t texts, pgo_column last)
{
    std::vector<pgo_column> columns;
    for (size_t i = 0; i < texts; i++)
        columns.push_back({"t" + std::to_string(i), 25, -1});
    columns.push_back(std::move(last));
    return table_of(std::move(columns));
}

TEST(Catalogue, WidthsThatNobodyGaveShrinkUntilTheRecordFits)
{
    const struct {
        size_t texts;
        pgo_column last;
        int32_t width;      // of the texts
        int32_t last_width; // of the last column
        int32_t length;     // of the image
    } rows[] = {
        // 16 * 1000 + 4 and a null map of 17 fit
        {16, {"n", 23, -1}, 1000, 4, 16021},
        // 17 * 1000 + 4 + 18 do not: (16300 - 22) / 17 is 957.5
        {17, {"n", 23, -1}, 957, 4, 16291},
        // a width that is below the cap stays: 255 of a varchar
        {17, {"v", 1043, -1}, 942, 255, 16287},
        // exact types never shrink: numeric(1000,2) is 1003 digits, sign and point
        {40, {"n", 1700, (1000 << 16 | 2) + 4}, 381, 1003, 16284},
        // the greatest number of columns that a table can have: (16300 - 1600 - 4) / 1599
        {1599, {"n", 23, -1}, 9, 4, 15995},
        // a given width, too: (16300 - 3 - 16000) / 2
        {2, {"given", 25, -1}, 148, 16000, 16299},
        // ... and where it alone is too long, the others keep theirs
        {2, {"wide", 25, -1}, 1000, 16290, 18293},
    };
    const fwu_config config =
        config_of({{"app.parts", "given", "", 16000}, {"app.parts", "wide", "", 16290}});
    for (const auto &row : rows) {
        const made_table table = made(config, table_of_texts(row.texts, row.last));
        SCOPED_TRACE(std::to_string(row.texts) + " " + row.last.name);
        EXPECT_EQ(table.choices[0].width, row.width);
        EXPECT_EQ(table.choices[0].wanted, 1000);
        EXPECT_EQ(table.choices.back().width, row.last_width);
        EXPECT_EQ(fwu_layout_image_length(table.dataset.layout), row.length);
        chosen(table);
    }
}

TEST(Catalogue, CountedTextsShrinkWhereTheirCharactersMayTakeSeveralBytes)
{
    // 2 * 8000 + 2 bytes of UTF-8, twice
    const pgo_relation table = table_of({{"a", 1043, 8004}, {"b", 1042, 8004}, {"c", 1043, 24}});
    EXPECT_EQ(widths(made(config_of(), table, {}, FWU_UTF8)), "8127 8127 42");
    // Each character is a byte: it is as long as its type says.
    EXPECT_EQ(widths(made(config_of(), table)), "8000 8000 20");
    const pgo_relation longer = table_of({{"a", 1043, 20004}, {"b", 25, -1}});
    EXPECT_EQ(widths(made(config_of(), longer)), "20000 1000");
    EXPECT_EQ(widths(made(config_of(), longer, {}, FWU_UTF8)), "15298 1000");
}
