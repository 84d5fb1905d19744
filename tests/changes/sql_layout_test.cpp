// Tables that are made, and those that a new layout changes.
#include "tests/changes/sql_fixture.h"

struct layout_column {
    std::string name;
    std::string type; // of the source; empty: the log has no sources
    fwu_item item;
};

static change_dataset dataset_with(const std::vector<layout_column> &columns, int key = 0)
{
    std::vector<fwu_item> items;
    std::vector<fwu_source_column> source;
    for (const layout_column &column : columns) {
        items.push_back(column.item);
        items.back().name = column.name;
        if (!column.type.empty())
            source.push_back({.name = column.name,
                              .type = column.type,
                              .item = static_cast<int32_t>(items.size()) - 1});
    }
    change_dataset dataset = dataset_of("T", items);
    if (!source.empty())
        set_source(dataset, "t", source);
    for (int i = 0; i < key; i++)
        dataset.key.push_back(i);
    return dataset;
}

static std::string image_of(const change_dataset &dataset)
{
    std::string image;
    for (const fwu_item &item : dataset.layout.items)
        for (int32_t i = 0; i < item.count; i++)
            image +=
                item.type == 'P' ? std::string(static_cast<size_t>(item.size) - 1, '\0') + "\x0C"
                : item.type == 'Z'
                    ? std::string(static_cast<size_t>(item.size), '0')
                    : std::string(static_cast<size_t>(item.size), item.type == 'X' ? ' ' : '\0');
    return image;
}

static fwu_item type(char letter, int32_t size, int32_t scale = 0, int32_t count = 1)
{
    return {.name = "", .type = letter, .size = size, .count = count, .item_aux = scale};
}

// The statements in front of the first change of a layout behind another one.
static std::string changed(sql_options options, const change_dataset &before,
                           const change_dataset &now)
{
    sql_lines lines(std::move(options));
    EXPECT_EQ(sql_learn(lines.writer, before).text(), "");
    if (const std::string wrong = lines.put(CHANGE_CREATE, now, "", image_of(now)); !wrong.empty())
        return "! " + wrong;
    lines.commit();
    const std::string text = lines.taken();
    return text.substr(0, text.find("INSERT INTO"));
}

static std::string made(const char *dialect, const change_dataset &dataset)
{
    sql_lines lines(sql_for(dialect));
    lines.writer.options.create_tables = true;
    if (const std::string wrong = lines.put(CHANGE_CREATE, dataset, "", image_of(dataset));
        !wrong.empty())
        return "! " + wrong;
    lines.commit();
    const std::string text = lines.taken();
    return text.substr(0, text.find("INSERT INTO"));
}

TEST(SqlLayout, TablesAreMadeOfTheSourcesTypes)
{
    const change_dataset dataset = dataset_with({{"no", "bigint", type('I', 8)},
                                                 {"sum", "numeric(9,2)", type('P', 5, 2)},
                                                 {"done", "boolean", type('I', 2)},
                                                 {"q", "smallint[]", type('I', 2, 0, 4)},
                                                 {"kind", "\"Shop\".\"my type\"", type('X', 9)}},
                                                2);
    EXPECT_EQ(made("postgresql", dataset),
              "CREATE SCHEMA IF NOT EXISTS \"sales\";\n"
              "CREATE TABLE IF NOT EXISTS \"sales\".\"t\" (\"no\" bigint, \"sum\" numeric(9,2), "
              "\"done\" boolean, \"q\" smallint[], \"kind\" \"Shop\".\"my type\", "
              "PRIMARY KEY (\"no\", \"sum\"));\n");
    EXPECT_EQ(made("sqlite", dataset),
              "CREATE TABLE IF NOT EXISTS \"sales_t\" (\"no\" INTEGER, \"sum\" TEXT, "
              "\"done\" INTEGER, \"q\" TEXT, \"kind\" TEXT, PRIMARY KEY (\"no\", \"sum\"));\n");
}

