// What clients do to a table while it is taken in: between two pieces, and between the reading of
// a piece and its place in the log.  Where rows that were taken would lack something it is begun
// anew, behind a truncate mark.
#include "tests/postgresql/intake_fixture.h"

// What tells rows apart of which the old ones have nothing else.
static const char by_n[] = "T=N";

class IntakeChangeTest : public IntakeTest {
  protected:
    // The first of two pieces is in the log, and the second one waits.
    void take_first_piece(const std::string &before)
    {
        ASSERT_NO_FATAL_FAILURE(make_table());
        if (!before.empty())
            sql(before);
        ASSERT_NO_FATAL_FAILURE(hold_until_read("UPDATE load.t SET n = 5 WHERE id = 30000"));
        ASSERT_TRUE(poll_until([&] { return logged("after ID=1 "); })) << bridge.err();
        EXPECT_FALSE(logged("after ID=30000 "));
    }

    // The lock goes with the commit, and whoever waits for it comes before the bridge.
    void change_before_the_second(const std::string &text)
    {
        clients.emplace_back([this, text] { sql("SET synchronous_commit = local;" + text); });
        ASSERT_TRUE(poll_until([&] {
            return value("SELECT count(*) FROM pg_locks WHERE NOT granted AND relation ="
                         " 'load.t'::regclass") != "0";
        })) << text;
        let_commits_wait(false);
    }

    void change_between_pieces(const std::string &text, const std::string &before = "",
                               const std::string &key = "")
    {
        ASSERT_NO_FATAL_FAILURE(take_first_piece(before));
        ASSERT_NO_FATAL_FAILURE(change_before_the_second(text));
        ASSERT_NO_FATAL_FAILURE(finish_copy(key));
    }

    // The table is read as a whole, changed, and then logged.
    void change_behind_reading(const std::string &text, const std::string &key = "")
    {
        sql("CREATE TABLE load.t (id bigint PRIMARY KEY, n integer, body text);"
            "ALTER TABLE load.t REPLICA IDENTITY FULL;"
            "INSERT INTO load.t SELECT g, g, 'b' FROM generate_series(1, 100) g");
        ASSERT_EQ(catch_up({"--create"}).status, 0);
        ASSERT_NO_FATAL_FAILURE(begin_waiting());
        const pid_t held = sender();
        pg_stop_at_rest(held);
        sql("SET synchronous_commit = local; SELECT pg_logical_emit_message(true, 'high', '')");
        see_first();
        const bool read = poll_until([&] { return reader_has_run("''kestro''"); });
        if (read)
            sql("SET synchronous_commit = local;" + text);
        kill(held, SIGCONT);
        ASSERT_TRUE(read) << bridge.err();
        let_commits_wait(false);
        ASSERT_NO_FATAL_FAILURE(finish_copy(key));
    }
};

TEST_F(IntakeChangeTest, AColumnIsAdded)
{
    change_between_pieces("ALTER TABLE load.t ADD more integer DEFAULT 7;"
                          "UPDATE load.t SET n = 1 WHERE id < 9");
    EXPECT_TRUE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, AColumnIsAddedAndNothingChanges)
{
    change_between_pieces("ALTER TABLE load.t ADD more integer DEFAULT 7");
    EXPECT_TRUE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, AColumnIsDropped)
{
    change_between_pieces("ALTER TABLE load.t DROP n; UPDATE load.t SET body = 'x' WHERE id < 9");
    EXPECT_TRUE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, AColumnGetsAnotherType)
{
    change_between_pieces("ALTER TABLE load.t ALTER n TYPE bigint USING n + 7");
    EXPECT_TRUE(logged(" truncate "));
}

// "fwlog sql" wants to be told what has become of the column.
TEST_F(IntakeChangeTest, AColumnIsRenamed)
{
    ASSERT_NO_FATAL_FAILURE(take_first_piece(""));
    ASSERT_NO_FATAL_FAILURE(change_before_the_second("ALTER TABLE load.t RENAME n TO other"));
    ASSERT_TRUE(poll_until([&] { return snapshot_is_done(); })) << bridge.err();
    const std::string log = dump();
    const std::string anew = log.substr(std::min(log.find(" truncate "), log.size()));
    EXPECT_EQ(occurrences(anew, " OTHER="), 30000);
    EXPECT_EQ(occurrences(anew, " N="), 0);
}

TEST_F(IntakeChangeTest, AColumnComesAndGoesAgain)
{
    change_between_pieces("ALTER TABLE load.t ADD more integer DEFAULT 7;"
                          "UPDATE load.t SET n = 1 WHERE id < 9; ALTER TABLE load.t DROP more");
}

