// "fwlog postgresql" and a server that does not answer, at each step, or answers nonsense:
// no wait is without end, and nothing is lost by it.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/postgresql/pg_proxy.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class BridgeSilenceTest : public LedgerTest {
  protected:
    void SetUp() override
    {
        LedgerTest::SetUp();
        if (server != nullptr)
            proxy = std::make_unique<pg_proxy>(server->socket());
    }
    void TearDown() override
    {
        if (server != nullptr)
            server->thaw();
        LedgerTest::TearDown();
        proxy.reset();
    }

    // Words that lead the bridge to the proxy, and make it impatient.
    std::vector<std::string> by_proxy(std::vector<std::string> more) const
    {
        more.insert(more.end(), {"--conninfo", proxy->conninfo(database), "--timeout", "1"});
        return more;
    }

    // Begins a log with a snapshot of two rows, the server silent behind a request; the
    // next attempt has to take it all.
    void expect_snapshot_all_the_same(const std::string &request)
    {
        const run_result result = take_snapshot(request);
        EXPECT_THAT(result.err, HasSubstr("fwlog: the server has been silent for 1 second ("));
        EXPECT_THAT(result.err, HasSubstr("); trying again\n"));
    }

    // The connection that reads rows goes silent behind a request, or behind some bytes of the
    // answer: it alone is made anew, the stream goes on.
    void expect_snapshot_beside_the_stream(const std::string &request, size_t bytes = 0)
    {
        EXPECT_THAT(take_snapshot(request, bytes).err, Not(HasSubstr("trying again")));
        EXPECT_EQ(status_member("reconnects"), "0");
    }

    run_result take_snapshot(const std::string &request, size_t bytes = 0)
    {
        insert(1);
        insert(2);
        proxy->silence_at(request, bytes);
        const run_result result = run_bridge(by_proxy({"--create", "--snapshot", "--once"}));
        EXPECT_TRUE(proxy->happened());
        EXPECT_EQ(result.status, 0) << result.err;
        expect_log_equals_tables();
        return result;
    }

    std::unique_ptr<pg_proxy> proxy;
};

TEST_F(BridgeSilenceTest, ServerThatTakesTheConnectionOnly)
{
    proxy->silence_at("user");
    const run_result result = run_bridge(by_proxy({"--create", "--once"}));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err,
                AllOf(HasSubstr("fwlog: cannot connect: "), HasSubstr("timeout expired"),
                      HasSubstr("check --conninfo or the environment")));
}

TEST_F(BridgeSilenceTest, FirstCommandOfTheConnection)
{
    proxy->silence_at("SET datestyle");
    const run_result result = run_bridge(by_proxy({"--create", "--once"}));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "fwlog: cannot connect: the server has been silent for 1 second (SET "
                          "datestyle = ISO); see whether the server is overloaded or frozen, or "
                          "give it more time with --timeout\n");
}

TEST_F(BridgeSilenceTest, Role)
{
    expect_snapshot_all_the_same("pg_is_in_recovery()");
}

TEST_F(BridgeSilenceTest, System)
{
    expect_snapshot_all_the_same("IDENTIFY_SYSTEM");
}

TEST_F(BridgeSilenceTest, Publication)
{
    expect_snapshot_all_the_same("FROM pg_publication WHERE");
}

TEST_F(BridgeSilenceTest, NewPublication)
{
    expect_snapshot_all_the_same("CREATE PUBLICATION");
}

TEST_F(BridgeSilenceTest, Slot)
{
    expect_snapshot_all_the_same("FROM pg_replication_slots");
}

TEST_F(BridgeSilenceTest, NewSlot)
{
    expect_snapshot_all_the_same("CREATE_REPLICATION_SLOT");
}

TEST_F(BridgeSilenceTest, Snapshot)
{
    expect_snapshot_beside_the_stream("txid_current_snapshot(), pg_current");
}

TEST_F(BridgeSilenceTest, Rows)
{
    expect_snapshot_beside_the_stream("COPY (SELECT");
}