TEST(SqlLayout, WithoutSourcesTypesAreThoseOfTheItems)
{
    struct row {
        fwu_item item;
        const char *postgresql, *sqlite;
    };
    const row rows[] = {
        {type('I', 2), "smallint", "INTEGER"},
        {type('J', 4), "integer", "INTEGER"},
        {type('I', 8), "bigint", "INTEGER"},
        {type('K', 2), "integer", "INTEGER"},
        {type('K', 4), "bigint", "INTEGER"},
        {type('K', 8), "numeric(20,0)", ""},
        {type('E', 4), "real", "REAL"},
        {type('R', 8), "double precision", "REAL"},
        {type('P', 5, 2), "numeric(9,2)", "TEXT"},
        {type('P', 9), "numeric(17,0)", "INTEGER"},
        {type('P', 10), "numeric(19,0)", "TEXT"},
        {type('Z', 18), "numeric(18,0)", "INTEGER"},
        {type('X', 30), "character varying(30)", "TEXT"},
        {type('I', 4, 0, 3), "integer[]", "TEXT"},
    };
    for (const row &of : rows) {
        const change_dataset dataset = dataset_with({{"C", "", of.item}});
        EXPECT_EQ(made("postgresql", dataset),
                  "CREATE SCHEMA IF NOT EXISTS \"SALES\";\nCREATE TABLE IF NOT EXISTS "
                  "\"SALES\".\"T\" (\"C\" "s +
                      of.postgresql + ");\n");
        EXPECT_EQ(made("sqlite", dataset), "CREATE TABLE IF NOT EXISTS \"SALES_T\" (\"C\""s +
                                               (*of.sqlite == '\0' ? "" : " ") + of.sqlite +
                                               ");\n");
    }
}

TEST(SqlLayout, ATypeIsNothingElseThanAType)
{
    for (const char *bad : {"text); DROP TABLE t; --", "text, x text", "text'", "int)", "(int",
                            "\"int", "int;", "a((1))", "text--", "x\ny"}) {
        EXPECT_EQ(made("postgresql", dataset_with({{"c", bad, type('X', 4)}})),
                  "! sales.t column c has a type that is none: "s + bad +
                      "; make the table by hand and leave --create-tables out, or go on with "
                      "--keep-tables");
        EXPECT_EQ(made("sqlite", dataset_with({{"c", bad, type('X', 4)}})),
                  "CREATE TABLE IF NOT EXISTS \"sales_t\" (\"c\" TEXT);\n");
    }
    for (const char *good :
         {"timestamp(3) without time zone", "numeric(3,-2)", "\"a;b\"", "pg_catalog.\"char\"",
          "gr\xC3\xB6\xC3\x9F"
          "e",
          "text[]"})
        EXPECT_EQ(made("postgresql", dataset_with({{"c", good, type('X', 4)}})),
                  "CREATE SCHEMA IF NOT EXISTS \"sales\";\nCREATE TABLE IF NOT EXISTS "
                  "\"sales\".\"t\" (\"c\" "s +
                      good + ");\n");
}

static const layout_column no = {"no", "integer", type('I', 4)};
static const layout_column note = {"note", "text", type('X', 9)};
static const layout_column remark = {"remark", "text", type('X', 9)};

TEST(SqlLayout, AColumnMoreIsAddedAndOneLessDropped)
{
    const change_dataset one = dataset_with({no});
    const change_dataset two = dataset_with({no, note});
    EXPECT_EQ(changed(sql_for("postgresql"), one, two),
              "ALTER TABLE \"sales\".\"t\" ADD COLUMN \"note\" text;\n");
    EXPECT_EQ(changed(sql_for("postgresql"), two, one),
              "ALTER TABLE \"sales\".\"t\" DROP COLUMN \"note\";\n");
    EXPECT_EQ(changed(sql_for("sqlite"), one, two),
              "ALTER TABLE \"sales_t\" ADD COLUMN \"note\" TEXT;\n");
    EXPECT_EQ(changed(sql_for("sqlite"), two, one),
              "ALTER TABLE \"sales_t\" DROP COLUMN \"note\";\n");
    sql_options kept = sql_for("sqlite");
    kept.keep_tables = true;
    EXPECT_EQ(changed(kept, one, two), "");
}

