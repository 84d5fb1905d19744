// What --create makes on the server and leaves to the tables, and what is told of tables that
// are not followed.
#include "tests/postgresql/bridge_fixture.h"

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
    EXPECT_THAT(made.err, HasSubstr("FOR TABLE shop.keyed, shop.parts WITH"));
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
