// The statements of changes, in both dialects.
#include "tests/changes/sql_fixture.h"

TEST(SqlStatement, InsertsNameTheirColumns)
{
    const change_dataset orders = sourced_orders(true);
    for (const change_op op : {CHANGE_CREATE, CHANGE_READ}) {
        EXPECT_EQ(sql_lines(sql_for("postgresql")).of(op, orders, "", FIRST),
                  "INSERT INTO \"sales\".\"orders\" (\"no\", \"net\", \"the tag\") "
                  "OVERRIDING SYSTEM VALUE VALUES ('5', '12.3', 'a');\n");
        EXPECT_EQ(sql_lines(sql_for("sqlite")).of(op, orders, "", SECOND),
                  "INSERT INTO \"sales_orders\" (\"no\", \"net\", \"the tag\") "
                  "VALUES (-1, '-0.5', NULL);\n");
    }
}

TEST(SqlStatement, ALogWithoutSourcesHasDatasetsAndItems)
{
    const change_dataset orders = bare_orders();
    EXPECT_EQ(sql_lines(sql_for("postgresql")).of(CHANGE_CREATE, orders, "", FIRST),
              "INSERT INTO \"SALES\".\"ORDERS\" (\"NO\", \"NET\", \"TAG\") "
              "OVERRIDING SYSTEM VALUE VALUES ('5', '12.3', 'a');\n");
    EXPECT_EQ(sql_lines(sql_for("sqlite")).of(CHANGE_CREATE, orders, "", FIRST),
              "INSERT INTO \"SALES_ORDERS\" (\"NO\", \"NET\", \"TAG\") VALUES (5, '12.3', 'a');\n");
}

TEST(SqlStatement, UpdatesAndDeletesFindRowsByTheOldKey)
{
    const change_dataset orders = sourced_orders(true);
    const std::string moved = "\x06\x00\x12\x3C"
                              "a   ..."s;
    sql_lines postgresql(sql_for("postgresql"));
    EXPECT_EQ(postgresql.of(CHANGE_UPDATE, orders, FIRST, moved),
              "UPDATE \"sales\".\"orders\" SET \"no\" = '6' WHERE \"no\" = '5';\n");
    EXPECT_EQ(postgresql.of(CHANGE_DELETE, orders, SECOND, ""),
              "DELETE FROM \"sales\".\"orders\" WHERE \"no\" = '-1';\n");
    sql_lines sqlite(sql_for("sqlite"));
    // What stays is not set: some databases make it themselves and let nobody set it.
    EXPECT_EQ(sqlite.of(CHANGE_UPDATE, orders, FIRST,
                        "\x05\x00\x00\x5D"
                        "    ..N"s),
              "UPDATE \"sales_orders\" SET \"net\" = '-0.5', \"the tag\" = NULL "
              "WHERE \"no\" = 5;\n");
    EXPECT_EQ(sqlite.of(CHANGE_DELETE, orders, FIRST, ""),
              "DELETE FROM \"sales_orders\" WHERE \"no\" = 5;\n");
}

TEST(SqlStatement, WithoutKeyOneRowOfTheEqualOnesIsTaken)
{
    const change_dataset orders = sourced_orders(false);
    EXPECT_EQ(sql_lines(sql_for("postgresql")).of(CHANGE_DELETE, orders, SECOND, ""),
              "DELETE FROM \"sales\".\"orders\" WHERE (tableoid, ctid) = (SELECT tableoid, ctid "
              "FROM \"sales\".\"orders\" WHERE \"no\" = '-1' AND \"net\" = '-0.5' AND "
              "\"the tag\" IS NULL LIMIT 1);\n");
    EXPECT_EQ(sql_lines(sql_for("sqlite")).of(CHANGE_UPDATE, orders, SECOND, FIRST),
              "UPDATE \"sales_orders\" SET \"no\" = 5, \"net\" = '12.3', \"the tag\" = 'a' WHERE "
              "(rowid) = (SELECT rowid FROM \"sales_orders\" WHERE \"no\" = -1 AND "
              "\"net\" = '-0.5' AND \"the tag\" IS NULL LIMIT 1);\n");
}

