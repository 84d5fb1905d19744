// Rows with values that their items cannot hold, or do not bring, where that is marked: images,
// null maps, whole values, counts, and what is told.
#include "feed/marks.h"
#include "tests/feed/maker.h"

#include <deque>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

// Items with columns a, b, c, ... and a null map behind them; marks for all.
static fwu_config marked(std::vector<fwu_item> items)
{
    const auto others = static_cast<int32_t>(items.size());
    items.push_back(item_of("NULLS", 'X', others));
    fwu_config config = config_of(std::move(items), others);
    config.policy = FWU_POLICY_MARK;
    return config;
}

// "0b <whole value>" of each.
static std::vector<std::string> values_of(const maker &make)
{
    std::vector<std::string> out;
    for (const fwu_value &value : make.work.values)
        out.push_back(std::to_string(value.item) + static_cast<char>(value.image) + " <" +
                      std::string(value.text) + ">");
    return out;
}

struct mark_case {
    fwu_item item; // named VALUE
    feed_column column;
    std::string expected; // image with its null map
    std::string whole;    // empty: none is kept
};

static feed_column text(feed_type type, const std::string &value)
{
    static std::deque<std::string> kept; // columns only point to their values
    return text_column("value", type, kept.emplace_back(value).c_str());
}

static feed_column digits(const char *value)
{
    return number_column("value", PLAIN, value);
}

static void check(const std::vector<mark_case> &cases, fwu_encoding encoding)
{
    for (const mark_case &row : cases) {
        SCOPED_TRACE(std::string(1, static_cast<char>(row.item.type)) +
                     std::to_string(row.item.size) + " " + std::string(row.column.value));
        maker make(marked({row.item}));
        make.work.settings.encoding = encoding;
        const feed_row of = row_of({row.column});
        EXPECT_EQ(make.fresh(of), row.expected);
        std::vector<std::string> whole;
        if (!row.whole.empty())
            whole.push_back("0a <" + row.whole + ">");
        EXPECT_EQ(values_of(make), whole);
        EXPECT_EQ(make.work.notes.size(), whole.size());
        const feed_marked &counts = make.work.marked;
        EXPECT_EQ(counts.cut, row.expected.back() == 'C' ? 1U : 0U);
        EXPECT_EQ(counts.replaced, row.expected.back() == 'R' ? 1U : 0U);
        EXPECT_EQ(counts.left_out, row.expected.back() == '!' ? 1U : 0U);
        EXPECT_EQ(counts.unknown, 0U);
        EXPECT_EQ(make.work.truncated, 0U);
    }
}

TEST(FeedMarks, TextsAreCutAndLoseCharacters)
{
    check(
        {
            {value_item('X', 3), text(WORDS, "abc"), "abc.", ""},
            {value_item('X', 3), text(WORDS, "abcd"), "abcC", "abcd"},
            {value_item('U', 3), text(WORDS, "abcd"), "abcC", "abcd"},
            {value_item('X', 3), text(WORDS, "\xC3\xA4\xC3\xB6\xC3\xBC"), "\xE4\xF6\xFC."s, ""},
            {value_item('X', 3), text(WORDS, "\xE2\x82\xAC 1"), "? 1R", "\xE2\x82\xAC 1"},
            {value_item('X', 2), text(WORDS, "\xE2\x82\xAC 1"), "? C", "\xE2\x82\xAC 1"},
            {value_item('X', 2), text(WORDS, "a \xE2\x82\xAC"), "a C", "a \xE2\x82\xAC"},
            {value_item('X', 3), text(FILLED, "ab     "), "ab .", ""},
            {value_item('X', 3), text(FILLED, "abcd   "), "abcC", "abcd"},
            {value_item('X', 3), text(WORDS, "ab  "), "ab C", "ab  "},
            {value_item('X', 3), text(WORDS, "ab "), "ab C", "ab "},
            {value_item('X', 3), text(WORDS, " "), "   C", " "},
            {value_item('X', 3), text(WORDS, ""), "   .", ""},
            {value_item('X', 1), text(PLAIN, " "), " C", " "},
            {value_item('X', 2), text(WORDS, "\xE2\x82\xAC "), "? R", "\xE2\x82\xAC "},
            {value_item('X', 3), text(WORDS, "a\xFF"), "a? R", "a\xFF"},
            {value_item('X', 5), text(PLAIN, "1 \xE2\x82\xAC"), "1 ?  R", "1 \xE2\x82\xAC"},
        },
        FWU_LATIN1);
}

