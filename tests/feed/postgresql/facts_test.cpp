// What a server's catalogue is asked for, and what is made of its answers.
#include "feed/postgresql/facts.h"
#include "tests/feed/postgresql/facts_rows.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint32_t INT = 23;
constexpr uint32_t MOOD = 16400;
constexpr uint32_t PRICE = 16404;

static pgo_relation table_of(uint32_t id, std::vector<pgo_column> columns)
{
    pgo_relation table;
    table.id = id;
    table.columns = std::move(columns);
    return table;
}

TEST(Facts, QueryAsksForTheTablesAndTheTypesThatAreNotBuiltIn)
{
    const pgo_relation one = table_of(70, {{"a", INT, -1}, {"b", MOOD, -1}, {"c", PRICE, 5}});
    const pgo_relation other = table_of(4000000000U, {{"d", MOOD, -1}, {"e", 1043, 44}});
    const std::string query = pgf_query({&one, &other});
    EXPECT_THAT(query, HasSubstr("'{70,4000000000}'::oid[]"));
    EXPECT_THAT(query, HasSubstr("'{16400,16404}'::oid[], '{-1,5}'::int[]"));
    EXPECT_THAT(pgf_query({}), HasSubstr("unnest('{}'::oid[], '{}'::int[])"));
}

TEST(Facts, AnswersTakeThePlaceOfWhatWasKnown)
{
    pgf_facts facts;
    pgf_take(facts, facts_rows({{"c", "70", "0", ""},
                                {"c", "71", "0", ""},
                                {"k", "70", "1", "no"},
                                {"k", "70", "2", "line"},
                                {"n", "70", "0", "app"},
                                {"n", "70", "1", "orders"},
                                {"t", "16400", "-1", "public.mood"},
                                {"t", "16404", "5", "???"},
                                {"t", "16405", "-1", "???[]"}}));
    EXPECT_THAT(facts.tables[70].key, ElementsAre("no", "line"));
    EXPECT_EQ(facts.tables[70].schema, "app");
    EXPECT_EQ(facts.tables[70].name, "orders");
    EXPECT_THAT(facts.tables[71].key, IsEmpty());
    EXPECT_EQ(pgf_type_text(facts, {"b", MOOD, -1}), "public.mood");
    EXPECT_EQ(pgf_type_text(facts, {"b", MOOD, 7}), "");
    EXPECT_EQ(pgf_type_text(facts, {"c", PRICE, 5}), "") << "the server does not know it any more";
    EXPECT_EQ(pgf_type_text(facts, {"c", 16405, -1}), "");
    EXPECT_EQ(pgf_type_text(facts, {"a", INT, -1}), "integer");
    pgf_take(facts, facts_rows({{"c", "70", "0", ""}, {"k", "70", "1", "id"}}));
    EXPECT_THAT(facts.tables[70].key, ElementsAre("id"));
    pgf_take(facts, facts_rows({{"c", "70", "0", ""}}));
    EXPECT_THAT(facts.tables[70].key, IsEmpty());
}

TEST(Facts, AnswersSayWhatTypesAre)
{
    pgf_facts facts;
    pgf_take(facts, facts_rows({{"d", "16400", "0", "e E 0 -1 0 public.mood"},
                                {"d", "16401", "0", "b A 0 -1 16400 public.mood[]"},
                                {"d", "16402", "0", "d N 1700 589830 0 public.\"my price\""},
                                {"d", "16403", "0", "e E 0 -1"},
                                {"d", "16404", "0", "e E x -1 0 public.no"},
                                {"d", "16405", "0", "e E 0 x 0 public.no"},
                                {"d", "16406", "0", "e E 0 -1 x public.no"},
                                {"d", "16407", "0", "ee E 0 -1 0 public.no"},
                                {"d", "16408", "0", "e EE 0 -1 0 public.no"},
                                {"d", "16409", "0", ""}}));
    const pgt_facts expected = {
        {16400, {.name = "public.mood", .kind = 'e', .category = 'E'}},
        {16401, {.name = "public.mood[]", .category = 'A', .element = 16400}},
        {16402,
         {.name = "public.\"my price\"",
          .kind = 'd',
          .category = 'N',
          .base = 1700,
          .modifier = 589830}},
    };
    EXPECT_EQ(facts.kinds, expected);
}

TEST(Facts, TypesThatAreNeededAreAskedForHoweverShortAgoThatFailed)
{
    pgf_facts facts;
    pgo_relation table = table_of(70, {{"a", INT, -1}});
    table.schema = "app";
    table.name = "orders";
    int asked = 0;
    bool answers = false;
    std::vector<facts_row> rows = {{"s", "0", "0", "8:8:"}};
    facts.ask = [&](const std::string &, pgs_result &result) {
        asked++;
        result = facts_rows(rows);
        return answers;
    };
    EXPECT_TRUE(pgf_need_types(facts, table));
    EXPECT_EQ(asked, 0) << "all are built in";
    table.columns.push_back({"b", MOOD, -1});
    for (int i = 1; i <= 3; i++) {
        const outcome done = pgf_need_types(facts, table);
        EXPECT_EQ(done.kind(), OUTCOME_LOST);
        EXPECT_EQ(done.text(),
                  "the server does not tell yet what the types of table app.orders are");
        EXPECT_EQ(asked, i);
    }
    answers = true;
    facts.xid = 9; // which the answer's snapshot lacks
    EXPECT_EQ(pgf_need_types(facts, table).kind(), OUTCOME_LOST);
    facts.xid = 7;
    EXPECT_TRUE(pgf_need_types(facts, table)) << "dropped by now";
    rows.push_back({"d", "16400", "0", "e E 0 -1 0 public.mood"});
    EXPECT_TRUE(pgf_need_types(facts, table));
    asked = 0;
    EXPECT_TRUE(pgf_need_types(facts, table));
    EXPECT_EQ(asked, 0);
}

