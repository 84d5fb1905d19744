// From table names to datasets.
#include "feed/table.h"
#include "tests/feed/rows.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

static fwu_dataset dataset(const char *dbname, const char *dsetname, const char *table = "")
{
    fwu_dataset out;
    out.layout = {.dbname = dbname, .dsetname = dsetname, .items = {item_of("A", 'X', 4)}};
    out.table = table;
    return out;
}

static fwu_config names()
{
    fwu_config config;
    config.path = "test.cfg";
    config.datasets = {dataset("SALES", "ORDER-LINES"),
                       dataset("SALES", "SHORT", "sales.a_very_long_table_name"),
                       dataset("SALES", "RENAMED", "Other.Table")};
    config.skip_tables = {"sales.audit", "sales.another_very_long_name"};
    return config;
}

// The dataset that a table feeds, "skipped", or the error.
static std::string fed(const char *schema, const char *table)
{
    const fwu_config config = names();
    feed_tables tables;
    tables.config = &config;
    feed_table *found = nullptr;
    const outcome done = feed_find_table(found, tables, schema, table);
    if (found == nullptr)
        return done.text();
    feed_table *again = nullptr;
    EXPECT_TRUE(feed_find_table(again, tables, schema, table));
    EXPECT_EQ(again, found);
    EXPECT_EQ(found->name, std::string(schema) + "." + table);
    return found->dataset == nullptr ? "skipped" : found->dataset->layout.dsetname;
}

TEST(PgTable, TableFeedsTheDatasetOfItsName)
{
    EXPECT_EQ(fed("sales", "order_lines"), "ORDER-LINES");
    EXPECT_EQ(fed("Sales", "Order_Lines"), "ORDER-LINES");
}

TEST(PgTable, TableOfADatasetGoesBeforeNames)
{
    EXPECT_EQ(fed("sales", "a_very_long_table_name"), "SHORT");
    EXPECT_EQ(fed("Other", "Table"), "RENAMED");
}

TEST(PgTable, DatasetWithATableOfItsOwnIsNotFoundByName)
{
    EXPECT_EQ(fed("sales", "renamed"),
              "table sales.renamed is not in test.cfg: describe dataset RENAMED of database SALES "
              "there, or leave the table out with the line skip-table sales.renamed");
}

TEST(PgTable, TwoTablesCannotFeedOneDataset)
{
    const fwu_config config = names();
    feed_tables tables;
    tables.config = &config;
    feed_table *first = nullptr;
    feed_table *second = nullptr;
    ASSERT_TRUE(feed_find_table(first, tables, "sales", "order_lines"));
    EXPECT_EQ(feed_find_table(second, tables, "Sales", "ORDER-LINES").text(),
              "table Sales.ORDER-LINES goes into dataset SALES.ORDER-LINES like table "
              "sales.order_lines: describe a dataset of its own in test.cfg with "
              "table=Sales.ORDER-LINES");
    EXPECT_EQ(second, nullptr);
    EXPECT_TRUE(feed_find_table(second, tables, "sales", "order_lines"));
    EXPECT_EQ(second, first);
}

TEST(PgTable, SkippedTablesHaveNoDataset)
{
    EXPECT_EQ(fed("sales", "audit"), "skipped");
    EXPECT_EQ(fed("sales", "another_very_long_name"), "skipped");
}

TEST(PgTable, UnknownTableIsAnErrorWithARemedy)
{
    EXPECT_EQ(fed("sales", "orders"),
              "table sales.orders is not in test.cfg: describe dataset ORDERS of database SALES "
              "there, or leave the table out with the line skip-table sales.orders");
}

TEST(PgTable, NameOfMoreThanSixteenCharactersIsAnErrorWithARemedy)
{
    EXPECT_EQ(
        fed("sales", "seventeen_letters"),
        "table sales.seventeen_letters: SEVENTEEN-LETTERS is longer than the 16 characters of "
        "a name: give the dataset a short name in test.cfg with "
        "table=sales.seventeen_letters, or leave the table out with the line skip-table "
        "sales.seventeen_letters");
    EXPECT_EQ(fed("schema_17_letters", "x").substr(0, 44),
              "table schema_17_letters.x: SCHEMA-17-LETTERS");
    EXPECT_EQ(fed("sales", "sixteen__letters").substr(0, 44),
              "table sales.sixteen__letters is not in test.");
}

