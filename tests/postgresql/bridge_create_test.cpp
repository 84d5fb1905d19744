// What --create makes on the server and leaves to the tables, and what is told of tables that
// are not followed.
#include "tests/postgresql/bridge_fixture.h"

#include <cstring>

using testing::HasSubstr;
using testing::Not;

class BridgeCreateTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        sql("CREATE SCHEMA shop;"
            "CREATE TABLE shop.keyed (id integer PRIMARY KEY, note varchar(9));"
            "CREATE TABLE shop.\"Bare Rows\" (a integer, b integer)");
    }

    std::string identity_of(const std::string &table) const
    {
        return value("SELECT relreplident FROM pg_class WHERE oid = '" + table + "'::regclass");
    }
};

TEST_F(BridgeCreateTest, TablesWithoutIdentityGetOneNowAndLater)
{
    const run_result made = catch_up({"--create"});
    ASSERT_EQ(made.status, 0) << made.err;
    const std::vector<std::string> statements = {
        "CREATE SCHEMA IF NOT EXISTS kestro;", "CREATE EVENT TRIGGER kestro_replica_identity",
        "ALTER TABLE shop.\"Bare Rows\" REPLICA IDENTITY FULL;",
        "CREATE PUBLICATION \"" + database + "\" FOR ALL TABLES",
        "CREATE_REPLICATION_SLOT \"" + database + "\" LOGICAL pgoutput"};
    for (const std::string &statement : statements)
        EXPECT_THAT(made.err, HasSubstr(statement));
    EXPECT_EQ(identity_of("shop.\"Bare Rows\""), "f");
    EXPECT_EQ(identity_of("shop.keyed"), "d") << "has a key";
    sql("CREATE TABLE shop.later (a integer);"
        "CREATE TABLE shop.later_keyed (a integer PRIMARY KEY);"
        "CREATE TABLE shop.copied AS SELECT 1 AS a;"
        "CREATE TABLE shop.parts (a integer) PARTITION BY RANGE (a);"
        "CREATE TABLE shop.parts_1 PARTITION OF shop.parts FOR VALUES FROM (0) TO (9);"
        "CREATE TABLE shop.keyless (a integer PRIMARY KEY);"
        "ALTER TABLE shop.keyless DROP CONSTRAINT keyless_pkey;"
        "CREATE TABLE shop.\"It\"\"s\" (a integer)");
    for (const char *table : {"shop.later", "shop.copied", "shop.parts", "shop.parts_1",
                              "shop.keyless", "shop.\"It\"\"s\""})
        EXPECT_EQ(identity_of(table), "f") << table;
    EXPECT_EQ(identity_of("shop.later_keyed"), "d");
    sql("INSERT INTO shop.parts VALUES (1); UPDATE shop.parts SET a = 2; DELETE FROM shop.parts");
    const run_result followed = catch_up();
    EXPECT_EQ(followed.status, 0) << followed.err;
    EXPECT_THAT(followed.err, Not(HasSubstr("warning")));
    EXPECT_THAT(dump(), HasSubstr("before A=2 NULL-MAP=\".\""));
}

// Limits that a database has for its users are none of the bridge's, on no connection.
TEST_F(BridgeCreateTest, LimitsOfTheDatabaseDoNotCount)
{
    for (const char *limit :
         {"statement_timeout = 15", "lock_timeout = 1", "idle_in_transaction_session_timeout = 1",
          "default_transaction_isolation = 'serializable'", "default_transaction_read_only = on"})
        sql("ALTER DATABASE \"" + database + "\" SET " + limit);
    pg_client client = connect();
    client.run("SET default_transaction_read_only = off; SET statement_timeout = 0");
    client.run("CREATE TYPE shop.mood AS ENUM ('glad')");
    const run_result made = catch_up({"--create", "--snapshot"});
    ASSERT_EQ(made.status, 0) << made.err;
    // Its columns and its type are asked for beside the stream.
    client.run("CREATE TABLE shop.later (id integer PRIMARY KEY, m shop.mood)");
    client.run("INSERT INTO shop.later VALUES (7, 'glad')");
    const run_result followed = catch_up();
    EXPECT_EQ(followed.status, 0) << followed.err;
    EXPECT_TRUE(logged("after ID=7 M=\"glad\"")) << dump();
}

