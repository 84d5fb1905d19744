// "fwlog postgresql" and transactions that the server itself cannot send: each is told with the
// option that passes over it, which is carried out as it stands there; all others come.
#include "fwutil/fwu_start.h"
#include "tests/postgresql/bridge_fixture.h"

#include <regex>
#include <unistd.h>

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

// A publication's row filter fails before the server has begun to send the transaction.
TEST_F(BridgeSkipTest, AFailureBeforeTheBeginIsFoundByThePositionOfItsChange)
{
    if (value("SHOW server_version_num") < "150000")
        GTEST_SKIP() << "row filters are there from version 15 on";
    const std::string waldump = pg_server::programs() + "/pg_waldump";
    if (access(waldump.c_str(), X_OK) != 0)
        GTEST_SKIP() << "the server comes without pg_waldump, which has to be of its version";
    sql("CREATE PUBLICATION " + database +
        " FOR TABLE load.ledger WHERE (100 / client > 0 OR id < 0)");
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO load.ledger VALUES (1, 1, 1, 'row', NULL)");
    insert(2); // client 0
    sql("INSERT INTO load.ledger VALUES (3, 1, 1, 'row', NULL)");
    const run_result failed = catch_up();
    EXPECT_EQ(failed.status, 1);
    EXPECT_TRUE(has_row(1));
    std::smatch found;
    static const std::regex text("following the server, at ([0-9A-F]+/[0-9A-F]+) in a transaction "
                                 "that it has not begun to send: division by zero; if that cannot "
                                 "be mended on the server, find the position where the "
                                 "transaction with the change at ([0-9A-F]+/[0-9A-F]+) commits");
    ASSERT_TRUE(std::regex_search(failed.err, found, text)) << failed.err;
    const std::string at = found.str(1);
    EXPECT_EQ(found.str(2), at);

    // The remedy: the change's transaction, and its commit.
    const std::string wal = value("SHOW data_directory") + "/pg_wal";
    const run_result change = run_program({waldump, "-p", wal, "-s", at, "-n", "1"});
    ASSERT_EQ(change.status, 0) << change.err;
    ASSERT_TRUE(std::regex_search(change.out, found, std::regex("tx: +([0-9]+)"))) << change.out;
    const std::string xid = found.str(1);
    const run_result commit = run_program({waldump, "-p", wal, "-s", at, "-x", xid});
    ASSERT_TRUE(
        std::regex_search(commit.out, found, std::regex("lsn: ([0-9A-F/]+),[^\n]*desc: COMMIT")))
        << commit.out << commit.err;
    const std::string lsn = found.str(1);
    EXPECT_GT(number(lsn), number(at));

    const run_result skipped = catch_up({"--skip-transaction", lsn + ",load.ledger"});
    EXPECT_EQ(skipped.status, 0) << skipped.err;
    EXPECT_THAT(skipped.err, ContainsRegex("the transaction of [0-9A-F]+/[0-9A-F]+ is skipped; "));
    EXPECT_TRUE(has_row(3));
    EXPECT_FALSE(has_row(2));
    EXPECT_EQ(gaps().size(), 1U);
}

TEST_F(BridgeSkipTest, WrongCommandLines)
{
    for (const char *word : {"", "x", "0/0", "0/1,", "0/1,,load.ledger", "0/1,ledger",
                             "0/1,load.ledger.id", "0/1,load.\"ledger", "1", "0/1 load.ledger"}) {
        const run_result result = run_bridge({"--skip-transaction", word});
        EXPECT_EQ(result.status, 2) << word << ": " << result.err;
    }
}