TEST(FeedMarks, Utf8IsCutBetweenCharactersAndLosesOnlyWhatIsNone)
{
    check(
        {
            {value_item('X', 5), text(WORDS, "ab\xE2\x82\xAC"), "ab\xE2\x82\xAC.", ""},
            {value_item('X', 4), text(WORDS, "ab\xE2\x82\xAC"), "ab  C", "ab\xE2\x82\xAC"},
            {value_item('X', 3), text(WORDS, "\xC3\xBC\xC3\xBC"), "\xC3\xBC C", "\xC3\xBC\xC3\xBC"},
            {value_item('X', 1), text(WORDS, "\xC3\xBC"), " C", "\xC3\xBC"},
            {value_item('X', 4), text(WORDS, "\xC3\xBC "), "\xC3\xBC  C", "\xC3\xBC "},
            {value_item('X', 5), text(WORDS, "a\xFF"), "a\xEF\xBF\xBD R", "a\xFF"},
            {value_item('X', 3), text(WORDS, "a\xFF"), "a  C", "a\xFF"},
            {value_item('X', 4), text(FILLED, "\xC3\xBC\xC3\xBC    "), "\xC3\xBC\xC3\xBC.", ""},
            {value_item('X', 3), text(FILLED, "\xC3\xBC    "), "\xC3\xBC .", ""},
        },
        FWU_UTF8);
}

TEST(FeedMarks, NumbersAndDatesAreLeftBlankRatherThanCut)
{
    check(
        {
            {value_item('X', 3), digits("1234"), "   !", "1234"},
            {value_item('X', 9), text(PLAIN, "2026-03-09"), "         !", "2026-03-09"},
            {value_item('X', 10), text(PLAIN, "0044-03-15 BC"), "          !", "0044-03-15 BC"},
            {value_item('X', 19), text(TIMESTAMP, "2026-03-09 08:18:01.5"), "                   !",
             "2026-03-09 08:18:01.5"},
            {value_item('X', 26), text(TIMESTAMP, "0044-03-15 12:00:00 BC"),
             "                          !", "0044-03-15 12:00:00 BC"},
            {value_item('P', 4), text(PLAIN, "NaN"), "\x00\x00\x00\x0C!"s, "NaN"},
            {value_item('P', 2, 1, 2), digits("100"), "\x00\x0C!"s, "100"},
            {value_item('Z', 2), digits("100"), "0{!", "100"},
            {value_item('I', 2), digits("40000"), "\x00\x00!"s, "40000"},
            {value_item('K', 2), digits("-1"), "\x00\x00!"s, "-1"},
            {value_item('E', 4), digits("1e60"), "\x00\x00\x00\x00!"s, "1e60"},
            {value_item('I', 4), text(WORDS, "x"), "\x00\x00\x00\x00!"s, "x"},
            {value_item('P', 1, 1, 1), bare_column("value", BOOLEAN, FEED_TRUE), "\x0C!"s, "t"},
        },
        FWU_LATIN1);
}

TEST(FeedMarks, ArrayHasTheWorstMarkOfItsElements)
{
    const std::string euro = "\xE2\x82\xAC";
    check(
        {
            {value_item('X', 2, 3), text(LIST_OF_WORDS, "{ab,c,d}"), "abc d .", ""},
            {value_item('X', 2, 3), text(LIST_OF_WORDS, "{a,bcd,e}"), "a bce C", "{a,bcd,e}"},
            {value_item('X', 2, 3), text(LIST_OF_WORDS, "{a,\"b \",e}"), "a b e C", "{a,\"b \",e}"},
            {value_item('X', 2, 3), text(LIST_OF_WORDS, "{a," + euro + ",e}"), "a ? e R",
             "{a," + euro + ",e}"},
            {value_item('X', 2, 3), text(LIST_OF_WORDS, "{abc," + euro + ",e}"), "ab? e C",
             "{abc," + euro + ",e}"},
            {value_item('X', 2, 3), text(LIST_OF_WORDS, "{" + euro + ",abc,e}"), "? abe C",
             "{" + euro + ",abc,e}"},
            {value_item('X', 2, 3), text(PLAIN, "{1,123,2}"), "      !", "{1,123,2}"},
            {value_item('I', 2, 2), text(PLAIN, "{1,2,3}"), "\x00\x00\x00\x00!"s, "{1,2,3}"},
            {value_item('I', 2, 2), text(PLAIN, "{1,NULL}"), "\x00\x00\x00\x00!"s, "{1,NULL}"},
            {value_item('P', 1, 2), text(PLAIN, "{1,20}"), "\x0C\x0C!"s, "{1,20}"},
        },
        FWU_LATIN1);
}