TEST(SqlStatement, ColumnsNamedLikeWhatTellsRowsApartAreStoodAside)
{
    change_dataset dataset = dataset_of("T", {{.name = "ROWID", .type = 'I', .size = 2}});
    EXPECT_EQ(sql_lines(sql_for("sqlite")).of(CHANGE_DELETE, dataset, "\x05\x00"s, ""),
              "DELETE FROM \"SALES_T\" WHERE (_rowid_) = (SELECT _rowid_ FROM \"SALES_T\" WHERE "
              "\"ROWID\" = 5 LIMIT 1);\n");
    dataset = dataset_of("T", {{.name = "ROWID", .type = 'I', .size = 2},
                               {.name = "OID", .type = 'I', .size = 2},
                               {.name = "_rowid_", .type = 'I', .size = 2}});
    EXPECT_EQ(sql_lines(sql_for("sqlite")).put(CHANGE_DELETE, dataset, "\1\0\2\0\3\0"s, ""),
              "SALES.T has columns of all names that tell rows apart (rowid), and no key: give it "
              "one with --key");
}

TEST(SqlStatement, WholeRowsOfManyColumnsStandInGroups)
{
    std::vector<fwu_item> items;
    std::string image;
    for (int i = 0; i < 250; i++) {
        items.push_back({.name = "C" + std::to_string(i), .type = 'I', .size = 2});
        image += "\7\0"s;
    }
    const change_dataset wide = dataset_of("WIDE", items);
    const std::string text = sql_lines(sql_for("postgresql")).of(CHANGE_DELETE, wide, image, "");
    EXPECT_NE(text.find("WHERE (\"C0\" = '7' AND"), text.npos);
    EXPECT_NE(text.find("\"C99\" = '7') AND (\"C100\" = '7'"), text.npos);
    EXPECT_NE(text.find("\"C199\" = '7') AND (\"C200\" = '7'"), text.npos);
    EXPECT_NE(text.find("\"C249\" = '7') LIMIT 1);\n"), text.npos);
}

TEST(SqlStatement, AnUpdateThatSetsNothingIsNone)
{
    change_dataset key_alone = dataset_of("T", {{.name = "NO", .type = 'I', .size = 2}});
    key_alone.key = {0};
    sql_lines lines(sql_for("sqlite"));
    EXPECT_EQ(lines.of(CHANGE_UPDATE, key_alone, "\5\0"s, "\5\0"s), "");
    EXPECT_EQ(lines.of(CHANGE_UPDATE, key_alone, "\5\0"s, "\6\0"s),
              "UPDATE \"SALES_T\" SET \"NO\" = 6 WHERE \"NO\" = 5;\n");
}

TEST(SqlStatement, KeysOfTheUserGoBeforeThoseOfTheLog)
{
    const change_dataset orders = sourced_orders(true);
    for (const char *name : {"ORDERS", "orders", "SALES:ORDERS"}) {
        sql_options options = sql_for("sqlite");
        options.keys = {{"LINES", {"X"}}, {name, {"the tag", "NET"}}};
        // A null is compared with IS NULL in a key, too.
        EXPECT_EQ(sql_lines(options).of(CHANGE_DELETE, orders, SECOND, ""),
                  "DELETE FROM \"sales_orders\" WHERE \"the tag\" IS NULL AND \"net\" = '-0.5';\n");
    }
    sql_options options = sql_for("sqlite");
    options.keys = {{"ORDERS", {"NOT"}}};
    EXPECT_EQ(sql_lines(options).put(CHANGE_DELETE, orders, FIRST, ""),
              "sales.orders has no item or column NOT, which --key names: take one that it has");
}

