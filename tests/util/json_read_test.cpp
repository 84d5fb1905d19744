// JSON as a tree: every kind of value, every escape, and what is none.
#include "util/json_read.h"

#include <gtest/gtest.h>

static std::string text_of(const std::string &json)
{
    json_node node;
    std::string_view rest = json;
    EXPECT_TRUE(json_read(node, rest)) << json;
    EXPECT_EQ(node.kind, JSON_STRING);
    return node.text;
}

TEST(JsonRead, ValuesOfEveryKind)
{
    json_node node;
    std::string_view rest =
        R"( {"a" : [1, -2.5e3,"x", null,true,false, [ ], {}], "b":{"c":"d"}} next)";
    ASSERT_TRUE(json_read(node, rest));
    EXPECT_EQ(rest, "next");
    ASSERT_EQ(node.kind, JSON_OBJECT);
    const json_node &list = *json_member(node, "a");
    const json_kind kinds[] = {JSON_NUMBER, JSON_NUMBER, JSON_STRING, JSON_NULL,
                               JSON_TRUE,   JSON_FALSE,  JSON_ARRAY,  JSON_OBJECT};
    ASSERT_EQ(list.children.size(), std::size(kinds));
    for (size_t i = 0; i < std::size(kinds); i++)
        EXPECT_EQ(list.children[i].kind, kinds[i]) << i;
    EXPECT_EQ(list.children[1].text, "-2.5e3");
    EXPECT_EQ(json_member(*json_member(node, "b"), "c")->text, "d");
    EXPECT_EQ(json_member(node, "x"), nullptr);
    EXPECT_EQ(json_member(list, "a"), nullptr);
}

TEST(JsonRead, Escapes)
{
    EXPECT_EQ(text_of(R"("\"\\\/\b\f\n\r\t")"), "\"\\/\b\f\n\r\t");
    EXPECT_EQ(text_of(R"("\u0041\u00e4\u20AC\ud83d\ude00")"),
              "A\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80");
}

TEST(JsonRead, Integers)
{
    const struct {
        const char *text;
        bool is;
        int64_t value;
    } rows[] = {{"0", true, 0},
                {"-17", true, -17},
                {"9223372036854775807", true, INT64_MAX},
                {"9223372036854775808", false, 0},
                {"1.0", false, 0},
                {"1e3", false, 0},
                {"\"1\"", false, 0}};
    for (const auto &row : rows) {
        json_node node;
        std::string_view rest = row.text;
        ASSERT_TRUE(json_read(node, rest));
        int64_t value = -1;
        EXPECT_EQ(json_integer(value, &node), row.is) << row.text;
        EXPECT_TRUE(!row.is || value == row.value) << row.text;
    }
    int64_t value = 0;
    EXPECT_FALSE(json_integer(value, nullptr));
}

TEST(JsonRead, WhatIsNone)
{
    for (const std::string json : {"",
                                   " ",
                                   "{",
                                   "[",
                                   "[1",
                                   "[1,",
                                   "[1,]",
                                   "{\"a\"",
                                   "{\"a\":",
                                   "{\"a\":1",
                                   "{\"a\":1,}",
                                   "{1:2}",
                                   "{a:1}",
                                   "\"",
                                   "\"a",
                                   "\"\\",
                                   "\"\\x\"",
                                   "\"\\u12\"",
                                   "\"\\u12g4\"",
                                   "\"\\ud800\"",
                                   "\"\\ud800\\u0041\"",
                                   "\"\\udc00\"",
                                   "\"a\nb\"",
                                   "nul",
                                   "}",
                                   "]"}) {
        json_node node;
        std::string_view rest = json;
        EXPECT_FALSE(json_read(node, rest)) << json;
    }
    json_node node;
    const std::string deep(100, '[');
    std::string_view rest = deep;
    EXPECT_FALSE(json_read(node, rest));
}