TEST(FeedMarks, ItemsOfBothImagesAreMarkedAndKeptWhole)
{
    maker make(marked({item_of("A", 'X', 2), item_of("B", 'I', 2), item_of("C", 'X', 2)}));
    const feed_row old_row =
        row_of({text_column("a", WORDS, "long old"), number_column("b", PLAIN, "99999"),
                text_column("c", WORDS, "c1")});
    const feed_row fresh = row_of({text_column("a", WORDS, "new"), number_column("b", PLAIN, "1"),
                                   bare_column("c", WORDS, FEED_NULL)});
    EXPECT_EQ(make.old(old_row), "lo\x00\x00"s
                                 "c1C!.");
    EXPECT_EQ(make.changed(fresh, old_row), "ne\x00\x01"s
                                            "  C.N");
    EXPECT_THAT(values_of(make), ElementsAre("0b <long old>", "1b <99999>", "0a <new>"));
    EXPECT_EQ(make.work.marked, (feed_marked{.cut = 2, .replaced = 0, .left_out = 1}));
}

TEST(FeedMarks, ValueOfTheOldRowThatTheNewOneLacksIsMarkedInBoth)
{
    maker make(marked({item_of("A", 'X', 2), item_of("B", 'X', 2)}));
    const feed_row old_row =
        row_of({text_column("a", WORDS, "1"), text_column("b", WORDS, "stored apart")});
    EXPECT_EQ(make.old(old_row), "1 st.C");
    EXPECT_EQ(make.changed(row_of({text_column("a", WORDS, "2")}), old_row), "2 st.C");
    EXPECT_THAT(values_of(make), ElementsAre("1b <stored apart>", "1a <stored apart>"));
}

TEST(FeedMarks, WhatDidNotComeIsUnknown)
{
    maker make(marked({item_of("NO", 'I', 2), item_of("NOTE", 'X', 3), item_of("BODY", 'P', 2)}));
    const feed_row key = row_of({number_column("no", PLAIN, "7")});
    const feed_row fresh =
        row_of({number_column("no", PLAIN, "8"), text_column("note", WORDS, "n")});
    EXPECT_EQ(make.old(key), "\x00\x07   \x00\x0C.??"s);
    EXPECT_EQ(make.changed(fresh, key), "\x00\x08n  \x00\x0C..?"s);
    EXPECT_THAT(values_of(make), IsEmpty());
    EXPECT_EQ(make.work.marked, (feed_marked{.unknown = 3}));
    EXPECT_THAT(
        make.work.notes,
        ElementsAre("table sales.orders: an old row came without items NOTE, BODY: marked ? "
                    "(told once); for such values, run ALTER TABLE sales.orders REPLICA "
                    "IDENTITY FULL",
                    "table sales.orders: a new row came without item BODY, as what is stored "
                    "apart and not changed does: marked ? (told once); for such values, run "
                    "ALTER TABLE sales.orders REPLICA IDENTITY FULL"));
    make.work.notes.clear();
    EXPECT_EQ(make.old(row_of({})), "\x00\x00   \x00\x0C???"s);
    EXPECT_THAT(make.work.notes,
                ElementsAre("table sales.orders: an old row came without item NO: marked ? (told "
                            "once); for such values, run ALTER TABLE sales.orders REPLICA IDENTITY "
                            "FULL"));
    make.work.notes.clear();
    EXPECT_EQ(make.old(key), "\x00\x07   \x00\x0C.??"s);
    EXPECT_THAT(make.work.notes, IsEmpty());
    EXPECT_EQ(make.work.marked.unknown, 8U);
}

