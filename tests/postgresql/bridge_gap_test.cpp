// Where "fwlog postgresql" cannot go on without a gap: it says so, and the log stays
// as it is.
#include "tests/postgresql/bridge_fixture.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

class BridgeGapTest : public LedgerTest {
  protected:
    void begin_with(int id) const
    {
        ASSERT_EQ(catch_up({"--create"}).status, 0);
        insert(id);
        ASSERT_EQ(catch_up().status, 0);
    }

    // The ids inserted in the log, "1 2 ".
    std::string logged_ids() const
    {
        std::string ids;
        const std::string text = dump();
        for (size_t at = 0; (at = text.find("after ID=", at)) != std::string::npos;) {
            at += 9;
            ids += text.substr(at, text.find(' ', at) - at) + " ";
        }
        return ids;
    }

    void expect_refused(const std::vector<std::string> &texts,
                        const std::vector<std::string> &more = {}) const
    {
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 1) << result.err;
        for (const std::string &text : texts)
            EXPECT_THAT(result.err, HasSubstr(text));
    }

    void save_server() const
    {
        server->stop();
        server->save();
        server->start();
    }

    void make_slot() const
    {
        sql("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
    }
    void drop_slot() const
    {
        sql("SELECT pg_drop_replication_slot('" + database + "')");
    }
};

