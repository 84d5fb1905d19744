// Tables of every kind that are taken in, with changes that a piece does not see, and whatever ends
// the bridge on the way.
#include "tests/postgresql/intake_fixture.h"
#include "tests/postgresql/steps.h"

#include <atomic>
#include <iostream>

using testing::HasSubstr;
using testing::Not;

#ifdef KESTRO_SANITIZED
constexpr int ROWS = 25'000;
constexpr int SMALL_TABLES = 500;
#else
constexpr int ROWS = 70'000;
constexpr int SMALL_TABLES = 1'500;
#endif

class IntakeCasesTest : public IntakeTest {};

static const char unseen_changes[] =
    "UPDATE load.t SET n = 1 WHERE n = 0 AND id IN (SELECT id FROM load.t ORDER BY id LIMIT 40);"
    "DELETE FROM load.t WHERE id = (SELECT max(id) FROM load.t);"
    "DELETE FROM load.t WHERE id = (SELECT min(id) FROM load.t)";

TEST_F(IntakeCasesTest, WhatAPieceDoesNotSeeComesBehindIt)
{
    ASSERT_NO_FATAL_FAILURE(make_table());
    ASSERT_NO_FATAL_FAILURE(hold_until_read(
        std::string("BEGIN; INSERT INTO load.t VALUES (-1, 2, 'new');"
                    "UPDATE load.t SET id = 90000 WHERE id = 2;" // out of the piece's range
                    "UPDATE load.t SET id = -3 WHERE id = 29000;"
                    "UPDATE load.t SET id = -4 WHERE id = 4;") +
        unseen_changes + "; COMMIT"));
    EXPECT_TRUE(poll_until([&] { return logged("after ID=-4 "); })) << bridge.err();
    let_commits_wait(false);
    ASSERT_NO_FATAL_FAILURE(finish_copy());
}

// It would be read again only once others see the transaction.
TEST_F(IntakeCasesTest, MoreChangesBesideAPieceThanMemoryMayTake)
{
    ASSERT_NO_FATAL_FAILURE(make_table());
    ASSERT_NO_FATAL_FAILURE(
        hold_until_read("BEGIN; UPDATE load.t SET n = n + 1; UPDATE load.t SET n = n + 1; COMMIT"));
    EXPECT_TRUE(poll_until([&] { return logged("after ID=1 N=2 "); })) << bridge.err();
    EXPECT_FALSE(snapshot_is_done());
    let_commits_wait(false);
    ASSERT_NO_FATAL_FAILURE(finish_copy());
}

TEST_F(IntakeCasesTest, ACommitBeforeAReconnectThatOthersDoNotSeeIsWaitedFor)
{
    ASSERT_NO_FATAL_FAILURE(make_table());
    ASSERT_NO_FATAL_FAILURE(begin_waiting());
    ASSERT_NO_FATAL_FAILURE(run_and_wait("UPDATE load.t SET n = 5 WHERE id = 9"));
    // The stream has passed it.
    const std::string end = value("SELECT pg_current_wal_lsn()");
    ASSERT_TRUE(poll_until([&] {
        return value("SELECT '" + status_member("received_lsn") + "'::pg_lsn >= '" + end + "'") ==
               "t";
    })) << bridge.err();
    sql("SELECT pg_terminate_backend(" + std::to_string(sender()) + ")");
    ASSERT_TRUE(poll_until([&] { return status_member("reconnects") == "1"; })) << bridge.err();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; }));
    see_first();
    usleep(500'000);
    ASSERT_TRUE(poll_until([&] { return reader_has_run("ROLLBACK"); })) << bridge.err();
    EXPECT_FALSE(logged(" insert "));
    let_commits_wait(false);
    ASSERT_NO_FATAL_FAILURE(finish_copy());
}

// An empty piece leaves nothing in the log, and the table's standing holds all the same.
TEST_F(IntakeCasesTest, AnEmptyTableIsTakenOnce)
{
    sql("CREATE TABLE load.other (id integer PRIMARY KEY)");
    const run_result first = catch_up({"--create", "--snapshot", "-v"});
    ASSERT_EQ(first.status, 0) << first.err;
    EXPECT_THAT(first.err, HasSubstr("load.other is taken in (snapshot): 0 rows"));
    const run_result second = catch_up({"-v"});
    ASSERT_EQ(second.status, 0) << second.err;
    EXPECT_THAT(second.err, Not(HasSubstr("taken in")));
}