TEST(Facts, AnswersThatAreNoneArePassedOver)
{
    pgf_facts facts;
    pgf_take(facts, facts_rows({{"c", "x", "0", ""}, {"k", "70", "", "no"}, {"t", "", "", ""}}));
    EXPECT_THAT(facts.tables, IsEmpty());
    EXPECT_THAT(facts.types, IsEmpty());
}

TEST(Facts, ATableIsKnownWithItsKeyAndTheNamesOfItsTypes)
{
    pgf_facts facts;
    const pgo_relation table = table_of(70, {{"no", INT, -1}, {"mood", MOOD, -1}});
    EXPECT_FALSE(pgf_knows(facts, table));
    facts.tables[70] = {.columns = "no 23 -1,mood 16400 -1", .key = {"no"}};
    EXPECT_FALSE(pgf_knows(facts, table));
    facts.types[{MOOD, -1}] = "public.mood";
    EXPECT_TRUE(pgf_knows(facts, table));
    for (const char *other : {"no 23 -1", "", "no 23 -1,mood 16400 5", "no 23 -1,mode 16400 -1",
                              "mood 16400 -1,no 23 -1", "no 20 -1,mood 16400 -1"}) {
        facts.tables[70].columns = other;
        EXPECT_FALSE(pgf_knows(facts, table)) << other;
    }
}

TEST(Facts, NobodyIsAskedAgainSoonAfterAFailure)
{
    pgf_facts facts;
    EXPECT_EQ(pgf_refresh(facts, {}), PGF_NO_ANSWER) << "nobody to ask";
    int asked = 0;
    bool answers = false;
    facts.ask = [&](const std::string &, pgs_result &rows) {
        asked++;
        rows = facts_rows({{"c", "70", "0", ""}});
        return answers;
    };
    facts.pause_ms = 3'600'000;
    EXPECT_EQ(pgf_refresh(facts, {}), PGF_NO_ANSWER);
    EXPECT_EQ(pgf_refresh(facts, {}), PGF_NO_ANSWER);
    EXPECT_EQ(asked, 1);
    EXPECT_THAT(facts.tables, IsEmpty());
    facts.retry_ms = 0;
    answers = true;
    EXPECT_EQ(pgf_refresh(facts, {}), PGF_ANSWER);
    EXPECT_EQ(pgf_refresh(facts, {}), PGF_ANSWER);
    EXPECT_EQ(asked, 3);
    EXPECT_EQ(facts.tables.count(70), 1U);
}

TEST(Facts, ASnapshotHasTheTransactionsThatHaveEndedInIt)
{
    const struct {
        const char *snapshot;
        uint32_t xid;
        bool has;
    } rows[] = {
        {"10:20:10,15", 9, true},
        {"10:20:10,15", 10, false},
        {"10:20:10,15", 11, true},
        {"10:20:10,15", 15, false},
        {"10:20:10,15", 19, true},
        {"10:20:10,15", 20, false},
        {"10:20:10,15", 21, false},
        {"20:20:", 19, true},
        {"20:20:", 20, false},
        // 64 bits: 2^32 + 5, with transactions before and behind the turn of 32 bits
        {"4294967290:4294967301:4294967292", 4294967290U, true},
        {"4294967290:4294967301:4294967292", 4294967292U, false},
        {"4294967290:4294967301:4294967300", 4, false},
        {"4294967290:4294967301:4294967300", 3, true},
        {"4294967290:4294967301:", 5, false},
        {"", 7, false},
        {"nonsense", 7, false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(pgf_has_transaction(row.snapshot, row.xid), row.has)
            << row.snapshot << " " << row.xid;
}

TEST(Facts, NothingElseIsASnapshot)
{
    for (const char *text : {"20:20:", "10:20:10,15", "4294967290:4294967301:4294967292"})
        EXPECT_TRUE(pgf_is_snapshot(text)) << text;
    for (const char *text : {"", ":", "::", "nonsense", "20:20",
                             "20;20:", "x:20:", "20:x:", "0:20:", "21:20:", "10:20:1x", "10:20:,",
                             "10:20:15,,16", "10:20:15:", "-1:20:"})
        EXPECT_FALSE(pgf_is_snapshot(text)) << text;
}

TEST(Facts, AnAnswerThatLacksTheTransactionInHandIsAskedForAgain)
{
    pgf_facts facts;
    facts.xid = 7;
    int asked = 0;
    int seen = 3; // from this answer on
    facts.ask = [&](const std::string &, pgs_result &rows) {
        const bool sees = ++asked >= seen;
        rows = facts_rows({{"c", "70", "0", ""},
                           {"k", "70", "1", sees ? "new" : "old"},
                           {"s", "0", "0", sees ? "8:8:" : "7:7:"}});
        return true;
    };
    EXPECT_EQ(pgf_refresh(facts, {}), PGF_ANSWER);
    EXPECT_EQ(asked, 3);
    EXPECT_THAT(facts.tables[70].key, ElementsAre("new"));
    asked = 0;
    seen = 99;
    EXPECT_EQ(pgf_refresh(facts, {}), PGF_OLDER);
    EXPECT_EQ(asked, 4);
    EXPECT_THAT(facts.tables[70].key, ElementsAre("old"));
}
