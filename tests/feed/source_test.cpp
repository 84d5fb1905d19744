// What is told of a table as the source of its layout.
#include "feed/source.h"
#include "tests/feed/rows.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

class FeedSource : public testing::Test {
  protected:
    // Dataset ORDERS with these items.
    void configure(std::vector<fwu_item> items, int null_map = -1)
    {
        config = config_of(std::move(items), null_map);
        tables.config = &config;
    }

    feed_table &find(const char *table = "orders", const char *schema = "sales")
    {
        feed_table *found = nullptr;
        const outcome done = feed_find_table(found, tables, schema, table);
        EXPECT_TRUE(done) << done.text();
        return *found;
    }

    static feed_told told(std::vector<feed_told_column> columns, std::vector<std::string> key = {})
    {
        return {.schema = "sales",
                .table = "orders",
                .columns = std::move(columns),
                .key = std::move(key)};
    }

    // "sales.orders null-map=2: no integer >0 #1; qty smallint >1"
    static std::string text_of(const feed_table &table)
    {
        if (table.layout.source == nullptr)
            return "none";
        const fwu_source &source = *table.layout.source;
        std::string text = source.schema + "." + source.table;
        if (source.null_map >= 0)
            text += " null-map=" + std::to_string(source.null_map);
        for (const fwu_source_column &column : source.columns) {
            text += (&column == source.columns.data() ? ": " : "; ") + column.name;
            text += column.type.empty() ? "" : " " + column.type;
            text += column.item < 0 ? "" : " >" + std::to_string(column.item);
            text += column.key == 0 ? "" : " #" + std::to_string(column.key);
        }
        EXPECT_TRUE(fwu_source_fits(source, table.layout.items.size())) << text;
        return text;
    }

    // The source after a description.
    std::string described(feed_told as)
    {
        feed_describe(find(), config, std::move(as), notes);
        return text_of(find());
    }

    fwu_config config;
    feed_tables tables;
    std::vector<std::string> notes;
};

TEST_F(FeedSource, ColumnsStandInTheTablesOrderWithTheItemsThatTheyFeed)
{
    configure({item_of("QTY", 'I', 2), item_of("NULL-MAP", 'X', 2), item_of("ORDER-NO", 'I', 4)},
              1);
    EXPECT_EQ(text_of(find()), "none");
    EXPECT_EQ(described(told({{"order_no", "integer"}, {"note", "text"}, {"qty", ""}})),
              "sales.orders null-map=1: order_no integer >2; note text; qty >0");
    EXPECT_EQ(find().layout.items, config.datasets[0].layout.items);
    EXPECT_EQ(config.datasets[0].layout.source, nullptr);
    // A column with the null map's name feeds nothing.
    EXPECT_EQ(described(told({{"null_map", "text"}, {"qty", "smallint"}})),
              "sales.orders null-map=1: null_map text; qty smallint >0");
}

TEST_F(FeedSource, SameDescriptionKeepsTheObject)
{
    configure({item_of("A", 'I', 4)});
    described(told({{"a", "integer"}}));
    const fwu_source *const first = find().layout.source.get();
    described(told({{"a", "integer"}}));
    EXPECT_EQ(find().layout.source.get(), first);
    // A key of a column that is not there says nothing else either.
    described(told({{"a", "integer"}}, {"b"}));
    EXPECT_EQ(find().layout.source.get(), first);
    EXPECT_EQ(described(told({{"a", "bigint"}})), "sales.orders: a bigint >0");
    EXPECT_NE(find().layout.source.get(), first);
}

TEST_F(FeedSource, KeyIsInItsOwnOrderAndWholeOrNone)
{
    configure({item_of("A", 'I', 4)});
    const std::vector<feed_told_column> columns = {{"a", ""}, {"b", ""}, {"c", ""}};
    EXPECT_EQ(described(told(columns, {"c", "a"})), "sales.orders: a >0 #2; b; c #1");
    EXPECT_EQ(described(told(columns, {"c", "gone"})), "sales.orders: a >0; b; c");
    EXPECT_EQ(described(told(columns, {"a", "c", "b"})), "sales.orders: a >0 #1; b #3; c #2");
    EXPECT_EQ(described(told(columns, {"a", "a"})), "sales.orders: a >0; b; c");
    EXPECT_EQ(described(told(columns)), "sales.orders: a >0; b; c");
    EXPECT_THAT(notes, IsEmpty());
}