// A source puts what is made again behind all others.
TEST(SqlLayout, AColumnThatWasDroppedAndMadeAgainIsAnother)
{
    const auto table = [](const std::string &names) {
        std::vector<layout_column> columns;
        for (const char name : names)
            columns.push_back({std::string(1, name), "integer", type('I', 4)});
        return dataset_with(columns);
    };
    const auto refused = [](const std::string &names) {
        return "! sales.t has columns (" + names +
               ") behind others that they stood before: --drop-columns says that they were dropped "
               "and made again; where they were not, change the table by hand and go on with "
               "--keep-tables";
    };
    const auto drop = [](const char *name) {
        return "ALTER TABLE \"sales_t\" DROP COLUMN \""s + name + "\";\n";
    };
    const auto add = [](const char *name) {
        return "ALTER TABLE \"sales_t\" ADD COLUMN \""s + name + "\" INTEGER;\n";
    };
    struct row {
        const char *before, *now, *again; // again: what the message names
        std::string statements;           // with --drop-columns
    };
    const row rows[] = {
        {"ab", "ab", "", ""},
        {"ab", "axb", "", add("x")},
        {"abc", "ac", "", drop("b")},
        {"ab", "ba", "a", drop("a") + add("a")},
        {"abc", "bca", "a", drop("a") + add("a")},
        {"abc", "acb", "b", drop("b") + add("b")},
        {"abc", "bac", "a, c", drop("a") + drop("c") + add("a") + add("c")},
        {"abc", "cba", "b, a", drop("b") + drop("a") + add("b") + add("a")},
        {"ab", "bxa", "a", drop("a") + add("x") + add("a")},
        {"abc", "ba", "a", drop("c") + drop("a") + add("a")},
    };
    for (const row &of : rows) {
        SCOPED_TRACE(of.before + " "s + of.now);
        sql_options options = sql_for("sqlite");
        EXPECT_EQ(changed(options, table(of.before), table(of.now)),
                  *of.again == '\0' ? of.statements : refused(of.again));
        options.layouts.drop_columns = true;
        EXPECT_EQ(changed(options, table(of.before), table(of.now)), of.statements);
        options.layouts.drop_columns = false;
        options.keep_tables = true;
        EXPECT_EQ(changed(options, table(of.before), table(of.now)), "");
    }
    // A column that got another name stays where it was.
    sql_options options = sql_for("sqlite");
    options.layouts.renames = {{"b", "x"}};
    EXPECT_EQ(changed(options, table("abc"), table("axc")),
              "ALTER TABLE \"sales_t\" RENAME COLUMN \"b\" TO \"x\";\n");
    EXPECT_EQ(changed(options, table("abc"), table("xca")), refused("a"));
    // Items alone have no such order.
    const layout_column bare = {"A", "", type('I', 4)};
    const layout_column other = {"B", "", type('I', 4)};
    EXPECT_EQ(changed(sql_for("sqlite"), dataset_with({bare, other}), dataset_with({other, bare})),
              "");
}

TEST(SqlLayout, OneGoneAndOneNewIsForTheUserToTell)
{
    const change_dataset before = dataset_with({no, note});
    const change_dataset now = dataset_with({no, remark});
    for (const char *dialect : {"postgresql", "sqlite"}) {
        EXPECT_EQ(changed(sql_for(dialect), before, now),
                  "! sales.t has columns no more (note) and new ones (remark): "
                  "--rename note=remark says that one has become the other, --drop-columns that "
                  "none has");
        const std::string name = dialect == "sqlite"s ? "\"sales_t\"" : "\"sales\".\"t\"";
        sql_options options = sql_for(dialect);
        options.layouts.renames = {{"x", "y"}, {"note", "remark"}};
        EXPECT_EQ(changed(options, before, now),
                  "ALTER TABLE " + name + " RENAME COLUMN \"note\" TO \"remark\";\n");
        options = sql_for(dialect);
        options.layouts.drop_columns = true;
        EXPECT_EQ(changed(options, before, now),
                  "ALTER TABLE " + name + " DROP COLUMN \"note\";\nALTER TABLE " + name +
                      " ADD COLUMN \"remark\" " + (dialect == "sqlite"s ? "TEXT" : "text") + ";\n");
    }
}

