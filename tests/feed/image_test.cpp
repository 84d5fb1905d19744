// Rows to record images: one value of each type in one item, then what concerns
// whole rows: offsets, nulls, missing columns.
#include "feed/image.h"
#include "tests/feed/rows.h"
#include "tests/support/markdown.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

static std::string text_of(const std::vector<unsigned char> &bytes)
{
    return {bytes.begin(), bytes.end()};
}

// Makes images of table sales.orders; "error: ..." when that fails.
struct maker {
    explicit maker(fwu_config with) : config(std::move(with))
    {
        tables.config = &config;
        tables.old_row_remedy = "run ALTER TABLE % REPLICA IDENTITY FULL";
        work.settings.big_endian = true;
    }

    std::string finish(const outcome &made)
    {
        return made ? text_of(image) : "error: " + made.text();
    }

    feed_table &table()
    {
        feed_table *found = nullptr;
        if (const outcome looked = feed_find_table(found, tables, "sales", "orders"); !looked)
            throw std::runtime_error(looked.text());
        return *found;
    }

    std::string fresh(const feed_row &row)
    {
        return finish(feed_new_image(work, image, table(), row, nullptr));
    }

    std::string changed(const feed_row &row, const feed_row &old_row)
    {
        return finish(feed_new_image(work, image, table(), row, &old_row));
    }

    std::string old(const feed_row &row)
    {
        return finish(feed_old_image(work, image, table(), row));
    }

    fwu_config config;
    feed_tables tables;
    feed_image_work work;
    std::vector<unsigned char> image;
};

struct value_case {
    fwu_item item; // named VALUE
    feed_column column;
    std::string expected; // image, or "error: ..."
};

static fwu_item value_item(char type, int32_t size, int32_t count = 1, int32_t scale = 0)
{
    return item_of("VALUE", type, size, count, scale);
}

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

TEST(FeedImage, NumbersGoIntoNumericItems)
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
TEST(FeedImage, ItemsTakeWhatThePageSays)
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

TEST(FeedImage, ByteOrderIsTheOneOfTheConfiguration)
{
    maker make(config_of({value_item('I', 4)}));
    make.work.settings.big_endian = false;
    EXPECT_EQ(make.fresh(row_of({number(PLAIN, "258")})), "\x02\x01\x00\x00"s);
}

TEST(FeedImage, TextIsFilledUpWithBlanks)
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

TEST(FeedImage, BooleansAreLettersOrOneAndZero)
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

TEST(FeedImage, DatesAndTimestampsHaveOneForm)
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

TEST(FeedImage, ArraysFillTheElementsOfTheirItem)
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

TEST(FeedImage, ValuesThatDoNotFitAreErrorsWithARemedy)
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
              "change the text at its source, or leave the column out of the dataset"},
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

TEST(FeedImage, TimestampsThatDoNotFitAreErrors)
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

TEST(FeedImage, ArraysThatDoNotFitAreErrors)
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

TEST(FeedImage, TruncateCutsTextsAndCountsThem)
{
    maker make(config_of({value_item('X', 3)}));
    make.work.settings.truncate = true;
    EXPECT_EQ(make.fresh(row_of({text(WORDS, "abcd")})), "abc");
    EXPECT_EQ(make.fresh(row_of({text(WORDS, "abc")})), "abc");
    EXPECT_EQ(make.fresh(row_of({text(WORDS, "\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F")})),
              "\xE4\xF6\xFC");
    EXPECT_EQ(make.work.truncated, 2U);
}

TEST(FeedImage, TruncateNeverCutsNumbersDatesAndTimestamps)
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

TEST(FeedImage, TruncateNeverCutsArraysNorValuesThatMeanSomethingElseThen)
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

TEST(FeedImage, TruncateCutsTheTextsOfAnArray)
{
    fwu_item item = value_item('X', 3);
    item.count = 2;
    maker make(config_of({item}));
    make.work.settings.truncate = true;
    EXPECT_EQ(make.fresh(row_of({text(LIST_OF_WORDS, "{abcd,xy}")})), "abcxy ");
    EXPECT_EQ(make.work.truncated, 1U);
}

static fwu_config nullable()
{
    return config_of({item_of("NOTE", 'X', 3), item_of("QTY", 'I', 2, 2), item_of("NET", 'P', 2),
                      item_of("TAX", 'Z', 2), item_of("RATE", 'E', 4), item_of("NULLS", 'X', 5)},
                     5);
}

static feed_row nullable_row(feed_kind kind)
{
    feed_row row = row_of({text_column("note", WORDS, "ab"), text_column("qty", PLAIN, "{1,2}"),
                           number_column("net", PLAIN, "5"), number_column("tax", PLAIN, "6"),
                           number_column("rate", PLAIN, "1")});
    if (kind == FEED_NULL) {
        for (feed_column &column : row.columns)
            column.kind = FEED_NULL;
    }
    return row;
}

