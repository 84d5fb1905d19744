// What is in the way of a start, and its remedies.  Cases whose remedy needs more than a step are
// where the error is tested.
#include "tests/postgresql/remedy.h"

using testing::HasSubstr;
using testing::Not;

class BridgeRemedyTest : public RemedyTest {};

TEST_F(BridgeRemedyTest, CannotConnect)
{
    refused({"--create", "--conninfo", "host=" + dir.path() + " dbname=shop"}, "cannot connect: ");
    expect_runs({"--create"});
}

TEST_F(BridgeRemedyTest, RoleThatDoesNotExist)
{
    const std::string role = database + "_late";
    const std::string by_role = conninfo(role);
    EXPECT_THAT(refused({"--conninfo", by_role}, "role \"" + role + "\" does not exist"),
                HasSubstr("name an existing role"));
    sql("CREATE ROLE " + role + " LOGIN REPLICATION");
    expect_runs({"--create"}); // by a superuser, once
    expect_runs({"--conninfo", by_role});
    sql("DROP ROLE " + role);
}

TEST_F(BridgeRemedyTest, DatabaseThatDoesNotExist)
{
    refused({"--create", "--conninfo", server->conninfo("nowhere")},
            "database \"nowhere\" does not exist");
    expect_runs({"--create"});
}

TEST_F(BridgeRemedyTest, RoleWithoutItsRights)
{
    const std::string role = database + "_poor";
    sql("CREATE ROLE " + role + " LOGIN");
    const words by_role = {"--conninfo", conninfo(role), "--create=minimal"};
    refused(by_role, "give the role the right: ALTER ROLE ... REPLICATION");
    sql("ALTER ROLE " + role + " REPLICATION");
    EXPECT_THAT(refused(by_role, "permission denied for database"),
                HasSubstr("let a superuser run the command with --create once"));
    sql("GRANT CREATE ON DATABASE " + database + " TO " + role);
    refused(by_role, "permission denied for schema load; give the role the right");
    sql("GRANT USAGE ON SCHEMA load TO " + role);
    refused(by_role, "must be owner of");
    sql("ALTER SCHEMA load OWNER TO " + role + "; ALTER TABLE load.ledger OWNER TO " + role);
    expect_runs(by_role);
    sql("REASSIGN OWNED BY " + role + " TO postgres; DROP OWNED BY " + role);
}

TEST_F(BridgeRemedyTest, WalLevel)
{
    pg_server own({"wal_level = replica"});
    pg_client(own.conninfo()).run(ledger_sql);
    refused({"--create", "--conninfo", own.conninfo()}, "set wal_level = logical");
    pg_client(own.conninfo()).run("ALTER SYSTEM SET wal_level = logical");
    own.stop();
    own.start();
    expect_runs_on(own, {"--create"});
}

TEST_F(BridgeRemedyTest, PluginThatTheServerDoesNotLoad)
{
    if (value("SELECT count(*) FROM pg_settings WHERE name = 'output_plugin_libraries'") == "0")
        return; // a server without that setting loads it
    sql("ALTER SYSTEM SET output_plugin_libraries = 'test_decoding'");
    sql("SELECT pg_reload_conf()");
    refused({"--create"}, "add pgoutput to output_plugin_libraries in postgresql.conf, then "
                          "SELECT pg_reload_conf()");
    sql("ALTER SYSTEM SET output_plugin_libraries = 'test_decoding', 'pgoutput'");
    sql("SELECT pg_reload_conf()");
    expect_runs({"--create"});
}

