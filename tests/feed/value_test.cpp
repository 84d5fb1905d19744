// One value of each type in one item, as images of rows of one column.
#include "tests/feed/maker.h"
#include "tests/support/markdown.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::string_literals;

struct value_case {
    fwu_item item; // named VALUE
    feed_column column;
    std::string expected; // image, or "error: ..."
};

static feed_column text(feed_type type, const char *value)
{
    return text_column("value", type, value);
}

static feed_column number(feed_type type, const char *digits)
{
    return number_column("value", type, digits);
}

static feed_column boolean(bool value)
{
    return bare_column("value", BOOLEAN, value ? FEED_TRUE : FEED_FALSE);
}

static void check(const std::vector<value_case> &cases)
{
    for (const value_case &row : cases) {
        maker make(config_of({row.item}));
        EXPECT_EQ(make.fresh(row_of({row.column})), row.expected)
            << static_cast<char>(row.item.type) << row.item.size << " " << row.column.value;
    }
}

TEST(FeedValue, NumbersGoIntoNumericItems)
{
    check({
        {value_item('I', 2), number(PLAIN, "-5"), "\xFF\xFB"},
        {value_item('J', 4), number(PLAIN, "700001"), "\x00\x0A\xAE\x61"s},
        {value_item('I', 8), number(PLAIN, "9100000000000001"),
         "\x00\x20\x54\x66\xDB\x74\xC0\x01"s},
        {value_item('K', 4), number(PLAIN, "4200000001"), "\xFA\x56\xEA\x01"},
        {value_item('P', 5, 1, 2), number(PLAIN, "871.20"), "\x00\x00\x87\x12\x0C"s},
        {value_item('Z', 5, 1, 2), number(PLAIN, "-3.05"), "0030N"},
        {value_item('E', 4), number(PLAIN, "-2.5"), "\xC0\x20\x00\x00"s},
        {value_item('R', 8), number(PLAIN, "1"), "\x3F\xF0\x00\x00\x00\x00\x00\x00"s},
        {value_item('I', 2), text(WORDS, "12"), "\x00\x0C"s},
        {value_item('P', 3, 1, 2), text(WORDS, "-8.2"), "\x00\x82\x0D"s},
        {value_item('E', 4), text(PLAIN, "Infinity"), "\x7F\x80\x00\x00"s},
    });
}

// The table of items and what they take, in docs/fwlog.md.
TEST(FeedValue, ItemsTakeWhatThePageSays)
{
    const struct {
        const char *word; // in the table
        feed_column column;
    } kinds[] = {
        {"numbers", number(PLAIN, "1")},
        {"booleans", boolean(true)},
        {"`NaN`", text(PLAIN, "NaN")},
        {"`Infinity`", text(PLAIN, "Infinity")},
        {"`-Infinity`", text(PLAIN, "-Infinity")},
        {"texts", text(WORDS, "abc")},
    };
    std::string letters;
    std::string takes;
    for (const auto &row : md_find_table(md_page("docs/fwlog.md"), "item").rows) {
        SCOPED_TRACE(row[0]);
        const size_t of = row[0].find(" of ");
        ASSERT_NE(of, std::string::npos);
        const bool positive = row[1].find("not negative") != std::string::npos;
        takes = row[1].rfind("the same", 0) == 0 ? takes : row[1];
        const bool everything = takes == "everything";
        for (const char letter : row[0].substr(0, of)) {
            if (letter == ',' || letter == ' ')
                continue;
            letters += letter;
            const fwu_item_type *type = fwu_item_type_of(letter);
            ASSERT_NE(type, nullptr) << letter;
            const bool any_size = row[0].find("of n bytes") != std::string::npos;
            for (int32_t size = 1; size <= 9 && !any_size; size++)
                EXPECT_EQ(row[0].find(std::to_string(size), of) != std::string::npos,
                          fwu_item_size_ok(*type, size))
                    << letter << size;
            const auto taken = [&](const feed_column &column) {
                maker make(config_of({value_item(letter, type->binary ? 4 : 10)}));
                return make.fresh(row_of({column})).rfind("error: ", 0) != 0;
            };
            for (const auto &kind : kinds)
                EXPECT_EQ(taken(kind.column),
                          everything || (", " + takes).find(", " + std::string(kind.word)) !=
                                            std::string::npos)
                    << letter << " " << kind.word;
            EXPECT_EQ(taken(number(PLAIN, "-1")), !positive) << letter;
        }
    }
    EXPECT_EQ(letters, "IJKPZERXU");
}