TEST(FeedMarks, EachKindOfMarkIsToldOnceForAColumn)
{
    maker make(marked({item_of("A", 'X', 3), item_of("B", 'I', 2)}));
    const auto row = [](const char *a, const char *b) {
        return row_of({text_column("a", WORDS, a), number_column("b", PLAIN, b)});
    };
    const std::string kept = " (the whole value stands beside its record; told once)";
    EXPECT_EQ(make.fresh(row("abcd", "70000")), "abc\x00\x00"s
                                                "C!");
    EXPECT_THAT(
        make.work.notes,
        ElementsAre("sales.orders.a: \"abcd\" is too long for item A (X 3), cut and marked C: "
                    "make the item wider" +
                        kept,
                    "sales.orders.b: \"70000\" is out of the range of item B (I 2), left blank "
                    "and marked !: make the item wider" +
                        kept));
    make.work.notes.clear();
    EXPECT_EQ(make.fresh(row("ab ", "80000")).substr(5), "C!");
    EXPECT_EQ(make.fresh(row("abcde", "80000")).substr(5), "C!");
    EXPECT_THAT(make.work.notes, IsEmpty());
    EXPECT_EQ(make.old(row("\xE2\x82\xAC", "80000")).substr(5), "R!");
    EXPECT_THAT(
        make.work.notes,
        ElementsAre("sales.orders.a: \"\xE2\x82\xAC\" has the character U+20AC, which has no "
                    "place in ISO 8859-1: replaced and marked R" +
                    kept));
    make.work.notes.clear();
    // The table's record is made anew when its columns change; that is no reason to tell again.
    make.tables.known.clear();
    EXPECT_EQ(make.fresh(row("abcde", "80000")).substr(5), "C!");
    EXPECT_THAT(make.work.notes, IsEmpty());
    EXPECT_EQ(make.work.marked, (feed_marked{.cut = 4, .replaced = 1, .left_out = 5}));
}

TEST(FeedMarks, ItemFromTheSourceGetsWiderByALineThatIsTold)
{
    fwu_config config;
    config.path = "test.cfg";
    feed_tables tables = {.config = &config, .default_policy = FWU_POLICY_MARK};
    fwu_dataset dataset = marked({item_of("A", 'X', 3)}).datasets[0];
    feed_table *table = nullptr;
    ASSERT_TRUE(feed_put_table(table, tables, "sales.orders", std::move(dataset), {"a b"}));
    feed_image_work work;
    std::vector<unsigned char> image;
    const feed_row row = row_of({text_column("a b", WORDS, "abcd")});
    ASSERT_TRUE(feed_new_image(work, image, *table, row, nullptr));
    EXPECT_EQ(std::string(image.begin(), image.end()), "abcC");
    EXPECT_THAT(
        work.notes,
        ElementsAre("sales.orders.\"a b\": \"abcd\" is too long for item A (X 3), cut and "
                    "marked C: put the line \"column sales.orders.\"a b\" width=N\" into the "
                    "configuration, and \"values mark\" with it (the whole value stands beside its "
                    "record; told once)"));
}

TEST(FeedMarks, PolicyIsEachColumnsOwn)
{
    fwu_config config = marked({item_of("A", 'X', 2), item_of("B-C", 'X', 2)});
    config.columns.push_back(policy_line("sales.orders", "b_c", FWU_POLICY_ERROR));
    maker make(std::move(config));
    const auto row = [](const char *a, const char *b) {
        return row_of({text_column("a", WORDS, a), text_column("b_c", WORDS, b)});
    };
    EXPECT_EQ(make.fresh(row("123", "12")), "1212C.");
    EXPECT_EQ(make.fresh(row("123", "123")),
              "error: sales.orders.b_c: \"123\" is 3 characters long, item B-C (X 2) holds 2: make "
              "the item wider, or cut texts with --truncate; or let such values be marked: change "
              "values=error to values=mark in the line of test.cfg that begins with \"column "
              "sales.orders.b_c\"");
    EXPECT_EQ(
        make.fresh(row_of({text_column("a", WORDS, "1")})),
        "error: sales.orders: item B-C has no column in the stream: take the item out of the "
        "configuration, or let what is missing be marked: change values=error to values=mark in "
        "the line of test.cfg that begins with \"column sales.orders.b_c\"");
    EXPECT_EQ(make.old(row_of({text_column("b_c", WORDS, "1")})), "  1 ?.");
}

TEST(FeedMarks, BlanksAtTheEndAreTold)
{
    maker make(marked({item_of("A", 'X', 3)}));
    EXPECT_EQ(make.fresh(row_of({text_column("a", WORDS, "ab ")})), "ab C");
    EXPECT_THAT(make.work.notes,
                ElementsAre("sales.orders.a: \"ab \" ends with blanks, which item A (X 3) cannot "
                            "tell from its filling: marked C (the whole value stands beside its "
                            "record; told once)"));
}