TEST_F(FeedSource, KeyItemsOfTheConfigurationGoBeforeTheSource)
{
    configure({item_of("C", 'I', 4), item_of("B", 'I', 4), item_of("A", 'I', 4)});
    config.datasets[0].key = {0, 2};
    config.columns = {{"sales.orders", "b", "", 0, true}};
    EXPECT_EQ(described(told({{"a", ""}, {"b", ""}, {"c", ""}}, {"b"})),
              "sales.orders: a >2 #2; b >1; c >0 #1");
    EXPECT_EQ(described(told({{"a", ""}, {"b", ""}}, {"b"})), "sales.orders: a >2; b >1 #1");
    EXPECT_THAT(notes, IsEmpty()) << "rows without a column for an item are an error of their own";
}

TEST_F(FeedSource, KeyColumnsOfTheConfigurationGoBeforeTheSource)
{
    configure({item_of("A", 'I', 4)});
    config.columns = {{"sales.orders", "c", "", 0, true},
                      {"sales.orders", "b", "", 7, false},
                      {"sales.orders", "a", "", 0, true},
                      {"sales.other", "b", "", 0, true}};
    EXPECT_EQ(described(told({{"a", ""}, {"b", ""}, {"c", ""}}, {"b"})),
              "sales.orders: a >0 #2; b; c #1");
    EXPECT_THAT(notes, IsEmpty());
    const std::string none =
        "table sales.orders: column c, which test.cfg makes part of its key, is not there: the key "
        "is what the source says";
    EXPECT_EQ(described(told({{"a", ""}, {"b", ""}}, {"b"})), "sales.orders: a >0; b #1");
    EXPECT_THAT(notes, ElementsAre(none));
    EXPECT_EQ(described(told({{"a", ""}, {"d", ""}}, {"b"})), "sales.orders: a >0; d");
    EXPECT_THAT(notes, ElementsAre(none)) << "told once";
}

TEST_F(FeedSource, TablesOfItemsFromTheServerGoByTheColumnsNames)
{
    configure({});
    fwu_dataset dataset;
    dataset.layout = {
        "SALES", "OWN", {item_of("GROSS", 'I', 4), item_of("B", 'I', 4), item_of("N", 'X', 2)}};
    dataset.null_map = 2;
    feed_table *own = nullptr;
    ASSERT_TRUE(feed_put_table(own, tables, "sales.own", dataset, {"gr\xC3\xB6\xC3\x9F", "\"B\""}));
    feed_describe(
        *own, config,
        {.schema = "sales",
         .table = "own",
         .columns = {{"\"B\"", "t"}, {"gr\xC3\xB6\xC3\x9F", "public.gr\xC3\xB6\xC3\x9F[]"}},
         .key = {"gr\xC3\xB6\xC3\x9F"}},
        notes);
    EXPECT_EQ(text_of(*own), "sales.own null-map=2: \"B\" t >1; gr\xC3\xB6\xC3\x9F "
                             "public.gr\xC3\xB6\xC3\x9F[] >0 #1");
}

TEST_F(FeedSource, SchemaAndTableAreKeptApart)
{
    configure({item_of("A", 'I', 4)});
    config.datasets[0].table = "\"my.schema\".\"t.x\"";
    feed_table &table = find("t.x", "my.schema");
    feed_describe(table, config,
                  {.schema = "my.schema", .table = "t.x", .columns = {{"a", ""}}, .key = {}},
                  notes);
    EXPECT_EQ(table.layout.source->schema, "my.schema");
    EXPECT_EQ(table.layout.source->table, "t.x");
}

TEST_F(FeedSource, WhatTheLogCannotHoldIsLeftOut)
{
    configure({item_of("A", 'I', 4), item_of("B", 'I', 4)});
    const std::string nul("x\0y", 3);
    const std::string long_text(FWU_SOURCE_TEXT_MAX + 1, 'x');
    EXPECT_EQ(described(told({{"", "t"},
                              {nul, "t"},
                              {long_text, "t"},
                              {"a", nul},
                              {"b", long_text},
                              {"c", long_text.substr(1)}})),
              "sales.orders: a >0; b >1; c " + long_text.substr(1));
}

TEST_F(FeedSource, TwoColumnsThatFeedOneItemAreOneFeedAndAnother)
{
    configure({item_of("ORDER-NO", 'I', 4)});
    EXPECT_EQ(described(told({{"Order_No", ""}, {"order_no", ""}})),
              "sales.orders: Order_No >0; order_no");
}

TEST_F(FeedSource, ASourceThatTheLogCannotHoldIsTold)
{
    configure({item_of("NO", 'I', 4)});
    feed_told no_name = told({{.name = "no", .type = "integer"}});
    no_name.table = "";
    EXPECT_EQ(described(no_name), "none");
    EXPECT_THAT(notes, ElementsAre("SALES.ORDERS: the source's table and columns have names of 1 "
                                   "to 65535 bytes, schema and types have at most as many, none "
                                   "zero: the log does not say where its records come from"));
    EXPECT_EQ(described(told({{.name = "no", .type = "integer"}})), "sales.orders: no integer >0");
}
