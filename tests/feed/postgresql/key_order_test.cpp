// Values of keys of each type, from the least to the greatest as the server has them, and at random
// beside a second comparison.
#include "feed/postgresql/key_order.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

enum type : uint32_t {
    BOOLEAN = 16,
    BYTEA = 17,
    NAME = 19,
    BIGINT = 20,
    SMALLINT = 21,
    INTEGER = 23,
    TEXT = 25,
    OID = 26,
    CHARACTER = 1042,
    VARYING = 1043,
    DATE = 1082,
    STAMP = 1114,
    ZONED = 1184,
    NUMERIC = 1700,
    UUID = 2950,
};

struct ladder {
    uint32_t type;
    std::vector<std::vector<std::string_view>> steps; // upwards; those on one step are equal
};

static const std::vector<ladder> ladders = {
    {BOOLEAN, {{"f"}, {"t"}}},
    {BYTEA, {{"\\x"}, {"\\x00"}, {"\\x0000"}, {"\\x09"}, {"\\x0a"}, {"\\x7f"}, {"\\x80"}}},
    {NAME, {{""}, {"A"}, {"B"}, {"a"}, {"a "}, {"aa"}, {"\xC3\xA4"}}},
    {BIGINT,
     {{"-9223372036854775808"}, {"-10"}, {"-9"}, {"0"}, {"9"}, {"10"}, {"9223372036854775807"}}},
    {SMALLINT, {{"-32768"}, {"-1"}, {"0"}, {"32767"}}},
    {INTEGER, {{"-2147483648"}, {"-1"}, {"0"}, {"2147483647"}}},
    {TEXT, {{""}, {"\x01"}, {" "}, {"A"}, {"a"}, {"a "}, {"a  "}, {"aa"}, {"b"}, {"\xC3\xA4"}}},
    {OID, {{"0"}, {"2147483647"}, {"2147483648"}, {"4294967295"}}},
    {CHARACTER, {{"", "   "}, {"\x01"}, {"A "}, {"a", "a  "}, {"a\x01"}, {"aa "}}},
    {VARYING, {{""}, {"9"}, {"a"}, {"a "}}},
    {DATE,
     {{"-infinity"},
      {"4713-01-01 BC"},
      {"0002-12-31 BC"},
      {"0001-01-01 BC"},
      {"0001-12-31 BC"},
      {"0001-01-01"},
      {"1999-12-31"},
      {"2000-01-01"},
      {"9999-12-31"},
      {"10000-01-01"},
      {"5874897-12-31"},
      {"infinity"}}},
    {STAMP,
     {{"-infinity"},
      {"4713-01-01 00:00:00 BC"},
      {"0044-03-15 23:59:59.999999 BC"},
      {"0044-03-16 00:00:00 BC"},
      {"2026-11-22 09:08:07", "2026-11-22 09:08:07.0"},
      {"2026-11-22 09:08:07.000001"},
      {"2026-11-22 09:08:07.01"},
      {"2026-11-22 09:08:07.1", "2026-11-22 09:08:07.100000"},
      {"2026-11-22 09:08:07.2"},
      {"2026-11-22 09:09:00"},
      {"2026-11-22 10:00:00"},
      {"294276-12-31 23:59:59.999999"},
      {"infinity"}}},
    {ZONED,
     {{"-infinity"},
      {"0001-01-01 00:00:00+00 BC"},
      {"0001-01-01 00:00:00+00"},
      {"2026-11-22 09:08:07.5+00"},
      {"10000-01-01 00:00:00+00"},
      {"infinity"}}},
    {NUMERIC,
     {{"-Infinity"},
      {"-100000000000000000000000000000000000000000"},
      {"-10"},
      {"-9.5"},
      {"-9", "-9.0", "-9.00"},
      {"-0.2"},
      {"-0.19"},
      {"0", "0.00", "-0"},
      {"0.0001"},
      {"0.001"},
      {"0.19"},
      {"0.2", "0.20"},
      {"9"},
      {"9.000000000000000000000000000000000001"},
      {"10"},
      {"100000000000000000000000000000000000000000"},
      {"Infinity"},
      {"NaN"}}},
    {UUID,
     {{"00000000-0000-0000-0000-000000000000"},
      {"00000000-0000-0000-0000-00000000000f"},
      {"09000000-0000-0000-0000-000000000000"},
      {"0a000000-0000-0000-0000-000000000000"},
      {"ffffffff-ffff-ffff-ffff-ffffffffffff"}}},
};