// A line that is there cannot be given again.
TEST(FeedMarks, RemedyNamesTheLineThatIsThere)
{
    const feed_row row = row_of({text_column("a", WORDS, "abcd")});
    const auto said = [&](fwu_config config, bool is_missing) {
        maker make(std::move(config));
        const std::string error = make.fresh(is_missing ? row_of({}) : row);
        return error.substr(error.find("be marked: ") + 11);
    };
    fwu_config config = marked({item_of("A", 'X', 3)});
    config.policy = FWU_POLICY_ERROR;
    EXPECT_EQ(said(config, false), "column sales.orders.a values=mark");
    EXPECT_EQ(said(config, true), "table sales.orders values=mark");
    config.columns.push_back({.table = "sales.orders", .column = "a", .item = {}, .key = true});
    EXPECT_EQ(said(config, false), "add values=mark in the line of test.cfg that begins with "
                                   "\"column sales.orders.a\"");
    EXPECT_EQ(said(config, true), "table sales.orders values=mark");
    config.table_rules = {{"sales.orders", FWU_POLICY_ERROR}};
    EXPECT_EQ(said(config, true), "change values=error to values=mark in the line of test.cfg that "
                                  "begins with \"table sales.orders\"");
}

// What is told of a value in an item that comes from the source, under marks.
static std::string wider(const fwu_config &config, const fwu_item &item, const feed_column &column)
{
    feed_tables tables = {.config = &config, .default_policy = FWU_POLICY_MARK};
    fwu_dataset dataset = marked({item}).datasets[0];
    feed_table *table = nullptr;
    EXPECT_TRUE(feed_put_table(table, tables, "sales.orders", std::move(dataset), {"value"}));
    feed_image_work work;
    std::vector<unsigned char> image;
    EXPECT_TRUE(feed_new_image(work, image, *table, row_of({column}), nullptr));
    EXPECT_EQ(work.notes.size(), 1U);
    const std::string note = work.notes.empty() ? "" : work.notes[0];
    const size_t at = note.find("marked ") + 10;
    return note.substr(at, note.rfind(" (the whole") - at);
}

// The width is one that takes the value, and all others that the item has taken so far.
TEST(FeedMarks, RemedyGivesTheWidthThatTakesTheValue)
{
    const struct {
        fwu_item item;
        feed_column column;
        int32_t width;
    } rows[] = {
        {value_item('X', 10), text(PLAIN, "0044-03-15 BC"), 13},
        {value_item('X', 10), text(PLAIN, "10000-01-01"), 11},
        {value_item('X', 26), text(TIMESTAMP, "0044-03-15 12:00:00 BC"), 38},
        {value_item('X', 26), text(TIMESTAMP, "10000-01-01 00:00:00+00"), 38},
        {value_item('P', 4, 1, 2), text(PLAIN, "NaN"), 10},
        {value_item('P', 2, 1, 2), text(PLAIN, "123456.78"), 9},
        {value_item('P', 2, 1, 2), text(PLAIN, "1.234"), 6},
        {value_item('Z', 2), digits("100"), 5},
        {value_item('I', 2), digits("40000"), 20},
        {value_item('E', 4), digits("1e60"), 24},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.column.value);
        fwu_config config;
        config.path = "test.cfg";
        const std::string width = "width=" + std::to_string(row.width);
        EXPECT_EQ(wider(config, row.item, row.column),
                  "put the line \"column sales.orders.value " + width +
                      "\" into the configuration, and \"values mark\" with it");
        config.policy = FWU_POLICY_MARK;
        EXPECT_EQ(wider(config, row.item, row.column), "put the line \"column sales.orders.value " +
                                                           width + "\" into the configuration");
        config.columns.push_back(policy_line("sales.orders", "value", FWU_POLICY_MARK));
        const std::string line = " in the line of test.cfg that begins with \"column "
                                 "sales.orders.value\"";
        EXPECT_EQ(wider(config, row.item, row.column), "add " + width + line);
        config.columns[0].width = 1;
        EXPECT_EQ(wider(config, row.item, row.column), "change width=1 to " + width + line);

        // As it says; the server's text is taken as it is then.
        feed_column as_text = row.column;
        as_text.type = PLAIN;
        maker make(marked({value_item('X', row.width)}));
        EXPECT_EQ(make.fresh(row_of({as_text})).back(), '.');
    }
}