TEST_F(BridgeCreateTest, TablesThatLoseTheirIdentityGetOne)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    EXPECT_EQ(value("SELECT count(*) FROM pg_event_trigger"), "2");
    const struct {
        const char *table;
        const char *columns;
        const char *lost;
    } rows[] = {
        {"by_index", "a integer NOT NULL UNIQUE", "DROP INDEX shop.of_by_index"},
        {"at_once", "a integer NOT NULL UNIQUE", "DROP INDEX CONCURRENTLY shop.of_at_once"},
        {"by_type", "a shop.mood PRIMARY KEY, b integer", "DROP TYPE shop.mood CASCADE"},
        {"by_domain", "a shop.small PRIMARY KEY, b integer", "DROP DOMAIN shop.small CASCADE"},
        {"by_schema", "a away.small PRIMARY KEY, b integer", "DROP SCHEMA away CASCADE"},
        {"by_column", "a integer PRIMARY KEY, b integer",
         "ALTER TABLE shop.by_column DROP COLUMN a"},
        {"by_word", "a integer PRIMARY KEY", "ALTER TABLE shop.by_word REPLICA IDENTITY NOTHING"},
    };
    sql("CREATE TYPE shop.mood AS ENUM ('good'); CREATE DOMAIN shop.small AS integer;"
        "CREATE SCHEMA away; CREATE DOMAIN away.small AS integer");
    for (const auto &row : rows) {
        const std::string table = std::string("shop.") + row.table;
        sql("CREATE TABLE " + table + " (" + row.columns + ")");
        if (strstr(row.lost, "INDEX") != nullptr)
            sql("ALTER TABLE " + table +
                " REPLICA IDENTITY DEFAULT;"
                "CREATE UNIQUE INDEX of_" +
                row.table + " ON " + table +
                " (a);"
                "ALTER TABLE " +
                table + " REPLICA IDENTITY USING INDEX of_" + row.table);
        EXPECT_NE(identity_of(table), "f") << table;
        sql(row.lost);
        EXPECT_EQ(identity_of(table), "f") << table;
        sql("DELETE FROM " + table); // or the server would refuse it
    }
    sql("DROP TABLE shop.by_index");
    EXPECT_EQ(identity_of("shop.keyed"), "d") << "has its key";
}

TEST_F(BridgeCreateTest, WhatIsMissingOfTheTriggersIsMade)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("DROP EVENT TRIGGER kestro_replica_identity_drop; DROP PUBLICATION " + database);
    const run_result again = catch_up({"--create"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_THAT(again.err, HasSubstr("CREATE EVENT TRIGGER kestro_replica_identity_drop ON"));
    EXPECT_EQ(occurrences(again.err, "CREATE EVENT TRIGGER"), 1);
}

TEST_F(BridgeCreateTest, ItIsUndoneAsThePageSays)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("DROP SCHEMA kestro CASCADE; DROP PUBLICATION " + database);
    EXPECT_EQ(value("SELECT count(*) FROM pg_event_trigger"), "0");
    sql("CREATE TABLE shop.later (a integer); DROP TABLE shop.keyed");
    EXPECT_EQ(identity_of("shop.later"), "d");
}

TEST_F(BridgeCreateTest, WhoUsesATableIsNotHeldUpAndNobodyBehindIt)
{
    pg_client busy = connect();
    busy.run("BEGIN; SELECT * FROM shop.\"Bare Rows\"");
    start_bridge({"--create"});
    ASSERT_TRUE(bridge_says("ALTER TABLE shop.\"Bare Rows\" REPLICA IDENTITY FULL waits until "
                            "others have ended their transactions: process " +
                            busy.value("SELECT pg_backend_pid()")))
        << bridge.err();
    pg_client others = connect();
    others.run("SET lock_timeout = '30s'");
    for (int i = 0; i < 20; i++) // an exclusive lock that waits till the end would end one of them
        others.run("INSERT INTO shop.\"Bare Rows\" VALUES (1, 1)");
    EXPECT_EQ(identity_of("shop.\"Bare Rows\""), "d");
    busy.run("COMMIT");
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    EXPECT_EQ(identity_of("shop.\"Bare Rows\""), "f");
    EXPECT_EQ(occurrences(bridge.err(), "fwlog: ALTER TABLE shop.\"Bare Rows\" REPLICA IDENTITY "
                                        "FULL;"),
              1);
    EXPECT_EQ(occurrences(bridge.err(), "waits until"), 1);
}