TEST(FeedImage, NullsAreBlanksAndZerosAndNamedInTheNullMap)
{
    maker make(nullable());
    EXPECT_EQ(make.fresh(nullable_row(FEED_NULL)), "   \x00\x00\x00\x00\x00\x0C"
                                                   "0{\x00\x00\x00\x00NNNNN"s);
    EXPECT_EQ(make.fresh(nullable_row(FEED_TEXT)), "ab \x00\x01\x00\x02\x00\x5C"
                                                   "0F\x3F\x80\x00\x00....."s);
    feed_row row = nullable_row(FEED_TEXT);
    row.columns[2].kind = FEED_NULL;
    EXPECT_EQ(make.old(row), "ab \x00\x01\x00\x02\x00\x0C"
                             "0F\x3F\x80\x00\x00..N.."s);
}

TEST(FeedImage, NullMapMayStandAnywhereAndHasNoColumn)
{
    maker make(config_of({item_of("A", 'X', 1), item_of("B", 'X', 2), item_of("C", 'X', 1)}, 1));
    EXPECT_EQ(make.fresh(row_of({text_column("a", WORDS, "x"), text_column("b", WORDS, "column"),
                                 bare_column("c", WORDS, FEED_NULL)})),
              "x.N ");
}

TEST(FeedImage, NullWithoutNullMapIsAnError)
{
    maker make(config_of({value_item('X', 3)}));
    EXPECT_EQ(make.fresh(row_of({bare_column("value", WORDS, FEED_NULL)})),
              "error: sales.orders.value: is null, and dataset SALES.ORDERS has no item to say so: "
              "give it an X item with the word null-map in the configuration");
}

TEST(FeedImage, ColumnsFindTheirItemsByNameAndOthersAreLeftOut)
{
    maker make(config_of({item_of("ORDER-NO", 'X', 2), item_of("NOTE", 'X', 2)}));
    EXPECT_EQ(make.fresh(row_of({text_column("note", WORDS, "n1"), text_column("extra", WORDS, "e"),
                                 text_column("order_no", WORDS, "o1")})),
              "o1n1");
    EXPECT_THAT(make.work.notes,
                ElementsAre("table sales.orders: column extra has no item in dataset SALES.ORDERS "
                            "and is left out of the log"));
    make.work.notes.clear();
    // The same table with its columns in another order, and one more.
    EXPECT_EQ(
        make.fresh(row_of({text_column("order_no", WORDS, "o2"), text_column("note", WORDS, "n2"),
                           text_column("extra", WORDS, "e")})),
        "o2n2");
    EXPECT_THAT(make.work.notes, IsEmpty()) << "told before";
    EXPECT_EQ(make.old(row_of({text_column("a", WORDS, ""), text_column("order_no", WORDS, "o3"),
                               text_column("note", WORDS, "n3"), text_column("b", WORDS, "")})),
              "o3n3");
    EXPECT_THAT(make.work.notes,
                ElementsAre("table sales.orders: columns a, b have no items in dataset "
                            "SALES.ORDERS and are left out of the log"));
    EXPECT_EQ(make.fresh(
                  row_of({text_column("order_no", WORDS, "o3"), text_column("note", WORDS, "n3")})),
              "o3n3");
}

TEST(FeedImage, ItemWithoutColumnIsAnError)
{
    maker make(config_of({item_of("ORDER-NO", 'X', 2), item_of("NOTE", 'X', 2)}));
    EXPECT_EQ(
        make.fresh(row_of({text_column("note", WORDS, "n")})),
        "error: sales.orders: item ORDER-NO has no column in the stream: take the item out of "
        "the configuration");
    EXPECT_EQ(
        make.old(row_of({text_column("order_no", WORDS, "o")})),
        "error: sales.orders: item NOTE has no column in the old row of this change: run ALTER "
        "TABLE sales.orders REPLICA IDENTITY FULL, or take the item out of the configuration");
}

TEST(FeedImage, ColumnThatTheNewRowLacksComesFromTheOldRow)
{
    maker make(config_of({item_of("ORDER-NO", 'X', 2), item_of("NOTE", 'X', 3)}));
    const feed_row old_row =
        row_of({text_column("note", WORDS, "old"), text_column("order_no", WORDS, "o1")});
    EXPECT_EQ(make.changed(row_of({text_column("order_no", WORDS, "o2")}), old_row), "o2old");
    EXPECT_EQ(make.changed(
                  row_of({text_column("order_no", WORDS, "o3"), text_column("note", WORDS, "new")}),
                  old_row),
              "o3new");
}

TEST(FeedImage, TwoColumnsForOneItemAreAnError)
{
    maker make(config_of({item_of("A-B", 'X', 2)}));
    EXPECT_EQ(make.fresh(row_of({text_column("a_b", WORDS, "1"), text_column("A-B", WORDS, "2")})),
              "error: sales.orders.A-B: item A-B is already fed by column a_b");
    EXPECT_EQ(make.fresh(row_of({text_column("a_b", WORDS, "1"), text_column("a_b", WORDS, "2")})),
              "error: sales.orders.a_b: item A-B is already fed by column a_b");
    EXPECT_EQ(make.fresh(row_of({text_column("a_b", WORDS, "1")})), "1 ");
}
