// The position table, and marks in the log.
#include "changes/sql_position.h"
#include "tests/changes/sql_fixture.h"

static sql_options with_table(const char *dialect, const char *name = "done")
{
    sql_options options = sql_for(dialect);
    options.position_table = name;
    return options;
}

static const std::string id = "'000000000000000000000000000000ab'";
static const std::string here = "'0001-00000025.0000000009'";
static const std::string guard = "EXISTS (SELECT 1 FROM \"done\" WHERE \"pending\" = " + here + ")";
static const std::string checks =
    ", CONSTRAINT transactions_before_this_one_are_missing CHECK (\"pending\" <> 'gap')"
    ", CONSTRAINT the_position_is_one_of_another_log CHECK (\"pending\" <> 'another log')"
    ", CONSTRAINT the_position_is_one_of_another_selection CHECK (\"pending\" <> 'another "
    "selection')";
static const std::string others = "\"log\" <> " + id + " OR \"selection\" <> ''";
static const std::string begin_where =
    " WHERE (\"lsn\", \"position\") < ('00000000019B2DF0', " + here + ") OR " + others + ";\n";
static const std::string begin_case =
    "UPDATE \"done\" SET \"pending\" = CASE WHEN \"log\" <> " + id +
    " THEN 'another log' WHEN \"selection\" <> '' THEN 'another selection' WHEN \"position\" < "
    "'0001-00000025.0000000000' OR \"position\" >= " +
    here + " THEN 'gap' ELSE " + here + " END";
static const std::string create_row =
    "INSERT INTO \"done\" (\"id\", \"log\", \"selection\", \"lsn\", \"position\") VALUES (1, " +
    id + ", '', '0000000000000000', '0001-00000025.0000000000') ON CONFLICT DO NOTHING;\n";
static const std::string end_set =
    " \"done\" SET \"lsn\" = '00000000019B2DF0', \"position\" = " + here + ", \"pending\" = ";
// Of a statement that must find its row, in PostgreSQL.
static const std::string row_begin = "WITH \"fwlog rows\" AS (";
static const std::string row_end =
    " RETURNING 1) UPDATE \"done\" SET \"pending\" = 'not one row of \"sales\".\"orders\"' WHERE "
    "\"pending\" = " +
    here +
    " AND (SELECT count(*) <> 1 AND (count(*) > 1 OR NOT EXISTS (SELECT 1 FROM "
    "pg_catalog.pg_constraint WHERE conrelid = '\"sales\".\"orders\"'::regclass AND (confdeltype "
    "IN ('c', 'n', 'd') OR confupdtype IN ('c', 'n', 'd')))) FROM \"fwlog rows\");\n";

TEST(SqlPosition, PostgresqlTransactionsAreAppliedOnce)
{
    const change_dataset orders = sourced_orders(true);
    sql_lines lines(with_table("postgresql"));
    lines.put(CHANGE_CREATE, orders, "", FIRST);
    lines.put(CHANGE_DELETE, orders, FIRST, "");
    lines.commit();
    EXPECT_EQ(
        lines.out.substr(lines.out.find("BEGIN;")),
        "BEGIN;\n"
        "CREATE TABLE IF NOT EXISTS \"done\" (\"id\" integer PRIMARY KEY CHECK (\"id\" = 1), "
        "\"log\" text NOT NULL, \"selection\" text NOT NULL, \"lsn\" text COLLATE \"C\" NOT "
        "NULL, \"position\" text COLLATE \"C\" NOT NULL, \"pending\" text" +
            checks +
            ", CONSTRAINT a_change_met_no_row_or_several CHECK (\"pending\" NOT LIKE 'not one "
            "row of %'));\n" +
            create_row +
            "COMMIT;\n"
            "BEGIN;\n" +
            begin_case + begin_where +
            "INSERT INTO \"sales\".\"orders\" (\"no\", \"net\", \"the tag\") OVERRIDING "
            "SYSTEM VALUE SELECT '5', '12.3', 'a' WHERE " +
            guard + ";\n" + row_begin + "DELETE FROM \"sales\".\"orders\" WHERE \"no\" = '5' AND " +
            guard + row_end + "UPDATE" + end_set + "NULL WHERE \"pending\" = " + here +
            ";\nCOMMIT;\n");
}