TEST(FeedValue, ByteOrderIsTheOneOfTheConfiguration)
{
    maker make(config_of({value_item('I', 4)}));
    make.work.settings.big_endian = false;
    EXPECT_EQ(make.fresh(row_of({number(PLAIN, "258")})), "\x02\x01\x00\x00"s);
}

TEST(FeedValue, TextIsFilledUpWithBlanks)
{
    check({
        {value_item('X', 6), text(WORDS, "abc"), "abc   "},
        {value_item('U', 3), text(WORDS, ""), "   "},
        {value_item('X', 5), text(WORDS, "Stra\xC3\x9F"), "Stra\xDF"},
        {value_item('X', 4), text(WORDS, "a\tb\n"), "a\tb\n"},
        {value_item('X', 2), text(FILLED, "pc  "), "pc"},
        {value_item('X', 2), text(FILLED, "pc  "), "pc"},
        {value_item('X', 8), number(PLAIN, "871.20"), "871.20  "},
        {value_item('X', 8), number(PLAIN, "1.2e-05"), "1.2e-05 "},
        {value_item('X', 12), text(PLAIN, "a0eebc99-9c0"), "a0eebc99-9c0"},
        {value_item('X', 8), text(PLAIN, "08:18:01"), "08:18:01"},
        {value_item('X', 9), text(PLAIN, "{1,2}"), "{1,2}    "},
        {value_item('X', 5), text(PLAIN, "early"), "early"},
    });
}

TEST(FeedValue, BooleansAreLettersOrOneAndZero)
{
    check({
        {value_item('X', 1), boolean(true), "T"},
        {value_item('X', 3), boolean(false), "F  "},
        {value_item('I', 2), boolean(true), "\x00\x01"s},
        {value_item('P', 2), boolean(false), "\x00\x0C"s},
        {value_item('Z', 2), boolean(true), "0A"},
        {value_item('E', 4), boolean(true), "\x3F\x80\x00\x00"s},
    });
}

TEST(FeedValue, DatesAndTimestampsHaveOneForm)
{
    check({
        {value_item('X', 10), text(PLAIN, "2026-03-09"), "2026-03-09"},
        {value_item('X', 10), text(PLAIN, "infinity"), "infinity  "},
        {value_item('X', 13), text(PLAIN, "0044-03-15 BC"), "0044-03-15 BC"},
        {value_item('X', 19), text(TIMESTAMP, "2026-03-09 08:18:01"), "2026-03-09 08:18:01"},
        {value_item('X', 23), text(TIMESTAMP, "2026-03-09 08:18:01.2"), "2026-03-09 08:18:01.200"},
        {value_item('X', 26), text(TIMESTAMP, "2026-03-09 08:18:01.261644"),
         "2026-03-09 08:18:01.261644"},
        {value_item('X', 26), text(TIMESTAMP, "2026-03-09 08:18:01"), "2026-03-09 08:18:01.000000"},
        {value_item('X', 20), text(TIMESTAMP, "2026-03-09 08:18:01"), "2026-03-09 08:18:01 "},
        {value_item('X', 28), text(TIMESTAMP, "2026-03-09 08:18:01.5"),
         "2026-03-09 08:18:01.500000  "},
        {value_item('X', 23), text(TIMESTAMP, "2026-03-09 00:18:01.25+01"),
         "2026-03-08 23:18:01.250"},
        {value_item('X', 19), text(TIMESTAMP, "-infinity"), "-infinity          "},
    });
}