TEST_F(BridgeRemedyTest, AllSlotsInUse)
{
    pg_server own({"max_replication_slots = 1"});
    pg_client(own.conninfo()).run(ledger_sql);
    pg_client(own.conninfo()).run("SELECT pg_create_physical_replication_slot('old')");
    const words create = {"--create", "--conninfo", own.conninfo()};
    EXPECT_THAT(refused(create, "all replication slots are in use"),
                HasSubstr("raise max_replication_slots in postgresql.conf, or drop a slot"));
    pg_client(own.conninfo()).run("ALTER SYSTEM SET max_replication_slots = 2");
    own.stop();
    own.start();
    expect_runs_on(own, {"--create"});
    // The other one.
    pg_client(own.conninfo()).run("SELECT pg_drop_replication_slot('" + database + "')");
    pg_client(own.conninfo()).run("SELECT pg_create_physical_replication_slot('older')");
    std::filesystem::remove_all(dir.file("log"));
    refused(create, "all replication slots are in use");
    pg_client(own.conninfo()).run("SELECT pg_drop_replication_slot('older')");
    expect_runs_on(own, {"--create"});
}

// More of the log is kept for the next time.
TEST_F(BridgeRemedyTest, SlotThatTheServerHasGivenUp)
{
    if (server_version() < 13)
        return; // it never does
    const pg_server own({"max_slot_wal_keep_size = 1MB", "min_wal_size = 32MB",
                         "max_wal_size = 32MB", "wal_keep_size = 0"});
    pg_client client(own.conninfo());
    client.run(ledger_sql);
    const auto fill = [&] {
        for (int i = 0; i < 5; i++)
            client.run("SELECT pg_switch_wal(); CREATE TABLE filling AS SELECT 1 AS a;"
                       "DROP TABLE filling");
        client.run("CHECKPOINT");
    };
    const words create = {"--create", "--snapshot", "--conninfo", own.conninfo()};
    expect_runs_on(own, {"--create", "--snapshot"});
    fill();
    const std::string drop =
        found_in(refused(create, "the server has removed what the slot needs"),
                 "drop the slot \\((SELECT pg_drop_replication_slot\\('[^']*'\\))\\)");
    const run_result checked = run_bridge({"--check", "--conninfo", own.conninfo()});
    EXPECT_EQ(checked.status, 1);
    EXPECT_EQ(found_in(checked.out, "is lost, the server has removed what it needs: drop it, and "
                                    "begin a new log directory with --create --snapshot\n +"
                                    "(SELECT [^;]*);"),
              drop);
    client.run(drop);
    client.run("ALTER SYSTEM SET max_slot_wal_keep_size = '1GB'");
    client.run("SELECT pg_reload_conf()");
    std::filesystem::remove_all(dir.file("log"));
    expect_runs_on(own, {"--create", "--snapshot"});
    fill();
    expect_runs_on(own, {"--create", "--snapshot"});
}