// An update finds its row, too; one that sets nothing is none.
TEST(SqlPosition, PostgresqlCountsTheRowsThatMustBeThere)
{
    const change_dataset orders = sourced_orders(true);
    sql_lines lines(with_table("postgresql"));
    lines.put(CHANGE_UPDATE, orders, FIRST, SECOND);
    std::string text = lines.out.substr(lines.out.find("WITH"));
    EXPECT_TRUE(text.starts_with(row_begin + "UPDATE \"sales\".\"orders\" SET \"no\" = '-1', "))
        << text;
    EXPECT_TRUE(text.ends_with(" WHERE \"no\" = '5' AND " + guard + row_end)) << text;
    change_dataset bare = dataset_of("T", {{.name = "A", .type = 'I', .size = 2}});
    bare.key = {0};
    const size_t length = lines.out.size();
    lines.put(CHANGE_UPDATE, bare, "\1\0"s, "\1\0"s);
    EXPECT_EQ(lines.out.size(), length);
    // What a backslash in a name must not become.
    change_dataset odd = sourced_orders(true);
    set_source(odd, "a\\'", odd.layout.source->columns);
    sql_lines other(with_table("postgresql"));
    other.put(CHANGE_DELETE, odd, FIRST, "");
    EXPECT_NE(other.out.find("SET \"pending\" = E'not one row of \"sales\".\"a\\\\''\"' WHERE"),
              std::string::npos)
        << other.out;
    // Without the table they are plain.
    sql_lines plain(sql_for("postgresql"));
    EXPECT_EQ(plain.of(CHANGE_DELETE, orders, FIRST, ""),
              "DELETE FROM \"sales\".\"orders\" WHERE \"no\" = '5';\n");
}

// What is asked of the table before a transaction, and which ones it takes for applied.
TEST(SqlPosition, TransactionsStandInTheOrderOfTheSource)
{
    const change_dataset orders = sourced_orders(true);
    sql_lines lines(with_table("sqlite"));
    const auto next = [&] {
        lines.out.clear();
        EXPECT_EQ(lines.put(CHANGE_DELETE, orders, FIRST, ""), "");
        const std::string text = lines.out.substr(lines.out.find("'another selection' WHEN ") + 25);
        lines.commit();
        const size_t where = text.find(" WHERE ") + 7;
        return text.substr(0, text.find(", \"changed\"")) + " / " +
               text.substr(where, text.find(" OR ", where) - where);
    };
    const std::string first = "(\"lsn\", \"position\") < ('00000000019B2DF0', " + here + ")";
    EXPECT_EQ(next(), "\"position\" < '0001-00000025.0000000000' OR \"position\" >= " + here +
                          " THEN 'gap' ELSE " + here + " END / " + first);
    EXPECT_EQ(next(), first + " THEN 'gap' ELSE '0001-00000025.0000000019' END / \"lsn\" < "
                              "'00000000019B2E00'");
    EXPECT_EQ(next(), "\"lsn\" < '00000000019B2E00' THEN 'gap' ELSE '0001-00000025.0000000029' END "
                      "/ \"lsn\" < '00000000019B2E10'");
    // Another one with the same position in the source.
    lines.transaction.commit.lsn -= 0x10;
    EXPECT_EQ(next(), "\"lsn\" < '00000000019B2E10' THEN 'gap' ELSE '0001-00000025.0000000039' END "
                      "/ (\"lsn\", \"position\") < ('00000000019B2E10', "
                      "'0001-00000025.0000000039')");
    lines.transaction.commit.lsn -= 0x20;
    EXPECT_EQ(lines.put(CHANGE_DELETE, orders, FIRST, ""),
              "the source's positions go back here, from 0/19B2E10 to 0/19B2E00, so that no table "
              "can tell what was applied: go on behind the transaction before with --after, "
              "without --position-table");
}