TEST_F(BridgeGapTest, SlotMadeAnewByHand)
{
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    drop_slot();
    insert(2);
    make_slot();
    insert(3);
    expect_refused({"slot \"" + database + "\" stands at ", "--accept-gap"});
    EXPECT_EQ(logged_ids(), "1 ");
    const run_result result = catch_up({"--accept-gap"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(logged_ids(), "1 3 ");
    insert(4);
    EXPECT_EQ(catch_up().status, 0) << "the gap is behind it";
    EXPECT_EQ(logged_ids(), "1 3 4 ");
}

TEST_F(BridgeGapTest, SlotMadeAnewBeforeAnythingWasLogged)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    drop_slot();
    insert(1);
    expect_refused({"slot \"" + database + "\" is not there, and the log goes up to "},
                   {"--create"});
    make_slot();
    expect_refused({"stands at "}, {"--create"});
}

TEST_F(BridgeGapTest, SlotThatAnotherLogUses)
{
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    std::filesystem::create_directory(dir.file("other"));
    std::filesystem::copy_file(dir.file("fwutil.cfg"), dir.file("other/fwutil.cfg"));
    insert(2);
    expect_refused({"the log directory knows nothing of it"}, {"-cfg", "other/fwutil.cfg"});
    EXPECT_EQ(logged_ids(), "1 ");
    const run_result other = catch_up({"-cfg", "other/fwutil.cfg", "--accept-gap"});
    EXPECT_EQ(other.status, 0) << other.err; // an empty log begins where the slot is
    const std::string marked = "for all tables: slot \"" + database +
                               "\" was there before the log, and what it gave to others is missing";
    EXPECT_THAT(other.err, HasSubstr(marked));
    const run_result again = catch_up({"-cfg", "other/fwutil.cfg", "--accept-gap"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_THAT(again.err, Not(HasSubstr("gap mark"))) << "once";
    expect_refused({"stands at "});
    EXPECT_EQ(logged_ids(), "1 ");
}

TEST_F(BridgeGapTest, StateThatIsLostCannotTellThatNothingIsMissing)
{
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    std::filesystem::remove(dir.file("log/source"));
    std::filesystem::remove(dir.file("log/postgresql.json"));
    expect_refused({"stands at "});
    EXPECT_EQ(catch_up({"--accept-gap"}).status, 0);
    insert(2);
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_EQ(logged_ids(), "1 2 ");
}

TEST_F(BridgeGapTest, ServerSetBackBehindTheLog)
{
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    save_server();
    for (int id = 2; id < 5; id++)
        insert(id);
    ASSERT_EQ(catch_up().status, 0);
    server->stop();
    server->set_back();
    server->start();
    expect_refused({"the log goes up to ", ", the server only to "});
    EXPECT_EQ(logged_ids(), "1 2 3 4 ");
}

TEST_F(BridgeGapTest, ServerSetBackThatHasGrownPastTheLog)
{
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    save_server();
    insert(2);
    ASSERT_EQ(catch_up().status, 0);
    server->stop();
    server->set_back();
    server->start();
    for (int id = 3; id < 30; id++)
        insert(id);
    expect_refused({"the server does not have transaction ", "the last one in the log"});
    EXPECT_EQ(logged_ids(), "1 2 ");
    const run_result accepted = catch_up({"--accept-gap"});
    EXPECT_EQ(accepted.status, 0) << accepted.err;
    EXPECT_EQ(occurrences(accepted.err, "for all tables: the server does not have transaction "), 1)
        << accepted.err;
    EXPECT_EQ(occurrences(fwlog({"dump"}).out, "the server does not have transaction "), 1);
    EXPECT_TRUE(logged("after ID=29 "));
    EXPECT_EQ(catch_up().status, 0) << "the gap is behind it";
}

// The log ends with a piece of its own, in front of which stands what the server lacks.
TEST_F(BridgeGapTest, ServerSetBackBehindALogThatEndsWithItsOwn)
{
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    save_server();
    insert(2);
    ASSERT_EQ(catch_up().status, 0) << "before a piece has it";
    ASSERT_EQ(catch_up({"--resume", "load.ledger"}).status, 0);
    ASSERT_EQ(catch_up({"--resume", "load.ledger"}).status, 0) << "two of its own";
    EXPECT_THAT(read_file(dir.file("log/aside")), HasSubstr("\nsent "));
    server->stop();
    server->set_back();
    server->start();
    for (int id = 3; id < 30; id++)
        insert(id);
    sql("SELECT pg_switch_wal()");
    insert(30);
    expect_refused({"the server does not have transaction ", "the last one in the log"});
    EXPECT_EQ(catch_up({"--accept-gap"}).status, 0);
    EXPECT_EQ(catch_up().status, 0) << "the gap is behind it";
    EXPECT_TRUE(logged("after ID=30 "));
}

// The same of a server that has all of it: a copy of the log goes on with the slot of before.
TEST_F(BridgeGapTest, ALogThatEndsWithItsOwnGoesOn)
{
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    sql("SELECT pg_copy_logical_replication_slot('" + database + "', '" + database + "_kept')");
    insert(2);
    ASSERT_EQ(catch_up({"--resume", "load.ledger"}).status, 0);
    drop_slot();
    sql("SELECT pg_copy_logical_replication_slot('" + database + "_kept', '" + database +
        "');"
        "SELECT pg_drop_replication_slot('" +
        database + "_kept')");
    const std::string before = dump();
    ASSERT_EQ(catch_up().status, 0);
    EXPECT_EQ(dump(), before) << "what comes again";
    insert(3);
    ASSERT_EQ(catch_up().status, 0);
    EXPECT_TRUE(logged("after ID=3 "));
}

TEST_F(BridgeGapTest, LastTransactionThatComesAgainIsNotLoggedAgain)
{
    // Killed before the server was told of the commit.
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    start_bridge();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    insert(2);
    ASSERT_TRUE(poll_until([&] { return logged("after ID=2 "); }));
    bridge.end(SIGKILL);
    insert(3);
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(logged_ids(), "1 2 3 ");
}

TEST_F(BridgeGapTest, TellsTheServerNothingBeforeItIsOnDisk)
{
    configure(std::string("sync interval 3600000\n") + ledger_cfg);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    start_bridge();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    insert(1);
    ASSERT_TRUE(poll_until([&] { return logged("after ID=1 "); }));
    const std::string position = value("SELECT pg_current_wal_lsn()");
    insert(2);
    ASSERT_TRUE(poll_until([&] { return logged("after ID=2 "); }));
    ASSERT_TRUE(poll_until([&] { return status_member("transactions") == "2"; }));
    EXPECT_EQ(value("SELECT confirmed_flush_lsn < '" + position +
                    "' FROM pg_replication_slots WHERE slot_name = '" + database + "'"),
              "t");
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
}

TEST_F(BridgeGapTest, SnapshotOfOneSlotDoesNotDropAnother)
{
    for (int id = 1; id < 3; id++)
        insert(id);
    sql("CREATE PUBLICATION " + database + " FOR ALL TABLES");
    std::filesystem::create_directory(dir.file("log"));
    write_file(dir.file("log/postgresql.json"),
               "{\"slot\":\"mine\",\"snapshot\":\"begun\",\"told_lsn\":\"0/0\"}\n");
    make_slot();
    expect_refused({"slot \"" + database + "\" is there already"}, {"--create", "--snapshot"});
    EXPECT_EQ(
        value("SELECT count(*) FROM pg_replication_slots WHERE slot_name = '" + database + "'"),
        "1");
}

// A version that took the snapshot as one transaction left it so.
TEST_F(BridgeGapTest, SnapshotCutShortIsNotForgotten)
{
    sql("CREATE PUBLICATION " + database + " FOR ALL TABLES");
    insert(1);
    make_slot();
    std::filesystem::create_directory(dir.file("log"));
    write_file(dir.file("log/postgresql.json"),
               "{\"slot\":\"" + database + "\",\"snapshot\":\"begun\",\"told_lsn\":\"0/0\"}\n");
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(logged_ids(), "1 ");
    EXPECT_EQ(status_member("snapshot"), "done");
}

TEST_F(BridgeGapTest, SnapshotOfASlotThatIsThere)
{
    insert(1);
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    EXPECT_EQ(logged_ids(), "");
    EXPECT_EQ(catch_up({"--snapshot"}).status, 0);
    EXPECT_EQ(logged_ids(), "1 ");
    insert(2);
    EXPECT_EQ(catch_up({"--snapshot"}).status, 0);
    EXPECT_EQ(logged_ids(), "1 2 ");
}

TEST_F(BridgeGapTest, TableWhoseRowsAreRefusedIsSetAside)
{
    insert(1);
    sql("CREATE TABLE load.notes (id integer PRIMARY KEY, note text);"
        "ALTER TABLE load.notes REPLICA IDENTITY FULL; INSERT INTO load.notes VALUES (1, 'long')");
    configure(std::string("column load.notes.note width=2\n") + ledger_cfg);
    const run_result result = catch_up({"--create", "--snapshot"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("load.notes.note: \"long\" is 4 bytes long"));
    EXPECT_THAT(result.err, HasSubstr("table load.notes is set aside"));
    EXPECT_EQ(logged_ids(), "1 ");
    EXPECT_EQ(occurrences(dump(), " gap LOAD.NOTES "), 1) << dump();
}

TEST_F(BridgeGapTest, RefusedPublicationIsNotLeftOnTheServer)
{
    sql("CREATE TABLE load.keyed (a integer PRIMARY KEY); CREATE TABLE load.plain (b integer)");
    expect_refused({"ALTER TABLE load.keyed REPLICA IDENTITY FULL;"}, {"--create"});
    EXPECT_EQ(value("SELECT count(*) FROM pg_publication"), "0");
    EXPECT_EQ(value("SELECT count(*) FROM pg_event_trigger"), "0");
    EXPECT_EQ(value("SELECT relreplident FROM pg_class WHERE relname = 'plain'"), "d");
}

TEST_F(BridgeGapTest, TableOfRowsHiddenFromTheRoleIsSetAside)
{
    const std::string role = database + "_limited";
    insert(1);
    sql("CREATE ROLE " + role + " LOGIN REPLICATION; CREATE PUBLICATION " + database +
        " FOR ALL TABLES; GRANT USAGE ON SCHEMA load TO " + role +
        "; GRANT SELECT ON load.ledger TO " + role +
        "; ALTER TABLE load.ledger ENABLE ROW LEVEL SECURITY;"
        "CREATE POLICY upper_ids ON load.ledger USING (id > 1)");
    const run_result result = catch_up({"--conninfo", conninfo(role), "--create", "--snapshot"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("table load.ledger is set aside"));
    EXPECT_THAT(result.err, HasSubstr("row-level security"));
    EXPECT_EQ(logged_ids(), "");
    sql("DROP OWNED BY " + role);
}

TEST_F(BridgeGapTest, FirstRunWithAWrongDatabaseDoesNotBindTheLog)
{
    EXPECT_EQ(catch_up({"--conninfo", server->conninfo()}).status, 1);
    const run_result result = catch_up({"--create"});
    EXPECT_EQ(result.status, 0) << result.err;
}

TEST_F(BridgeGapTest, TimelineThatLeftBeforeTheLogsEnd)
{
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    save_server();
    insert(2);
    ASSERT_EQ(catch_up().status, 0);
    server->stop();
    server->set_back();
    server->start_standby();
    server->promote();
    for (int id = 3; id < 30; id++)
        insert(id);
    for (int tries = 0; tries < 2; tries++)
        expect_refused({"the server's timeline 2 has left timeline 1 before the log's end"});
    EXPECT_EQ(logged_ids(), "1 2 ");
    EXPECT_EQ(catch_up({"--accept-gap"}).status, 0);
    EXPECT_EQ(catch_up().status, 0);
}

TEST_F(BridgeGapTest, TimelineThatGoesOnFromTheLogIsFollowed)
{
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    server->stop();
    server->start_standby();
    server->promote();
    // A slot does not go over to a server that was promoted.
    if (value("SELECT count(*) FROM pg_replication_slots WHERE slot_name = '" + database + "'") ==
        "0")
        make_slot();
    insert(2);
    const run_result result = catch_up({"--accept-gap"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(logged_ids(), "1 2 ");
}

TEST_F(BridgeGapTest, StandbyIsWaitedForUntilItTakesOver)
{
    ASSERT_NO_FATAL_FAILURE(begin_with(1));
    ASSERT_NO_FATAL_FAILURE(begin_following());
    server->stop();
    server->start_standby();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "waiting"; })) << bridge.err();
    EXPECT_TRUE(bridge.running());
    server->promote();
    insert(2);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(2));
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(logged_ids(), "1 2 ");
}

TEST_F(BridgeGapTest, LagTellsWhatWaitsOnTheServer)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    start_bridge();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    // Sent at its commit only.
    pg_client open(conninfo());
    open.run("BEGIN; INSERT INTO load.ledger SELECT g, 0, 1, 'row', NULL"
             " FROM generate_series(1, 20000) g");
    sql("SELECT pg_switch_wal()"); // brings the open transaction's records to disk
    bridge.signal(SIGUSR1);
    ASSERT_TRUE(bridge_says(" bytes and "));
    const std::string text = bridge.err();
    const size_t at = text.find(" bytes and ");
    const size_t begin = text.rfind(' ', at - 1) + 1;
    EXPECT_GT(atol(text.c_str() + begin), 1'000'000) << text;
    open.run("COMMIT");
}

// ---- tables that the publication has no more

class BridgeLackingTest : public LedgerTest {
  protected:
    // The gap marks of the log, "TABLE: reason" each.
    std::string gaps() const
    {
        std::istringstream in(fwlog({"dump", "--json"}).out);
        std::string lines;
        for (std::string line; std::getline(in, line);)
            if (json_member(line, "op") == "g")
                lines += json_member(line, "table") + ": " + json_member(line, "reason") + "\n";
        return lines;
    }

    std::string catch_up_well(const std::vector<std::string> &more = {}) const
    {
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.err;
    }

    // Taken out, told once, and back with what the warning says.
    void expect_told(const std::string &out, const std::string &reason, const std::string &mends)
    {
        insert(1);
        EXPECT_THAT(catch_up_well(), Not(HasSubstr("warning")));
        sql(out);
        insert(2);
        EXPECT_THAT(catch_up_well(),
                    EndsWith("fwlog: warning: table load.ledger is not followed any more: " +
                             reason + ", and the log has a gap mark; to follow it again, " + mends +
                             ", then fwlog postgresql --resume load.ledger\n"));
        EXPECT_EQ(gaps(), "load.ledger: " + reason + "\n");
        EXPECT_THAT(catch_up_well(), Not(HasSubstr("not followed any more"))) << "once";
        EXPECT_EQ(gaps(), "load.ledger: " + reason + "\n");
        EXPECT_EQ(catch_up({"--resume", "load.ledger"}).status, 1);
        sql(mends);
        insert(3);
        EXPECT_EQ(catch_up_well(), "fwlog: warning: table load.ledger is followed again: what was "
                                   "changed in between is missing; to have it right, fwlog "
                                   "postgresql --resume load.ledger\n");
        EXPECT_TRUE(logged("after ID=3 "));
        EXPECT_FALSE(logged("after ID=2 "));
        catch_up_well({"--resume", "load.ledger"});
        EXPECT_TRUE(logged("after ID=2 "));
        EXPECT_EQ(gaps(), "load.ledger: " + reason + "\n");
    }
};

TEST_F(BridgeLackingTest, TakenOutOfThePublication)
{
    sql("CREATE TABLE load.other (id integer PRIMARY KEY);"
        "ALTER TABLE load.other REPLICA IDENTITY FULL;"
        "CREATE PUBLICATION " +
        database + " FOR TABLE load.other, load.ledger");
    catch_up_well({"--create"});
    const std::string alter = "ALTER PUBLICATION \"" + database + "\" ";
    expect_told(alter + "DROP TABLE load.ledger", "the publication lacks it",
                alter + "ADD TABLE \"load\".\"ledger\"");
    // Another time it is another gap.
    sql(alter + "DROP TABLE load.ledger");
    catch_up_well();
    EXPECT_EQ(occurrences(gaps(), "the publication lacks it"), 2) << gaps();
    // Nor is anything to be told of one that is dropped then.
    sql("DROP TABLE load.ledger");
    EXPECT_EQ(catch_up_well(), "");
    EXPECT_EQ(catch_up_well(), "");
}

TEST_F(BridgeLackingTest, UnloggedByNow)
{
    catch_up_well({"--create"});
    expect_told("ALTER TABLE load.ledger SET UNLOGGED", "it is unlogged",
                "ALTER TABLE \"load\".\"ledger\" SET LOGGED");
}

TEST_F(BridgeLackingTest, ARunningBridgeSeesIt)
{
    ASSERT_NO_FATAL_FAILURE(begin_following());
    insert(1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    sql("ALTER TABLE load.ledger SET UNLOGGED");
    ASSERT_TRUE(bridge_says("table load.ledger is not followed any more: it is unlogged"))
        << bridge.err();
    EXPECT_TRUE(poll_until([&] { return logged("it is unlogged"); }));
    bridge.end(SIGKILL);
    catch_up_well();
    EXPECT_EQ(gaps(), "load.ledger: it is unlogged\n");
}

// What is left out or dropped needs none.
TEST_F(BridgeLackingTest, WhatIsNoGapOfItsOwn)
{
    sql("CREATE TABLE load.other (id integer PRIMARY KEY);"
        "ALTER TABLE load.other REPLICA IDENTITY FULL;"
        "CREATE PUBLICATION " +
        database + " FOR TABLE load.other, load.ledger");
    catch_up_well({"--create"});
    insert(1);
    catch_up_well();
    configure(std::string(ledger_cfg) + "skip-table load.ledger\n");
    catch_up_well();
    sql("ALTER PUBLICATION " + database + " DROP TABLE load.ledger; DROP TABLE load.other");
    catch_up_well();
    EXPECT_EQ(gaps(), "");
}