TEST_F(BridgeRemedyTest, SessionThatHoldsUpIsEnded)
{
    pg_client open_transaction = connect();
    open_transaction.run("BEGIN; INSERT INTO load.ledger VALUES (900, 0, 1, 'open', NULL)");
    start_bridge({"--create", "--timeout", "1"});
    ASSERT_TRUE(bridge_says(" waits until others have ended their transactions: process "));
    const std::string process = found_in(bridge.err(), "transactions: process ([0-9]+)");
    sql("SELECT pg_terminate_backend(" + process + ")");
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    insert(1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
}

TEST_F(BridgeRemedyTest, PreparedTransactionThatHoldsUpIsEnded)
{
    const pg_server own({"max_prepared_transactions = 4"});
    pg_client client(own.conninfo());
    client.run(ledger_sql);
    for (const char *end : {"COMMIT PREPARED", "ROLLBACK PREPARED"}) {
        client.run("BEGIN; CREATE TABLE load.later (id integer); PREPARE TRANSACTION 'kept'");
        start_bridge({"--create", "--timeout", "1", "--conninfo", own.conninfo()});
        EXPECT_TRUE(bridge_says(
            " waits until others have ended their transactions: a prepared transaction"))
            << bridge.err();
        client.run(std::string(end) + " 'kept'");
        EXPECT_TRUE(poll_until([&] { return status_member("state") == "streaming"; }))
            << bridge.err();
        client.run("INSERT INTO load.ledger VALUES (" + std::to_string(next) +
                   ", 0, 1, 'row', NULL)");
        ASSERT_NO_FATAL_FAILURE(wait_for_row(next++));
        EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
        client.run("DROP TABLE IF EXISTS load.later");
        client.run("SELECT pg_drop_replication_slot('" + database + "')");
        std::filesystem::remove_all(dir.file("log"));
    }
}

TEST_F(BridgeRemedyTest, PublicationAndSlotThatAreNotThere)
{
    refused({}, "publication \"" + database + "\" is not there");
    sql("CREATE PUBLICATION other FOR ALL TABLES");
    refused({"--publication", "other"}, "slot \"" + database + "\" is not there");
    expect_runs({"--publication", "other", "--create"});
    // The right name, then both made.
    expect_runs({"--publication", "other"});
    refused({}, "publication \"" + database + "\" is not there");
    expect_runs({"--create"});
}

// What was changed while there was none cannot be sent, not even once it is there again.
TEST_F(BridgeRemedyTest, PublicationThatWasMissingForAWhile)
{
    expect_runs({"--create"});
    sql("DROP PUBLICATION " + database);
    insert(700);
    refused({}, "publication \"" + database + "\" is not there");
    for (int again = 0; again < 2; again++)
        EXPECT_THAT(refused({"--create"}, "following the server: publication \"" + database +
                                              "\" did not exist when what comes next was changed"),
                    HasSubstr("go on with --create --accept-gap, which "));
    insert(701);
    const run_result accepted = catch_up({"--create", "--accept-gap"});
    EXPECT_EQ(accepted.status, 0) << accepted.err;
    EXPECT_EQ(occurrences(accepted.err,
                          " for all tables: publication \"" + database + "\" did not exist\n"),
              1)
        << accepted.err;
    EXPECT_EQ(occurrences(dump(), "\" did not exist"), 1) << dump();
    expect_runs({});
    EXPECT_FALSE(logged("after ID=700 ") || logged("after ID=701 "));
    const run_result resumed = catch_up({"--resume", "load.ledger"});
    EXPECT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_TRUE(logged("after ID=700 ") && logged("after ID=701 "));
}

// Also before anything is logged, and while it runs.
TEST_F(BridgeRemedyTest, PublicationThatIsDroppedUnderARunningBridge)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    start_bridge({"--create", "--accept-gap"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    sql("DROP PUBLICATION " + database);
    insert(801);
    ASSERT_TRUE(bridge_says(" for all tables: publication ")) << bridge.err();
    insert(1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    insert(2);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(2));
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    EXPECT_FALSE(logged("after ID=801 "));
    // A running one without the option ends with the error.
    start_bridge();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    sql("DROP PUBLICATION " + database);
    insert(803);
    EXPECT_EQ(bridge.wait(), 1);
    EXPECT_THAT(bridge.err(), HasSubstr("did not exist when what comes next was changed"));
}

// Nothing is made for a slot that cannot be followed.
TEST_F(BridgeRemedyTest, SlotOfAnotherPluginOrDatabase)
{
    const auto nothing_was_made = [this] {
        return value("SELECT (SELECT count(*) FROM pg_publication) + (SELECT count(*) FROM"
                     " pg_event_trigger)") == "0";
    };
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'test_decoding')");
    refused({"--create"}, "slot \"" + database + "\" is one of plugin \"test_decoding\" and ");
    EXPECT_TRUE(nothing_was_made());
    sql("SELECT pg_drop_replication_slot('" + database + "')");
    pg_client(server->conninfo())
        .run("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
    refused({"--create"}, "is one of plugin \"pgoutput\" and database \"postgres\", not of "
                          "pgoutput and this database; name another with --slot");
    EXPECT_TRUE(nothing_was_made());
    pg_client(server->conninfo()).run("SELECT pg_drop_replication_slot('" + database + "')");
    // One of its own that the log directory knows nothing of.
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
    refused({"--create"}, "is there already, and the log directory knows nothing of it");
    EXPECT_TRUE(nothing_was_made());
    expect_runs({"--create", "--slot", database + "_2"});
    pg_client(server->conninfo()).run("SELECT pg_drop_replication_slot('" + database + "')");
}

// What the bridge asks beside the stream and is refused is told once for each cause, and does not
// stop the stream; the remedy brings it back.
TEST_F(BridgeRemedyTest, QuestionsThatTheServerRefuses)
{
    const std::string role = database + "_asks";
    sql("CREATE ROLE " + role + " LOGIN REPLICATION; GRANT USAGE ON SCHEMA load TO " + role +
        "; GRANT SELECT ON load.ledger TO " + role + "; CREATE PUBLICATION " + database +
        " FOR ALL TABLES");
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    start_bridge({"--conninfo", conninfo(role)});
    insert(1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    sql("REVOKE SELECT ON pg_catalog.pg_inherits FROM PUBLIC");
    const std::string about = "warning: the server does not tell which tables have other names or "
                              "parts: permission denied for table pg_inherits; give the role the "
                              "right: GRANT SELECT ON ... TO ...; the stream goes on\n";
    ASSERT_TRUE(bridge_says(about)) << bridge.err();
    insert(2);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(2));
    const auto untold = [this](const char *text) {
        return read_file(dir.file("log/postgresql.json")).find(text) != std::string::npos;
    };
    EXPECT_TRUE(poll_until([&] {
        return untold("{\"what\":\"which tables have other names or parts\","
                      "\"answer\":\"permission denied for table pg_inherits\"}");
    })) << read_file(dir.file("log/postgresql.json"));
    sql("GRANT SELECT ON pg_catalog.pg_inherits TO PUBLIC;"
        "REVOKE SELECT ON pg_catalog.pg_publication FROM PUBLIC");
    EXPECT_TRUE(bridge_says("which tables have other names or parts: permission denied for table "
                            "pg_publication;"))
        << "another cause";
    EXPECT_EQ(occurrences(bridge.err(), about), 1) << bridge.err();
    sql("GRANT SELECT ON pg_catalog.pg_publication TO PUBLIC");
    EXPECT_TRUE(poll_until([&] { return untold("\"untold\":[]"); }));
    EXPECT_EQ(occurrences(bridge.err(), "does not tell which tables have other names or parts"), 2)
        << bridge.err();
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    // A connect needs it, and says so.
    sql("REVOKE SELECT ON pg_catalog.pg_inherits FROM PUBLIC");
    EXPECT_THAT(refused({"--conninfo", conninfo(role)}, "permission denied for table pg_inherits"),
                Not(HasSubstr("WITH RECURSIVE")));
    sql("GRANT SELECT ON pg_catalog.pg_inherits TO PUBLIC");
    next = 3;
    expect_runs({"--conninfo", conninfo(role)});
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeRemedyTest, LogOfAnotherDatabaseOrSlot)
{
    expect_runs({"--create"});
    const words elsewhere = {"--conninfo",    server->conninfo(), "--slot",  "elsewhere",
                             "--publication", "elsewhere",        "--create"};
    refused(elsewhere, "the log belongs to database \"" + database + "\"");
    refused({"--slot", "second", "--create"}, "the log follows slot \"" + database + "\"");
    // Another log directory for each.
    std::filesystem::create_directory(dir.file("other"));
    write_file(dir.file("other/fwutil.cfg"), read_file(dir.file("fwutil.cfg")));
    words other = elsewhere;
    other.insert(other.end(), {"-cfg", "other/fwutil.cfg"});
    EXPECT_EQ(catch_up(other).status, 0);
    pg_client(server->conninfo()).run("DROP PUBLICATION elsewhere");
    std::filesystem::remove_all(dir.file("other/log"));
    const words second = {"--slot", "second", "--create", "-cfg", "other/fwutil.cfg"};
    EXPECT_EQ(catch_up(second).status, 0);
    insert(500);
    const run_result result = catch_up(second);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(
        run_program({KESTRO_BUILD_DIR "/bin/fwlog", "dump", "-cfg", "other/fwutil.cfg"}, options)
            .out.find("after ID=500 "),
        std::string::npos);
    expect_runs({});
}

TEST_F(BridgeRemedyTest, OldRowsThatTheServerDoesNotSend)
{
    sql("CREATE TABLE load.keyed (id integer PRIMARY KEY, note varchar(9))");
    const std::string told =
        refused({"--create"}, "the server does not send the old rows of these tables");
    // The line of the configuration.
    configure(std::string("skip-table load.keyed\n") + ledger_cfg);
    expect_runs({"--create"});
    // The commands.
    pg_client(server->conninfo()).run("SELECT pg_drop_replication_slot('" + database + "')");
    std::filesystem::remove_all(dir.file("log"));
    configure(ledger_cfg);
    sql(found_in(told, "\n  (ALTER TABLE [^\n]*;)\n"));
    expect_runs({"--create"});
    sql("INSERT INTO load.keyed VALUES (1, 'one'); UPDATE load.keyed SET note = 'two'");
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(logged("NOTE=\"two\""));
}

TEST_F(BridgeRemedyTest, UpdatesThatTheServerRefuses)
{
    configure();
    sql("CREATE TABLE load.bare (id integer, note varchar(9)); INSERT INTO load.bare VALUES (1);"
        "CREATE PUBLICATION " +
        database + " FOR ALL TABLES");
    const run_result made = catch_up({"--create"});
    EXPECT_EQ(made.status, 0) << made.err;
    EXPECT_THROW(sql("UPDATE load.bare SET note = 'new'"), pg_error);
    EXPECT_THAT(made.err, HasSubstr("the server refuses updates and deletes of these tables"));
    sql(found_in(made.err, "\n  (ALTER TABLE load.bare REPLICA IDENTITY FULL;)\n"));
    sql("UPDATE load.bare SET note = 'new'");
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(logged("NOTE=\"new\""));
    expect_runs({});
}

TEST_F(BridgeRemedyTest, TableThatTheRoleMayNotRead)
{
    const std::string role = database + "_unread";
    insert(1);
    sql("CREATE ROLE " + role + " LOGIN REPLICATION; GRANT USAGE ON SCHEMA load TO " + role +
        "; CREATE PUBLICATION " + database + " FOR ALL TABLES");
    const words by_role = {"--conninfo", conninfo(role), "--create", "--snapshot"};
    const run_result begun = catch_up(by_role);
    EXPECT_EQ(begun.status, 0) << begun.err;
    const std::string grant = "GRANT SELECT ON \"load\".\"ledger\" TO \"" + role + "\"";
    EXPECT_THAT(begun.err,
                HasSubstr("permission denied for table ledger; give the role the right: " + grant +
                          "; the others go on; mend that, "
                          "then fwlog postgresql --resume load.ledger\n"));
    EXPECT_FALSE(logged("after ID=1 "));
    sql(grant);
    const run_result resumed = catch_up({"--conninfo", conninfo(role), "--resume", "load.ledger"});
    EXPECT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_TRUE(logged("after ID=1 "));
    next = 2;
    expect_runs(by_role);
    sql("DROP OWNED BY " + role);
}

// What cannot be read costs a followed table nothing.
TEST_F(BridgeRemedyTest, ResumingWhatTheRoleMayNotReadChangesNothing)
{
    const std::string role = database + "_no_more";
    sql("CREATE ROLE " + role + " LOGIN REPLICATION; CREATE PUBLICATION " + database +
        " FOR ALL TABLES");
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    const words resume = {"--conninfo", conninfo(role), "--resume", "load.ledger"};
    int id = 0;
    const std::pair<const char *, std::string> steps[] = {
        {"permission denied for schema load; give the role the right: ",
         "GRANT USAGE ON SCHEMA load TO " + role},
        {"permission denied for table ledger; give the role the right: ",
         "GRANT SELECT ON load.ledger TO " + role},
        {"query would be affected by row-level security policy for table \"ledger\"; let the role "
         "see all rows: ",
         "ALTER ROLE " + role + " BYPASSRLS"}};
    sql("ALTER TABLE load.ledger ENABLE ROW LEVEL SECURITY");
    for (const auto &[why, command] : steps) {
        insert(++id);
        const run_result refused = catch_up(resume);
        EXPECT_EQ(refused.status, 1) << refused.err;
        EXPECT_THAT(refused.err, HasSubstr("warning: table load.ledger is not taken in: " +
                                           (why + command) + "\n"));
        EXPECT_THAT(refused.err, Not(HasSubstr("set aside")));
        insert(++id);
        EXPECT_EQ(catch_up().status, 0);
        EXPECT_TRUE(logged("after ID=" + std::to_string(id) + " ")) << "followed";
        EXPECT_THAT(dump(), Not(HasSubstr("truncate")));
        sql(command);
    }
    const run_result resumed = catch_up(resume);
    EXPECT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_THAT(dump(), HasSubstr("truncate"));
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeRemedyTest, SchemaThatTheRoleMayNotUse)
{
    const std::string role = database + "_outside";
    insert(1);
    sql("CREATE ROLE " + role + " LOGIN REPLICATION; GRANT SELECT ON load.ledger TO " + role +
        "; CREATE PUBLICATION " + database + " FOR ALL TABLES");
    const words by_role = {"--conninfo", conninfo(role), "--create", "--snapshot"};
    const run_result begun = catch_up(by_role);
    EXPECT_EQ(begun.status, 0) << begun.err;
    const std::string grant = "GRANT USAGE ON SCHEMA \"load\" TO \"" + role + "\"";
    EXPECT_THAT(begun.err,
                HasSubstr("permission denied for schema load; give the role the right: " + grant +
                          "; the others go on; mend "
                          "that, then fwlog postgresql --resume load.ledger\n"));
    EXPECT_FALSE(logged("after ID=1 "));
    sql(grant);
    const run_result resumed = catch_up({"--conninfo", conninfo(role), "--resume", "load.ledger"});
    EXPECT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_TRUE(logged("after ID=1 "));
    next = 2;
    expect_runs(by_role);
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeRemedyTest, RowsThatAreHiddenFromTheRole)
{
    const std::string role = database + "_hidden";
    insert(1);
    insert(2);
    sql("CREATE ROLE " + role + " LOGIN REPLICATION; GRANT USAGE ON SCHEMA load TO " + role +
        "; GRANT SELECT ON load.ledger TO " + role + "; CREATE PUBLICATION " + database +
        " FOR ALL TABLES; ALTER TABLE load.ledger ENABLE ROW LEVEL SECURITY;"
        "CREATE POLICY upper_ids ON load.ledger USING (id > 1)");
    const words by_role = {"--conninfo", conninfo(role), "--create", "--snapshot"};
    const run_result begun = catch_up(by_role);
    EXPECT_EQ(begun.status, 0) << begun.err;
    const std::string command = "ALTER ROLE \"" + role + "\" BYPASSRLS";
    EXPECT_THAT(begun.err, HasSubstr("query would be affected by row-level security policy for "
                                     "table \"ledger\"; let the role see all rows: " +
                                     command + "; the others go on; "));
    EXPECT_FALSE(logged("after ID=2 "));
    sql(command);
    const run_result resumed = catch_up({"--conninfo", conninfo(role), "--resume", "load.ledger"});
    EXPECT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_TRUE(logged("after ID=1 "));
    EXPECT_TRUE(logged("after ID=2 "));
    next = 3;
    expect_runs(by_role);
    sql("DROP OWNED BY " + role);
}