static std::string refusal(std::vector<fwu_item> items, int null_map = -1)
{
    const fwu_config config = config_of(std::move(items), null_map);
    feed_tables tables;
    tables.config = &config;
    feed_table *found = nullptr;
    const outcome done = feed_find_table(found, tables, "sales", "orders");
    return done ? "none" : done.text();
}

// What a message tells to put into the configuration can be put there as it stands.
TEST(PgTable, RemediesAreTakenAsTheyStand)
{
    const tempdir dir;
    const std::string path = dir.file("x.cfg");
    for (const char *name : {"a_name_that_is_too_long", "Order Lines", "a.b", "price \"net\"",
                             "a=b", "#", "\"", "two\nlines", "tab\tand\\",
                             "gr\xC3\xB6\xC3\x9F"
                             "e"}) {
        fwu_config config;
        config.path = "test.cfg";
        feed_tables tables;
        tables.config = &config;
        feed_table *found = nullptr;
        const outcome done = feed_find_table(found, tables, "sales.x", name);
        ASSERT_FALSE(done);
        const std::string text = done.text();
        const std::string skip = text.substr(text.find("skip-table "));
        write_file(path, "log-directory l\n" + skip + "\n");
        ASSERT_EQ(fwu_config_read(config, path.c_str()), 0) << text;
        ASSERT_TRUE(feed_find_table(found, tables, "sales.x", name)) << text;
        EXPECT_EQ(found->dataset, nullptr);

        const size_t feeds = text.find("table=");
        const std::string given = text.substr(feeds, text.find(", or leave") - feeds);
        write_file(path, "log-directory l\ndatabase D\ndataset S " + given + "\nitem A I 4\n");
        ASSERT_EQ(fwu_config_read(config, path.c_str()), 0) << text;
        tables.known.clear();
        ASSERT_TRUE(feed_find_table(found, tables, "sales.x", name)) << text;
        EXPECT_EQ(found->dataset->layout.dsetname, "S");
    }
}

TEST(PgTable, LayoutsThatCannotBeFilledAreRefused)
{
    const std::string at = "test.cfg:7: dataset SALES.ORDERS: ";
    for (const fwu_item &item :
         {item_of("A", 'I', 3), item_of("A", 'E', 2), item_of("A", 'P', 0), item_of("A", 'X', -1),
          item_of("A", 'Q', 4), item_of("A", 'X', 4, 0), item_of("A", 'P', 15),
          item_of("A", 'X', 32768)})
        EXPECT_EQ(refusal({item}), at + "item A has a type and size that cannot be loaded");
    // 1024 * 32767 + 960 bytes are the most of which an update of two fits a log entry.
    EXPECT_EQ(refusal({item_of("A", 'X', 32767, 1024), item_of("B", 'X', 960)}), "none");
    const std::string too_long =
        at + "the record image is longer than 33554368 bytes, of which the log has room for two";
    EXPECT_EQ(refusal({item_of("A", 'X', 32767, 1024), item_of("B", 'X', 961)}), too_long);
    EXPECT_EQ(refusal({item_of("A", 'X', 32767, 32767), item_of("B", 'X', 32767, 32767),
                       item_of("C", 'X', 32767, 32767)}),
              too_long);
    EXPECT_EQ(refusal({item_of("ITEM-NAME-OF-18-CH", 'I', 4)}),
              "SALES.ORDERS: item name \"ITEM-NAME-OF-18-CH\": item names have 1 to 17 bytes, "
              "none zero");
    const std::string null_map =
        at + "the null map must be an X item with a character for each other item, 2";
    EXPECT_EQ(refusal({item_of("A", 'X', 1), item_of("B", 'X', 1), item_of("N", 'X', 1)}, 2),
              null_map);
    EXPECT_EQ(refusal({item_of("A", 'X', 1), item_of("B", 'X', 1), item_of("N", 'U', 2)}, 2),
              null_map);
    EXPECT_EQ(refusal({item_of("A", 'X', 1), item_of("B", 'X', 1), item_of("N", 'X', 2)}, 3),
              null_map);
    EXPECT_EQ(refusal({item_of("A", 'X', 1), item_of("B", 'X', 1), item_of("N", 'X', 2)}, 2),
              "none");
}