// Nothing is missing in front of a log's first file.
TEST(SqlPosition, TheFirstFileIsTheBeginning)
{
    const change_dataset orders = sourced_orders(true);
    sql_lines lines(with_table("sqlite"));
    sql_begin_behind(lines.writer, {1, 1, 0});
    lines.put(CHANGE_DELETE, orders, FIRST, "");
    EXPECT_NE(lines.out.find("WHEN \"position\" < '0001-00000001.0000000000' THEN 'gap'"),
              std::string::npos);
}

// Those that stand before the first one that is given, and which of them were chosen.
TEST(SqlPosition, TheTableBeginsBehindWhatWasPassed)
{
    const change_dataset orders = sourced_orders(true);
    sql_options options = with_table("sqlite");
    options.selection = "A:IT'S @:B";
    sql_lines lines(options);
    for (int n = 0; n < 2; n++) {
        sql_pass(lines.writer, lines.transaction);
        lines.transaction.position.tag += 10;
        lines.transaction.commit.lsn += 0x10;
    }
    lines.put(CHANGE_DELETE, orders, FIRST, "");
    EXPECT_NE(lines.out.find("VALUES (1, " + id +
                             ", 'A:IT''S @:B', '00000000019B2E00', '0001-00000025.0000000019')"),
              std::string::npos);
    EXPECT_NE(lines.out.find(" WHEN \"selection\" <> 'A:IT''S @:B' THEN 'another selection' WHEN "
                             "\"lsn\" < '00000000019B2E00' THEN 'gap'"),
              std::string::npos);
}

TEST(SqlPosition, SqliteCountsWhatTheStatementsDid)
{
    const change_dataset orders = sourced_orders(true);
    sql_lines lines(with_table("sqlite"));
    lines.put(CHANGE_CREATE, orders, "", FIRST);
    lines.put(CHANGE_DELETE, orders, FIRST, "");
    lines.commit();
    EXPECT_EQ(lines.out,
              "BEGIN;\n"
              "CREATE TABLE IF NOT EXISTS \"done\" (\"id\" integer PRIMARY KEY CHECK (\"id\" = 1), "
              "\"log\" TEXT NOT NULL, \"selection\" TEXT NOT NULL, \"lsn\" TEXT NOT NULL, "
              "\"position\" TEXT NOT NULL, \"pending\" TEXT, \"changed\" INTEGER" +
                  checks +
                  ", CONSTRAINT a_statement_of_this_transaction_failed CHECK (\"pending\" <> "
                  "'failed'), CONSTRAINT this_transaction_was_applied_before CHECK (\"pending\" <> "
                  "'applied'));\n" +
                  create_row +
                  "COMMIT;\n"
                  "BEGIN;\n" +
                  begin_case + ", \"changed\" = total_changes() + 1" + begin_where +
                  "INSERT INTO \"sales_orders\" (\"no\", \"net\", \"the tag\") SELECT 5, '12.3', "
                  "'a' WHERE " +
                  guard + ";\nDELETE FROM \"sales_orders\" WHERE \"no\" = 5 AND " + guard +
                  ";\nUPDATE OR ROLLBACK" + end_set +
                  "CASE WHEN total_changes() = \"changed\" + 2 THEN NULL ELSE "
                  "'failed' END WHERE \"pending\" = " +
                  here + ";\nCOMMIT;\n");
}

