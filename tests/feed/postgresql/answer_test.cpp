// The line in which a bridge answers.
#include "feed/postgresql/answer.h"

#include <gtest/gtest.h>

#include <random>

static const char two_tables[] =
    "{\"done\":false,\"tables\":[{\"table\":\"sales.orders\",\"state\":\"taking\",\"rows\":1200,"
    "\"estimate\":5000,\"reason\":\"\"},{\"table\":\"sales.\\\"Order lines\\\"\",\"state\":"
    "\"refused\",\"rows\":0,\"estimate\":-1,\"reason\":\"a\\\\b\\u000a\"}]}\n";

static pgr_answer of_two_tables()
{
    return {
        .done = false,
        .tables = {{.name = "sales.orders", .state = PGR_TAKING, .rows = 1200, .estimate = 5000},
                   {.name = "sales.\"Order lines\"", .state = PGR_REFUSED, .reason = "a\\b\n"}}};
}

TEST(Answer, IsALineOfJson)
{
    EXPECT_EQ(pgr_answer_text(of_two_tables()), two_tables);
    EXPECT_EQ(pgr_answer_text({.done = true, .tables = {}}), "{\"done\":true,\"tables\":[]}\n");
}

TEST(Answer, IsReadAsItWasWritten)
{
    pgr_answer read;
    ASSERT_TRUE(pgr_answer_read(read, two_tables));
    EXPECT_EQ(read, of_two_tables());
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 200; round++) {
        pgr_answer answer = {.done = random() % 2 == 0, .tables = {}};
        for (size_t n = random() % 4; n > 0; n--) {
            pgr_table table = {.state = static_cast<pgr_state>(random() % 4)};
            for (std::string *text : {&table.name, &table.reason})
                for (size_t length = random() % 9; length > 0; length--)
                    *text += static_cast<char>(random() % 128);
            table.rows = uint64_t{random()} << (random() % 33);
            table.estimate = static_cast<int64_t>(random()) - 1;
            answer.tables.push_back(table);
        }
        ASSERT_TRUE(pgr_answer_read(read, pgr_answer_text(answer))) << pgr_answer_text(answer);
        ASSERT_EQ(read, answer);
    }
}

TEST(Answer, WhatIsNoWholeOneIsNone)
{
    const std::string whole = two_tables;
    pgr_answer read = {.done = true, .tables = {}};
    for (size_t length = 0; length < whole.size(); length++)
        EXPECT_FALSE(pgr_answer_read(read, whole.substr(0, length))) << length;
    for (const char *text :
         {"{\"done\":true,\"tables\":[]}", "{\"done\":true,\"tables\":[]}\n\n",
          "{\"done\":true,\"tables\":[,]}\n",
          "{\"done\":true,\"tables\":[{\"table\":\"a.b\",\"state\":\"gone\",\"rows\":0,"
          "\"estimate\":0,\"reason\":\"\"}]}\n",
          "{\"done\":true,\"tables\":[{\"table\":\"a.b\",\"state\":\"taking\",\"rows\":-1,"
          "\"estimate\":0,\"reason\":\"\"}]}\n",
          "{\"done\":true,\"tables\":[{\"table\":\"a.b\",\"state\":\"taking\",\"rows\":"
          "18446744073709551616,\"estimate\":0,\"reason\":\"\"}]}\n"})
        EXPECT_FALSE(pgr_answer_read(read, text)) << text;
    EXPECT_EQ(read, (pgr_answer{.done = true, .tables = {}})) << "it stays as it was";
}

TEST(Answer, AChangedByteIsSeenOrMeansSomethingElse)
{
    const std::string whole = two_tables;
    for (size_t at = 0; at < whole.size(); at++)
        for (const char byte : {'\0', '"', '9', 'x', '\xFF'}) {
            std::string text = whole;
            text[at] = byte;
            pgr_answer read;
            EXPECT_FALSE(text != whole && pgr_answer_read(read, text) && read == of_two_tables())
                << text;
        }
}

TEST(Answer, NamesOfTablesAreTheOnesOfMessages)
{
    const std::pair<const char *, const char *> rows[] = {
        {"sales.orders", "sales.orders"},
        {"\"sales\".\"orders\"", "sales.orders"},
        {"\"a.b\".\"c \"\"d\"\"\"", "\"a.b\".\"c \"\"d\"\"\""},
        {"U&\"a\\000Ab\".c", "U&\"a\\000Ab\".c"},
        {"sales", ""},
        {"sales.orders.no", ""},
        {"sales.", ""},
        {".orders", ""},
        {"\"sales.orders", ""},
        {"", ""},
    };
    for (const auto &[word, name] : rows)
        EXPECT_EQ(pgr_table_name(word), name) << word;
}
