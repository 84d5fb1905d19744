// "fwlog postgresql" and transactions that the server itself cannot send: each is told with the
// option that passes over it, which is carried out as it stands there; all others come.
#include "fwutil/fwu_start.h"
#include "tests/postgresql/bridge_fixture.h"
#include "tests/postgresql/pg_proxy.h"

#include <regex>

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;

class BridgeSkipTest : public LedgerTest {
  protected:
    void SetUp() override
    {
        LedgerTest::SetUp();
        if (server == nullptr)
            return;
        // A type whose values the server takes and keeps, and can write as text never.
        sql("CREATE SCHEMA odd; CREATE TYPE odd.mute;"
            "CREATE FUNCTION odd.mute_in(cstring) RETURNS odd.mute LANGUAGE internal "
            "IMMUTABLE STRICT AS 'int4in';"
            "CREATE FUNCTION odd.mute_out(odd.mute) RETURNS cstring LANGUAGE internal "
            "IMMUTABLE STRICT AS 'enum_out';"
            "CREATE TYPE odd.mute (INPUT = odd.mute_in, OUTPUT = odd.mute_out,"
            " INTERNALLENGTH = 4, PASSEDBYVALUE, ALIGNMENT = int4);"
            "CREATE TABLE odd.words (id bigint PRIMARY KEY, word odd.mute);"
            "ALTER TABLE odd.words REPLICA IDENTITY FULL;");
        configure(std::string(ledger_cfg) + "values mark\ntable load.ledger values=error\n");
    }

    // A transaction with a good change, one that cannot be sent, and a good one.
    void commit_the_unsendable() const
    {
        sql("BEGIN; INSERT INTO load.ledger VALUES (100, 0, 1, 'before', NULL);"
            "INSERT INTO odd.words VALUES (1, '5');"
            "INSERT INTO load.ledger VALUES (101, 0, 1, 'behind', NULL); COMMIT");
    }

    // The option that an error suggests, with its position; empty: none.
    static std::string suggested(const std::string &err)
    {
        static const std::regex option("--skip-transaction ([0-9A-F]+/[0-9A-F]+),");
        std::smatch found;
        return std::regex_search(err, found, option) ? found.str(1) : "";
    }

    static uint64_t number(const std::string &lsn)
    {
        uint64_t value = 0;
        EXPECT_TRUE(fwu_lsn_parse(value, lsn)) << lsn;
        return value;
    }

    // Runs into the transaction that cannot be sent; its position.
    std::string fail_at_it() const
    {
        const run_result failed = catch_up();
        EXPECT_EQ(failed.status, 1) << failed.err;
        EXPECT_THAT(failed.err,
                    AllOf(HasSubstr("fwlog: following the server, in transaction "),
                          HasSubstr("invalid internal value for enum: 5; if that cannot be "
                                    "mended on the server, pass the transaction over with ")));
        EXPECT_EQ(status_member("state"), "failed");
        EXPECT_THAT(status_member("error"), HasSubstr("--skip-transaction "));
        return suggested(failed.err);
    }

    bool has_row(int id) const
    {
        return logged("after ID=" + std::to_string(id) + " ");
    }

    std::vector<std::string> gaps() const
    {
        std::vector<std::string> lines;
        std::istringstream json(fwlog({"dump", "--json"}).out);
        for (std::string line; std::getline(json, line);)
            if (line.find("\"gap\"") != line.npos)
                lines.push_back(line);
        return lines;
    }
};