// Postgresql asks in a block; SQLite cannot, and takes all back where the transaction is not
// the one that comes next.
TEST(SqlPosition, LayoutsChangeOnceToo)
{
    const change_dataset before = dataset_of("T", {{.name = "A", .type = 'I', .size = 2}});
    const change_dataset now = dataset_of(
        "T", {{.name = "A", .type = 'I', .size = 2}, {.name = "B", .type = 'I', .size = 2}});
    sql_lines postgresql(with_table("postgresql"));
    EXPECT_TRUE(sql_learn(postgresql.writer, before));
    std::string text = postgresql.of(CHANGE_CREATE, now, "", "\1\0\2\0"s);
    EXPECT_NE(text.find("DO 'BEGIN IF EXISTS (SELECT 1 FROM \"done\" WHERE \"pending\" = "
                        "''0001-00000025.0000000009'') THEN ALTER TABLE \"SALES\".\"T\" ADD COLUMN "
                        "\"B\" smallint; END IF; END';\n"),
              text.npos);
    sql_lines sqlite(with_table("sqlite"));
    EXPECT_TRUE(sql_learn(sqlite.writer, before));
    text = sqlite.of(CHANGE_CREATE, now, "", "\1\0\2\0"s);
    EXPECT_NE(text.find(";\nALTER TABLE \"SALES_T\" ADD COLUMN \"B\" INTEGER;\n"), text.npos);
    EXPECT_NE(text.find("UPDATE OR ROLLBACK" + end_set + "CASE WHEN \"pending\" = " + here +
                        " AND total_changes() = \"changed\" + 1 THEN NULL WHEN \"pending\" IS NULL "
                        "THEN 'applied' ELSE 'failed' END;\n"),
              text.npos);
    // The transaction behind it is one like others.
    text = sqlite.of(CHANGE_CREATE, now, "", "\1\0\2\0"s);
    EXPECT_EQ(text.find("'applied'"), text.npos);
}

TEST(SqlPosition, TheTableMayStandInASchema)
{
    sql_position position;
    position.dialect = sql_dialect_of("postgresql");
    sql_position_name(position, "ops.done \"x\"");
    EXPECT_EQ(position.table, "\"ops\".\"done \"\"x\"\"\"");
    position.dialect = sql_dialect_of("sqlite");
    sql_position_name(position, "ops.done");
    EXPECT_EQ(position.table, "\"ops.done\"");
}

TEST(SqlPosition, PositionsAsTextsAreInTheirOrder)
{
    EXPECT_EQ(sql_position_text({1, 25, 344}), "0001-00000025.0000000344");
    EXPECT_EQ(sql_position_text({9999, 99999999, 2147483647}), "9999-99999999.2147483647");
    EXPECT_LT(sql_position_text({1, 9, 10}), sql_position_text({1, 10, 9}));
}

TEST(SqlMark, ATruncateStopsUnlessItIsSaidWhatToDo)
{
    const change_dataset orders = sourced_orders(true);
    const fwu_mark mark{.kind = FWU_MARK_TRUNCATE,
                        .dbname = "SALES",
                        .dsetname = "ORDERS",
                        .schema = "sales",
                        .table = "orders",
                        .reason = "by hand"};
    EXPECT_EQ(sql_lines(sql_for("sqlite")).put_mark(mark, &orders),
              "sales.orders was truncated here (by hand): --truncate apply empties the table, "
              "--truncate skip leaves it as it is");
    sql_options options = sql_for("sqlite");
    options.truncate = SQL_SKIP;
    sql_lines skipping(options);
    EXPECT_EQ(skipping.put_mark(mark, &orders), "");
    ASSERT_EQ(skipping.writer.notes.size(), 1U);
    EXPECT_EQ(skipping.writer.notes[0],
              "position 1-25.8: sales.orders was truncated here (by hand); passed over");
    EXPECT_EQ(skipping.out, "BEGIN;\n");
    options.truncate = SQL_APPLY;
    sql_lines applying(options);
    EXPECT_EQ(applying.put_mark(mark, &orders), "");
    EXPECT_EQ(applying.taken(), "DELETE FROM \"sales_orders\";\n");
    // Files that have no layout of it yet.
    EXPECT_EQ(applying.put_mark(mark), "");
    EXPECT_EQ(applying.taken(), "DELETE FROM \"sales_orders\";\n");
    sql_lines unknown(options);
    EXPECT_EQ(unknown.put_mark(mark), "");
    EXPECT_EQ(unknown.taken(), "DELETE FROM \"sales_orders\";\n");
    EXPECT_EQ(unknown.put_mark({.kind = FWU_MARK_TRUNCATE, .dbname = "A", .dsetname = "B"}), "");
    EXPECT_EQ(unknown.taken(), "DELETE FROM \"A_B\";\n");
    EXPECT_EQ(unknown.put_mark({.kind = FWU_MARK_TRUNCATE}),
              "the log does not say which table was truncated here: empty it by hand, then go on "
              "behind this transaction with --after");
    // A table that would have been made is not there.
    options.create_tables = true;
    sql_lines making(options);
    EXPECT_EQ(making.put_mark(mark), "");
    EXPECT_EQ(making.taken(), "");
    EXPECT_EQ(making.writer.notes.size(), 1U);
}