TEST_F(BridgeSilenceTest, MiddleOfTheRows)
{
    sql("INSERT INTO load.ledger SELECT n, 0, 1, 'row', NULL FROM generate_series(3, 5000) n");
    expect_snapshot_beside_the_stream("COPY (SELECT", 100'000);
}

TEST_F(BridgeSilenceTest, Stream)
{
    expect_snapshot_all_the_same("START_REPLICATION");
}

TEST_F(BridgeSilenceTest, TheStateIsWrittenBeforeTheServerIsAsked)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    EXPECT_EQ(status_member("state"), "stopped");
    proxy->silence_at("IDENTIFY_SYSTEM");
    start_bridge({"--conninfo", proxy->conninfo(database)});
    ASSERT_TRUE(poll_until([&] { return proxy->happened(); }));
    EXPECT_EQ(status_member("state"), "starting");
    EXPECT_EQ(status_member("pid"), std::to_string(bridge.pid));
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << "a signal ends each wait";
}

TEST_F(BridgeSilenceTest, FrozenServerIsFollowedWhenItGoesOn)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    start_bridge({"--timeout", "1"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    insert(1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    server->freeze();
    EXPECT_TRUE(bridge_says("the server has been silent for 1 second (following the stream)"))
        << bridge.err();
    EXPECT_TRUE(poll_until([&] { return status_member("state") == "waiting"; }));
    server->thaw();
    insert(2);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(2));
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    expect_log_equals_tables();
}

TEST_F(BridgeSilenceTest, FrozenServerAtTheStartIsAnError)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    server->freeze();
    const run_result result = catch_up({"--timeout", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("fwlog: cannot connect: "));
    server->thaw();
    EXPECT_EQ(catch_up().status, 0);
}

TEST_F(BridgeSilenceTest, SlotThatWaitsForATransactionSaysSoAndGoesOnBehindIt)
{
    pg_client open_transaction = connect();
    open_transaction.run("BEGIN; INSERT INTO load.ledger VALUES (1, 0, 1, 'open', NULL)");
    start_bridge({"--create", "--timeout", "1"});
    const std::string text =
        "LOGICAL pgoutput NOEXPORT_SNAPSHOT waits until others have ended their transactions: "
        "process " +
        open_transaction.value("SELECT pg_backend_pid()") +
        " of user postgres, in a transaction since ";
    ASSERT_TRUE(poll_until([&] { return occurrences(bridge.err(), text) >= 3; })) << bridge.err();
    EXPECT_THAT(bridge.err(), Not(HasSubstr("trying again")));
    open_transaction.run("COMMIT");
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    insert(2);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(2));
}

TEST_F(BridgeSilenceTest, SnapshotOfALockedTableWaitsForTheLock)
{
    insert(1);
    pg_client lock = connect();
    lock.run("BEGIN; LOCK TABLE load.ledger IN ACCESS EXCLUSIVE MODE");
    start_bridge({"--create", "--snapshot", "--timeout", "1"});
    EXPECT_TRUE(bridge_says(" waits until others have ended their transactions: process " +
                            lock.value("SELECT pg_backend_pid()")))
        << bridge.err();
    lock.run("COMMIT");
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
}

// Numbers that the server cannot have meant.
TEST_F(BridgeSilenceTest, NonsenseInsteadOfNumbersIsAnErrorWithAText)
{
    insert(1);
    const struct {
        std::string request;
        std::string from;
        std::string to;
        std::string text;
    } rows[] = {
        {"IDENTIFY_SYSTEM",
         std::string("\0\0\0\1"
                     "1",
                     5),
         std::string("\0\0\0\1"
                     "x",
                     5),
         "the server's answer to IDENTIFY_SYSTEM holds no system identifier, timeline, "
         "position and database: "},
        {"CREATE_REPLICATION_SLOT", "0/", "0;",
         "the server's answer to CREATE_REPLICATION_SLOT holds no position: \"0;"},
        {"CREATE_REPLICATION_SLOT", "0/", "9/",
         "the server's answer to CREATE_REPLICATION_SLOT holds the position 9/"},
    };
    for (const auto &row : rows) {
        proxy->change_behind(row.request, row.from, row.to);
        const run_result result = run_bridge(by_proxy({"--create", "--snapshot", "--once"}));
        EXPECT_TRUE(proxy->happened()) << row.request;
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_THAT(result.err, HasSubstr("fwlog: " + row.text));
        sql("SELECT pg_drop_replication_slot(slot_name) FROM pg_replication_slots");
    }
    const run_result result = run_bridge(by_proxy({"--create", "--snapshot", "--once"}));
    EXPECT_EQ(result.status, 0) << result.err;
    expect_log_equals_tables();
}

