// What "fwlog postgresql" cannot work with: each is told with what to do about it, and
// nothing of it reaches the log.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;

class BridgeRefusalTest : public LedgerTest {
  protected:
    // Runs the bridge, which must end with status 1 and say so much.
    void expect_refused(const std::vector<std::string> &more,
                        const std::vector<std::string> &texts) const
    {
        const run_result result = run_bridge(more);
        EXPECT_EQ(result.status, 1) << result.err;
        for (const std::string &text : texts)
            EXPECT_THAT(result.err, HasSubstr(text));
        EXPECT_THAT(result.err, HasSubstr("fwlog: "));
    }

    // Runs the bridge, which must set the table aside, say so much, and take what the others have.
    void expect_set_aside(const std::string &table, const std::vector<std::string> &texts) const
    {
        sql("CREATE TABLE load.others (id integer PRIMARY KEY); INSERT INTO load.others VALUES "
            "(1)");
        const run_result result = catch_up();
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.err, HasSubstr("table " + table + " is set aside from transaction "));
        for (const std::string &text : texts)
            EXPECT_THAT(result.err, HasSubstr(text));
        EXPECT_THAT(result.err, HasSubstr("mend that, then fwlog postgresql --resume " + table));
        EXPECT_EQ(occurrences(dump(), " gap "), 1) << dump();
        EXPECT_EQ(occurrences(dump(), " insert LOAD.OTHERS"), 1) << dump();
    }

    // The remedy, with what else it needs.
    void expect_resumed(const std::string &table, const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> words = {"--resume", table};
        words.insert(words.end(), more.begin(), more.end());
        const run_result result = catch_up(words);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(status_member("aside"), "[]");
        EXPECT_EQ(status_member("taking"), "[]");
    }

    std::vector<std::string> with_conninfo(const std::string &conninfo_text,
                                           const std::vector<std::string> &more) const
    {
        std::vector<std::string> words = {"--conninfo", conninfo_text};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
};

TEST_F(BridgeRefusalTest, NoServer)
{
    expect_refused(with_conninfo("host=" + dir.path() + " dbname=shop", {"--create"}),
                   {dir.path() + "/.s.PGSQL.5432"});
}

TEST_F(BridgeRefusalTest, NoSuchDatabase)
{
    expect_refused(with_conninfo(server->conninfo("nowhere"), {"--create"}),
                   {"database \"nowhere\" does not exist"});
}

TEST_F(BridgeRefusalTest, NoSuchRole)
{
    expect_refused(with_conninfo(conninfo("nobody_at_all"), {"--create"}),
                   {"role \"nobody_at_all\" does not exist", "name an existing role"});
}

TEST_F(BridgeRefusalTest, SlotThatTheServerHasGivenUp)
{
    if (server_version() < 13)
        return; // no slot is given up
    const pg_server small({"max_slot_wal_keep_size = 1MB", "min_wal_size = 32MB",
                           "max_wal_size = 32MB", "wal_keep_size = 0"});
    const std::vector<std::string> words = with_conninfo(small.conninfo(), {"--once", "--create"});
    ASSERT_EQ(run_bridge(words).status, 0);
    pg_client client(small.conninfo());
    for (int i = 0; i < 5; i++)
        client.run("SELECT pg_switch_wal(); CREATE TABLE filling AS SELECT 1 AS a;"
                   "DROP TABLE filling");
    client.run("CHECKPOINT");
    expect_refused(words, {"the server has removed what the slot needs",
                           "(SELECT pg_drop_replication_slot('" + database + "'))",
                           "--create --snapshot"});
    client.run("SELECT pg_drop_replication_slot('" + database + "')");
    std::filesystem::remove_all(dir.file("log"));
    EXPECT_EQ(
        run_bridge(with_conninfo(small.conninfo(), {"--once", "--create", "--snapshot"})).status,
        0);
}

TEST_F(BridgeRefusalTest, NoSlot)
{
    sql("CREATE PUBLICATION " + database + " FOR ALL TABLES");
    expect_refused({"--once"}, {"slot \"" + database + "\"", "--create"});
}

TEST_F(BridgeRefusalTest, NoPublication)
{
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
    expect_refused({"--once", "--accept-gap"}, {"publication \"" + database + "\"", "--create"});
}

TEST_F(BridgeRefusalTest, SlotOfAnotherPlugin)
{
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'test_decoding')");
    expect_refused({"--once", "--create"}, {"test_decoding"});
}

TEST_F(BridgeRefusalTest, SlotOfAnotherDatabase)
{
    pg_client(server->conninfo())
        .run("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
    expect_refused({"--once", "--create"}, {"database \"postgres\""});
}

TEST_F(BridgeRefusalTest, SlotIsGoneAlthoughTheLogGoesOnFromIt)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO load.ledger VALUES (1, 0, 1, 'row', NULL)");
    ASSERT_EQ(catch_up().status, 0);
    sql("SELECT pg_drop_replication_slot('" + database + "')");
    sql("INSERT INTO load.ledger VALUES (2, 0, 1, 'unseen', NULL)");
    expect_refused({"--once", "--create"}, {"slot \"" + database + "\" is not there"});
    EXPECT_EQ(occurrences(dump(), " insert LOAD.LEDGER "), 1);
}

TEST_F(BridgeRefusalTest, LogOfAnotherDatabase)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO load.ledger VALUES (1, 0, 1, 'row', NULL)");
    ASSERT_EQ(catch_up().status, 0);
    expect_refused(with_conninfo(server->conninfo(), {"--once", "--create", "--slot", "elsewhere",
                                                      "--publication", "elsewhere"}),
                   {"\"" + database + "\"", "\"postgres\""});
}

