// Tables that are taken in while the stream is held back, so that each change comes at the moment
// that is asked for: not seen by a piece, or before a reconnect.  The log's SQL shows whether all
// came.
#ifndef TESTS_POSTGRESQL_INTAKE_FIXTURE_H
#define TESTS_POSTGRESQL_INTAKE_FIXTURE_H

#include "tests/postgresql/bridge_fixture.h"
#include "tests/tools/fwlog/sqlite.h"

#include <random>
#include <thread>

class IntakeTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        if (sqlite::missing())
            GTEST_SKIP() << "sqlite3 is missing (Debian package sqlite3)";
        configure("values mark\n");
        sql("CREATE SCHEMA load");
    }

    void TearDown() override
    {
        if (server != nullptr)
            let_commits_wait(false);
        for (std::thread &client : clients)
            client.join();
        BridgeTest::TearDown();
    }

    // Rows of some 200 bytes, in two pieces or more.
    void make_table(const std::string &key = "bigint PRIMARY KEY", const std::string &id = "g",
                    int rows = 30'000) const
    {
        sql("CREATE TABLE load.t (id " + key +
            ", n integer, body text); ALTER TABLE load.t REPLICA IDENTITY FULL;"
            "INSERT INTO load.t SELECT " +
            id + ", 0, repeat('b', 180) FROM generate_series(1, " + std::to_string(rows) +
            ") g; ANALYZE load.t");
        ASSERT_EQ(catch_up({"--create"}).status, 0);
    }

    // A session whose commit waits for a standby.
    void run_and_wait(const std::string &text)
    {
        clients.push_back(run_until_it_waits(text));
        ASSERT_FALSE(HasFailure()) << text;
    }

    // From now on a run goes on with it.
    void begin_snapshot()
    {
        start_bridge({"--snapshot"});
        EXPECT_TRUE(poll_until([&] { return status_member("snapshot") == "taking"; }))
            << bridge.err();
    }

    // The bridge waits with the first piece for a transaction that others do not see.
    void begin_waiting(const std::vector<std::string> &more = {"--snapshot", "-v"})
    {
        let_commits_wait(true);
        ASSERT_NO_FATAL_FAILURE(run_and_wait("SELECT pg_logical_emit_message(true, 'first', '')"));
        std::vector<std::string> argv = bridge_argv(more);
        argv.insert(argv.begin(), around.begin(), around.end());
        bridge.start(argv, options, dir.file("bridge"));
        ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; }))
            << bridge.err();
        // Before that it may stand inside a transaction, and begins with no piece there.
        ASSERT_TRUE(poll_until([&] { return sender_has_sent_all(); })) << bridge.err();
        ASSERT_TRUE(poll_until([&] { return reader_has_run("ROLLBACK"); })) << bridge.err();
    }

    // What the session that reads tables has run last.
    bool reader_has_run(const std::string &text) const
    {
        return value("SELECT count(*) FROM pg_stat_activity WHERE pid <> pg_backend_pid()"
                     " AND state LIKE 'idle%' AND query NOT LIKE '%pg_stat_activity%'"
                     " AND query LIKE '%" +
                     text + "%' AND datname = current_database()") != "0";
    }

    // ... which they see now.
    void see_first() const
    {
        pg_client session = connect();
        session.run("SET synchronous_commit = local");
        session.run("SELECT pg_cancel_backend(pid) FROM pg_stat_activity"
                    " WHERE wait_event = 'SyncRep' AND query LIKE '%first%'");
    }

    // The server's process that sends a table's rows bit by bit, and has more of them; 0: none.
    pid_t reader() const
    {
        return static_cast<pid_t>(
            std::stol(value("SELECT coalesce(max(pid), 0) FROM pg_stat_activity WHERE query LIKE"
                            " 'COPY (SELECT%' AND wait_event = 'ClientWrite'"
                            " AND datname = current_database()")));
    }

    pid_t sender() const
    {
        return static_cast<pid_t>(
            std::stol(value("SELECT max(active_pid) FROM pg_replication_slots WHERE slot_name = '" +
                            database + "'")));
    }

    bool sender_has_sent_all() const
    {
        return value("SELECT count(*) FROM pg_stat_replication r JOIN pg_replication_slots s"
                     " ON s.active_pid = r.pid JOIN pg_stat_activity a ON a.pid = r.pid"
                     " WHERE s.slot_name = current_database()"
                     " AND r.sent_lsn >= pg_current_wal_flush_lsn()"
                     " AND lower(a.wait_event) = 'walsenderwaitforwal'") == "1";
    }

    // A piece is read while the stream is held back: what was committed before, and the piece
    // does not see, comes behind it.
    void hold_until_read(const std::string &unseen)
    {
        ASSERT_NO_FATAL_FAILURE(begin_waiting());
        const pid_t held = sender();
        pg_stop_at_rest(held);
        run_and_wait(unseen);
        see_first();
        const bool read = poll_until([&] { return reader_has_run("''kestro''") || reader() != 0; });
        kill(held, SIGCONT);
        ASSERT_TRUE(read) << bridge.err();
    }

    // key: DATASET=ITEMS, what tells rows apart where the log has no key.
    void finish_copy(const std::string &key = "")
    {
        EXPECT_TRUE(poll_until([&] { return snapshot_is_done(); })) << bridge.err();
        EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
        const run_result rest = catch_up();
        EXPECT_EQ(rest.status, 0) << rest.err;
        EXPECT_THAT(bridge.err() + rest.err, testing::Not(testing::HasSubstr("set aside")));
        expect_copy_equals_tables(key);
    }

    // The log's statements, each of which has to go well, give what the tables hold.
    void expect_copy_equals_tables(const std::string &key) const
    {
        std::vector<std::string> words = {"sql",   "--dialect", "sqlite",     "--create-tables",
                                          "--gap", "skip",      "--truncate", "apply"};
        if (!key.empty())
            words.insert(words.end(), {"--key", key});
        const run_result text = fwlog(words);
        ASSERT_EQ(text.status, 0) << text.err;
        std::filesystem::remove(dir.file("copy.db"));
        const sqlite copy(dir.file("copy.db"));
        const run_result applied = copy.run(text.out);
        ASSERT_EQ(applied.status, 0) << applied.err.substr(0, 2000);
        pg_client client = connect();
        std::string ours; // without tables that never had a row
        std::string theirs;
        const std::multiset<std::vector<std::string>> none;
        const auto there = copy.rows("SELECT name FROM sqlite_master");
        const auto tables = client.run(
            "SELECT c.relname, string_agg('coalesce(CAST(' || a.attname || ' AS text), ''\\N'')',"
            " ' || ''|'' || ' ORDER BY a.attnum), string_agg('coalesce(' || CASE a.atttypid"
            " WHEN 'inet'::regtype THEN 'host(' || a.attname || ')' ELSE a.attname || '::text' END"
            " || ', ''\\N'')', ' || ''|'' || ' ORDER BY a.attnum)"
            " FROM pg_class c JOIN pg_attribute a"
            " ON a.attrelid = c.oid AND a.attnum > 0 AND NOT a.attisdropped"
            " WHERE c.relnamespace = 'load'::regnamespace AND c.relkind = 'r' GROUP BY 1");
        for (size_t i = 0; i < tables.size(); i++) {
            const std::string &name = tables[i][0];
            const std::string begin = "SELECT '" + name + "|' || ";
            theirs +=
                (theirs.empty() ? "" : " UNION ALL ") + begin + tables[i][2] + " FROM load." + name;
            if (there.contains({"load_" + name}))
                ours += (ours.empty() ? "" : " UNION ALL ") + begin + tables[i][1] + " FROM load_" +
                        name;
            if (i % 400 != 399 && i + 1 != tables.size())
                continue;
            const auto all = client.run(theirs);
            EXPECT_TRUE((ours.empty() ? none : copy.rows(ours)) ==
                        std::multiset<std::vector<std::string>>(all.begin(), all.end()))
                << theirs.substr(0, 200);
            ours.clear();
            theirs.clear();
        }
    }

    std::vector<std::string> around; // what the bridge is run by
    std::vector<std::thread> clients;
    const char *given_seed = getenv("KESTRO_TEST_SEED");
    unsigned seed = given_seed != nullptr ? static_cast<unsigned>(strtoul(given_seed, nullptr, 10))
                                          : std::random_device{}();
    std::mt19937 random{seed};
};

#endif