// Of the session that reads rows: the piece is given up and read again.
TEST_F(BridgeSilenceTest, NonsenseBesideTheStreamLosesNothing)
{
    insert(1);
    const std::string id = value("SELECT 'load.ledger'::regclass::oid");
    const std::string length(1, static_cast<char>(id.size()));
    const struct {
        std::string request;
        std::string from;
        std::string to;
    } rows[] = {
        {"txid_current_snapshot(), pg_current", ":", ";"},
        {"txid_current_snapshot(), pg_current", "0/", "0;"},
        {"t.relreplident, t.filter", length + id, length + std::string(id.size(), 'z')},
        {"a.attname, a.atttypid", std::string("\0\2", 2) + "20", std::string("\0\2", 2) + "-1"},
        {"a.attname, a.atttypid", std::string("\0\2", 2) + "-1", std::string("\0\2", 2) + "1e"},
    };
    for (const auto &row : rows) {
        proxy->change_behind(row.request, row.from, row.to);
        const run_result result = run_bridge(by_proxy({"--create", "--snapshot", "--once"}));
        EXPECT_TRUE(proxy->happened()) << row.request;
        EXPECT_EQ(result.status, 0) << result.err;
        expect_log_equals_tables();
        sql("SELECT pg_drop_replication_slot(slot_name) FROM pg_replication_slots");
        std::filesystem::remove_all(dir.file("log"));
        std::filesystem::create_directory(dir.file("log"));
    }
}

TEST_F(BridgeSilenceTest, WrongTimeouts)
{
    for (const char *text : {"0", "-1", "3601", "1s", "99999999999999999999"}) {
        const run_result result = run_bridge({"--timeout", text});
        EXPECT_EQ(result.status, 2) << text;
        EXPECT_THAT(result.err, HasSubstr("--timeout takes 1 to 3600 seconds: "));
    }
}

// Settings of the environment and the service file, as the database's own programs take
// them.
TEST_F(BridgeSilenceTest, ConninfoMayBeLeftOut)
{
    const std::string host = server->socket().substr(0, server->socket().rfind('/'));
    write_file(dir.file("service.conf"), "[shop]\nhost=" + host + "\nuser=postgres\ndbname=" +
                                             database + "\nconnect_timeout=7\n");
    const struct {
        std::map<std::string, std::string> env;
        std::vector<std::string> words;
    } rows[] = {
        {{{"PGHOST", host}, {"PGUSER", "postgres"}, {"PGDATABASE", database}}, {}},
        {{{"PGHOST", host}, {"PGUSER", "postgres"}, {"PGDATABASE", database}}, {"--conninfo", ""}},
        {{{"PGSERVICE", "shop"}, {"PGSERVICEFILE", dir.file("service.conf")}}, {}},
        {{{"PGSERVICEFILE", dir.file("service.conf")}}, {"--conninfo", "service=shop"}},
    };
    int id = 0;
    for (const auto &row : rows) {
        insert(++id);
        run_setup with = options;
        with.env.insert(row.env.begin(), row.env.end());
        std::vector<std::string> argv = {KESTRO_BUILD_DIR "/bin/fwlog",
                                         "postgresql",
                                         "-cfg",
                                         "fwutil.cfg",
                                         "--create",
                                         "--snapshot",
                                         "--once",
                                         "--slot",
                                         database,
                                         "--publication",
                                         database};
        argv.insert(argv.end(), row.words.begin(), row.words.end());
        const run_result result = run_program(argv, with);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_TRUE(logged("after ID=" + std::to_string(id) + " "));
    }
}

TEST_F(BridgeSilenceTest, TheStateFileIsForItsOwnerOnly)
{
    const run_result result =
        run_program({"sh", "-c", "umask 022; exec \"$@\"", "sh", KESTRO_BUILD_DIR "/bin/fwlog",
                     "postgresql", "-cfg", "fwutil.cfg", "--create", "--once", "--conninfo",
                     conninfo(), "--slot", database, "--publication", database},
                    options);
    ASSERT_EQ(result.status, 0) << result.err;
    const auto mode = std::filesystem::status(dir.file("log/postgresql.json")).permissions();
    EXPECT_EQ(static_cast<unsigned>(mode), 0600U);
}

// It was not the server that was silent.
TEST_F(BridgeSilenceTest, ABridgeThatWasStoppedBlamesNobody)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    start_bridge({"--timeout", "1"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    bridge.signal(SIGSTOP);
    usleep(6'000'000); // far more than it would wait
    bridge.signal(SIGCONT);
    insert(7);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(7));
    EXPECT_THAT(bridge.err(), Not(HasSubstr("silent")));
}
