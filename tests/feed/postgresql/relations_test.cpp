// Tables as the server describes them, and their rows.
#include "feed/postgresql/idle_lines.h"
#include "feed/postgresql/relations.h"
#include "tests/feed/postgresql/facts_rows.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <random>
#include <set>

using testing::MatchesRegex;

class Relations : public testing::Test {
  protected:
    Relations()
    {
        config.path = "shop.cfg";
        relations.tables.config = &config;
    }

    void describe(uint32_t id, const char *name, std::vector<pgo_column> columns)
    {
        pgo_relation told;
        told.id = id;
        told.schema = "app";
        told.name = name;
        told.columns = std::move(columns);
        pgb_describe(relations, told);
    }

    pgb_relation &find(uint32_t id)
    {
        pgb_relation *found = nullptr;
        const outcome done = pgb_find(found, relations, id, notes);
        EXPECT_TRUE(done) << done.text();
        return *found;
    }

    std::string error_of(uint32_t id)
    {
        pgb_relation *found = nullptr;
        return pgb_find(found, relations, id, notes).text();
    }

    static const feed_row &row_of(pgb_relation &relation, const pgo_tuple &tuple)
    {
        const feed_row *row = nullptr;
        EXPECT_TRUE(pgb_row(row, relation, tuple));
        return *row;
    }

    static pgo_tuple tuple(char kind, std::vector<pgo_value> values)
    {
        return {.kind = kind, .count = values.size(), .values = std::move(values)};
    }

    // "ORDERS: NO QTY NULL-MAP"
    static std::string items_of(const pgb_relation &relation)
    {
        std::string text = relation.table->dataset->layout.dsetname + ":";
        for (const fwu_item &item : relation.table->dataset->layout.items)
            text += " " + item.name;
        return text;
    }

    // "app.orders: no integer #1; qty smallint"
    static std::string source_of(const pgb_relation &relation)
    {
        const fwu_source &source = *relation.table->layout.source;
        std::string text = source.schema + "." + source.table;
        for (const fwu_source_column &column : source.columns) {
            text += (&column == source.columns.data() ? ": " : "; ") + column.name;
            text += column.type.empty() ? "" : " " + column.type;
            text += column.key == 0 ? "" : " #" + std::to_string(column.key);
        }
        return text;
    }

    // Has the catalogue answer with these rows from now on; each answer counts.
    void answer(const std::vector<facts_row> &rows)
    {
        relations.facts.ask = [this, rows](const std::string &query, pgs_result &result) {
            asked.push_back(query);
            result = facts_rows(rows);
            return true;
        };
    }

    fwu_config config;
    pgb_relations relations;
    std::vector<std::string> asked;
    std::vector<std::string> notes;
};

TEST_F(Relations, TableThatIsNotConfiguredGetsItsDatasetFromTheServer)
{
    describe(7, "orders", {{"no", 23, -1}, {"qty", 21, -1}});
    pgb_relation &relation = find(7);
    EXPECT_EQ(relation.table->dataset->layout.dbname, "APP");
    EXPECT_EQ(items_of(relation), "ORDERS: NO QTY NULL-MAP");
    EXPECT_EQ(relation.table->image_length, 4 + 2 + 2);
}

TEST_F(Relations, ATableWhoseImagesWouldBeTooLongIsRefusedUntilItsColumnsGetLess)
{
    // bit(32767) always is as long as it says: 512 of them, and a null map, are just not too many.
    std::vector<pgo_column> columns;
    for (size_t i = 0; i < 512; i++)
        columns.push_back({"c" + std::to_string(i), 1560, 32767});
    describe(6, "most", columns);
    EXPECT_EQ(find(6).table->image_length, 16'777'216);
    columns.push_back({"done", 16, -1});
    describe(7, "orders", columns);
    EXPECT_EQ(error_of(7),
              "table app.orders: the record image is longer than 16777216 bytes, 16777218: give "
              "its columns less with lines column app.orders.COLUMN width=N in shop.cfg, or leave "
              "the table out with the line skip-table app.orders");
    fwu_column less;
    less.table = "app.orders";
    less.column = "c0";
    less.width = 32765;
    config.columns.push_back(less);
    EXPECT_EQ(find(7).table->image_length, 16'777'216);
}

