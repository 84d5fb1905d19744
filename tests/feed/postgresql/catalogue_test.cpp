// What columns become when the configuration does not describe their table.
#include "feed/postgresql/catalogue.h"
#include "fwutil/fwutil.h"

#include <gtest/gtest.h>

static pgo_relation table_of(std::vector<pgo_column> columns)
{
    pgo_relation relation;
    relation.schema = "app";
    relation.name = "parts";
    relation.columns = std::move(columns);
    return relation;
}

static fwu_dataset made(const fwu_config &config, const pgo_relation &relation)
{
    fwu_dataset dataset;
    const outcome done = pgc_make_dataset(dataset, config, relation);
    EXPECT_TRUE(done) << done.text();
    return dataset;
}

static std::string error_of(const fwu_config &config, const pgo_relation &relation)
{
    fwu_dataset dataset;
    const outcome done = pgc_make_dataset(dataset, config, relation);
    return done ? "none" : done.text();
}

static fwu_config config_of(std::vector<fwu_column> columns = {})
{
    fwu_config config;
    config.path = "shop.cfg";
    config.columns = std::move(columns);
    return config;
}

// The modifier of numeric(precision,scale).
static int32_t numeric(int precision, int scale)
{
    return (precision << 16 | (scale & 0x7FF)) + 4;
}

TEST(Catalogue, TypesWithALengthOfTheirOwnBecomeItems)
{
    const struct {
        uint32_t type;
        int32_t modifier;
        char letter;
        int32_t size;
        int32_t scale;
    } rows[] = {
        {21, -1, 'I', 2, 0},              // smallint
        {23, -1, 'I', 4, 0},              // integer
        {20, -1, 'I', 8, 0},              // bigint
        {26, -1, 'K', 4, 0},              // oid
        {700, -1, 'E', 4, 0},             // real
        {701, -1, 'E', 8, 0},             // double precision
        {1700, numeric(1, 0), 'P', 1, 0}, // a digit and the sign in a byte
        {1700, numeric(2, 1), 'P', 2, 1},
        {1700, numeric(9, 2), 'P', 5, 2},
        {1700, numeric(10, 2), 'P', 6, 2},
        {1700, numeric(27, 27), 'P', 14, 27},
        {1700, numeric(28, 2), 'X', 31, 0}, // more digits than a packed decimal has
        {1700, numeric(3, 5), 'X', 8, 0},   // -0.00123
        {1700, numeric(3, -2), 'X', 8, 0},  // -12300 and room to spare
        {1042, 8, 'X', 4, 0},               // char(4)
        {1043, 44, 'X', 40, 0},             // varchar(40)
        {16, -1, 'X', 1, 0},                // boolean
        {18, -1, 'X', 1, 0},                // "char"
        {19, -1, 'X', 63, 0},               // name
        {1082, -1, 'X', 10, 0},             // date
        {1083, -1, 'X', 15, 0},             // 23:59:59.999999
        {1083, 0, 'X', 8, 0},               // time(0)
        {1083, INT32_MAX, 'X', 15, 0},      // no server's
        {1083, 3, 'X', 12, 0},              // 23:59:59.999
        {1266, -1, 'X', 24, 0},             // 23:59:59.999999+15:59:59
        {1266, 0, 'X', 17, 0},
        {1114, -1, 'X', 26, 0}, // 2026-03-09 08:18:01.261644
        {1114, 0, 'X', 19, 0},
        {1184, 3, 'X', 23, 0},
        {2950, -1, 'X', 36, 0}, // uuid
    };
    for (const auto &row : rows) {
        const fwu_dataset dataset = made(config_of(), table_of({{"c", row.type, row.modifier}}));
        ASSERT_EQ(dataset.layout.items.size(), 2U);
        const fwu_item item = {"C", row.letter, row.size, 1, row.scale};
        EXPECT_EQ(dataset.layout.items[0], item) << row.type << " " << row.modifier;
    }
}

TEST(Catalogue, NullMapStandsBehindTheColumns)
{
    const fwu_dataset dataset =
        made(config_of(), table_of({{"order_no", 23, -1}, {"qty", 21, -1}, {"unit", 1042, 7}}));
    ASSERT_EQ(dataset.layout.items.size(), 4U);
    EXPECT_EQ(dataset.null_map, 3);
    EXPECT_EQ(dataset.layout.items[0].name, "ORDER-NO");
    EXPECT_EQ(dataset.layout.items[3], (fwu_item{"NULL-MAP", 'X', 3, 1, 0}));
}

TEST(Catalogue, ConfigurationGivesWidthsAndNames)
{
    const fwu_config config = config_of({{"app.parts", "remarks", "", 200},
                                         {"app.parts", "a_name_of_18_chars", "SHORT", 0},
                                         {"app.parts", "no", "NUMBER", 12},
                                         {"app.other", "qty", "WRONG", 1}});
    const fwu_dataset dataset = made(config, table_of({{"remarks", 25, -1},
                                                       {"a_name_of_18_chars", 23, -1},
                                                       {"no", 20, -1},
                                                       {"qty", 21, -1}}));
    const fwu_item items[] = {{"REMARKS", 'X', 200, 1, 0},
                              {"SHORT", 'I', 4, 1, 0},
                              {"NUMBER", 'X', 12, 1, 0},
                              {"QTY", 'I', 2, 1, 0}};
    for (size_t i = 0; i < std::size(items); i++)
        EXPECT_EQ(dataset.layout.items[i], items[i]);
}