TEST_F(BridgeRefusalTest, RoleWithoutReplication)
{
    const std::string role = database + "_plain";
    sql("CREATE ROLE " + role + " LOGIN");
    expect_refused(with_conninfo(conninfo(role), {"--create"}), {"ALTER ROLE ... REPLICATION"});
}

TEST_F(BridgeRefusalTest, RoleThatMayNotPublish)
{
    const std::string role = database + "_replicates";
    sql("CREATE ROLE " + role + " LOGIN REPLICATION");
    expect_refused(with_conninfo(conninfo(role), {"--create"}),
                   {"let a superuser run the command with --create once"});
    // With slot and publication made for it, it may follow.
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO load.ledger VALUES (1, 0, 1, 'row', NULL)");
    const run_result result = run_bridge(with_conninfo(conninfo(role), {"--once"}));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(logged("after ID=1 "));
}

TEST_F(BridgeRefusalTest, TableThatTheRoleMayNotReadIsSetAside)
{
    const std::string role = database + "_blind";
    sql("CREATE ROLE " + role +
        " LOGIN REPLICATION; CREATE TABLE load.open (id integer PRIMARY KEY);"
        "ALTER TABLE load.open REPLICA IDENTITY FULL;"
        "GRANT USAGE ON SCHEMA load TO " +
        role + "; GRANT SELECT ON load.open TO " + role + "; CREATE PUBLICATION " + database +
        " FOR ALL TABLES; INSERT INTO load.ledger VALUES (1, 0, 1, 'row', NULL);"
        "INSERT INTO load.open VALUES (2)");
    const run_result result =
        run_bridge(with_conninfo(conninfo(role), {"--create", "--snapshot", "--once"}));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("table load.ledger is set aside"));
    EXPECT_THAT(result.err, HasSubstr("permission denied for table ledger"));
    EXPECT_TRUE(logged("after ID=2 "));
    EXPECT_FALSE(logged("after ID=1 "));
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeRefusalTest, WalLevelBelowLogical)
{
    const pg_server replica({"wal_level = replica"});
    expect_refused(with_conninfo(replica.conninfo(), {"--create"}),
                   {"wal_level", "wal_level = logical"});
}

TEST_F(BridgeRefusalTest, TableThatKeepsNoWholeOldRows)
{
    sql("CREATE TABLE load.keyed (id integer PRIMARY KEY, note varchar(9))");
    expect_refused({"--once", "--create"},
                   {"load.keyed", "ALTER TABLE load.keyed REPLICA IDENTITY FULL"});
    sql("ALTER TABLE load.keyed REPLICA IDENTITY FULL");
    EXPECT_EQ(catch_up({"--create"}).status, 0);
}

TEST_F(BridgeRefusalTest, ChangeWithoutTheWholeOldRow)
{
    configure(std::string("values error\n") + ledger_cfg);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("CREATE TABLE load.keyed (id integer PRIMARY KEY, note varchar(9))");
    sql("INSERT INTO load.keyed VALUES (1, 'one')");
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(logged("after ID=1 NOTE=\"one\""));
    sql("UPDATE load.keyed SET note = 'two'");
    expect_set_aside("load.keyed", {"REPLICA IDENTITY FULL"});
    EXPECT_EQ(occurrences(dump(), " update "), 0);
    configure(std::string("values error\nskip-table load.keyed\n") + ledger_cfg);
    const run_result left_out = catch_up();
    EXPECT_EQ(left_out.status, 0) << left_out.err;
    EXPECT_EQ(status_member("aside"), "[]");
}

TEST_F(BridgeRefusalTest, TextTooLongForItsItem)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("ALTER TABLE load.ledger ALTER body TYPE varchar(80)");
    sql("INSERT INTO load.ledger VALUES (1, 0, 1, repeat('x', 70), NULL)");
    expect_set_aside("load.ledger", {"BODY", "70 bytes", "--truncate"});
    expect_resumed("load.ledger", {"--truncate"});
    EXPECT_TRUE(logged("BODY=\"" + std::string(60, 'x') + "\""));
}

TEST_F(BridgeRefusalTest, TextTooLongForTheWidthGivenToItsColumn)
{
    sql("CREATE TABLE load.notes (id integer PRIMARY KEY, note text)");
    sql("ALTER TABLE load.notes REPLICA IDENTITY FULL");
    configure(std::string("values error\ncolumn load.notes.note width=5\n") + ledger_cfg);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO load.notes VALUES (1, 'sixsix')");
    expect_set_aside("load.notes", {"load.notes.note", "holds 5", "--truncate"});
    expect_resumed("load.notes", {"--truncate"});
    EXPECT_TRUE(logged("NOTE=\"sixsi\""));
}

TEST_F(BridgeRefusalTest, CharacterThatHasNoPlaceInTheLog)
{
    configure(std::string("text-encoding iso-8859-1\n") + ledger_cfg);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO load.ledger VALUES (1, 0, 1, '5 \xE2\x82\xAC', NULL)");
    expect_set_aside("load.ledger", {"U+20AC"});
    sql("UPDATE load.ledger SET body = '5 EUR'");
    expect_resumed("load.ledger");
    EXPECT_TRUE(logged("BODY=\"5 EUR\""));
}

TEST_F(BridgeRefusalTest, WrongCommandLine)
{
    const std::string program = bridge_argv()[0];
    EXPECT_EQ(run_bridge({"--no-such-option"}).status, 2);
    EXPECT_EQ(run_bridge({"--slot", ""}).status, 2);
    EXPECT_EQ(run_program({program, "postgresql", "--help"}, options).status, 0);
}