TEST_F(BridgeSkipTest, TheTransactionIsPassedOverAndAllOthersCome)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1);
    commit_the_unsendable();
    insert(2);
    const std::string lsn = fail_at_it();
    EXPECT_TRUE(has_row(1));
    EXPECT_FALSE(has_row(100));
    EXPECT_EQ(fail_at_it(), lsn) << "again without the option";

    const run_result skipped = catch_up({"--skip-transaction", lsn});
    EXPECT_EQ(skipped.status, 0) << skipped.err;
    EXPECT_THAT(skipped.err, AllOf(HasSubstr(" of " + lsn + " is skipped; the log has a gap mark "),
                                   HasSubstr(" for all tables\n"),
                                   HasSubstr("the server has failed in the transaction that is "
                                             "skipped; trying again\n")));
    EXPECT_TRUE(has_row(2));
    EXPECT_FALSE(has_row(100));
    EXPECT_FALSE(has_row(101));
    ASSERT_EQ(gaps().size(), 1U) << dump();
    EXPECT_THAT(gaps()[0], AllOf(HasSubstr("\"dataset\":null"), HasSubstr(" was skipped")));

    insert(3);
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(has_row(3));
    const std::string confirmed =
        value("SELECT confirmed_flush_lsn FROM pg_replication_slots WHERE slot_name = '" +
              database + "'");
    EXPECT_GT(number(confirmed), number(lsn)) << "the slot has let it go";
    const run_result again = catch_up({"--skip-transaction", lsn});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_THAT(again.err, HasSubstr("warning: --skip-transaction " + lsn + ": the log goes up "));
    EXPECT_EQ(gaps().size(), 1U);
}

TEST_F(BridgeSkipTest, TheGapIsOneOfTheTablesThatAreNamed)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("CREATE TABLE load.\"a,b\" (id integer PRIMARY KEY)");
    commit_the_unsendable();
    insert(2);
    const std::string lsn = fail_at_it();
    const run_result skipped =
        catch_up({"--skip-transaction", lsn + ",load.ledger,load.\"a,b\",load.gone"});
    EXPECT_EQ(skipped.status, 0) << skipped.err;
    EXPECT_THAT(skipped.err, HasSubstr(" for the tables that were named\n"));
    EXPECT_TRUE(has_row(2));
    const std::vector<std::string> lines = gaps();
    ASSERT_EQ(lines.size(), 3U) << dump();
    EXPECT_THAT(lines[0],
                AllOf(HasSubstr("\"dataset\":\"LEDGER\""), HasSubstr("\"table\":\"load.ledger\"")));
    EXPECT_THAT(lines[1], AllOf(HasSubstr("\"dataset\":\"A"), HasSubstr("\"table\":\"load.a,b\"")));
    EXPECT_THAT(lines[2],
                AllOf(HasSubstr("\"dataset\":null"), HasSubstr("\"table\":\"load.gone\"")));
}

// As far as the server has sent its changes, or all of them where it can.
TEST_F(BridgeSkipTest, TablesThatAreNotNamedHaveTheirMarkToo)
{
    sql("CREATE TABLE load.\"a,b\" (id integer PRIMARY KEY);"
        "CREATE TABLE load.left_out (id integer PRIMARY KEY)");
    configure(std::string(ledger_cfg) + "values mark\nskip-table load.left_out\n");
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("BEGIN; TRUNCATE load.\"a,b\"; INSERT INTO load.left_out VALUES (1);"
        "INSERT INTO load.ledger VALUES (100, 0, 1, 'before', NULL);"
        "INSERT INTO odd.words VALUES (1, '5'); COMMIT");
    insert(2);
    const std::string lsn = fail_at_it();
    const run_result skipped =
        catch_up({"--skip-transaction", lsn + ",odd.words,load.\"no,where\""});
    EXPECT_EQ(skipped.status, 0) << skipped.err;
    EXPECT_THAT(skipped.err,
                AllOf(HasSubstr(" for the tables that were named, and for load.\"a,b\", which it "
                                "changed, too, and for load.ledger, which it changed, too\n"),
                      HasSubstr("the publication has no table load.\"no,where\", whose gap")));
    EXPECT_TRUE(has_row(2));
    EXPECT_FALSE(has_row(100));
    ASSERT_EQ(gaps().size(), 4U) << dump();
    for (const char *table : {"odd.words", "load.no,where", "load.a,b", "load.ledger"})
        EXPECT_THAT(gaps(),
                    testing::Contains(HasSubstr(std::string("\"table\":\"") + table + '"')));

    // One that the server could send: it is the user's word.  A slot's twin tells its position.
    const std::string log = dir.file("log");
    std::filesystem::copy(log, dir.file("before"), std::filesystem::copy_options::recursive);
    sql("SELECT pg_copy_logical_replication_slot('" + database + "', 'twin')");
    sql("BEGIN; INSERT INTO load.ledger VALUES (3, 0, 1, 'row', NULL);"
        "INSERT INTO load.\"a,b\" VALUES (3); COMMIT");
    insert(4);
    ASSERT_EQ(catch_up({"--slot", "twin", "--accept-gap"}).status, 0);
    const std::string out = fwlog({"tail", "--json"}).out;
    const std::string sent = json_member(out.substr(out.find("\"ID\":3")), "lsn");
    std::filesystem::remove_all(log);
    std::filesystem::rename(dir.file("before"), log);
    const run_result result = catch_up({"--skip-transaction", sent + ",load.ledger"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err,
                HasSubstr(" for the tables that were named, and for load.\"a,b\", which "
                          "it changed, too\n"));
    EXPECT_FALSE(has_row(3));
    EXPECT_TRUE(has_row(4));
    EXPECT_EQ(gaps().size(), 6U);
}

TEST_F(BridgeSkipTest, ARunThatGoesOnFollowsWithoutABreak)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    commit_the_unsendable();
    insert(2);
    const std::string lsn = fail_at_it();
    start_bridge({"--skip-transaction", lsn});
    ASSERT_NO_FATAL_FAILURE(wait_for_row(2));
    insert(3);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(3));
    // The next one that cannot be sent is another transaction.
    sql("DELETE FROM load.ledger WHERE id >= 100; DELETE FROM odd.words");
    commit_the_unsendable();
    EXPECT_EQ(bridge.wait(), 1) << bridge.err();
    EXPECT_GT(number(suggested(bridge.err())), number(lsn));
}