TEST(KeyOrder, ValuesOfEachTypeStandInTheOrderOfTheServer)
{
    for (const ladder &one : ladders)
        for (size_t i = 0; i < one.steps.size(); i++)
            for (size_t j = 0; j < one.steps.size(); j++)
                for (const std::string_view a : one.steps[i])
                    for (const std::string_view b : one.steps[j]) {
                        int order = 77;
                        ASSERT_TRUE(pgy_compare(order, one.type, a, b))
                            << one.type << ": " << a << ", " << b;
                        EXPECT_EQ(order, i < j   ? -1
                                         : i > j ? 1
                                                 : 0)
                            << one.type << ": " << a << ", " << b;
                    }
}

TEST(KeyOrder, TextsThatAreNoValuesAreRefusedOnBothSides)
{
    static const struct {
        uint32_t type;
        std::string_view good;
        std::vector<std::string_view> bad;
    } rows[] = {
        {BOOLEAN, "t", {"", "true", "T", "1"}},
        {BYTEA, "\\x00", {"", "00", "\\x0", "\\x0G", "\\xAB", "x00", "\\000"}},
        {BIGINT, "1", {"", "-", "+1", " 1", "1 ", "1.0", "9223372036854775808", "a"}},
        {SMALLINT, "1", {"32768", "-32769"}},
        {INTEGER, "1", {"2147483648", "-2147483649", "0x1"}},
        {OID, "1", {"-1", "4294967296"}},
        {DATE,
         "2026-11-22",
         {"", "2026-11-2", "26-11-22", "2026-11-22 ", "2026-11-22 00:00:00", "22.11.2026",
          "2026-11-22 AD", "12345678-01-01", "Infinity", "2026/11/22", "2026-11"}},
        {STAMP,
         "2026-11-22 09:08:07",
         {"", "2026-11-22", "2026-11-22T09:08:07", "2026-11-22 09:08", "2026-11-22 09:08:07.",
          "2026-11-22 09:08:07.1234567", "2026-11-22 09:08:07+00", "2026-11-22 9:08:07"}},
        {ZONED,
         "2026-11-22 09:08:07+00",
         {"2026-11-22 09:08:07", "2026-11-22 09:08:07+01", "2026-11-22 09:08:07-00",
          "2026-11-22 09:08:07+00:00", "2026-11-22 09:08:07 BC+00"}},
        {NUMERIC, "1.5", {"", "-", ".5", "5.", "1e3", "+1", "1,5", "--1", "nan", "1.5.", "1 "}},
        {UUID,
         "00000000-0000-0000-0000-000000000000",
         {"", "00000000-0000-0000-0000-00000000000", "00000000-0000-0000-0000-0000000000000",
          "00000000000000000000000000000000", "00000000-0000-0000-0000-00000000000F",
          "00000000-0000-0000-0000-00000000000-", "{0000000-0000-0000-0000-00000000000}"}},
    };
    for (const auto &row : rows)
        for (const std::string_view bad : row.bad) {
            int order = 77;
            EXPECT_FALSE(pgy_compare(order, row.type, row.good, bad)) << row.type << ": " << bad;
            EXPECT_FALSE(pgy_compare(order, row.type, bad, row.good)) << row.type << ": " << bad;
            EXPECT_EQ(order, 77) << row.type << ": " << bad;
        }
}

TEST(KeyOrder, OnlyTextsDependOnHowTheColumnIsCompared)
{
    for (const uint32_t type :
         {BOOLEAN, BYTEA, BIGINT, SMALLINT, INTEGER, OID, DATE, STAMP, ZONED, NUMERIC, UUID}) {
        EXPECT_TRUE(pgy_comparable(type, false)) << type;
        EXPECT_TRUE(pgy_comparable(type, true)) << type;
    }
    for (const uint32_t type : {NAME, TEXT, CHARACTER, VARYING}) {
        EXPECT_FALSE(pgy_comparable(type, false)) << type;
        EXPECT_TRUE(pgy_comparable(type, true)) << type;
    }
}

TEST(KeyOrder, OtherTypesAreNotCompared)
{
    int order = 77;
    for (const uint32_t type : {0U, 18U, 114U, 700U, 701U, 869U, 1007U, 1083U, 1186U, 3802U}) {
        EXPECT_FALSE(pgy_comparable(type, true)) << type;
        EXPECT_FALSE(pgy_compare(order, type, "1", "1")) << type;
    }
    EXPECT_EQ(order, 77);
}