TEST_F(IntakeChangeTest, TheKeyGetsAnotherType)
{
    change_between_pieces("ALTER TABLE load.t ALTER id TYPE integer;"
                          "UPDATE load.t SET n = 1 WHERE id < 9 OR id > 29990");
    EXPECT_TRUE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, AnotherColumnIsTheKey)
{
    change_between_pieces("ALTER TABLE load.t DROP CONSTRAINT t_pkey; UPDATE load.t SET n = -id;"
                          "ALTER TABLE load.t ALTER n SET NOT NULL, ADD PRIMARY KEY (n);"
                          "DELETE FROM load.t WHERE id % 1000 = 0");
    EXPECT_TRUE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, TheKeyIsDropped)
{
    change_between_pieces("ALTER TABLE load.t DROP CONSTRAINT t_pkey;"
                          "UPDATE load.t SET n = 3 WHERE id % 1000 = 0");
    EXPECT_TRUE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, AnotherIndexIdentifiesTheRows)
{
    change_between_pieces(
        "ALTER TABLE load.t REPLICA IDENTITY USING INDEX other;"
        "UPDATE load.t SET n = -id WHERE id % 1000 = 0;"
        "DELETE FROM load.t WHERE id % 1000 = 1",
        "UPDATE load.t SET n = id + 100000; ALTER TABLE load.t ALTER n SET NOT NULL;"
        "CREATE UNIQUE INDEX other ON load.t (n)",
        by_n);
    EXPECT_TRUE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, ATruncate)
{
    change_between_pieces("TRUNCATE load.t;"
                          "INSERT INTO load.t VALUES (5, 1, 'new'), (99999, 1, 'new')");
    EXPECT_TRUE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, TheTableIsMadeAnew)
{
    change_between_pieces("DROP TABLE load.t;"
                          "CREATE TABLE load.t (id bigint PRIMARY KEY, n integer, body text);"
                          "INSERT INTO load.t VALUES (5, 1, 'new'), (99999, 1, 'new')");
    EXPECT_TRUE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, AMoveToTheRowsThatWereTakenLacksAValue)
{
    change_between_pieces("ALTER TABLE load.t ALTER n SET DEFAULT 0;"
                          "UPDATE load.t SET id = -5 WHERE id = 29999",
                          "ALTER TABLE load.t REPLICA IDENTITY DEFAULT,"
                          " ALTER body SET STORAGE EXTERNAL;"
                          "UPDATE load.t SET body = repeat('l', 3000) WHERE id = 29999");
    EXPECT_TRUE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, BehindItsReadingAColumnIsAdded)
{
    change_behind_reading("ALTER TABLE load.t ADD more integer; UPDATE load.t SET more = id");
    EXPECT_FALSE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, BehindItsReadingAColumnIsDropped)
{
    change_behind_reading("ALTER TABLE load.t DROP n; UPDATE load.t SET body = 'x' WHERE id < 9");
    EXPECT_FALSE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, BehindItsReadingAColumnGetsAnotherType)
{
    change_behind_reading("ALTER TABLE load.t ALTER n TYPE bigint; UPDATE load.t SET n = -id");
    EXPECT_FALSE(logged(" truncate "));
}

TEST_F(IntakeChangeTest, BehindItsReadingAnotherIndexIdentifiesTheRows)
{
    change_behind_reading("ALTER TABLE load.t ALTER n SET NOT NULL;"
                          "CREATE UNIQUE INDEX other ON load.t (n);"
                          "ALTER TABLE load.t REPLICA IDENTITY USING INDEX other;"
                          "DELETE FROM load.t WHERE id < 9; UPDATE load.t SET n = -n",
                          by_n);
    EXPECT_FALSE(logged(" truncate "));
}

// Rows of identities that are none of the key that they are read by.
TEST_F(IntakeChangeTest, AKeyBesideTheIdentity)
{
    for (const std::string identity : {"FULL", "USING INDEX other"}) {
        SCOPED_TRACE(identity);
        sql("DROP TABLE IF EXISTS load.t; CREATE TABLE load.t (id bigint PRIMARY KEY, n integer"
            " NOT NULL, body text); CREATE UNIQUE INDEX other ON load.t (n);"
            "ALTER TABLE load.t REPLICA IDENTITY " +
            identity +
            "; INSERT INTO load.t SELECT g, 50000 - g, repeat('b', 180)"
            " FROM generate_series(1, 30000) g");
        std::filesystem::remove_all(dir.file("log"));
        ASSERT_EQ(catch_up({"--create"}).status, 0);
        ASSERT_NO_FATAL_FAILURE(
            hold_until_read("BEGIN; UPDATE load.t SET id = -id WHERE id % 1000 = 0;"
                            "UPDATE load.t SET n = -n WHERE id % 1000 = 1;"
                            "UPDATE load.t SET body = 'x' WHERE id % 1000 = 2;"
                            "DELETE FROM load.t WHERE id % 1000 = 3; COMMIT"));
        let_commits_wait(false);
        ASSERT_NO_FATAL_FAILURE(finish_copy(identity == "FULL" ? "" : by_n));
        for (std::thread &client : clients)
            client.join();
        clients.clear();
        sql("SELECT pg_drop_replication_slot('" + database + "')");
    }
}