// Columns whose type has no equality, or another one than that of what is written.
TEST(SqlStatement, ColumnsAreComparedAsTextsUnlessTheirTypesEqualityIsExact)
{
    const std::string as_is = "\"d\"";
    const std::string cast = "CAST(\"d\" AS text) COLLATE \"C\"";
    const std::string shown = "rtrim(format('%s', \"d\"), ' ') COLLATE \"C\"";
    const std::pair<const char *, std::string> cases[] = {
        {"json", cast},
        {"jsonb", cast},
        {"xml", cast},
        {"point", cast},
        {"numeric", cast},
        {"json[]", cast},
        {"polygon", cast},
        {"numeric(30,2)", cast},
        {"pg_catalog.json", cast},
        {"text", cast},
        {"character(4)", cast},
        {"character varying(4)[]", cast},
        {"date", as_is},
        {"timestamp(3) without time zone", as_is},
        {"timestamp with time zone[]", as_is},
        {"double precision", as_is},
        {"bytea", as_is},
        {"inet", as_is},
        {"tstzrange", as_is},
        {"", as_is},
        {"interval", shown},
        {"interval(3)", shown},
        {"numrange", shown},
        {"jsonx", shown},
        {"public.citext", shown},
        {"public.date", shown},
        {"\"date\"", shown},
    };
    for (const auto &[type, compared] : cases) {
        change_dataset dataset = dataset_of("T", {{.name = "D", .type = 'X', .size = 2}});
        set_source(dataset, "t", {{.name = "d", .type = type, .item = 0}});
        EXPECT_EQ(sql_lines(sql_for("postgresql")).of(CHANGE_DELETE, dataset, "{}", ""),
                  "DELETE FROM \"sales\".\"t\" WHERE (tableoid, ctid) = (SELECT tableoid, ctid "
                  "FROM \"sales\".\"t\" WHERE " +
                      compared + " = '{}' LIMIT 1);\n")
            << type;
    }
    // Elements, numbers, and a key, whose type's equality is what makes it one.
    change_dataset several = dataset_of("T", {{.name = "D", .type = 'X', .size = 1, .count = 2},
                                              {.name = "N", .type = 'I', .size = 2}});
    set_source(several, "t",
               {{.name = "d", .type = "text[]", .item = 0},
                {.name = "n", .type = "public.number", .item = 1}});
    EXPECT_EQ(sql_lines(sql_for("postgresql")).of(CHANGE_DELETE, several, "ab\5\0"s, ""),
              "DELETE FROM \"sales\".\"t\" WHERE (tableoid, ctid) = (SELECT tableoid, ctid FROM "
              "\"sales\".\"t\" WHERE CAST(\"d\" AS text[]) COLLATE \"C\" = '{\"a\",\"b\"}' AND "
              "\"n\" = '5' LIMIT 1);\n");
    several.key = {0};
    EXPECT_EQ(sql_lines(sql_for("postgresql")).of(CHANGE_DELETE, several, "ab\5\0"s, ""),
              "DELETE FROM \"sales\".\"t\" WHERE \"d\" = '{\"a\",\"b\"}';\n");
}

// Also where null and value differ by the null map alone.
TEST(SqlStatement, AnUpdateSetsWhatDiffers)
{
    const std::string null = "\x05\x00\x12\x3C"
                             "    ..N"s;
    const std::string blank = "\x05\x00\x12\x3C"
                              "    ..."s;
    for (const bool keyed : {true, false}) {
        const change_dataset orders = sourced_orders(keyed);
        const auto set = [&orders](const std::string &before, const std::string &after) {
            const std::string text =
                sql_lines(sql_for("sqlite")).of(CHANGE_UPDATE, orders, before, after);
            return text.substr(0, text.find(" WHERE"));
        };
        EXPECT_EQ(set(null, blank), "UPDATE \"sales_orders\" SET \"the tag\" = ''");
        EXPECT_EQ(set(blank, null), "UPDATE \"sales_orders\" SET \"the tag\" = NULL");
        EXPECT_EQ(set(FIRST, blank), "UPDATE \"sales_orders\" SET \"the tag\" = ''");
        EXPECT_EQ(set(FIRST, FIRST), "");
        EXPECT_EQ(set(SECOND, SECOND), "");
    }
}

