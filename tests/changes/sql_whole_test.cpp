// What a record cannot hold, as statements: whole values, nothing that is not known, UTF-8 logs.
#include "tests/changes/sql_fixture.h"

// Of table sales.orders, keyed by no or not at all: "5, 12.3, tag" with these flags.
static std::string row_of(const std::string &flags, const std::string &tag = "a   ")
{
    return "\x05\x00\x12\x3C"s + tag + flags;
}

static std::vector<fwu_value> one(int32_t item, std::string_view text)
{
    return {{.item = item, .text = text}};
}

TEST(SqlWhole, ValuesAreThoseOfTheSource)
{
    const change_dataset dataset = sourced_orders(true);
    const std::string into =
        R"(INSERT INTO "sales"."orders" ("no", "net", "the tag") OVERRIDING SYSTEM VALUE VALUES )";
    sql_lines lines(sql_for("postgresql"));
    const auto inserted = [&](const std::string &flags, const std::vector<fwu_value> &whole) {
        const std::string text = lines.of(CHANGE_CREATE, dataset, "", row_of(flags), {{}, whole});
        EXPECT_TRUE(text.starts_with(into)) << text;
        return text.substr(into.size());
    };
    EXPECT_EQ(inserted("..C", one(2, "a longer one")), "('5', '12.3', 'a longer one');\n");
    EXPECT_EQ(inserted("..R", one(2, "it's \xE2\x82\xAC\n")),
              "('5', '12.3', E'it''s \xE2\x82\xAC\\012');\n");
    EXPECT_EQ(inserted(".!.", one(1, "123456789012345678901234.5")),
              "('5', '123456789012345678901234.5', 'a');\n");
    EXPECT_EQ(inserted(".!.", one(1, "NaN")), "('5', 'NaN', 'a');\n");
    EXPECT_EQ(inserted("..C", one(2, "blanks behind  ")), "('5', '12.3', 'blanks behind  ');\n");
    EXPECT_EQ(inserted("..C", one(2, "   ")), "('5', '12.3', '   ');\n");
    EXPECT_EQ(inserted("..C", {}), "('5', '12.3', 'a');\n") << "what there is of it";
    EXPECT_TRUE(lines.writer.notes.empty());
    sql_lines lite(sql_for("sqlite"));
    EXPECT_EQ(lite.of(CHANGE_CREATE, dataset, "", row_of(".!C"),
                      {{}, {{.item = 1, .text = "1234567.5"}, {.item = 2, .text = "a\nb"}}}),
              "INSERT INTO \"sales_orders\" (\"no\", \"net\", \"the tag\") VALUES "
              "(5, '1234567.5', replace('a\\nb','\\n',char(10)));\n");
}

TEST(SqlWhole, AnUpdateSetsWhatDiffersBesideTheImages)
{
    const change_dataset dataset = sourced_orders(true);
    sql_lines lines(sql_for("postgresql"));
    const std::string cut = row_of("..C");
    const std::string where = R"( WHERE "no" = '5';)"
                              "\n";
    const std::string update = R"(UPDATE "sales"."orders" SET "the tag" = )";
    EXPECT_EQ(lines.of(CHANGE_UPDATE, dataset, cut, cut, {one(2, "a one"), one(2, "a two")}),
              update + "'a two'" + where)
        << "though the images are equal";
    EXPECT_EQ(lines.of(CHANGE_UPDATE, dataset, cut, cut, {one(2, "a one"), one(2, "a one")}), "");
    EXPECT_EQ(lines.of(CHANGE_UPDATE, dataset, row_of("..."), cut, {{}, one(2, "a one")}),
              update + "'a one'" + where);
    EXPECT_EQ(lines.of(CHANGE_UPDATE, dataset, cut, row_of("..."), {one(2, "a one"), {}}),
              update + "'a'" + where);
    EXPECT_EQ(lines.of(CHANGE_UPDATE, dataset, cut, row_of("..N"), {one(2, "a one"), {}}),
              update + "NULL" + where);
}

TEST(SqlWhole, AnUpdateSetsNothingThatIsNotKnown)
{
    const change_dataset dataset = sourced_orders(true);
    sql_lines lines(sql_for("postgresql"));
    EXPECT_EQ(lines.of(CHANGE_UPDATE, dataset, row_of(".??"), row_of("...")),
              R"(UPDATE "sales"."orders" SET "net" = '12.3', "the tag" = 'a' WHERE "no" = '5';)"
              "\n")
        << "what the old row was does not matter";
    EXPECT_EQ(lines.of(CHANGE_UPDATE, dataset, row_of(".??"), row_of("..?")),
              R"(UPDATE "sales"."orders" SET "net" = '12.3' WHERE "no" = '5';)"
              "\n");
    EXPECT_EQ(lines.of(CHANGE_UPDATE, dataset, row_of("..."), row_of("..?")), "")
        << "an unchanged value that is stored apart";
    EXPECT_EQ(lines.of(CHANGE_UPDATE, dataset, row_of(".??"), row_of(".!?")), "")
        << "left blank, and its whole value is lost";
    EXPECT_TRUE(lines.writer.notes.empty());
}