TEST(FeedMarks, RemedyForTextsIsAGreaterWidth)
{
    fwu_config config;
    config.path = "test.cfg";
    config.columns.push_back(policy_line("sales.orders", "value", FWU_POLICY_MARK));
    config.columns[0].width = 3;
    EXPECT_EQ(wider(config, value_item('X', 3), text(WORDS, "abcd")),
              "change width=3 to a greater one in the line of test.cfg that begins with \"column "
              "sales.orders.value\"");
    EXPECT_EQ(wider(config, value_item('P', 3), text(PLAIN, std::string(32'768, '9'))),
              "no item is longer than 32767 bytes");
}

TEST(FeedMarks, DatasetWithoutNullMapKeepsItsErrors)
{
    fwu_config config = config_of({item_of("A", 'X', 2)});
    config.policy = FWU_POLICY_MARK;
    config.table_rules = {{"sales.orders", FWU_POLICY_MARK}};
    config.columns.push_back(policy_line("sales.orders", "a", FWU_POLICY_MARK));
    maker make(std::move(config));
    EXPECT_EQ(
        make.fresh(row_of({text_column("a", WORDS, "123")})),
        "error: sales.orders.a: \"123\" is 3 characters long, item A (X 2) holds 2: make the "
        "item wider, or cut texts with --truncate; or let such values be marked: give dataset "
        "SALES.ORDERS in test.cfg an item with the word null-map, X 1, which marks need");
    EXPECT_EQ(make.old(row_of({})),
              "error: sales.orders: item A has no column in the old row of this change: run ALTER "
              "TABLE sales.orders REPLICA IDENTITY FULL, or take the item out of the "
              "configuration, or let what "
              "is missing be marked: give dataset SALES.ORDERS in test.cfg an item with the word "
              "null-map, X 1, which marks need");
    EXPECT_EQ(make.work.marked, feed_marked());
    EXPECT_THAT(make.work.values, IsEmpty());
}

// From image and whole values comes what went in: texts of two columns and a number.
TEST(FeedMarks, RandomRowsLoseNothing)
{
    static const char *const pieces[] = {"a", "bc ", "\xC3\xBC", "\xE2\x82\xAC", "\xFF", "0"};
    for (const fwu_encoding encoding : {FWU_LATIN1, FWU_UTF8}) {
        maker make(marked({item_of("A", 'X', 7), item_of("B", 'X', 4), item_of("C", 'I', 2)}));
        make.work.settings.encoding = encoding;
        std::minstd_rand random(20261123);
        feed_marked expected;
        for (int run = 0; run < 2000; run++) {
            std::string texts[2];
            for (std::string &made : texts)
                for (auto n = random() % 8; n > 0; n--)
                    made += pieces[random() % std::size(pieces)];
            const std::string number = std::to_string(random() % 65536);
            const feed_row row = row_of({text_column("a", WORDS, texts[0].c_str()),
                                         text_column("b", WORDS, texts[1].c_str()),
                                         number_column("c", PLAIN, number.c_str())});
            make.work.values.clear();
            const std::string image = make.fresh(row);
            ASSERT_EQ(image.size(), 16U) << run;
            std::string got[3];
            const size_t at[] = {0, 7, 11, 13};
            for (size_t i = 0; i < 3; i++)
                got[i] = image.substr(at[i], at[i + 1] - at[i]);
            got[2] = std::to_string(static_cast<unsigned char>(got[2][0]) * 256 +
                                    static_cast<unsigned char>(got[2][1]));
            std::string flags = "...";
            for (const fwu_value &value : make.work.values) {
                const auto item = static_cast<size_t>(value.item);
                flags[item] = '*';
                got[item] = value.text;
            }
            for (size_t i = 0; i < 3; i++) {
                const char flag = image[13 + i];
                EXPECT_EQ(flag == '.', flags[i] == '.') << run;
                expected.cut += flag == 'C' ? 1 : 0;
                expected.replaced += flag == 'R' ? 1 : 0;
                expected.left_out += flag == '!' ? 1 : 0;
            }
            for (size_t i = 0; i < 2; i++) {
                std::string sent = texts[i];
                if (flags[i] == '.') {
                    if (encoding == FWU_LATIN1) // its only character there, in one byte
                        for (size_t u = 0; (u = sent.find("\xC3\xBC")) != sent.npos;)
                            sent.replace(u, 2, "\xFC");
                    got[i].resize(got[i].find_last_not_of(' ') + 1);
                }
                EXPECT_EQ(got[i], sent) << run;
            }
            EXPECT_EQ(got[2], number) << run;
            EXPECT_EQ(image[15] == '!', std::stoi(number) > 32767) << run;
        }
        EXPECT_EQ(make.work.marked, expected);
        EXPECT_GT(expected.cut, 0U);
        EXPECT_GT(expected.replaced, 0U);
        EXPECT_GT(expected.left_out, 0U);
    }
}