TEST(SqlStatement, ATransactionStandsBetweenBeginAndCommit)
{
    const change_dataset orders = sourced_orders(true);
    sql_lines lines(sql_for("postgresql"));
    EXPECT_EQ(lines.put(CHANGE_DELETE, orders, FIRST, ""), "");
    EXPECT_EQ(lines.put(CHANGE_DELETE, orders, SECOND, ""), "");
    lines.commit();
    EXPECT_EQ(lines.put(CHANGE_DELETE, orders, FIRST, ""), "");
    sql_give_up(lines.out);
    EXPECT_EQ(lines.out, "SET client_encoding = 'UTF8';\n"
                         "SET client_min_messages = 'warning';\n"
                         "SET standard_conforming_strings = on;\n"
                         "SET DateStyle = 'ISO';\n"
                         "SET TimeZone = 'UTC';\n"
                         "SET IntervalStyle = 'postgres';\n"
                         "BEGIN;\n"
                         "DELETE FROM \"sales\".\"orders\" WHERE \"no\" = '5';\n"
                         "DELETE FROM \"sales\".\"orders\" WHERE \"no\" = '-1';\n"
                         "COMMIT;\n"
                         "BEGIN;\n"
                         "DELETE FROM \"sales\".\"orders\" WHERE \"no\" = '5';\n"
                         "ROLLBACK;\n");
}

TEST(SqlStatement, TwoTablesOfOneNameAreRefused)
{
    change_dataset first = dataset_of("A", {{.name = "NO", .type = 'I', .size = 2}});
    change_dataset second = dataset_of("B", {{.name = "NO", .type = 'I', .size = 2}});
    set_source(first, "a_b", {{.name = "no", .type = "smallint", .item = 0}});
    set_source(second, "B", {{.name = "no", .type = "smallint", .item = 0}});
    fwu_source source = *second.layout.source;
    source.schema = "sales_a";
    second.layout.source = std::make_shared<const fwu_source>(source);
    sql_lines sqlite(sql_for("sqlite"));
    EXPECT_EQ(sqlite.put(CHANGE_CREATE, first, "", "\1\0"s), "");
    EXPECT_EQ(sqlite.put(CHANGE_CREATE, second, "", "\1\0"s),
              "sales_a.B and sales.a_b would both become table \"sales_a_B\": take one of them "
              "with --dset");
    sql_lines postgresql(sql_for("postgresql"));
    EXPECT_EQ(postgresql.put(CHANGE_CREATE, first, "", "\1\0"s), "");
    EXPECT_EQ(postgresql.put(CHANGE_CREATE, second, "", "\1\0"s), "");
}

TEST(SqlStatement, TwoColumnsOfOneNameAreRefused)
{
    change_dataset dataset = dataset_of("T", {{.name = "NO", .type = 'I', .size = 2},
                                              {.name = "NO-2", .type = 'I', .size = 2},
                                              {.name = "a", .type = 'I', .size = 2}});
    const auto insert = [&dataset](const char *dialect) {
        return sql_lines(sql_for(dialect)).put(CHANGE_CREATE, dataset, "", "\1\0\2\0\3\0"s);
    };
    EXPECT_EQ(insert("sqlite"), "");
    set_source(dataset, "t",
               {{.name = "Name", .type = "smallint", .item = 0},
                {.name = "nAME", .type = "smallint", .item = 1}});
    EXPECT_EQ(insert("postgresql"), "");
    EXPECT_EQ(insert("sqlite"),
              "sales.t has columns Name and nAME, which would be one: leave it out with --dset, or "
              "begin a new log with one of them left out of the dataset or with another name");
    // An item that has no column, and one whose column has its name.
    set_source(dataset, "t",
               {{.name = "a", .type = "smallint", .item = 0},
                {.name = "b", .type = "smallint", .item = 1}});
    EXPECT_NE(insert("postgresql").find("sales.t has columns a and a, which would be one"),
              std::string::npos);
    // Other letters are told apart.
    set_source(dataset, "t",
               {{.name = "\xC3\xA4", .type = "smallint", .item = 0},
                {.name = "\xC3\x84", .type = "smallint", .item = 1}});
    EXPECT_EQ(insert("sqlite"), "");
}

TEST(SqlStatement, ADatasetWithoutColumnsIsRefused)
{
    const change_dataset none =
        dataset_of("NONE", {{.name = "NULL-MAP", .type = 'X', .size = 1}}, "NULL-MAP");
    EXPECT_EQ(sql_lines(sql_for("sqlite")).put(CHANGE_CREATE, none, "", "."),
              "SALES.NONE has no columns; leave it out with --dset");
}