TEST_F(Relations, ChangedTableChangesItsLayout)
{
    describe(7, "orders", {{"no", 23, -1}});
    find(7);
    describe(7, "orders", {{"no", 23, -1}, {"note", 1043, 24}});
    EXPECT_EQ(items_of(find(7)), "ORDERS: NO NOTE NULL-MAP");
    describe(7, "orders", {{"note", 1043, 44}});
    EXPECT_EQ(items_of(find(7)), "ORDERS: NOTE NULL-MAP");
    EXPECT_EQ(find(7).table->dataset->layout.items[0].size, 40);
}

TEST_F(Relations, NewTableOfAnOldNameTakesItsPlace)
{
    describe(7, "orders", {{"no", 23, -1}});
    find(7);
    describe(8, "orders", {{"key", 23, -1}});
    EXPECT_EQ(items_of(find(8)), "ORDERS: KEY NULL-MAP");
    EXPECT_EQ(items_of(find(7)), "ORDERS: NO NULL-MAP");
    EXPECT_EQ(items_of(find(8)), "ORDERS: KEY NULL-MAP");
}

TEST_F(Relations, ADatasetStaysWithTheNameOfItsTable)
{
    describe(7, "parts", {{"no", 23, -1}});
    EXPECT_EQ(items_of(find(7)), "PARTS: NO NULL-MAP");
    describe(8, "new", {{"no", 23, -1}});
    find(8);
    // Two tables change their names for each other's.
    describe(7, "new", {{"no", 23, -1}});
    EXPECT_EQ(items_of(find(7)), "NEW: NO NULL-MAP");
    describe(8, "parts", {{"no", 23, -1}});
    EXPECT_EQ(items_of(find(8)), "PARTS: NO NULL-MAP");
    EXPECT_EQ(items_of(find(7)), "NEW: NO NULL-MAP");
    // Another name is another dataset, also where both come to the same.
    describe(8, "Parts", {{"no", 23, -1}});
    EXPECT_THAT(items_of(find(8)), MatchesRegex("PARTS-[0-9A-V]{5}: NO NULL-MAP"));
}

TEST_F(Relations, ColumnOfAGivenWidthIsATextLikeOthers)
{
    config.columns = {
        {"app.orders", "at", "", 40}, {"app.orders", "ok", "", 3}, {"app.orders", "note", "", 9}};
    describe(7, "orders",
             {{"at", 1114, -1}, {"ok", 16, -1}, {"then", 1114, -1}, {"note", 1043, 44}});
    pgb_relation &relation = find(7);
    const feed_row &row = row_of(
        relation, tuple('N', {{'t', "20000-01-01 00:00:00"}, {'t', "t"}, {'n', {}}, {'n', {}}}));
    EXPECT_EQ(row.columns[0].type.whole, FEED_PLAIN);
    EXPECT_EQ(row.columns[1].type.whole, FEED_BOOLEAN);
    EXPECT_EQ(row.columns[2].type.whole, FEED_TIMESTAMP);
    EXPECT_EQ(row.columns[3].type.whole, FEED_WORDS) << "it may be cut";
}

TEST_F(Relations, TypesThatAreNotBuiltInAreWhatTheCatalogueSays)
{
    answer({{"c", "7", "0", ""},
            {"d", "16400", "0", "e E 0 -1 0 public.mood"},
            {"d", "16401", "0", "d B 16 -1 0 public.yes"},
            {"d", "16402", "0", "d D 1114 3 0 public.seen"}});
    describe(7, "orders", {{"mood", 16400, -1}, {"ok", 16401, -1}, {"at", 16402, -1}});
    pgb_relation &relation = find(7);
    EXPECT_EQ(asked.size(), 2U) << "for the types, and for what is to be told of the table";
    EXPECT_EQ(relation.table->image_length, 63 + 1 + 23 + 3);
    const feed_row &row =
        row_of(relation, tuple('N', {{'t', "fine"}, {'t', "t"}, {'t', "2026-03-09 08:18:01.2"}}));
    EXPECT_EQ(row.columns[0].type.whole, FEED_WORDS);
    EXPECT_EQ(row.columns[1].kind, FEED_TRUE);
    EXPECT_EQ(row.columns[2].type.whole, FEED_TIMESTAMP);
}

