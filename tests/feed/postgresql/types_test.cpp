// Types of a server: their names, what their values mean, the items that hold them.
#include "feed/postgresql/types.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

// The modifier of numeric(precision,scale).
static int32_t numeric(int precision, int scale)
{
    return (precision << 16 | (scale & 0x7FF)) + 4;
}

// What a catalogue says of types of its users.
static pgt_facts users()
{
    return {
        {100, {.name = "public.mood", .kind = 'e', .category = 'E'}},
        {101, {.name = "public.mood[]", .category = 'A', .element = 100}},
        {102,
         {.name = "public.price",
          .kind = 'd',
          .category = 'N',
          .base = 1700,
          .modifier = numeric(9, 2)}},
        {103, {.name = "public.fee", .kind = 'd', .category = 'N', .base = 102}},
        {104, {.name = "public.place", .kind = 'c', .category = 'C'}},
        {105, {.name = "public.span", .kind = 'r', .category = 'R'}},
        {106, {.name = "public.spans", .kind = 'm', .category = 'R'}},
        {107, {.name = "public.citext", .category = 'S'}},
        {108, {.name = "public.hstore", .category = 'U'}},
        {109,
         {.name = "public.code", .kind = 'd', .category = 'S', .base = 1043, .modifier = 4 + 7}},
        {110, {.name = "public.seen", .kind = 'd', .category = 'D', .base = 1184, .modifier = 3}},
        {111, {.name = "public.yes", .kind = 'd', .category = 'B', .base = 16}},
        {112, {.name = "public.yes[]", .category = 'A', .element = 111}},
        {113, {.name = "public.note", .kind = 'd', .category = 'S', .base = 25}},
        {214, {.name = "public.moods", .kind = 'd', .category = 'A', .base = 101}},
        {115, {.name = "public.lost", .kind = 'd', .category = 'U', .base = 999}},
        {116, {.name = "public.turn", .kind = 'd', .category = 'U', .base = 116}},
        {117, {.name = "public.lap", .category = 'T'}},
        {118, {.name = "public.spot", .category = 'G'}},
        {119, {.name = "public.big", .category = 'N'}},
        {120, {.name = "public.day", .category = 'D'}},
        {121, {.name = "public.net", .category = 'I'}},
        {122, {.name = "public.set", .category = 'V'}},
        {123, {.name = "public.tri", .category = 'B'}},
        {124, {.name = "public.turns[]", .category = 'A', .element = 124}},
    };
}

static std::string item_of(uint32_t type, int32_t modifier, fwu_encoding encoding = FWU_LATIN1)
{
    static constexpr const char *lengths[] = {"", " counted", " default"};
    const pgt_item made = pgt_item_of(type, modifier, encoding, users());
    EXPECT_EQ(made.item.count, 1);
    return static_cast<char>(made.item.type) + (" " + std::to_string(made.item.size)) +
           (made.item.item_aux == 0 ? "" : "." + std::to_string(made.item.item_aux)) +
           lengths[made.length];
}