TEST(FeedValue, ArraysFillTheElementsOfTheirItem)
{
    check({
        {value_item('I', 2, 4), text(PLAIN, "{44,0,-1,258}"), "\x00\x2C\x00\x00\xFF\xFF\x01\x02"s},
        {value_item('X', 3, 2), text(LIST_OF_WORDS, R"({"a,b",c})"), "a,bc  "},
        {value_item('X', 2, 2), text(LIST_OF_BOOLEANS, "{t,f}"), "T F "},
        {value_item('I', 2, 2), text(LIST_OF_BOOLEANS, "{t,f}"), "\x00\x01\x00\x00"s},
        {value_item('X', 1, 2), text(LIST_OF_WORDS, "{t,f}"), "tf"},
        {value_item('P', 2, 2), text(PLAIN, "{1,-1}"), "\x00\x1C\x00\x1D"s},
        {value_item('I', 2), text(PLAIN, "{258}"), "\x01\x02"s},
        {value_item('K', 2), text(LIST_OF_BOOLEANS, "{t}"), "\x00\x01"s},
        {value_item('P', 2), text(PLAIN, "[0:0]={-12}"), "\x01\x2D"s},
        {value_item('X', 3), text(LIST_OF_WORDS, "{a}"), "{a}"},
        {value_item('X', 19, 2),
         text(TIMESTAMP, R"({"2026-03-09 08:18:01","2026-03-09 08:18:02"})"),
         "2026-03-09 08:18:012026-03-09 08:18:02"},
    });
}

TEST(FeedValue, ValuesThatDoNotFitAreErrorsWithARemedy)
{
    const std::string at = "error: sales.orders.value: ";
    check({
        {value_item('X', 3), text(WORDS, "abcd"),
         at + "\"abcd\" is 4 characters long, item VALUE (X 3) holds 3: make the item wider, or "
              "cut texts with --truncate"},
        {value_item('X', 3), number(PLAIN, "1234"),
         at + "\"1234\" is 4 characters long, item VALUE (X 3) holds 3: make the item wider"},
        {value_item('X', 2), text(FILLED, "pcs "),
         at + "\"pcs \" is 3 characters long, item VALUE (X 2) holds 2: make the item wider, or "
              "cut texts with --truncate"},
        {value_item('X', 2), text(WORDS, "pc  "),
         at + "\"pc  \" is 4 characters long, item VALUE (X 2) holds 2: make the item wider, or "
              "cut texts with --truncate"},
        {value_item('X', 10), text(PLAIN, "0044-03-15 BC"),
         at + "\"0044-03-15 BC\" is 13 characters long, item VALUE (X 10) holds 10: make the item "
              "wider"},
        {value_item('X', 9), text(WORDS, "10 \xE2\x82\xAC"),
         at + "\"10 \xE2\x82\xAC\" has the character U+20AC, which has no place in ISO 8859-1: "
              "change the text at its source, begin a new log with text-encoding utf-8, or leave "
              "the column out of the dataset"},
        {value_item('I', 2), number(PLAIN, "40000"),
         at + "\"40000\" is out of the range of item VALUE (I 2): make the item wider"},
        {value_item('K', 2), number(PLAIN, "-1"),
         at + "\"-1\" is out of the range of item VALUE (K 2): make the item wider"},
        {value_item('E', 4), number(PLAIN, "1e60"),
         at + "\"1e60\" is out of the range of item VALUE (E 4): make the item wider"},
        {value_item('I', 4), number(PLAIN, "12.5"),
         at + "\"12.5\" has decimal places that item VALUE (I 4) has no room for: give the item "
              "more of them (scale=N)"},
        {value_item('P', 5, 1, 2), number(PLAIN, "0.125"),
         at + "\"0.125\" has decimal places that item VALUE (P 5, 2 decimal places) has no room "
              "for: give the item more of them (scale=N)"},
        {value_item('P', 2, 1, 2), number(PLAIN, "100"),
         at + "\"100\" has more digits than item VALUE (P 2, 2 decimal places) holds: make the "
              "item longer"},
        {value_item('I', 4), text(WORDS, "12 "),
         at + "\"12 \" is not a number, item VALUE (I 4) needs one: make it an X item"},
        {value_item('P', 4), text(PLAIN, "NaN"),
         at + "\"NaN\" is not a number, item VALUE (P 4, 0 decimal places) needs one: make it an "
              "X item"},
        {value_item('I', 4), text(PLAIN, "2026-03-09"),
         at + "\"2026-03-09\" is not a number, item VALUE (I 4) needs one: make it an X item"},
    });
}