// What was killed behind the mark goes on behind it, without the option.
TEST_F(BridgeSkipTest, TheMarkIsAllThatIsToBeKept)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    commit_the_unsendable();
    insert(2);
    const std::string lsn = fail_at_it();
    start_bridge({"--skip-transaction", lsn});
    ASSERT_TRUE(bridge_says(" is skipped; "));
    bridge.end(SIGKILL);
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_TRUE(has_row(2));
    EXPECT_EQ(gaps().size(), 1U);
}

TEST_F(BridgeSkipTest, APositionWhereNothingCommitsLosesNothing)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    const std::string lsn = value("SELECT pg_current_wal_insert_lsn()");
    insert(1);
    insert(2);
    const run_result result = catch_up({"--skip-transaction", lsn});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(occurrences(result.err, "warning: --skip-transaction " + lsn +
                                          ": no transaction of the tables that are followed "
                                          "commits there, nothing is skipped"),
              1)
        << result.err;
    EXPECT_TRUE(has_row(1));
    EXPECT_TRUE(has_row(2));
    EXPECT_EQ(gaps().size(), 0U);
    expect_log_equals_tables();
}

// It is the user's word: one that the server could send is passed over, too.
TEST_F(BridgeSkipTest, ATransactionThatCouldBeSent)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    const std::string log = dir.file("log");
    std::filesystem::copy(log, dir.file("before"), std::filesystem::copy_options::recursive);
    // A server tells no commit's position: a slot's twin gets the transaction first.
    sql("SELECT pg_copy_logical_replication_slot('" + database + "', 'twin')");
    insert(1);
    insert(2);
    insert(3);
    ASSERT_EQ(catch_up({"--slot", "twin", "--accept-gap"}).status, 0);
    const std::string out = fwlog({"tail", "--json"}).out;
    const std::string lsn = json_member(out.substr(out.find("\"ID\":2")), "lsn");
    std::filesystem::remove_all(log);
    std::filesystem::rename(dir.file("before"), log);

    const run_result result = catch_up({"--skip-transaction", lsn});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(has_row(1));
    EXPECT_FALSE(has_row(2));
    EXPECT_TRUE(has_row(3));
    EXPECT_EQ(gaps().size(), 1U);
}

// A publication's row filter fails before the server has begun to send the transaction, which is
// told with its position all the same.  Only the one that is named is passed over.
class BridgeUnbegunTest : public BridgeSkipTest {
  protected:
    void SetUp() override
    {
        BridgeSkipTest::SetUp();
        if (server == nullptr)
            return;
        if (server_version() < 15)
            GTEST_SKIP() << "row filters are there from version 15 on";
        sql("CREATE TABLE load.others (id bigint PRIMARY KEY, word text);"
            "CREATE PUBLICATION " +
            database + " FOR TABLE load.ledger WHERE (100 / client > 0 OR id < 0), load.others");
        ASSERT_EQ(catch_up({"--create"}).status, 0);
    }