TEST(Types, HaveAnItem)
{
    const struct {
        uint32_t type;
        int32_t modifier;
        const char *item;
    } rows[] = {
        {21, -1, "I 2"},              // smallint
        {23, -1, "I 4"},              // integer
        {20, -1, "I 8"},              // bigint
        {26, -1, "K 4"},              // oid
        {700, -1, "E 4"},             // real
        {701, -1, "E 8"},             // double precision
        {1700, numeric(1, 0), "P 1"}, // a digit and the sign in a byte
        {1700, numeric(2, 1), "P 2.1"},
        {1700, numeric(9, 2), "P 5.2"},
        {1700, numeric(10, 2), "P 6.2"},
        {1700, numeric(27, 27), "P 14.27"},
        {1700, numeric(28, 2), "X 31"}, // more digits than a packed decimal has
        {1700, numeric(3, 5), "X 8"},   // -0.00123
        {1700, numeric(3, -2), "X 8"},  // -12300 and room to spare
        {1700, numeric(1000, -1000), "X 2003"},
        {1700, -1, "X 40 default"},
        {1042, 8, "X 4"},            // char(4)
        {1042, -1, "X 255 default"}, // bpchar
        {1043, 44, "X 40"},          // varchar(40)
        {1043, 4 + 32767, "X 32767"},
        {1043, 4 + 32768, "X 32767 counted"},
        {1043, INT32_MAX, "X 32767 counted"}, // no server's
        {1043, -1, "X 255 default"},
        {1043, 4, "X 255 default"}, // no server's
        {25, -1, "X 1000 default"},
        {114, -1, "X 1000 default"},
        {3802, -1, "X 1000 default"},
        {142, -1, "X 1000 default"},
        {17, -1, "X 512 default"},
        {16, -1, "X 1"},           // boolean
        {18, -1, "X 1"},           // "char"
        {19, -1, "X 63"},          // name
        {1082, -1, "X 10"},        // date
        {1083, -1, "X 15"},        // 23:59:59.999999
        {1083, 0, "X 8"},          // time(0)
        {1083, INT32_MAX, "X 15"}, // no server's
        {1083, 3, "X 12"},         // 23:59:59.999
        {1266, -1, "X 24"},        // 23:59:59.999999+15:59:59
        {1266, 0, "X 17"},
        {1114, -1, "X 26"}, // 2026-03-09 08:18:01.261644
        {1114, 0, "X 19"},
        {1184, 3, "X 23"},
        {1115, 3, "X 255 default"},
        {1186, -1, "X 67"},         // interval
        {1186, 2147418112, "X 67"}, // interval(0)
        {2950, -1, "X 36"},         // uuid
        {1560, 1, "X 1"},           // bit
        {1560, 8, "X 8"},
        {1562, 40000, "X 32767 default"},
        {1562, -1, "X 255 default"},
        {869, -1, "X 43"},
        {1007, -1, "X 255 default"}, // integer[]
        {100, -1, "X 63 default"},   // enum
        {101, -1, "X 255 default"},
        {102, -1, "P 5.2"},
        {103, -1, "P 5.2"},
        {104, -1, "X 255 default"},
        {105, -1, "X 80 default"},
        {106, -1, "X 255 default"},
        {107, -1, "X 255 default"},
        {109, -1, "X 7"},
        {110, -1, "X 23"},
        {111, -1, "X 1"},
        {113, -1, "X 1000 default"},
        {214, -1, "X 255 default"},
        {117, -1, "X 80 default"},
        {118, -1, "X 255 default"},
        {119, -1, "X 40 default"},
        {999, -1, "X 255 default"}, // not known
        {999, 7, "X 255 default"},
        {115, -1, "X 255 default"},
        {116, -1, "X 255 default"}, // no server's
    };
    for (const auto &row : rows)
        EXPECT_EQ(item_of(row.type, row.modifier), row.item) << row.type << " " << row.modifier;
}

TEST(Types, CountedTextsGetRoomForTheirBytes)
{
    const struct {
        int32_t characters;
        const char *item;
    } rows[] = {
        {1, "X 4 counted"},         {2, "X 6 counted"},         {40, "X 82 counted"},
        {16382, "X 32766 counted"}, {16383, "X 32767 counted"}, {10485760, "X 32767 counted"},
    };
    for (const uint32_t type : {1042U, 1043U})
        for (const auto &row : rows)
            EXPECT_EQ(item_of(type, 4 + row.characters, FWU_UTF8), row.item) << row.characters;
    EXPECT_EQ(item_of(109, -1, FWU_UTF8), "X 16 counted") << "a domain over varchar(7)";
    EXPECT_EQ(item_of(25, -1, FWU_UTF8), "X 1000 default");
    EXPECT_EQ(item_of(23, -1, FWU_UTF8), "I 4");
}

TEST(Types, DomainsAreWhatTheyRestrict)
{
    const struct {
        uint32_t type;
        uint32_t base;
        int32_t modifier;
        bool known;
    } rows[] = {
        {23, 23, -1, true},
        {102, 1700, numeric(9, 2), true},
        {103, 1700, numeric(9, 2), true},
        {110, 1184, 3, true},
        {214, 101, -1, true},
        {100, 100, -1, true},
        {999, 999, -1, false},
        {115, 999, -1, false},
        {116, 116, -1, false},
    };
    const pgt_facts facts = users();
    for (const auto &row : rows) {
        const pgt_type found = pgt_resolve(row.type, -1, facts);
        EXPECT_EQ(found.type, row.base) << row.type;
        EXPECT_EQ(found.modifier, row.modifier) << row.type;
        EXPECT_EQ(found.known, row.known) << row.type;
    }
    EXPECT_EQ(pgt_resolve(1043, 44, facts).modifier, 44);
}