TEST(FeedValue, TimestampsThatDoNotFitAreErrors)
{
    const std::string at = "error: sales.orders.value: ";
    check({
        {value_item('X', 18), text(TIMESTAMP, "2026-03-09 08:18:01"),
         at + "\"2026-03-09 08:18:01\" is 19 characters long, item VALUE (X 18) holds 18: make the "
              "item wider"},
        {value_item('X', 19), text(TIMESTAMP, "2026-03-09 08:18:01.5"),
         at + "\"2026-03-09 08:18:01.5\" has decimals that item VALUE (X 19) has no room for (or a "
              "year above 9999 in UTC): make the item up to 26 wide"},
        {value_item('X', 26), text(TIMESTAMP, "0044-03-15 12:00:00 BC"),
         at + "\"0044-03-15 12:00:00 BC\" is not a timestamp of the years 0001 to 9999, written "
              "YYYY-MM-DD HH:MM:SS: let the server write dates in the ISO style, or leave the "
              "column out of the dataset"},
    });
}

TEST(FeedValue, ArraysThatDoNotFitAreErrors)
{
    const std::string at = "error: sales.orders.value: ";
    check({
        {value_item('I', 2, 4), text(PLAIN, "{1,2,3}"),
         at + "\"{1,2,3}\" has 3 elements, item VALUE has 4: the numbers must be the same"},
        {value_item('I', 2, 2), text(PLAIN, "{1,2,3}"),
         at + "\"{1,2,3}\" has 3 elements, item VALUE has 2: the numbers must be the same"},
        {value_item('I', 2, 2), text(PLAIN, "{1,NULL}"),
         at + "\"{1,NULL}\" has a NULL among its elements; item VALUE needs a list of 2 values: or "
              "make it an X item of one element"},
        {value_item('I', 2, 2), text(PLAIN, "{{1,2}}"),
         at + "\"{{1,2}}\" is an array of more than one dimension; item VALUE needs a list of 2 "
              "values: or make it an X item of one element"},
        {value_item('I', 2, 2), number(PLAIN, "1"),
         at + "is not an array, item VALUE has 2 elements: give it one element"},
        {value_item('I', 2, 2), text(PLAIN, "{1,x}"),
         at + "\"x\" is not a number, item VALUE (I 2) needs one: make it an X item"},
        {value_item('I', 2), text(PLAIN, "{1,2}"),
         at + "\"{1,2}\" has 2 elements, item VALUE has 1: the numbers must be the same"},
        {value_item('I', 2), text(PLAIN, "{}"),
         at + "\"{}\" has 0 elements, item VALUE has 1: the numbers must be the same"},
        {value_item('I', 2), text(PLAIN, "{NULL}"),
         at + "\"{NULL}\" has a NULL among its elements; item VALUE needs a list of 1 values: or "
              "make it an X item of one element"},
    });
}

TEST(FeedValue, TruncateCutsTextsAndCountsThem)
{
    maker make(config_of({value_item('X', 3)}));
    make.work.settings.truncate = true;
    EXPECT_EQ(make.fresh(row_of({text(WORDS, "abcd")})), "abc");
    EXPECT_EQ(make.fresh(row_of({text(WORDS, "abc")})), "abc");
    EXPECT_EQ(make.fresh(row_of({text(WORDS, "\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F")})),
              "\xE4\xF6\xFC");
    EXPECT_EQ(make.work.truncated, 2U);
}