TEST_F(IntakeCasesTest, ATableThatIsTakenAgainWhileItIsWrittenTo)
{
    sql("CREATE TABLE load.ledger (id bigint PRIMARY KEY, client integer, amount integer,"
        " body text, paid text); ALTER TABLE load.ledger REPLICA IDENTITY FULL");
    sql(step_sql);
    sql("INSERT INTO load.ledger SELECT g, 0, 1, 'row' FROM generate_series(1, " +
        std::to_string(ROWS) + ") g");
    start_bridge({"--create", "--snapshot"});
    ASSERT_TRUE(poll_until([&] { return snapshot_is_done(); })) << bridge.err();
    {
        const steps writers(conninfo(), 3, ROWS);
        for (int i = 0; i < 3; i++) {
            const run_result result = fwlog({"postgresql", "--resume", "load.ledger"});
            ASSERT_EQ(result.status, 0) << result.err << bridge.err();
        }
    }
    EXPECT_EQ(occurrences(dump(), " truncate "), 3);
    ASSERT_NO_FATAL_FAILURE(finish_copy());
}

// Rows of which three make a piece.
TEST_F(IntakeCasesTest, ATableOfManyPiecesHoldsUpNoOtherOne)
{
    sql("CREATE TABLE load.job (id integer PRIMARY KEY, v text);"
        "ALTER TABLE load.job ALTER v SET STORAGE EXTERNAL;"
        "INSERT INTO load.job SELECT g, repeat('long', 2000000) FROM generate_series(1, 5) g;"
        "CREATE TABLE load.small (id integer PRIMARY KEY);"
        "INSERT INTO load.small SELECT generate_series(1, 100)");
    const run_result all = catch_up({"--create", "--snapshot", "-v"});
    ASSERT_EQ(all.status, 0) << all.err;
    const size_t small = all.err.find("load.small is taken in (snapshot): 100 rows");
    const size_t job = all.err.find("load.job is taken in (snapshot): 5 rows");
    ASSERT_NE(small, std::string::npos) << all.err;
    ASSERT_NE(job, std::string::npos) << all.err;
    EXPECT_LT(small, job);
}

