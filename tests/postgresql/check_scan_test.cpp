// "fwlog postgresql --check --scan": what it counts of the values that tables hold, and that the
// lines that it gives are taken as they stand.
#include "tests/postgresql/check_fixture.h"

#include <filesystem>

using testing::HasSubstr;
using testing::Not;

TEST_F(BridgeCheckTest, ScanCountsWhatDoesNotFit)
{
    sql("CREATE TABLE held (id int PRIMARY KEY, note text, code varchar(5), day date,"
        " price numeric(5,2), at timestamp, flag boolean, kind char(4));"
        "INSERT INTO held SELECT i, 'short', 'abc', '2026-03-09', 1.5, '2026-03-09', true, 'ab'"
        " FROM generate_series(1, 96) i;"
        "INSERT INTO held VALUES (97, repeat('x', 4000), 'abcde', '10000-01-01', 'NaN',"
        " '0044-03-15 BC', false, 'abcd'), (98, repeat('ö', 1500), '€€€€€', '0044-03-15 BC', 2,"
        " 'infinity', NULL, NULL), (99, 'x', 'y', 'infinity', NULL, '10000-01-01', NULL, 'x')");
    configure("default-width 1000\n");
    const run_result result = check({"--create", "--scan", "--write-config", "written.cfg"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.err, "");
    for (const char *text :
         {"public.held.note: 2 rows would be cut, of 99 rows in all; item NOTE is X 1000, the "
          "longest value has 4000\n     column public.held.note width=5000\n",
          "public.held.code: 1 row would be cut, of 99 rows in all; item CODE is X 12, the longest "
          "value has 15\n     column public.held.code width=24\n",
          "public.held.day: 2 rows would be left out, of 99 rows in all; item DAY is X 10, ",
          "public.held.price: 1 row would be left out, of 99 rows in all; item PRICE is P 3 "
          "scale=2\n",
          "public.held.at: 2 rows would be left out, of 99 rows in all; item AT is X 26\n",
          "\n  scanned: 99 rows\n"})
        EXPECT_THAT(result.out, HasSubstr(text));
    EXPECT_THAT(result.out, Not(HasSubstr("public.held.flag:")));
    EXPECT_THAT(result.out, Not(HasSubstr("public.held.kind:")));
    // With room for what is there nothing is cut.
    const run_result wider = check({"--create", "--scan", "-cfg", "written.cfg"});
    EXPECT_EQ(wider.status, 0) << wider.out << wider.err;
    EXPECT_THAT(wider.out, Not(HasSubstr("would be cut")));
    EXPECT_THAT(wider.out, HasSubstr("public.held.price: 1 row would be left out"));
}

// A quarter more for each would be 11256 and 9000 bytes, for which a record has no room.
TEST_F(BridgeCheckTest, ScanGivesNoMoreRoomThanARecordHas)
{
    sql("CREATE TABLE held (note text, more text, id int PRIMARY KEY);"
        "INSERT INTO held VALUES (repeat('x', 9000), repeat('y', 7200), 1)");
    configure("default-width 1000\n");
    const run_result result = check({"--create", "--scan", "--write-config", "written.cfg"});
    EXPECT_THAT(result.out, HasSubstr("     column public.held.note width=9000\n"));
    EXPECT_THAT(result.out, HasSubstr("     column public.held.more width=7200\n"));
    const run_result wider = check({"--create", "--scan", "-cfg", "written.cfg"});
    EXPECT_EQ(wider.status, 0) << wider.out << wider.err;
    EXPECT_THAT(wider.out, Not(HasSubstr("would be cut")));
}

TEST_F(BridgeCheckTest, ScanOfTheOldEncodingCountsCharacters)
{
    sql("CREATE TABLE held (id int PRIMARY KEY, code varchar(5));"
        "INSERT INTO held VALUES (1, 'äöüßé'), (2, '5 €'), (3, 'abcde')");
    configure("text-encoding iso-8859-1\n");
    const run_result result = check({"--create", "--scan"});
    EXPECT_THAT(result.out, HasSubstr("public.held.code: 1 row would have characters replaced, of "
                                      "3 rows in all; item CODE is X 5\n"));
    configure("text-encoding iso-8859-1\nvalues error\n");
    const run_result strict = check({"--create", "--scan"});
    EXPECT_EQ(strict.status, 1); // for its old rows
    EXPECT_THAT(strict.out, HasSubstr("public.held.code: 1 row with characters without a place, of "
                                      "3 rows in all; item CODE is X 5; such a row sets the table "
                                      "aside\n"));
}

TEST_F(BridgeCheckTest, ScanOfADatabaseWithoutEncodingCountsBytesThatAreNoUtf8)
{
    pg_client(server->conninfo())
        .run("CREATE DATABASE bytes_" + database +
             " ENCODING 'SQL_ASCII' TEMPLATE template0 LC_COLLATE 'C' LC_CTYPE 'C'");
    const std::string other = database;
    database = "bytes_" + other;
    // The last of each length and the first of the next; then what is none: not continued,
    // continuing nothing, longer than need be, half of a pair, beyond the last character.
    sql("CREATE TABLE held (id serial PRIMARY KEY, note text); ALTER TABLE held REPLICA IDENTITY "
        "FULL; INSERT INTO held (note) VALUES (E'~\\x7f'), (E'\\xc2\\x80 \\xc3\\xbf'),"
        " (E'\\xdf\\xbf'), (E'\\xe0\\xa0\\x80'), (E'\\xed\\x9f\\xbf\\xee\\x80\\x80'),"
        " (E'\\xef\\xbf\\xbf'), (E'\\xf0\\x90\\x80\\x80'), (E'\\xf4\\x8f\\xbf\\xbf'), (NULL), ('');"
        "INSERT INTO held (note) VALUES (E'a\\xffz'), (E'\\xc3'), (E'\\xc3z'), (E'\\xe2\\x82'),"
        " (E'\\x80'), (E'\\xc0\\x80'), (E'\\xc1\\xbf'), (E'\\xe0\\x9f\\xbf'), (E'\\xed\\xa0\\x80'),"
        " (E'\\xf0\\x8f\\xbf\\xbf'), (E'\\xf4\\x90\\x80\\x80'), (E'\\xf5\\x80\\x80\\x80')");
    const run_result scanned = check({"--create", "--scan"});
    EXPECT_EQ(scanned.status, 0) << scanned.err;
    EXPECT_THAT(scanned.out, HasSubstr("public.held.note: 12 rows would have characters replaced, "
                                       "of 22 rows in all; item NOTE is X 1000\n"));
    // A run finds the same.
    ASSERT_EQ(catch_up({"--create", "--snapshot"}).status, 0);
    EXPECT_EQ(status_member("replaced"), "12");
    // The old encoding has no more than 256 characters.
    std::filesystem::remove_all(dir.file("log"));
    configure("text-encoding iso-8859-1\ncolumn public.held.note width=3\nvalues mark\n");
    const run_result old = check({"--create", "--scan"});
    EXPECT_THAT(old.out, HasSubstr("public.held.note: 18 rows would have characters replaced, of "
                                   "22 rows in all; item NOTE is X 3\n"));
    sql("SELECT pg_drop_replication_slot('" + database + "')");
    server->drop_database(database);
    database = other;
}

TEST_F(BridgeCheckTest, ScanOfDescribedTables)
{
    sql("CREATE SCHEMA load; CREATE TABLE load.ledger (id bigint PRIMARY KEY, client bigint,"
        " amount numeric, body text); ALTER TABLE load.ledger REPLICA IDENTITY FULL;"
        "INSERT INTO load.ledger VALUES (1, 2147483647, 999.99, 'body'), (2, 2147483648, 1000, "
        "'bodies'), (3, -2147483648, 1.001, NULL), (4, NULL, 'NaN', 'b')");
    configure("database LOAD\ndataset LEDGER\nitem ID I 8\nitem CLIENT I 4\n"
              "item AMOUNT P 3 scale=2\nitem BODY X 4\n");
    const run_result result = check({"--create", "--scan"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("A run would start, with tables set aside.\n"));
    for (const char *text :
         {"load.ledger.client: 1 row that the item cannot hold, 1 row null without a null map, of "
          "4 rows in all; item CLIENT is I 4; such a row "
          "sets the table aside\n",
          "load.ledger.amount: 3 rows that the item cannot hold, of 4 rows in all; item AMOUNT is "
          "P 3 scale=2; such a row sets the table aside\n",
          "load.ledger.body: 1 row too long, 1 row null without a null map, of 4 rows in all; item "
          "BODY is X 4, the longest value has 6; such a row sets the table aside\n"})
        EXPECT_THAT(result.out, HasSubstr(text));
}

TEST_F(BridgeCheckTest, TablesThatCannotBeScannedAreToldAndPassedOver)
{
    const std::string role = database + "_scan";
    sql("CREATE ROLE " + role +
        " LOGIN REPLICATION; CREATE TABLE a_locked (id int PRIMARY KEY);"
        "CREATE TABLE b_open (id int PRIMARY KEY); INSERT INTO b_open VALUES (1);"
        "CREATE TABLE c_closed (id int PRIMARY KEY); GRANT SELECT ON a_locked, b_open TO " +
        role);
    pg_client other = connect();
    other.run("BEGIN; LOCK TABLE a_locked");
    const run_result result = check_as(role, {"--create", "--scan", "--scan-timeout", "1"});
    EXPECT_THAT(result.out, HasSubstr("  not scanned: canceling statement due to statement "
                                      "timeout\n"));
    EXPECT_THAT(result.out, HasSubstr("  scanned: 1 row\n"));
    EXPECT_THAT(result.out, HasSubstr("  not scanned: permission denied for table c_closed\n"));
    other.run("COMMIT");
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeCheckTest, SignalEndsAScanAndItsQuery)
{
    sql("CREATE TABLE locked (id int PRIMARY KEY)");
    pg_client other = connect();
    other.run("BEGIN; LOCK TABLE locked");
    start_bridge({"--check", "--create", "--scan"});
    const auto waiting = [&] {
        return value("SELECT count(*) FROM pg_stat_activity WHERE application_name = 'fwlog'"
                     " AND wait_event_type = 'Lock'");
    };
    ASSERT_TRUE(poll_until([&] { return waiting() == "1"; })) << bridge.err();
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    EXPECT_TRUE(poll_until([&] { return waiting() == "0"; }));
    EXPECT_EQ(bridge.out(), "");
}

TEST_F(BridgeCheckTest, LinesOfAScanAreTakenAsTheyStand)
{
    sql("CREATE TABLE held (id int PRIMARY KEY, note text, code varchar(5), said text);"
        "INSERT INTO held VALUES (1, repeat('x', 4000), '€€€€€', repeat('y', 1001))");
    const run_result scanned = check({"--create", "--scan"});
    EXPECT_EQ(scanned.status, 0) << scanned.err;
    std::string lines;
    std::istringstream text(scanned.out);
    for (std::string line; std::getline(text, line);)
        if (line.starts_with("     column ") || line == "     values mark")
            lines += line.substr(5) + "\n";
    EXPECT_EQ(lines, "column public.held.note width=5000\ncolumn public.held.code width=24\n"
                     "column public.held.said width=1256\nvalues mark\n");
    configure(lines);
    const run_result mended = check({"--create", "--scan"});
    EXPECT_EQ(mended.status, 0) << mended.out << mended.err;
    EXPECT_THAT(mended.out, Not(HasSubstr("would be cut")));
    EXPECT_THAT(mended.out, Not(HasSubstr("values mark")));
    const run_result run = catch_up({"--create", "--snapshot"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.err, Not(HasSubstr("marked C")));
}

TEST_F(BridgeCheckTest, AColumnThatHasALineGetsNoSecondOne)
{
    sql("CREATE TABLE held (id int PRIMARY KEY, note text); INSERT INTO held VALUES (1, repeat('x',"
        " 4000))");
    configure("values mark\ncolumn public.held.note item=REMARK\n");
    const run_result scanned = check({"--create", "--scan"});
    EXPECT_THAT(scanned.out, HasSubstr("\n     width=5000 in its line \"column public.held.note "
                                       "...\" gives it room\n"));
    EXPECT_THAT(scanned.out, Not(HasSubstr("     column public.held.note width")));
    configure("values mark\ncolumn public.held.note item=REMARK width=5000\n");
    EXPECT_THAT(check({"--create", "--scan"}).out, Not(HasSubstr("would be cut")));
    EXPECT_EQ(catch_up({"--create", "--snapshot"}).status, 0);
    EXPECT_TRUE(logged("REMARK=\"" + std::string(4000, 'x') + "\""));
}

// What a run would do of a timestamp whose item has no room for all its fractions.
TEST_F(BridgeCheckTest, ScanCountsFractionsThatHaveNoPlace)
{
    sql("CREATE SCHEMA load; CREATE TABLE load.held (id int PRIMARY KEY, at timestamp, whole "
        "timestamp); ALTER TABLE load.held REPLICA IDENTITY FULL;"
        "INSERT INTO load.held VALUES (1, '2026-03-09 10:11:12.123', '2026-03-09'),"
        " (2, '2026-03-09 10:11:12.1234', '2026-03-09 10:11:12.5'), (3, NULL, NULL)");
    configure("values mark\ndatabase LOAD\ndataset HELD\nitem ID I 4\nitem AT X 23\n"
              "item WHOLE X 19\nitem NULL-MAP X 3 null-map\n");
    const run_result scanned = check({"--create", "--scan"});
    EXPECT_EQ(scanned.status, 0) << scanned.out << scanned.err;
    for (const char *text :
         {"load.held.at: 1 row would be left out, of 3 rows in all; item AT is X "
          "23\n",
          "load.held.whole: 1 row would be left out, of 3 rows in all; item "
          "WHOLE is X 19\n"})
        EXPECT_THAT(scanned.out, HasSubstr(text));
    // A run finds the same.
    ASSERT_EQ(catch_up({"--create", "--snapshot"}).status, 0);
    EXPECT_EQ(status_member("left_out"), "2");
}