TEST(FeedValue, TruncateNeverCutsNumbersDatesAndTimestamps)
{
    const feed_column columns[] = {number(PLAIN, "1234"), text(PLAIN, "2026-03-09"),
                                   text(TIMESTAMP, "2026-03-09 08:18:01")};
    for (const feed_column &column : columns) {
        maker make(config_of({value_item('X', 3)}));
        make.work.settings.truncate = true;
        EXPECT_EQ(make.fresh(row_of({column})).substr(0, 6), "error:") << column.value;
        EXPECT_EQ(make.work.truncated, 0U);
    }
}

TEST(FeedValue, TruncateNeverCutsArraysNorValuesThatMeanSomethingElseThen)
{
    const struct {
        int32_t count;
        feed_column column;
    } rows[] = {
        {2, text(PLAIN, "{12345,1}")},
        {2, text(PLAIN, "{1,123.45}")},
        {1, text(LIST_OF_WORDS, "{abc,def}")},
        {1, text(PLAIN, "12:00:00")},
        {1, text(PLAIN, "11111111-2222-3333-4444-555555555555")},
    };
    for (const auto &row : rows) {
        fwu_item item = value_item('X', 3);
        item.count = row.count;
        maker make(config_of({item}));
        make.work.settings.truncate = true;
        EXPECT_EQ(make.fresh(row_of({row.column})).substr(0, 6), "error:") << row.column.value;
        EXPECT_EQ(make.work.truncated, 0U);
    }
}

TEST(FeedValue, TruncateCutsTheTextsOfAnArray)
{
    fwu_item item = value_item('X', 3);
    item.count = 2;
    maker make(config_of({item}));
    make.work.settings.truncate = true;
    EXPECT_EQ(make.fresh(row_of({text(LIST_OF_WORDS, "{abcd,xy}")})), "abcxy ");
    EXPECT_EQ(make.work.truncated, 1U);
}

TEST(FeedValue, TruncateCutsBetweenCharacters)
{
    maker make(config_of({value_item('X', 4)}));
    make.work.settings.truncate = true;
    make.work.settings.encoding = FWU_UTF8;
    EXPECT_EQ(make.fresh(row_of({text(WORDS, "abc\xC3\xBC")})), "abc ");
    EXPECT_EQ(make.fresh(row_of({text(WORDS, "ab\xC3\xBC")})), "ab\xC3\xBC");
    EXPECT_EQ(make.fresh(row_of({text(WORDS, "\xE2\x82\xAC\xE2\x82\xAC")})), "\xE2\x82\xAC ");
    EXPECT_EQ(make.work.truncated, 2U);
}

static std::string in_utf8(int32_t width, feed_column column)
{
    maker make(config_of({value_item('X', width)}));
    make.work.settings.encoding = FWU_UTF8;
    return make.fresh(row_of({std::move(column)}));
}

TEST(FeedValue, Utf8LogTakesAllCharacters)
{
    EXPECT_EQ(in_utf8(8, text(WORDS, "10 \xE2\x82\xAC")), "10 \xE2\x82\xAC  ");
    EXPECT_EQ(in_utf8(4, text(WORDS, "\xF0\x9F\x98\x80")), "\xF0\x9F\x98\x80");
    EXPECT_EQ(in_utf8(4, text(FILLED, "\xC3\xBC\xC3\xBC       ")), "\xC3\xBC\xC3\xBC");
    const std::string at = "error: sales.orders.value: ";
    EXPECT_EQ(
        in_utf8(4, text(WORDS, "abc\xC3\xBC")),
        at + "\"abc\xC3\xBC\" is 5 bytes long, item VALUE (X 4) holds 4: make the item wider, or "
             "cut texts with --truncate");
    EXPECT_EQ(in_utf8(4, text(WORDS, "a\xC3")),
              at +
                  "\"a\xC3\" has bytes that are not UTF-8: change the text at its source, or leave "
                  "the column out of the dataset");
}