TEST(SqlWhole, RowsAreFoundByWhatIsKnownOfThem)
{
    const std::string by_no = R"( WHERE "no" = '5')";
    const std::string by_tag = R"( WHERE CAST("the tag" AS text) COLLATE "C" = 'a')";
    const std::string single = R"( AND 1 = (SELECT count(*) FROM "sales"."orders")";
    const std::string gone = R"(DELETE FROM "sales"."orders")";
    sql_lines lines(sql_for("postgresql"));
    const change_dataset keyed = sourced_orders(true);
    EXPECT_EQ(lines.of(CHANGE_DELETE, keyed, row_of(".??"), ""), gone + by_no + ";\n");
    EXPECT_EQ(lines.of(CHANGE_DELETE, keyed, row_of("?N."), ""),
              gone + R"( WHERE "net" IS NULL AND CAST("the tag" AS text) COLLATE "C" = 'a')" +
                  single +
                  R"( WHERE "net" IS NULL AND CAST("the tag" AS text) COLLATE "C" = 'a');)"
                  "\n")
        << "its key is not known, being another one than the source's identity";
    EXPECT_EQ(lines.of(CHANGE_UPDATE, keyed, row_of("??."), row_of(".?.", "b   ")),
              R"(UPDATE "sales"."orders" SET "no" = '5', "the tag" = 'b')" + by_tag + single +
                  by_tag + ");\n");
    sql_lines others(sql_for("postgresql"));
    const change_dataset keyless = sourced_orders(false);
    EXPECT_EQ(others.of(CHANGE_DELETE, keyless, row_of(".??"), ""),
              gone + by_no + single + by_no + ");\n");
    EXPECT_EQ(others.of(CHANGE_DELETE, keyless, row_of("..C"), "", {one(2, "a longer one"), {}}),
              gone + R"( WHERE (tableoid, ctid) = (SELECT tableoid, ctid FROM "sales"."orders" )"
                     R"(WHERE "no" = '5' AND "net" = '12.3' AND )"
                     R"(CAST("the tag" AS text) COLLATE "C" = 'a longer one' LIMIT 1);)"
                     "\n");
}

// The text of such a type may be filled up with blanks, so it is compared without those at its end.
TEST(SqlWhole, RowsAreFoundByTextsThatEndWithBlanks)
{
    for (const auto &[type, found] :
         {std::pair<const char *, const char *>("text", R"(CAST("d" AS text) COLLATE "C" = 'a ' )"),
          {"public.citext", R"(rtrim(format('%s', "d"), ' ') COLLATE "C" = 'a' )"}}) {
        change_dataset dataset = dataset_of("T", {{.name = "D", .type = 'X', .size = 2},
                                                  {.name = "NULL-MAP", .type = 'X', .size = 1}});
        set_source(dataset, "t", {{.name = "d", .type = type, .item = 0}});
        const std::string made = sql_lines(sql_for("postgresql"))
                                     .of(CHANGE_DELETE, dataset, "a C", "", {one(0, "a "), {}});
        EXPECT_NE(made.find(found), std::string::npos) << made;
    }
}

TEST(SqlWhole, AKeyThatWasCutIsWhole)
{
    change_dataset dataset = sourced_orders(false);
    dataset.key = {2};
    sql_lines lines(sql_for("postgresql"));
    EXPECT_EQ(lines.of(CHANGE_DELETE, dataset, row_of("??C"), "", {one(2, "a longer one"), {}}),
              R"(DELETE FROM "sales"."orders" WHERE "the tag" = 'a longer one';)"
              "\n");
}

TEST(SqlWhole, TheConditionStandsBehindWhatFindsTheRow)
{
    sql_options options = sql_for("sqlite");
    options.position_table = "p";
    sql_lines lines(options);
    const std::string text = lines.of(CHANGE_DELETE, sourced_orders(false), row_of(".??"), "");
    EXPECT_NE(text.find(R"(DELETE FROM "sales_orders" WHERE "no" = 5 AND 1 = (SELECT count(*) )"
                        R"(FROM "sales_orders" WHERE "no" = 5) AND EXISTS (SELECT 1 FROM "p")"),
              std::string::npos)
        << text;
}