TEST(Catalogue, WhatCannotBecomeAnItemIsToldWithTheRemedy)
{
    const struct {
        pgo_column column;
        const char *error;
    } rows[] = {
        {{"note", 25, -1},
         "app.parts.note: values of type text have no greatest length that an item could have: put "
         "the line \"column app.parts.note width=N\" into shop.cfg"},
        {{"c", 1043, -1},
         "app.parts.c: values of type character varying have no greatest length that an item could "
         "have: put the line \"column app.parts.c width=N\" into shop.cfg"},
        {{"n", 1700, -1},
         "app.parts.n: values of type numeric have no greatest length that an item could have: put "
         "the line \"column app.parts.n width=N\" into shop.cfg"},
        {{"v", 1043, 4 + 32768},
         "app.parts.v: values of type character varying have no greatest length that an item could "
         "have: put the line \"column app.parts.v width=N\" into shop.cfg"},
        {{"m", 16390, -1},
         "app.parts.m: values of type number 16390 have no greatest length that an item could "
         "have: put the line \"column app.parts.m width=N\" into shop.cfg"},
        {{"a_name_of_18_chars", 23, -1},
         "app.parts.a_name_of_18_chars: A-NAME-OF-18-CHARS is longer than the 17 characters of an "
         "item name: put the line \"column app.parts.a_name_of_18_chars item=SHORTER-NAME\" into "
         "shop.cfg"},
        {{"gr\xC3\xB6\xC3\x9F"
          "e",
          23, -1},
         "app.parts.gr\xC3\xB6\xC3\x9F"
         "e: an item name has no blanks and no characters outside ASCII: "
         "put the line \"column app.parts.gr\xC3\xB6\xC3\x9F"
         "e item=OTHER-NAME\" into shop.cfg"},
        {{"NO", 23, -1},
         "app.parts.NO: there is another item NO in this dataset: put the line \"column "
         "app.parts.NO item=OTHER-NAME\" into shop.cfg"},
        {{"null_map", 23, -1},
         "app.parts.null_map: there is another item NULL-MAP in this dataset: put the line "
         "\"column app.parts.null_map item=OTHER-NAME\" into shop.cfg"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(error_of(config_of(), table_of({{"no", 23, -1}, row.column})), row.error);
    EXPECT_EQ(error_of(config_of(), table_of({})),
              "table app.parts has no columns: leave it out with the line skip-table app.parts");
}

TEST(Catalogue, TypesSayWhatCannotBeSeenFromTheValue)
{
    const struct {
        uint32_t type;
        feed_type expected;
    } cases[] = {
        {16, {FEED_BOOLEAN, FEED_BOOLEAN}},
        {1000, {FEED_PLAIN, FEED_BOOLEAN}},
        {1114, {FEED_TIMESTAMP, FEED_TIMESTAMP}},
        {1184, {FEED_TIMESTAMP, FEED_TIMESTAMP}},
        {1115, {FEED_TIMESTAMP, FEED_TIMESTAMP}},
        {1185, {FEED_TIMESTAMP, FEED_TIMESTAMP}},
        {25, {FEED_WORDS, FEED_WORDS}},
        {1009, {FEED_PLAIN, FEED_WORDS}},
        {19, {FEED_WORDS, FEED_WORDS}},
        {1043, {FEED_WORDS, FEED_WORDS}},
        {1015, {FEED_WORDS, FEED_WORDS}},
        {1042, {FEED_FILLED_WORDS, FEED_FILLED_WORDS}},
        {1014, {FEED_PLAIN, FEED_FILLED_WORDS}},
        {1700, {}},
        {1005, {}},
        {99999, {}},
    };
    for (const auto &row : cases)
        EXPECT_EQ(pgc_type(row.type), row.expected) << row.type;
}

TEST(Catalogue, TypesAreWrittenAsTheServerDoes)
{
    const struct {
        uint32_t type;
        int32_t modifier;
        const char *text;
    } cases[] = {
        {23, -1, "integer"},
        {16, -1, "boolean"},
        {18, -1, "\"char\""},
        {1700, -1, "numeric"},
        {1700, numeric(9, 2), "numeric(9,2)"},
        {1700, numeric(3, -2), "numeric(3,-2)"},
        {1700, numeric(2, 5), "numeric(2,5)"},
        {1700, numeric(1000, 1000), "numeric(1000,1000)"},
        {1231, -1, "numeric[]"},
        {1231, numeric(9, 0), "numeric(9,0)[]"},
        {1043, -1, "character varying"},
        {1043, 4 + 36, "character varying(36)"},
        {1015, 4 + 7, "character varying(7)[]"},
        {1042, -1, "bpchar"}, // of any length
        {1042, 4 + 1, "character(1)"},
        {1014, -1, "bpchar[]"},
        {1014, 4 + 3, "character(3)[]"},
        {1083, -1, "time without time zone"},
        {1083, 0, "time(0) without time zone"},
        {1266, 6, "time(6) with time zone"},
        {1114, 3, "timestamp(3) without time zone"},
        {1184, -1, "timestamp with time zone"},
        {1115, 3, "timestamp(3) without time zone[]"},
        {1185, -1, "timestamp with time zone[]"},
        {1009, -1, "text[]"},
        {1186, -1, "interval"},
        {1186, 2147418112, ""}, // interval(0): the server is to say
        {23, 5, ""},
        {16400, -1, ""},
        {0, -1, ""},
    };
    for (const auto &row : cases)
        EXPECT_EQ(pgc_type_text(row.type, row.modifier), row.text) << row.type;
}
