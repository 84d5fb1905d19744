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
                                {"t", "16400", "-1", "public.mood"},
                                {"t", "16404", "5", "???"},
                                {"t", "16405", "-1", "???[]"}}));
    EXPECT_THAT(facts.keys[70], ElementsAre("no", "line"));
    EXPECT_THAT(facts.keys[71], IsEmpty());
    EXPECT_EQ(pgf_type_text(facts, {"b", MOOD, -1}), "public.mood");
    EXPECT_EQ(pgf_type_text(facts, {"b", MOOD, 7}), "");
    EXPECT_EQ(pgf_type_text(facts, {"c", PRICE, 5}), "") << "the server does not know it any more";
    EXPECT_EQ(pgf_type_text(facts, {"c", 16405, -1}), "");
    EXPECT_EQ(pgf_type_text(facts, {"a", INT, -1}), "integer");
    pgf_take(facts, facts_rows({{"c", "70", "0", ""}, {"k", "70", "1", "id"}}));
    EXPECT_THAT(facts.keys[70], ElementsAre("id"));
    pgf_take(facts, facts_rows({{"c", "70", "0", ""}}));
    EXPECT_THAT(facts.keys[70], IsEmpty());
}

TEST(Facts, AnswersThatAreNoneArePassedOver)
{
    pgf_facts facts;
    pgf_take(facts, facts_rows({{"c", "x", "0", ""}, {"k", "70", "", "no"}, {"t", "", "", ""}}));
    EXPECT_THAT(facts.keys, IsEmpty());
    EXPECT_THAT(facts.types, IsEmpty());
}

TEST(Facts, ATableIsKnownWithItsKeyAndTheNamesOfItsTypes)
{
    pgf_facts facts;
    const pgo_relation table = table_of(70, {{"no", INT, -1}, {"mood", MOOD, -1}});
    EXPECT_FALSE(pgf_knows(facts, table));
    facts.keys[70] = {"no"};
    EXPECT_FALSE(pgf_knows(facts, table));
    facts.types[{MOOD, -1}] = "public.mood";
    EXPECT_TRUE(pgf_knows(facts, table));
    facts.keys[70] = {};
    EXPECT_TRUE(pgf_knows(facts, table));
    facts.keys[70] = {"no", "renamed"};
    EXPECT_FALSE(pgf_knows(facts, table));
}

TEST(Facts, NobodyIsAskedAgainSoonAfterAFailure)
{
    pgf_facts facts;
    EXPECT_FALSE(pgf_refresh(facts, {})) << "nobody to ask";
    int asked = 0;
    bool answers = false;
    facts.ask = [&](const std::string &, pgs_result &rows) {
        asked++;
        rows = facts_rows({{"c", "70", "0", ""}});
        return answers;
    };
    facts.pause_ms = 3'600'000;
    EXPECT_FALSE(pgf_refresh(facts, {}));
    EXPECT_FALSE(pgf_refresh(facts, {}));
    EXPECT_EQ(asked, 1);
    EXPECT_THAT(facts.keys, IsEmpty());
    facts.retry_ms = 0;
    answers = true;
    EXPECT_TRUE(pgf_refresh(facts, {}));
    EXPECT_TRUE(pgf_refresh(facts, {}));
    EXPECT_EQ(asked, 3);
    EXPECT_EQ(facts.keys.count(70), 1U);
}