TEST_F(Relations, WithoutWhatTheTypesAreTheTableWaits)
{
    relations.facts.ask = [this](const std::string &query, pgs_result &) {
        asked.push_back(query);
        return false;
    };
    describe(7, "orders", {{"mood", 16400, -1}, {"wide", 16401, -1}});
    config.columns = {{"app.orders", "wide", "", 9}};
    pgb_relation *found = nullptr;
    EXPECT_EQ(pgb_find(found, relations, 7, notes).kind(), OUTCOME_LOST);
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_NE(asked[0].find("'{16400}'::oid[]"), std::string::npos) << asked[0];
    answer({{"c", "7", "0", ""}}); // both are dropped by now
    EXPECT_EQ(find(7).table->image_length, 255 + 9 + 2);
    EXPECT_EQ(source_of(find(7)), "app.orders: mood; wide");
}

TEST_F(Relations, ConfiguredItemsOfDomainsHaveTheServersText)
{
    fwu_dataset dataset;
    dataset.layout = {
        .dbname = "APP",
        .dsetname = "ORDERS",
        .items = {{"OK", 'X', 1, 1, 0}, {"YES", 'X', 1, 1, 0}, {"AT", 'X', 26, 1, 0}}};
    config.datasets.push_back(dataset);
    pgf_take(relations.facts, facts_rows({{"d", "16401", "0", "d B 16 -1 0 public.yes"},
                                          {"d", "16402", "0", "d D 1114 3 0 public.seen"}}));
    describe(7, "orders", {{"ok", 16, -1}, {"yes", 16401, -1}, {"at", 16402, -1}, {"b", 25, -1}});
    const feed_row &row = row_of(
        find(7), tuple('N', {{'t', "t"}, {'t', "t"}, {'t', "2026-03-09 08:18:01"}, {'n', {}}}));
    EXPECT_EQ(row.columns[0].kind, FEED_TRUE);
    EXPECT_EQ(row.columns[1].kind, FEED_TEXT);
    EXPECT_EQ(row.columns[2].type.whole, FEED_PLAIN);
    EXPECT_EQ(row.columns[3].type.whole, FEED_WORDS);
}

TEST_F(Relations, TextOfAGivenWidthMayStillBeCut)
{
    config.columns = {
        {"app.orders", "note", "", 40}, {"app.orders", "code", "", 3}, {"app.orders", "no", "", 3}};
    describe(7, "orders", {{"note", 25, -1}, {"code", 1042, 14}, {"no", 23, -1}});
    const feed_row &row = find(7).fresh;
    EXPECT_EQ(row.columns[0].type.whole, FEED_WORDS);
    EXPECT_EQ(row.columns[1].type.whole, FEED_FILLED_WORDS);
    EXPECT_EQ(row.columns[2].type, feed_type()) << "no text: cut it is another number";
}

TEST_F(Relations, ConfiguredTableKeepsItsItems)
{
    fwu_dataset dataset;
    dataset.layout = {.dbname = "APP", .dsetname = "ORDERS", .items = {{"NO", 'I', 8, 1, 0}}};
    config.datasets.push_back(dataset);
    describe(7, "orders", {{"no", 23, -1}, {"qty", 21, -1}});
    EXPECT_EQ(find(7).table->dataset, config.datasets.data());
}

TEST_F(Relations, ARenamedTableLeavesTheNextOneOfItsNameAsItIs)
{
    fwu_dataset dataset;
    dataset.layout = {.dbname = "APP", .dsetname = "ORDERS", .items = {{"NO", 'I', 8, 1, 0}}};
    config.datasets.push_back(dataset);
    describe(7, "orders", {{"no", 23, -1}});
    find(7);
    describe(8, "orders", {{"no", 23, -1}});
    find(8);
    describe(7, "orders_old", {{"no", 23, -1}});
    EXPECT_EQ(find(8).table->name, "app.orders");
    EXPECT_EQ(find(8).table->dataset, config.datasets.data());
}

TEST_F(Relations, ConfiguredNameWithoutItemsGetsThemFromTheServer)
{
    fwu_dataset dataset;
    dataset.layout = {.dbname = "APP", .dsetname = "ARCHIVE", .items = {}};
    dataset.table = "app.order_lines_archive";
    config.datasets.push_back(dataset);
    describe(7, "order_lines_archive", {{"no", 23, -1}});
    EXPECT_EQ(items_of(find(7)), "ARCHIVE: NO NULL-MAP");
}