TEST(SqlWhole, ANewRowGetsFromTheDatabaseWhatIsNotKnown)
{
    const change_dataset dataset = sourced_orders(true);
    sql_lines lines(sql_for("postgresql"));
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(lines.of(CHANGE_CREATE, dataset, "", row_of(".?.")),
                  R"(INSERT INTO "sales"."orders" ("no", "the tag") OVERRIDING SYSTEM VALUE )"
                  R"(VALUES ('5', 'a');)"
                  "\n");
    EXPECT_EQ(lines.writer.notes,
              std::vector<std::string>{
                  "position 1-25.8: sales.orders column net is not known of a new row, here for "
                  "the first time; it gets what the database gives it"});
    EXPECT_EQ(lines.of(CHANGE_CREATE, dataset, "", row_of("...")),
              R"(INSERT INTO "sales"."orders" ("no", "net", "the tag") OVERRIDING SYSTEM VALUE )"
              R"(VALUES ('5', '12.3', 'a');)"
              "\n");
}

TEST(SqlWhole, RowsOfWhichNothingIsKnownAreRefused)
{
    const change_dataset dataset = sourced_orders(true);
    const auto refused = [&dataset](change_op op, const std::string &before,
                                    const std::string &after) {
        sql_lines lines(sql_for("postgresql"));
        return lines.put(op, dataset, before, after);
    };
    const std::string wrong =
        "sales.orders has a change of a row of which nothing is known: make it by hand and go on "
        "behind this transaction with --after, or leave the dataset out with --dset";
    EXPECT_EQ(refused(CHANGE_DELETE, row_of("???"), ""), wrong);
    EXPECT_EQ(refused(CHANGE_UPDATE, row_of("???"), row_of("...")), wrong);
    EXPECT_EQ(refused(CHANGE_CREATE, "", row_of("?!?")), wrong);
}

TEST(SqlWhole, WholeValuesThatAreNoTextAreAnError)
{
    const change_dataset dataset = sourced_orders(true);
    const auto refused = [&dataset](std::string_view whole) {
        sql_lines lines(sql_for("postgresql"));
        return lines.put(CHANGE_CREATE, dataset, "", row_of("..C"), {{}, one(2, whole)});
    };
    const std::string behind = "; correct the row at the source and go on behind this transaction "
                               "with --after, or leave the dataset out with --dset";
    EXPECT_EQ(refused("\xE9t\xE9"),
              "sales.orders item TAG has bytes that are no text, not being UTF-8: 0xE974E9" +
                  behind);
    EXPECT_EQ(refused(std::string(40, '\xFF')),
              "sales.orders item TAG has bytes that are no text, not being UTF-8: 0x" +
                  std::string(64, 'F') + "..." + behind);
    EXPECT_EQ(refused({"a\0", 2}),
              "sales.orders item TAG has bytes that are no text, having a NUL: 0x6100" + behind);
}

TEST(SqlWhole, TextsOfUtf8LogsStayAsTheyAreUnlessTheyAreNone)
{
    change_dataset dataset = sourced_orders(true);
    dataset.encoding = FWU_UTF8;
    sql_lines lines(sql_for("sqlite"));
    const std::string into = R"(INSERT INTO "sales_orders" ("no", "net", "the tag") VALUES )";
    EXPECT_EQ(lines.of(CHANGE_CREATE, dataset, "", row_of("...", "\xE2\x82\xAC ")),
              into + "(5, '12.3', '\xE2\x82\xAC');\n");
    EXPECT_EQ(lines.put(CHANGE_CREATE, dataset, "", row_of("...", "\xE9   ")),
              "sales.orders item TAG has bytes that are no text, not being UTF-8: 0xE9202020; "
              "correct the row at the source and go on behind this transaction with --after, or "
              "leave the dataset out with --dset");
    change_dataset array = dataset_of("A", {{.name = "B", .type = 'X', .size = 4, .count = 2}});
    array.encoding = FWU_UTF8;
    sql_lines others(sql_for("sqlite"));
    EXPECT_EQ(others.of(CHANGE_CREATE, array, "", "\xE2\x82\xAC \"\\  "),
              "INSERT INTO \"SALES_A\" (\"B\") VALUES ('{\"\xE2\x82\xAC\",\"\\\"\\\\\"}');\n");
}

TEST(SqlWhole, AnArrayIsTheTextOfTheSource)
{
    const change_dataset dataset = dataset_of(
        "A", {{.name = "B", .type = 'I', .size = 2, .count = 2}, {"MAP", 'X', 1}}, "MAP");
    sql_lines lines(sql_for("postgresql"));
    EXPECT_EQ(lines.of(CHANGE_CREATE, dataset, "", "\1\0\2\0!"s, {{}, one(0, "{1,70000,3}")}),
              "INSERT INTO \"SALES\".\"A\" (\"B\") OVERRIDING SYSTEM VALUE VALUES "
              "('{1,70000,3}');\n");
}