TEST(Types, HaveNamesWithoutModifier)
{
    const pgt_facts facts = users();
    EXPECT_THAT(pgt_names(1043, facts), ElementsAre("character varying", "character varying"));
    EXPECT_THAT(pgt_names(1042, facts), ElementsAre("bpchar", "character"));
    EXPECT_THAT(pgt_names(100, facts), ElementsAre("public.mood"));
    EXPECT_THAT(pgt_names(103, facts),
                ElementsAre("public.fee", "public.price", "numeric", "numeric"));
    EXPECT_THAT(pgt_names(115, facts), ElementsAre("public.lost"));
    EXPECT_THAT(pgt_names(999, facts), IsEmpty());
}

TEST(Types, SayWhatCannotBeSeenFromTheValue)
{
    const struct {
        uint32_t type;
        feed_type expected;
    } cases[] = {
        {16, {FEED_BOOLEAN, FEED_BOOLEAN}},
        {1000, {FEED_WORDS, FEED_BOOLEAN}},
        {1114, {FEED_TIMESTAMP, FEED_TIMESTAMP}},
        {1184, {FEED_TIMESTAMP, FEED_TIMESTAMP}},
        {1115, {FEED_WORDS, FEED_TIMESTAMP}},
        {1185, {FEED_WORDS, FEED_TIMESTAMP}},
        {25, {FEED_WORDS, FEED_WORDS}},
        {1009, {FEED_WORDS, FEED_WORDS}},
        {19, {FEED_WORDS, FEED_WORDS}},
        {1043, {FEED_WORDS, FEED_WORDS}},
        {1015, {FEED_WORDS, FEED_WORDS}},
        {1042, {FEED_FILLED_WORDS, FEED_FILLED_WORDS}},
        {1014, {FEED_WORDS, FEED_FILLED_WORDS}},
        {3802, {FEED_WORDS, FEED_WORDS}},
        {17, {FEED_WORDS, FEED_WORDS}},
        // What is cut would be another value.
        {1700, {}},
        {1082, {}},
        {1186, {}},
        {2950, {}},
        {790, {}},
        {869, {}},
        {1560, {}},
        {3904, {}},
        {1005, {FEED_WORDS, FEED_PLAIN}},
        {100, {FEED_WORDS, FEED_PLAIN}},
        {101, {FEED_WORDS, FEED_WORDS}},
        {102, {}},
        {104, {FEED_WORDS, FEED_PLAIN}},
        {105, {}},
        {107, {FEED_WORDS, FEED_PLAIN}},
        {108, {FEED_WORDS, FEED_PLAIN}},
        {109, {FEED_WORDS, FEED_WORDS}},
        {110, {FEED_TIMESTAMP, FEED_TIMESTAMP}},
        {111, {FEED_BOOLEAN, FEED_BOOLEAN}},
        {112, {FEED_WORDS, FEED_BOOLEAN}},
        {214, {FEED_WORDS, FEED_WORDS}},
        {115, {FEED_WORDS, FEED_PLAIN}},
        {117, {}},
        {118, {}},
        {119, {}},
        {120, {}},
        {121, {}},
        {122, {}},
        {123, {}},
        {124, {FEED_WORDS, FEED_WORDS}},
        {99999, {FEED_WORDS, FEED_PLAIN}},
    };
    const pgt_facts facts = users();
    for (const auto &row : cases)
        EXPECT_EQ(pgt_meaning(row.type, facts), row.expected) << row.type;
}

TEST(Types, AreWrittenAsTheServerDoes)
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
        {1560, 1, "bit(1)"},
        {1560, -1, "\"bit\""},
        {1562, 5, "bit varying(5)"},
        {1562, -1, "bit varying"},
        {23, 5, ""},
        {16400, -1, ""},
        {0, -1, ""},
    };
    for (const auto &row : cases)
        EXPECT_EQ(pgt_text(row.type, row.modifier), row.text) << row.type;
}