    // Its filter fails for this one (client 0).
    void commit_unbegun(int id) const
    {
        sql("INSERT INTO load.others VALUES (" + std::to_string(id) + ", 'with it')");
        insert(id);
        sql("INSERT INTO load.others VALUES (-" + std::to_string(id) + ", 'behind it')");
    }

    static std::string fails(const run_result &failed)
    {
        EXPECT_EQ(failed.status, 1) << failed.err;
        EXPECT_THAT(failed.err,
                    ContainsRegex("following the server, at [0-9A-F]+/[0-9A-F]+ in a transaction "
                                  "that it has not begun to send, and that commits at "
                                  "[0-9A-F]+/[0-9A-F]+: division by zero; if that cannot be "
                                  "mended on the server, pass the transaction over with "));
        return suggested(failed.err);
    }
};

TEST_F(BridgeUnbegunTest, NothingButTheNamedTransactionIsPassedOver)
{
    commit_unbegun(1);
    commit_unbegun(2);
    const std::string first = fails(catch_up());
    const run_result other = catch_up({"--skip-transaction", first});
    const std::string second = fails(other);
    EXPECT_THAT(other.err, HasSubstr("the transaction of " + first + " is skipped; "));
    EXPECT_GT(number(second), number(first));
    EXPECT_TRUE(logged("after ID=-1 "));
    EXPECT_EQ(gaps().size(), 1U);
    EXPECT_EQ(fails(catch_up()), second) << "again without the option";

    commit_unbegun(3);
    const std::string third = fails(catch_up({"--skip-transaction", second}));
    commit_unbegun(4);
    // One in front of it fails: nothing is passed over, and that one is told.
    EXPECT_EQ(fails(catch_up({"--skip-transaction", fwu_lsn_text(number(third) + 8)})), third);
    const run_result last = catch_up({"--skip-transaction", third + ",load.ledger,load.no"});
    EXPECT_THAT(last.err, HasSubstr("the publication has no table load.no"));
    const std::string fourth = fails(last);
    const run_result done = catch_up({"--skip-transaction", third, "--skip-transaction", fourth});
    EXPECT_EQ(done.status, 0) << done.err;
    for (const int id : {1, 2, 3, 4}) {
        EXPECT_TRUE(has_row(id)) << "of the other table";
        EXPECT_TRUE(has_row(-id));
    }
    EXPECT_EQ(gaps().size(), 5U) << dump();
}

// Far in front of the one that is named: the server is not taken at its word.
TEST_F(BridgeUnbegunTest, AFailureInFrontOfTheNamedTransaction)
{
    commit_unbegun(1);
    sql("INSERT INTO load.others VALUES (50, 'between')");
    const std::string beyond = value("SELECT pg_current_wal_insert_lsn()");
    commit_unbegun(2);
    const std::string first = fails(catch_up({"--skip-transaction", beyond}));
    EXPECT_LT(number(first), number(beyond));
    EXPECT_EQ(gaps().size(), 0U);
    // Both, in any order, and nothing else.
    const std::string second = fails(catch_up({"--skip-transaction", first}));
    EXPECT_TRUE(has_row(50));
    const run_result done = catch_up({"--skip-transaction", second, "--skip-transaction", first});
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_TRUE(has_row(-2));
    EXPECT_EQ(gaps().size(), 2U);
}

// The server says something else when it is asked again: the same command finds it later.
TEST_F(BridgeUnbegunTest, ACommitThatIsNotFoundIsLookedForAgain)
{
    commit_unbegun(1);
    pg_proxy proxy(server->socket());
    proxy.change_behind("pg_logical_slot_peek_binary_changes", "division by zero",
                        "division by nine");
    const std::vector<std::string> by_proxy = {"--conninfo", proxy.conninfo(database)};
    const run_result not_found = catch_up(by_proxy);
    EXPECT_TRUE(proxy.happened());
    EXPECT_EQ(not_found.status, 1) << not_found.err;
    EXPECT_THAT(not_found.err,
                HasSubstr(" in a transaction that it has not begun to send: division by zero; "
                          "where that commits was not found, so that nothing can be passed over: "
                          "the server says division by nine\n"));
    const run_result done = catch_up({"--skip-transaction", fails(catch_up(by_proxy))});
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_TRUE(has_row(-1));
}