// The table comes to its end once its client pauses.
TEST_F(IntakeCasesTest, ATableWhoseRowsMoveAheadHoldsUpNoOtherOne)
{
    sql("CREATE TABLE load.job (id integer PRIMARY KEY, v text);"
        "ALTER TABLE load.job ALTER v SET STORAGE EXTERNAL;"
        "INSERT INTO load.job SELECT g, repeat('long', 5000) FROM generate_series(1, 300) g;"
        "CREATE TABLE load.small (id integer PRIMARY KEY);"
        "INSERT INTO load.small SELECT generate_series(1, 100)");
    std::atomic<bool> moves = true;
    clients.emplace_back([&] {
        pg_client client = connect();
        while (moves) {
            client.run("UPDATE load.job SET id = id + 300"
                       " WHERE id < (SELECT min(id) FROM load.job) + 100");
            usleep(5'000);
        }
    });
    start_bridge({"--create", "--snapshot", "-v"});
    EXPECT_TRUE(bridge_says("load.small is taken in (snapshot): 100 rows")) << bridge.err();
    moves = false;
    ASSERT_NO_FATAL_FAILURE(finish_copy());
}

// ---- keys that the server orders

TEST_F(IntakeCasesTest, WhatAPieceDoesNotSeeComesBehindItInTheOrderOfTheServer)
{
    ASSERT_NO_FATAL_FAILURE(make_table("interval PRIMARY KEY", "make_interval(mins => g)"));
    sql("CREATE TABLE load.other (id integer PRIMARY KEY, n integer)");
    ASSERT_NO_FATAL_FAILURE(hold_until_read(
        std::string(
            "BEGIN; INSERT INTO load.t VALUES ('-1 s', 2, 'new'); INSERT INTO load.other VALUES"
            " (1, 1); UPDATE load.t SET id = '9 years' WHERE id = '2 min';" // out of the range
            "UPDATE load.t SET id = '-3 s' WHERE id = '29990 min'; UPDATE load.other SET n = 2;"
            "UPDATE load.t SET id = '-4 s' WHERE id = '4 min';") +
        unseen_changes + "; COMMIT"));
    EXPECT_TRUE(poll_until([&] { return logged("after ID=\"-00:00:01\" "); })) << bridge.err();
    let_commits_wait(false);
    ASSERT_NO_FATAL_FAILURE(finish_copy());
    EXPECT_GE(occurrences(dump(), "snapshot="), 2) << "in pieces";
}

// More changes than are asked for at once, of which more may have to be kept than there is room
// for, and one that is longer than all of them.
TEST_F(IntakeCasesTest, ManyAndLongChangesInTheOrderOfTheServer)
{
    ASSERT_NO_FATAL_FAILURE(make_table("interval PRIMARY KEY", "make_interval(mins => g)"));
    sql("CREATE TABLE load.other (id integer PRIMARY KEY, n integer)");
    ASSERT_NO_FATAL_FAILURE(hold_until_read(
        "BEGIN; UPDATE load.t SET n = 3; INSERT INTO load.other VALUES (777, 1); UPDATE load.t SET"
        " n = 4; INSERT INTO load.t VALUES ('30 s', 0, repeat('long', 2500000));"
        "UPDATE load.t SET id = '-30 s' WHERE id = '30 s'; DELETE FROM load.t WHERE id = '-30 s';"
        "UPDATE load.t SET n = 5 WHERE id < '5000 min'; COMMIT"));
    const std::string end = value("SELECT pg_current_wal_lsn()");
    EXPECT_TRUE(poll_until([&] {
        return value("SELECT '" + status_member("received_lsn") + "'::pg_lsn >= '" + end + "'") ==
               "t";
    })) << bridge.err();
    let_commits_wait(false);
    ASSERT_NO_FATAL_FAILURE(finish_copy());
}

// Changes of single rows and of a range of them, between those of other tables, and moves to other
// keys.
static const char ordered_sql[] =
    "CREATE TYPE load.mood AS ENUM ('low', 'high', 'mid');"
    "CREATE TABLE load.words (mood load.mood, id text COLLATE %, n integer, body text,"
    " PRIMARY KEY (mood, id));"
    "CREATE TABLE load.places (id interval PRIMARY KEY, n integer, body text);"
    "ALTER TABLE load.places REPLICA IDENTITY FULL;"
    "CREATE TABLE load.plain (id integer PRIMARY KEY, n integer);"
    "CREATE FUNCTION load.word(r integer) RETURNS text LANGUAGE sql AS $$ SELECT"
    " (ARRAY['a', 'B', 'b', 'A', 'z', 'é', '-', 'Z'])[r % 8 + 1] || r $$;"
    "CREATE FUNCTION load.mood(r integer) RETURNS load.mood LANGUAGE sql AS $$ SELECT"
    " (ARRAY['low', 'mid', 'high'])[r % 3 + 1]::load.mood $$;"
    "INSERT INTO load.words SELECT load.mood(g), load.word(g), 0, repeat('w', 150) FROM"
    " generate_series(1, 40000) g;"
    "CREATE FUNCTION load.place(r integer) RETURNS interval LANGUAGE sql AS $$ SELECT"
    " make_interval(mins => r * 7919 % 40009) $$;"
    "INSERT INTO load.places SELECT load.place(g), 0, repeat('p', 150) FROM generate_series(1, "
    "40000) g;"
    "CREATE FUNCTION load.step() RETURNS void LANGUAGE plpgsql AS $$ DECLARE"
    " a integer := floor(random() * 41000); b integer := floor(random() * 41000);"
    "BEGIN CASE floor(random() * 8)::integer"
    " WHEN 0 THEN INSERT INTO load.words VALUES (load.mood(a), load.word(a), 1, 'new') ON CONFLICT"
    " DO NOTHING; INSERT INTO load.plain VALUES (a, 1) ON CONFLICT DO NOTHING;"
    " WHEN 1 THEN DELETE FROM load.words WHERE id = load.word(a) AND mood = load.mood(a);"
    " WHEN 2 THEN UPDATE load.words SET mood = load.mood(b), id = load.word(b) WHERE"
    " id = load.word(a) AND mood = load.mood(a);"
    " WHEN 3 THEN UPDATE load.places SET id = load.place(b) + '1 s' WHERE id = load.place(a);"
    " WHEN 4 THEN UPDATE load.places SET id = id + '1 ms', n = n + 1 WHERE id BETWEEN load.place(a)"
    " AND load.place(a) + '100 min';"
    " WHEN 5 THEN UPDATE load.plain SET n = n + 1 WHERE id = a;"
    " DELETE FROM load.places WHERE id = load.place(b);"
    " WHEN 6 THEN INSERT INTO load.places VALUES (load.place(a), 2, 'new') ON CONFLICT DO NOTHING;"
    " ELSE UPDATE load.words SET n = n + 1 WHERE id = load.word(a) AND mood = load.mood(a);"
    " END CASE;"
    "EXCEPTION WHEN unique_violation OR deadlock_detected THEN NULL; END $$";

TEST_F(IntakeCasesTest, TablesInTheOrderOfTheServerWhileTheyAreWrittenTo)
{
    std::cout << "KESTRO_TEST_SEED=" << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::string text = ordered_sql;
    const bool icu = value("SELECT count(*) FROM pg_collation WHERE collname = 'und-x-icu'") == "1";
    text.replace(text.find('%'), 1, icu ? "\"und-x-icu\"" : "\"default\"");
    sql(text);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    std::atomic<bool> stopped = false;
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; i++)
        writers.emplace_back([&] {
            pg_client session = connect();
            session.run("SET deadlock_timeout = '20ms'");
            while (!stopped) {
                session.run("SELECT load.step() FROM generate_series(0, (random() * 4)::integer)");
                usleep(2000);
            }
        });
    begin_snapshot();
    int starts = 0;
    for (; starts < 6 && !snapshot_is_done(); starts++) {
        usleep(static_cast<useconds_t>(200'000 + random() % 500'000));
        bridge.end(SIGKILL);
        start_bridge();
    }
    EXPECT_TRUE(poll_until([&] { return snapshot_is_done(); })) << bridge.err();
    std::cout << starts << " starts\n";
    stopped = true;
    for (std::thread &writer : writers)
        writer.join();
    ASSERT_NO_FATAL_FAILURE(finish_copy());
    // It went on where it was: nothing was taken twice.
    EXPECT_EQ(occurrences(dump(), " truncate "), 0);
}