TEST_F(BridgeCreateTest, ATableThatIsDroppedMeanwhileHoldsNothingUp)
{
    pg_client busy = connect();
    busy.run("BEGIN; DROP TABLE shop.\"Bare Rows\"");
    start_bridge({"--create"});
    ASSERT_TRUE(bridge_says("waits until others")) << bridge.err();
    busy.run("COMMIT");
    EXPECT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
}

TEST_F(BridgeCreateTest, AnotherRoleMakesTablesAsBefore)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    const std::string role = database + "_app";
    sql("CREATE ROLE " + role + " LOGIN; GRANT CREATE, USAGE ON SCHEMA shop TO " + role);
    connect(role).run("CREATE TABLE shop.mine (a integer); INSERT INTO shop.mine VALUES (1);"
                      "UPDATE shop.mine SET a = 2");
    EXPECT_EQ(identity_of("shop.mine"), "f");
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeCreateTest, AgainItMakesOnlyWhatIsMissing)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    EXPECT_EQ(catch_up({"--create"}).err, "");
    sql("DROP PUBLICATION " + database);
    const run_result again = catch_up({"--create"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_THAT(again.err, Not(HasSubstr("EVENT TRIGGER")));
}

TEST_F(BridgeCreateTest, MinimalTouchesNoTableAndTellsWhatIsNotFollowed)
{
    sql("CREATE TABLE shop.parts (a integer PRIMARY KEY) PARTITION BY RANGE (a);"
        "CREATE TABLE shop.parts_1 PARTITION OF shop.parts FOR VALUES FROM (0) TO (9)");
    const run_result made = catch_up({"--create=minimal"});
    ASSERT_EQ(made.status, 0) << made.err;
    EXPECT_THAT(made.err,
                HasSubstr(server_version() < 13 ? "FOR TABLE shop.keyed, shop.parts_1;"
                                                : "FOR TABLE shop.keyed, shop.parts WITH"));
    const std::string commands = "\n  ALTER TABLE shop.\"Bare Rows\" REPLICA IDENTITY FULL;"
                                 "\n  ALTER PUBLICATION \"" +
                                 database + "\" ADD TABLE shop.\"Bare Rows\";\n";
    EXPECT_THAT(made.err, HasSubstr("which are not followed; add them, or leave them out with "
                                    "skip-table:" +
                                    commands));
    EXPECT_EQ(identity_of("shop.\"Bare Rows\""), "d");
    EXPECT_EQ(value("SELECT count(*) FROM pg_event_trigger"), "0");
    sql("UPDATE shop.\"Bare Rows\" SET a = 1");
    EXPECT_THAT(catch_up().err, HasSubstr(commands)) << "at each start";
    sql(commands);
    EXPECT_THAT(catch_up().err, Not(HasSubstr("warning")));
    sql("INSERT INTO shop.\"Bare Rows\" VALUES (77, 8)");
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(logged("after A=77 "));
}

TEST_F(BridgeCreateTest, CommandsForATableAreThoseOfItsPartitionsToo)
{
    if (server_version() < 13)
        return; // partitions are published as tables of their own
    sql("CREATE TABLE shop.parts (a integer, b integer) PARTITION BY RANGE (a);"
        "CREATE TABLE shop.low PARTITION OF shop.parts FOR VALUES FROM (0) TO (10)"
        " PARTITION BY RANGE (a);"
        "CREATE TABLE shop.\"Lowest\" PARTITION OF shop.low FOR VALUES FROM (0) TO (5);"
        "CREATE TABLE shop.high PARTITION OF shop.parts (PRIMARY KEY (a))"
        " FOR VALUES FROM (10) TO (20)");
    const run_result made = catch_up({"--create=minimal"});
    ASSERT_EQ(made.status, 0) << made.err;
    const std::string commands = "\n  ALTER TABLE shop.parts REPLICA IDENTITY FULL;"
                                 "\n  ALTER TABLE shop.low REPLICA IDENTITY FULL;"
                                 "\n  ALTER TABLE shop.\"Lowest\" REPLICA IDENTITY FULL;"
                                 "\n  ALTER PUBLICATION \"" +
                                 database + "\" ADD TABLE shop.parts;";
    ASSERT_THAT(made.err, HasSubstr(commands + "\n"));
    sql(commands);
    sql("INSERT INTO shop.parts VALUES (1, 1), (11, 1); UPDATE shop.parts SET b = 2;"
        "DELETE FROM shop.parts");
    const run_result followed = catch_up();
    EXPECT_EQ(followed.status, 0) << followed.err;
    EXPECT_THAT(followed.err, Not(HasSubstr("shop.parts;")));
}

TEST_F(BridgeCreateTest, ATableThatIsLeftOutOnPurposeIsNotTold)
{
    configure("skip-table shop.\"Bare Rows\"\n");
    const run_result made = catch_up({"--create=minimal"});
    EXPECT_EQ(made.status, 0) << made.err;
    EXPECT_THAT(made.err, Not(HasSubstr("not followed")));
}

TEST_F(BridgeCreateTest, ATableThatAppearsIsTold)
{
    start_bridge({"--create=minimal"});
    ASSERT_TRUE(bridge_says("Bare Rows"));
    sql("CREATE TABLE shop.appeared (a integer PRIMARY KEY)");
    ASSERT_TRUE(bridge_says("ADD TABLE shop.appeared;")) << bridge.err();
    EXPECT_EQ(occurrences(bridge.err(), "ADD TABLE shop.\"Bare Rows\""), 1);
}

TEST_F(BridgeCreateTest, UpdatesThatTheServerRefusesAreTold)
{
    sql("CREATE PUBLICATION " + database + " FOR ALL TABLES");
    const run_result made = catch_up({"--create"});
    EXPECT_EQ(made.status, 0) << made.err;
    EXPECT_THAT(made.err, HasSubstr("the server refuses updates and deletes of these tables"));
    EXPECT_THAT(made.err, HasSubstr("\n  ALTER TABLE shop.\"Bare Rows\" REPLICA IDENTITY FULL;\n"));
    sql("ALTER TABLE shop.\"Bare Rows\" REPLICA IDENTITY FULL");
    EXPECT_EQ(catch_up().err, "");
}

TEST_F(BridgeCreateTest, WhoeverMayNotMakesNothing)
{
    const std::string role = database + "_poor";
    sql("CREATE ROLE " + role + " LOGIN REPLICATION; GRANT CREATE ON DATABASE " + database +
        " TO " + role);
    const run_result refused = catch_up({"--conninfo", conninfo(role), "--create"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("--create=minimal"));
    EXPECT_EQ(value("SELECT count(*) FROM pg_namespace WHERE nspname = 'kestro'"), "0");
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeCreateTest, OnlyThatWordIsTaken)
{
    const run_result refused = run_bridge({"--create=all"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err, HasSubstr("--create takes =minimal or nothing"));
}

// A whole row is an identity from version 18 on where the publication has generated columns, too.
TEST_F(BridgeCreateTest, TablesWithGeneratedColumnsTakeUpdates)
{
    sql("CREATE TABLE shop.sums (a integer, twice integer GENERATED ALWAYS AS (a * 2) STORED)");
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO shop.sums VALUES (3); UPDATE shop.sums SET a = 4; DELETE FROM shop.sums");
    const run_result followed = catch_up();
    EXPECT_EQ(followed.status, 0) << followed.err;
    EXPECT_TRUE(logged(server_version() < 18 ? "before A=4 NULL-MAP=\".\""
                                             : "before A=4 TWICE=8 NULL-MAP=\"..\""));
}

TEST_F(BridgeCreateTest, APublicationThatLacksGeneratedColumnsIsTold)
{
    sql("CREATE TABLE shop.sums (a integer, twice integer GENERATED ALWAYS AS (a * 2) STORED);"
        "ALTER TABLE shop.sums REPLICA IDENTITY FULL;"
        "ALTER TABLE shop.\"Bare Rows\" REPLICA IDENTITY FULL;"
        "INSERT INTO shop.sums VALUES (3); CREATE PUBLICATION " +
        database + " FOR ALL TABLES");
    const run_result checked = run_bridge({"--check", "--create"});
    const run_result made = catch_up({"--create"});
    ASSERT_EQ(made.status, 0) << made.err;
    const std::string remedy =
        "ALTER PUBLICATION " + database + " SET (publish_generated_columns = stored);";
    if (server_version() < 18) {
        EXPECT_THAT(made.err, Not(HasSubstr("generated")));
        EXPECT_THAT(checked.out, Not(HasSubstr("lacks generated")));
        sql("UPDATE shop.sums SET a = 4");
        return;
    }
    EXPECT_THROW(sql("UPDATE shop.sums SET a = 4"), pg_error);
    EXPECT_THAT(checked.out, HasSubstr("lacks generated columns, and the server refuses updates"));
    EXPECT_THAT(made.err, HasSubstr("the server refuses updates and deletes of these tables"));
    EXPECT_THAT(made.err, HasSubstr("\n  " + remedy + "\n"));
    sql(remedy);
    sql("UPDATE shop.sums SET a = 4");
    const run_result followed = catch_up();
    EXPECT_EQ(followed.status, 0) << followed.err;
    EXPECT_THAT(followed.err, Not(HasSubstr("refuses")));
    EXPECT_TRUE(logged("after A=4 TWICE=8 "));
}

// The server takes no whole rows as identity of a table with virtual columns.
TEST_F(BridgeCreateTest, ATableThatCouldNotBeUpdatedAnyMoreIsNotPublished)
{
    if (server_version() < 18)
        return; // there are no virtual columns
    sql("CREATE TABLE shop.sums (a integer, twice integer GENERATED ALWAYS AS (a * 2) VIRTUAL);"
        "INSERT INTO shop.sums VALUES (3)");
    const std::string remedy = "ALTER TABLE shop.sums ADD COLUMN kestro_id bigint GENERATED ALWAYS "
                               "AS IDENTITY PRIMARY KEY;";
    const run_result checked = run_bridge({"--check", "--create"});
    EXPECT_EQ(checked.status, 1);
    EXPECT_THAT(checked.out, HasSubstr("have virtual generated columns and no key"));
    EXPECT_THAT(checked.out, HasSubstr("\n     " + remedy + "\n"));
    const run_result refused = catch_up({"--create"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("have virtual generated columns and no key"));
    EXPECT_THAT(refused.err, HasSubstr("\n  " + remedy + "\n"));
    sql("UPDATE shop.sums SET a = 4");
    const run_result minimal = run_bridge({"--check", "--create=minimal"});
    EXPECT_EQ(minimal.status, 0) << minimal.out;
    EXPECT_THAT(minimal.out, HasSubstr("\n     " + remedy + "\n"));
    sql(remedy);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("UPDATE shop.sums SET a = 5");
    // One that comes later is told with the same.
    sql("CREATE TABLE shop.later (a integer, twice integer GENERATED ALWAYS AS (a * 2) VIRTUAL)");
    const run_result followed = catch_up();
    EXPECT_EQ(followed.status, 0) << followed.err;
    EXPECT_TRUE(logged("after A=5 "));
    EXPECT_THAT(followed.err, HasSubstr("\n  ALTER TABLE shop.later ADD COLUMN kestro_id "));
}

TEST_F(BridgeCreateTest, PartitionsOfOldServersArePublishedOneByOne)
{
    if (server_version() >= 13)
        return; // they come as their table's rows
    sql("CREATE TABLE shop.parts (a integer, b integer) PARTITION BY RANGE (a);"
        "CREATE TABLE shop.low PARTITION OF shop.parts FOR VALUES FROM (0) TO (10);"
        "CREATE TABLE shop.high PARTITION OF shop.parts (PRIMARY KEY (a))"
        " FOR VALUES FROM (10) TO (20)");
    const run_result made = catch_up({"--create=minimal"});
    ASSERT_EQ(made.status, 0) << made.err;
    const std::string commands = "\n  ALTER TABLE shop.low REPLICA IDENTITY FULL;"
                                 "\n  ALTER PUBLICATION \"" +
                                 database + "\" ADD TABLE shop.low;";
    EXPECT_THAT(made.err, HasSubstr("FOR TABLE shop.keyed, shop.high;"));
    ASSERT_THAT(made.err, HasSubstr(commands + "\n"));
    sql(commands);
    sql("INSERT INTO shop.parts VALUES (1, 1), (11, 1); UPDATE shop.parts SET b = 2");
    const run_result followed = catch_up();
    EXPECT_EQ(followed.status, 0) << followed.err;
    EXPECT_THAT(followed.err, Not(HasSubstr("shop.low;")));
    EXPECT_THAT(dump(), HasSubstr(" update SHOP.LOW "));
    EXPECT_THAT(dump(), HasSubstr(" update SHOP.HIGH "));
}
