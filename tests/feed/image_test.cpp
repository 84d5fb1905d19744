// Rows to record images: offsets, nulls, columns that are missing or have no item.
#include "feed/image.h"
#include "tests/feed/maker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

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