// The first piece is logged, and the next one waits for a commit that others do not see.
TEST_F(IntakeCasesTest, OthersAreFollowedWhileATableInTheOrderOfTheServerIsRead)
{
    ASSERT_NO_FATAL_FAILURE(make_table("interval PRIMARY KEY", "make_interval(secs => g)"));
    ASSERT_NO_FATAL_FAILURE(hold_until_read("UPDATE load.t SET n = 1 WHERE id = '29999 s'"));
    EXPECT_TRUE(poll_until([&] { return logged(" insert "); })) << bridge.err();
    pg_client session = connect();
    session.run("SET synchronous_commit = local");
    session.run("CREATE TABLE load.other (id integer PRIMARY KEY, n integer)");
    ASSERT_NO_FATAL_FAILURE(run_and_wait("INSERT INTO load.other VALUES (777, 1)"));
    EXPECT_TRUE(poll_until([&] { return logged("after ID=777 "); })) << bridge.err();
    EXPECT_FALSE(snapshot_is_done());
    EXPECT_EQ(occurrences(dump(), "snapshot="), 1);
    let_commits_wait(false);
    ASSERT_NO_FATAL_FAILURE(finish_copy());
}

TEST_F(IntakeCasesTest, ALabelThatIsRenamedBeginsTheTableAnew)
{
    sql("CREATE TYPE load.mood AS ENUM ('low', 'mid', 'high'); CREATE TABLE load.t (mood load.mood,"
        " id integer, n integer, body text, PRIMARY KEY (mood, id));"
        "INSERT INTO load.t SELECT 'low', g, 0, repeat('b', 180) FROM generate_series(1, 30000) g");
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    ASSERT_NO_FATAL_FAILURE(hold_until_read("UPDATE load.t SET n = 1 WHERE id = 29999"));
    EXPECT_TRUE(poll_until([&] { return logged(" insert "); })) << bridge.err();
    pg_client session = connect();
    session.run("SET synchronous_commit = local");
    session.run("ALTER TYPE load.mood RENAME VALUE 'low' TO 'least'");
    session.run("UPDATE load.t SET n = 2 WHERE id = 1");
    EXPECT_TRUE(bridge_says("table load.t is read anew from its first row on, since the server does"
                            " not compare keys of it with those that were read: invalid input value"
                            " for enum load.mood: \"low\""))
        << bridge.err();
    let_commits_wait(false);
    ASSERT_NO_FATAL_FAILURE(finish_copy());
    EXPECT_EQ(occurrences(dump(), " truncate "), 1);
}

TEST_F(IntakeCasesTest, ManySmallTablesAndKills)
{
    std::cout << "KESTRO_TEST_SEED=" << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (int first = 0; first < SMALL_TABLES; first += 500) // as many as the server has locks for
        sql("DO $$ BEGIN FOR i IN " + std::to_string(first) + ".." + std::to_string(first + 499) +
            " LOOP EXECUTE format('CREATE TABLE load.s%s (id integer PRIMARY KEY, n integer);"
            "INSERT INTO load.s%s SELECT g, g FROM generate_series(1, %s) g', i, i, i % 4);"
            "END LOOP; END $$");
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    std::atomic<bool> stopped = false;
    std::thread writer([&] {
        pg_client session = connect();
        for (int i = 0; !stopped; i++) {
            const std::string table = "load.s" + std::to_string(i * 7 % SMALL_TABLES);
            session.run("UPDATE " + table +
                        " SET n = n + 1 WHERE id = 1;"
                        "INSERT INTO " +
                        table +
                        " VALUES (10, 1) ON CONFLICT (id) DO UPDATE SET n = 1;"
                        "DELETE FROM " +
                        table + " WHERE id = 2");
            usleep(1000);
        }
    });
    begin_snapshot();
    for (int i = 0; i < 6 && !snapshot_is_done(); i++) {
        usleep(static_cast<useconds_t>(random() % 500'000));
        bridge.end(SIGKILL);
        start_bridge();
    }
    EXPECT_TRUE(poll_until([&] { return snapshot_is_done(); }, 300)) << bridge.err();
    stopped = true;
    writer.join();
    ASSERT_NO_FATAL_FAILURE(finish_copy());
}