TEST_F(Relations, SkippedTableHasNoDataset)
{
    config.skip_tables = {"app.audit"};
    describe(7, "audit", {{"anything", 25, -1}});
    EXPECT_EQ(find(7).table->dataset, nullptr);
}

TEST_F(Relations, TableWithoutColumnsIsPassedOverUntilItHasSome)
{
    describe(4, "orders", {});
    EXPECT_EQ(find(4).table->dataset, nullptr);
    EXPECT_EQ(notes.back(), "table app.orders has no columns that the server sends, nothing of its "
                            "rows could be logged: they are passed over");
    const size_t told = notes.size();
    EXPECT_EQ(find(4).table->dataset, nullptr);
    EXPECT_EQ(notes.size(), told) << "once";
    describe(4, "orders", {{"no", 23, -1}});
    EXPECT_EQ(items_of(find(4)), "ORDERS: NO NULL-MAP");
    describe(4, "orders", {});
    EXPECT_EQ(find(4).table->dataset, nullptr);
}

TEST_F(Relations, TablesThatCannotHaveTheirNameGetAnother)
{
    describe(7, "a_table_name_of_22", {{"no", 23, -1}});
    EXPECT_THAT(items_of(find(7)), MatchesRegex("A-TABLE-NA-[0-9A-V]{5}: NO NULL-MAP"));
    describe(8, "parts", {{"no", 23, -1}});
    describe(9, "PARTS", {{"no", 23, -1}});
    EXPECT_EQ(items_of(find(8)), "PARTS: NO NULL-MAP");
    EXPECT_THAT(items_of(find(9)), MatchesRegex("PARTS-[0-9A-V]{5}: NO NULL-MAP"));
    EXPECT_EQ(notes.size(), 2U);
    EXPECT_EQ(error_of(10), "a change came of table number 10, which the server has not described");
}

TEST_F(Relations, NamesAreKeptBesideTheLogBeforeTheirFirstUse)
{
    const tempdir dir;
    ASSERT_TRUE(feed_names_open(relations.names, dir.path(), 0600));
    describe(7, "orders", {{"no", 23, -1}, {"NO", 23, -1}});
    const std::string items = items_of(find(7));
    feed_names kept;
    ASSERT_TRUE(feed_names_open(kept, dir.path(), 0600));
    EXPECT_EQ(kept.tables, relations.names.tables);
    EXPECT_EQ(kept.items, relations.names.items);
    EXPECT_EQ(kept.items.size(), 1U);
    ASSERT_TRUE(feed_names_open(relations.names, dir.file("nowhere"), 0600));
    describe(8, "parts", {{"no", 23, -1}});
    pgb_relation *found = nullptr;
    EXPECT_EQ(pgb_find(found, relations, 8, notes).kind(), OUTCOME_FAILED);
}

TEST_F(Relations, RowsHaveTheColumnsThatWereSent)
{
    describe(7, "orders", {{"no", 23, -1}, {"paid", 16, -1}, {"note", 1043, 44}});
    pgb_relation &relation = find(7);
    const feed_row &row = row_of(relation, tuple('N', {{'t', "17"}, {'t', "t"}, {'n', {}}}));
    ASSERT_EQ(row.count, 3U);
    EXPECT_EQ(row.columns[0].name, "no");
    EXPECT_EQ(row.columns[0].type, feed_type());
    EXPECT_EQ(row.columns[0].value, "17");
    EXPECT_EQ(row.columns[1].kind, FEED_TRUE);
    EXPECT_EQ(row.columns[2].kind, FEED_NULL);

    const feed_row &partial = row_of(relation, tuple('N', {{'t', "18"}, {'u', {}}, {'t', "y"}}));
    ASSERT_EQ(partial.count, 2U);
    EXPECT_EQ(partial.columns[1].name, "note");
    EXPECT_EQ(partial.columns[1].value, "y");
}