TEST(SqlLayout, ATypeChangesWhereTheDatabaseCan)
{
    const change_dataset before = dataset_with({no, {"v", "integer", type('I', 4)}});
    const change_dataset wider = dataset_with({no, {"v", "bigint", type('I', 8)}});
    const change_dataset text = dataset_with({no, {"v", "text", type('X', 9)}});
    EXPECT_EQ(changed(sql_for("postgresql"), before, wider),
              "ALTER TABLE \"sales\".\"t\" ALTER COLUMN \"v\" TYPE bigint USING "
              "CAST(\"v\" AS bigint);\n");
    EXPECT_EQ(changed(sql_for("sqlite"), before, wider), "");
    EXPECT_EQ(changed(sql_for("sqlite"), before, text),
              "! sales.t column v was INTEGER and is TEXT from here on, which no statement can "
              "change: make the table anew by hand, then go on behind the transaction before with "
              "--after and --keep-tables");
    EXPECT_EQ(
        changed(sql_for("postgresql"), before, dataset_with({no, {"v", "int; x", type('I', 4)}})),
        "! sales.t column v has a type that is none: int; x; make the table by hand and "
        "leave --create-tables out, or go on with --keep-tables");
    // A wider item of the same type is no other column.
    EXPECT_EQ(
        changed(sql_for("postgresql"), text, dataset_with({no, {"v", "text", type('X', 20)}})), "");
}

TEST(SqlLayout, WhatNoStatementCanDoIsTold)
{
    const change_dataset before = dataset_with({no, note}, 1);
    EXPECT_EQ(changed(sql_for("sqlite"), before, dataset_with({note})),
              "! sales.t has lost column no, a part of its key, which no statement can drop: make "
              "the table anew by hand, then go on behind the transaction before with --after and "
              "--keep-tables");
    EXPECT_EQ(changed(sql_for("postgresql"), before, dataset_with({note})),
              "ALTER TABLE \"sales\".\"t\" DROP COLUMN \"no\";\n");
    const change_dataset bare = dataset_with({{"NO", "", type('I', 4)}});
    EXPECT_EQ(changed(sql_for("postgresql"), bare, before),
              "! SALES.T is sales.t from here on: rename the table by hand, then go on behind the "
              "transaction before with --after and --keep-tables");
}

TEST(SqlLayout, TheChangeStandsInFrontOfTheFirstRowOfTheNewLayout)
{
    const change_dataset one = dataset_with({no});
    const change_dataset two = dataset_with({no, note});
    sql_lines lines(sql_for("sqlite"));
    EXPECT_EQ(lines.of(CHANGE_CREATE, one, "", image_of(one)),
              "INSERT INTO \"sales_t\" (\"no\") VALUES (0);\n");
    EXPECT_EQ(lines.put(CHANGE_CREATE, one, "", image_of(one)), "");
    EXPECT_EQ(lines.put(CHANGE_CREATE, two, "", image_of(two)), "");
    EXPECT_EQ(lines.put(CHANGE_CREATE, two, "", image_of(two)), "");
    EXPECT_EQ(lines.put(CHANGE_CREATE, one, "", image_of(one)), "");
    EXPECT_EQ(lines.taken(), "INSERT INTO \"sales_t\" (\"no\") VALUES (0);\n"
                             "ALTER TABLE \"sales_t\" ADD COLUMN \"note\" TEXT;\n"
                             "INSERT INTO \"sales_t\" (\"no\", \"note\") VALUES (0, '');\n"
                             "INSERT INTO \"sales_t\" (\"no\", \"note\") VALUES (0, '');\n"
                             "ALTER TABLE \"sales_t\" DROP COLUMN \"note\";\n"
                             "INSERT INTO \"sales_t\" (\"no\") VALUES (0);\n");
}