// Somebody else has the slot for a while: 55006 instead of 22012. The pauses before the fifth
// attempt are a second and a half, those before the sixth three.
TEST_F(BridgeUnbegunTest, ACommitThatTakesTooLongToBeFoundGetsMoreTime)
{
    commit_unbegun(1);
    pg_proxy proxy(server->socket());
    const auto run_through = [&](const char *seconds, int refusals) {
        proxy.change_behind("pg_logical_slot_peek_binary_changes", "22012", "55006", refusals);
        return catch_up({"--conninfo", proxy.conninfo(database), "--timeout", seconds});
    };
    const run_result not_found = run_through("2", 1000);
    EXPECT_EQ(not_found.status, 1) << not_found.err;
    EXPECT_THAT(not_found.err, HasSubstr("where that commits was not found, so that nothing can be "
                                         "passed over: it takes too long; give it more time with "
                                         "--timeout\n"));
    const std::string lsn = fails(run_through("120", 5));
    EXPECT_TRUE(proxy.happened());
    const run_result done = catch_up({"--skip-transaction", lsn});
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_TRUE(has_row(1));
    EXPECT_TRUE(has_row(-1));
}

// Savepoints, exception blocks and prepared transactions commit as others do, wherever in the
// server's log that is.
TEST_F(BridgeUnbegunTest, AnyKindOfTransaction)
{
    const std::string row = "INSERT INTO load.ledger VALUES (1, 0, 1, 'row', NULL);";
    int id = 100;
    std::vector<std::string> kinds = {"BEGIN; SAVEPOINT a; " + row + " RELEASE a; COMMIT",
                                      "DO $$ BEGIN " + row +
                                          " EXCEPTION WHEN OTHERS THEN NULL; END $$"};
    if (value("SHOW max_prepared_transactions") != "0")
        kinds.push_back("BEGIN; " + row + " PREPARE TRANSACTION 'p'; COMMIT PREPARED 'p'");
    for (const std::string &kind : kinds) {
        sql("TRUNCATE load.ledger");
        sql("SELECT pg_logical_emit_message(false, 'x', repeat('x', 8192 - " + std::to_string(id) +
            "))");
        sql(kind);
        sql("INSERT INTO load.others VALUES (" + std::to_string(++id) + ", 'behind it')");
        const run_result done = catch_up({"--skip-transaction", fails(catch_up())});
        EXPECT_EQ(done.status, 0) << done.err;
        EXPECT_TRUE(has_row(id));
    }
    EXPECT_EQ(gaps().size(), kinds.size());
}

TEST_F(BridgeSkipTest, APositionThatNeverCameIsTold)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1);
    const run_result result = catch_up({"--skip-transaction", "FFFF/0"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err,
                AllOf(HasSubstr("warning: --skip-transaction FFFF/0: the server's log goes up to "),
                      HasSubstr("warning: --skip-transaction FFFF/0: the run has ended before that "
                                "position came, nothing is skipped")));
    EXPECT_TRUE(has_row(1));
}

TEST_F(BridgeSkipTest, APositionThatARunDoesNotComeToBeforeAnErrorIsTold)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    commit_the_unsendable();
    const run_result result = catch_up({"--skip-transaction", "FFFF/0"});
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_THAT(result.err, HasSubstr("warning: --skip-transaction FFFF/0: the run has ended "
                                      "before that position came, nothing is skipped"));
}

TEST_F(BridgeSkipTest, WrongCommandLines)
{
    for (const char *word : {"", "x", "0/0", "0/1,", "0/1,,load.ledger", "0/1,ledger",
                             "0/1,load.ledger.id", "0/1,load.\"ledger", "1", "0/1 load.ledger"}) {
        const run_result result = run_bridge({"--skip-transaction", word});
        EXPECT_EQ(result.status, 2) << word << ": " << result.err;
    }
}