TEST_F(Relations, RowOfAnotherNumberOfColumnsIsRefused)
{
    describe(7, "orders", {{"no", 23, -1}});
    const feed_row *row = nullptr;
    EXPECT_EQ(pgb_row(row, find(7), tuple('N', {{'t', "1"}, {'t', "2"}})).text(),
              "app.orders: a row of 2 columns came, the table has 1");
}

TEST_F(Relations, SourceIsWhatTheServerTellsAndItsCatalogue)
{
    answer({{"c", "7", "0", ""},
            {"k", "7", "1", "qty"},
            {"k", "7", "2", "no"},
            {"t", "16400", "-1", "public.mood"}});
    config.columns = {{"app.orders", "mood", "", 9}};
    describe(7, "orders", {{"no", 23, -1}, {"qty", 1700, 655366}, {"mood", 16400, -1}});
    EXPECT_EQ(source_of(find(7)),
              "app.orders: no integer #2; qty numeric(10,2) #1; mood public.mood");
    EXPECT_EQ(find(7).table->layout.source->null_map, 3);
    EXPECT_EQ(find(7).table->layout.source->columns[2].item, 2);
    EXPECT_EQ(asked.size(), 1U);
}

TEST_F(Relations, WithoutAnAnswerTheSourceIsWhatTheStreamTells)
{
    config.columns = {{"app.orders", "mood", "", 9}};
    describe(7, "orders", {{"no", 23, -1}, {"mood", 16400, -1}});
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer; mood");
    relations.facts.ask = [this](const std::string &query, pgs_result &) {
        asked.push_back(query);
        return false;
    };
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(source_of(find(7)), "app.orders: no integer; mood");
    EXPECT_EQ(asked.size(), 1U) << "not again at once";
    answer({{"c", "7", "0", ""}, {"k", "7", "1", "no"}, {"t", "16400", "-1", "mood"}});
    relations.facts.retry_ms = 0;
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer #1; mood mood");
    EXPECT_EQ(asked.size(), 2U);
}

TEST_F(Relations, WhatIsKnownIsNotAskedForAtOnce)
{
    pgf_take(relations.facts,
             facts_rows({{"c", "7", "0", "no 23 -1,qty 21 -1"}, {"k", "7", "1", "no"}}));
    answer({{"c", "7", "0", "no 23 -1,qty 21 -1"}, {"k", "7", "1", "qty"}});
    describe(7, "orders", {{"no", 23, -1}, {"qty", 21, -1}});
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(source_of(find(7)), "app.orders: no integer #1; qty smallint");
        describe(7, "orders", {{"no", 23, -1}, {"qty", 21, -1}});
    }
    EXPECT_EQ(asked.size(), 0U);
    // Its time has come: the table may have been described because its key is another one.
    relations.facts.again_ms = 0;
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer; qty smallint #1");
    relations.facts.again_ms = 0;
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer; qty smallint #1");
    EXPECT_EQ(asked.size(), 1U) << "nothing was described since";
}

TEST_F(Relations, AChangedTableIsAskedForAtOnce)
{
    pgf_take(relations.facts, facts_rows({{"c", "7", "0", "no 23 -1"}, {"k", "7", "1", "no"}}));
    describe(7, "orders", {{"no", 23, -1}});
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer #1");
    answer({{"c", "7", "0", ""}, {"k", "7", "1", "line"}, {"k", "7", "2", "no"}});
    describe(7, "orders", {{"no", 23, -1}, {"line", 21, -1}});
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer #2; line smallint #1");
    // Once for the table, once whether the new column has a default.
    EXPECT_THAT(asked, testing::UnorderedElementsAre(testing::Not(testing::HasSubstr("atthasdef")),
                                                     testing::HasSubstr("atthasdef")));
}

TEST_F(Relations, AllTablesThatMayHaveChangedAreAskedForInOne)
{
    pgf_take(relations.facts,
             facts_rows({{"c", "7", "0", "no 23 -1"}, {"c", "8", "0", "no 23 -1"}}));
    config.skip_tables = {"app.audit"};
    describe(7, "orders", {{"no", 23, -1}});
    describe(8, "parts", {{"no", 23, -1}});
    describe(9, "audit", {{"no", 23, -1}});
    describe(10, "idle", {{"no", 23, -1}});
    for (const uint32_t id : {7U, 8U, 9U})
        find(id);
    answer(
        {{"c", "7", "0", ""}, {"k", "7", "1", "no"}, {"c", "8", "0", ""}, {"k", "8", "1", "no"}});
    relations.facts.again_ms = 0;
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer #1");
    EXPECT_EQ(source_of(find(8)), "app.parts: no integer #1");
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_TRUE(asked[0].find("'{7,8}'") != std::string::npos ||
                asked[0].find("'{8,7}'") != std::string::npos)
        << asked[0];
}