TEST(SqlMark, EmptyingATableBeginsTheCountAnew)
{
    const change_dataset orders = sourced_orders(true);
    const fwu_mark mark{.kind = FWU_MARK_TRUNCATE, .dbname = "SALES", .dsetname = "ORDERS"};
    sql_options options = with_table("postgresql");
    options.truncate = SQL_APPLY;
    sql_lines postgresql(options);
    postgresql.put_mark(mark, &orders);
    EXPECT_EQ(postgresql.taken(),
              begin_case + begin_where + "DELETE FROM \"sales\".\"orders\" WHERE " + guard + ";\n");
    options = with_table("sqlite");
    options.truncate = SQL_APPLY;
    sql_lines sqlite(options);
    sqlite.put(CHANGE_CREATE, orders, "", FIRST);
    sqlite.taken();
    sqlite.put_mark(mark, &orders);
    sqlite.put(CHANGE_CREATE, orders, "", FIRST);
    sqlite.commit();
    const std::string text = sqlite.taken();
    EXPECT_EQ(text.substr(0, text.find("INSERT")),
              "UPDATE \"done\" SET \"changed\" = CASE WHEN total_changes() = \"changed\" + 1 THEN "
              "-9000000000000000000 END WHERE " +
                  guard + ";\nDELETE FROM \"sales_orders\" WHERE " + guard +
                  ";\nUPDATE \"done\" SET \"changed\" = CASE WHEN \"changed\" = "
                  "-9000000000000000000 AND NOT EXISTS (SELECT 1 FROM \"sales_orders\") THEN "
                  "total_changes() + 1 END WHERE " +
                  guard + ";\n");
    EXPECT_NE(text.find("CASE WHEN total_changes() = \"changed\" + 1 THEN NULL"), text.npos);
}

TEST(SqlMark, AGapStopsOrIsPassedOver)
{
    EXPECT_EQ(sql_lines(sql_for("sqlite"))
                  .put_mark({.kind = FWU_MARK_GAP, .reason = "the slot was lost"}),
              "changes of all tables are missing from here on (the slot was lost): see what is "
              "missing, then go on with --gap skip");
    EXPECT_EQ(sql_lines(sql_for("sqlite")).put_mark({.kind = FWU_MARK_GAP, .table = "t"}),
              "changes of t are missing from here on: see what is missing, then go on with "
              "--gap skip");
    sql_options options = sql_for("sqlite");
    options.gap = SQL_SKIP;
    sql_lines skipping(options);
    EXPECT_EQ(skipping.put_mark({.kind = FWU_MARK_GAP, .dbname = "SALES", .dsetname = "ORDERS"}),
              "");
    ASSERT_EQ(skipping.writer.notes.size(), 1U);
    EXPECT_EQ(skipping.writer.notes[0], "position 1-25.8: changes of SALES.ORDERS are missing from "
                                        "here on; passed over");
}