TEST_F(Relations, WhatIsSeenBeforeTheTransactionInHandIsAskedForAgainLater)
{
    relations.facts.xid = 7;
    answer({{"c", "7", "0", ""}, {"s", "0", "0", "7:7:"}});
    describe(7, "orders", {{"no", 23, -1}});
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer");
    const size_t first = asked.size();
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer");
    EXPECT_EQ(asked.size(), first) << "not at once";
    answer({{"c", "7", "0", "no 23 -1"}, {"k", "7", "1", "no"}, {"s", "0", "0", "8:8:"}});
    relations.facts.again_ms = 0;
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer #1");
    relations.facts.again_ms = 0;
    find(7);
    EXPECT_EQ(asked.size(), first + 1);
}

TEST_F(Relations, ACatalogueThatHasMovedOnIsNoError)
{
    answer({{"c", "7", "0", ""}, {"k", "7", "1", "number"}, {"k", "7", "2", "line"}});
    describe(7, "orders", {{"no", 23, -1}, {"line", 21, -1}});
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer; line smallint")
        << "part of a key is none";
    EXPECT_EQ(asked.size(), 1U);
    describe(7, "orders", {{"no", 23, -1}, {"line", 21, -1}});
    find(7);
    EXPECT_EQ(asked.size(), 1U) << "asked for at once only when the table has changed";
    describe(7, "orders", {{"number", 23, -1}, {"line", 21, -1}});
    EXPECT_EQ(source_of(find(7)), "app.orders: number integer #1; line smallint #2");
    answer({{"c", "7", "0", ""}}); // dropped
    describe(7, "orders", {{"number", 20, -1}, {"line", 21, -1}, {"odd", 2950, -1}});
    relations.facts.again_ms = 0;
    EXPECT_EQ(source_of(find(7)), "app.orders: number bigint; line smallint; odd uuid");
}

TEST_F(Relations, TheConfigurationsKeyGoesBeforeTheCatalogues)
{
    answer({{"c", "7", "0", ""}, {"k", "7", "1", "no"}});
    config.columns = {{"app.orders", "qty", "", 0, true}, {"app.orders", "no", "", 0, true}};
    describe(7, "orders", {{"no", 23, -1}, {"qty", 21, -1}});
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer #2; qty smallint #1");
    EXPECT_THAT(notes, testing::IsEmpty());
    describe(7, "orders", {{"no", 23, -1}});
    EXPECT_EQ(source_of(find(7)), "app.orders: no integer #1");
    EXPECT_THAT(notes, testing::ElementsAre(
                           "table app.orders: column qty, which shop.cfg makes part of its key, is "
                           "not there: the key is what the source says"));
}

TEST_F(Relations, ATableOfTheSameNameKeepsItsOwnSource)
{
    fwu_dataset dataset;
    dataset.layout = {.dbname = "APP", .dsetname = "ORDERS", .items = {{"NO", 'I', 8, 1, 0}}};
    config.datasets.push_back(dataset);
    pgf_take(relations.facts, facts_rows({{"c", "7", "0", ""}, {"c", "8", "0", ""}}));
    describe(7, "orders", {{"no", 23, -1}});
    find(7);
    describe(8, "orders", {{"no", 20, -1}, {"qty", 21, -1}}); // dropped and made anew
    EXPECT_EQ(source_of(find(8)), "app.orders: no bigint; qty smallint");
    answer({{"c", "7", "0", ""}, {"c", "8", "0", ""}, {"k", "8", "1", "no"}});
    relations.facts.again_ms = 0;
    EXPECT_EQ(source_of(find(8)), "app.orders: no bigint #1; qty smallint");
}

// Tables of two columns, of which there is room for six.
class IdleRelations : public Relations {
  protected:
    IdleRelations()
    {
        relations.columns_max = 30;
    }

    void describe_all(uint32_t count)
    {
        for (uint32_t id = 1; id <= count; id++)
            describe(id, ("t" + std::to_string(id)).c_str(), {{"no", 23, -1}, {"done", 16, -1}});
    }
};

TEST_F(IdleRelations, AreForgottenAndMadeAgain)
{
    describe_all(50);
    for (uint32_t id = 1; id <= 50; id++) {
        find(id);
        find(1); // in use
        EXPECT_LE(relations.columns, 30U);
        EXPECT_LE(relations.tables.known.size(), 6U);
    }
    EXPECT_NE(relations.known[1].table, nullptr);
    EXPECT_EQ(relations.known[2].table, nullptr);
    EXPECT_NE(relations.known[50].table, nullptr);
    EXPECT_EQ(items_of(find(2)), "T2: NO DONE NULL-MAP");
    const feed_row &row = row_of(find(2), tuple('N', {{'t', "7"}, {'t', "t"}}));
    EXPECT_EQ(row.columns[0].name, "no");
    EXPECT_EQ(row.columns[0].value, "7");
    EXPECT_EQ(row.columns[1].kind, FEED_TRUE);
}

TEST_F(IdleRelations, RememberWhatWasToldOfThem)
{
    config.columns = {{"app.t1", "qty", "", 0, true}}; // a key column that is not there
    describe_all(50);
    find(1).table->marks_told.assign(3, 5);
    ASSERT_EQ(notes.size(), 1U);
    for (uint32_t id = 2; id <= 50; id++)
        find(id);
    ASSERT_EQ(relations.known[1].table, nullptr);
    EXPECT_EQ(find(1).table->marks_told, std::vector<uint8_t>(3, 5));
    EXPECT_EQ(notes.size(), 1U);
    describe(1, "t1", {{"no", 23, -1}});
    EXPECT_EQ(find(1).table->marks_told, std::vector<uint8_t>(2, 0)) << "another layout";
}

TEST_F(IdleRelations, ATableThatNeedsAllRoomHasIt)
{
    describe_all(5);
    for (uint32_t id = 1; id <= 5; id++)
        find(id);
    std::vector<pgo_column> columns;
    for (int i = 0; i < 100; i++)
        columns.push_back({"c" + std::to_string(i), 23, -1});
    describe(9, "wide", columns);
    EXPECT_EQ(find(9).table->dataset->layout.items.size(), 101U);
    EXPECT_NE(find(1).table, nullptr);
    EXPECT_EQ(relations.columns, 5U) << "the wide one is forgotten";
    EXPECT_EQ(relations.tables.known.size(), 1U);
}

TEST_F(IdleRelations, ANewConnectionForgetsAllButWhatTheConfigurationDescribes)
{
    fwu_dataset dataset;
    dataset.layout = {.dbname = "APP", .dsetname = "T1", .items = {{"NO", 'I', 4, 1, 0}}};
    config.datasets.push_back(dataset);
    describe_all(4);
    for (uint32_t id = 1; id <= 4; id++)
        find(id);
    pgb_forget_all(relations);
    EXPECT_EQ(relations.columns, 0U);
    EXPECT_TRUE(relations.known.empty());
    ASSERT_EQ(relations.tables.known.size(), 1U);
    EXPECT_EQ(relations.tables.known.begin()->first, "app.t1");
}

// Whatever comes, it is as if nothing was forgotten.
TEST_F(IdleRelations, NobodySeesThatTheyWereForgotten)
{
    const unsigned seed = std::random_device()();
    std::cout << "seed " << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    pgb_relations all;
    all.tables.config = &config;
    all.columns_max = SIZE_MAX;
    std::vector<std::string> all_notes;
    std::set<uint32_t> described;
    for (int step = 0; step < 4000; step++) {
        const auto id = static_cast<uint32_t>(1 + random() % 20);
        if (!described.contains(id) || random() % 10 == 0) {
            pgo_relation told;
            told.id = id;
            told.schema = "app";
            // Names change hands, and some have to be shortened, which is told.
            told.name = (random() % 2 == 0 ? "t" : "a_name_of_seventeen") +
                        std::to_string(random() % 3 == 0 ? random() % 20 : id);
            for (uint32_t i = 0; i <= random() % 3; i++)
                told.columns.push_back({"c" + std::to_string(i), i == 0 ? 23U : 16U, -1});
            described.insert(id);
            pgb_describe(relations, told);
            pgb_describe(all, told);
            continue;
        }
        pgb_relation *other = nullptr;
        ASSERT_TRUE(pgb_find(other, all, id, all_notes));
        pgb_relation &found = find(id);
        ASSERT_EQ(items_of(found), items_of(*other));
        ASSERT_EQ(source_of(found), source_of(*other));
        const pgo_tuple values =
            tuple('N', std::vector<pgo_value>(found.told.columns.size(), pgo_value{'t', "t"}));
        const feed_row &row = row_of(found, values);
        const feed_row &expected = row_of(*other, values);
        ASSERT_EQ(row.count, expected.count);
        for (size_t i = 0; i < row.count; i++) {
            ASSERT_EQ(row.columns[i].name, expected.columns[i].name);
            ASSERT_EQ(row.columns[i].kind, expected.columns[i].kind);
        }
        ASSERT_EQ(notes, all_notes);
        size_t weight = 0;
        for (const auto &[number, known] : relations.known)
            weight += known.table == nullptr ? 0 : known.told.columns.size() + 3;
        ASSERT_EQ(relations.columns, weight);
        ASSERT_LE(weight, 30U);
    }
}

// A name that is not written as the server's is would do nothing, and say nothing.
TEST(IdleLines, AreToldLineByLine)
{
    fwu_config config;
    config.path = "shop.cfg";
    pgf_facts facts;
    facts.tables[1] = {.columns = "no 23 -1,odd, name 25 -1,x 1 y 25 -1,due 1082 -1",
                       .schema = "app",
                       .name = "orders"};
    facts.tables[2] = {.columns = "a 23 -1", .schema = "app", .name = "Two.Parts"};
    facts.kinds[16400].name = "app.mood";
    const auto column = [&](const char *table, const char *name) {
        fwu_column said;
        said.table = table;
        said.column = name;
        config.columns.push_back(said);
    };
    config.skip_tables = {"app.orders", "app.\"Two.Parts\""};
    config.table_rules = {{"app.orders", FWU_POLICY_MARK}};
    config.datasets.resize(2);
    config.datasets[0].table = "app.orders";
    for (const char *name : {"no", "odd, name", "x 1 y", "due"})
        column("app.orders", name);
    for (const char *type : {"", "jsonb", "character varying", "bpchar", "app.mood", "text[]"})
        config.default_widths.push_back({.type = type, .width = 9});
    EXPECT_THAT(pgb_idle_lines(config, facts), testing::IsEmpty());

    config.skip_tables.emplace_back("app.two");
    config.table_rules.push_back({"app.Orders", FWU_POLICY_MARK});
    config.datasets[1].table = "app.order";
    config.datasets[1].layout.dsetname = "ORDER";
    for (const char *name : {"No", "name", "x", "x 1", "23 -1", ""})
        column("app.orders", name);
    column("app.none", "no");
    for (const char *type : {"varchar", "mood"})
        config.default_widths.push_back({.type = type, .width = 9});
    const std::string no_table = "; names are written as the server has them, capitals told apart";
    std::vector<std::string> expected;
    for (const auto &[line, table] :
         {std::pair("skip-table app.two", "app.two"), std::pair("table app.Orders", "app.Orders"),
          std::pair("dataset ORDER table=app.order", "app.order")})
        expected.push_back(std::string("shop.cfg: ") + line + ": the publication has no table " +
                           table + no_table);
    for (const char *name : {"No", "name", "x", "\"x 1\"", "\"23 -1\"", "\"\""})
        expected.push_back(std::string("shop.cfg: column app.orders.") + name +
                           ": the server sends no such column of the table" + no_table);
    expected.push_back("shop.cfg: column app.none.no: the publication has no table app.none" +
                       no_table);
    for (const char *type : {"varchar", "mood"})
        expected.push_back(
            std::string("shop.cfg: default-width ") + type +
            ": no column has a type of this name; types are named as the server "
            "writes them (\"character varying\", not varchar; numeric, not decimal)");
    EXPECT_EQ(pgb_idle_lines(config, facts), expected);
}
