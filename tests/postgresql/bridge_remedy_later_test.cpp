// What comes up later, when there is a log that goes on, and its remedies.
#include "tests/postgresql/remedy.h"

#include <sys/stat.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::Not;

class BridgeRemedyLaterTest : public RemedyTest {
  protected:
    // Another log directory, which begins anew: the slot of the one before is in its way.
    void expect_another_log_runs() const
    {
        write_file(dir.file("fwutil.cfg"),
                   std::string("log-directory another\nbyte-order little\n") + ledger_cfg);
        const std::string told =
            refused({"--create", "--snapshot"},
                    "is there already, and the log directory knows nothing of it");
        sql(found_in(told, "drop it \\((SELECT pg_drop_replication_slot\\('[^']*'\\))\\)"));
        expect_runs({"--create", "--snapshot"});
        expect_log_equals_tables();
    }

    // A table whose updates lack what they need, under the policy error.
    void set_keyed_aside() const
    {
        configure(std::string("values error\n") + ledger_cfg);
        ASSERT_EQ(catch_up({"--create"}).status, 0);
        sql("CREATE TABLE load.keyed (id integer PRIMARY KEY, note varchar(9));"
            "INSERT INTO load.keyed VALUES (1, 'one'); UPDATE load.keyed SET note = 'two'");
        const run_result told = catch_up();
        EXPECT_EQ(told.status, 0) << told.err;
        EXPECT_THAT(told.err, HasSubstr("the change comes without the whole old row"));
        EXPECT_THAT(told.err, HasSubstr("then fwlog postgresql --resume load.keyed\n"));
    }

    void expect_keyed_is_followed() const
    {
        const run_result resumed = catch_up({"--resume", "load.keyed"});
        EXPECT_EQ(resumed.status, 0) << resumed.err;
        EXPECT_TRUE(logged("after ID=1 NOTE=\"two\""));
        sql("UPDATE load.keyed SET note = 'three'");
        EXPECT_EQ(catch_up().status, 0);
        EXPECT_TRUE(logged("NOTE=\"three\""));
        EXPECT_EQ(status_member("aside"), "[]");
        expect_runs({});
    }
};

TEST_F(BridgeRemedyLaterTest, SlotThatIsLeftForAnotherOneIsDropped)
{
    expect_runs({"--create"});
    const run_result gone_over = catch_up({"--slot", "newer", "--create", "--accept-gap"});
    EXPECT_EQ(gone_over.status, 0) << gone_over.err;
    EXPECT_THAT(gone_over.err, HasSubstr("the log follows slot \"" + database +
                                         "\" no more, which stays on the server"));
    sql(found_in(gone_over.err, "(SELECT pg_drop_replication_slot\\('[^']*'\\))"));
    EXPECT_EQ(value("SELECT string_agg(slot_name, ' ') FROM pg_replication_slots"), "newer");
    expect_runs({"--slot", "newer"});
}

TEST_F(BridgeRemedyLaterTest, SlotThatStandsBehindTheLogsEnd)
{
    expect_runs({"--create"});
    sql("SELECT pg_drop_replication_slot('" + database + "')");
    insert(500);
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
    refused({}, "slot \"" + database + "\" stands at ");
    expect_another_log_runs();
}

TEST_F(BridgeRemedyLaterTest, ServerThatWasSetBack)
{
    expect_runs({"--create"});
    server->stop();
    server->save();
    server->start();
    for (int i = 0; i < 3; i++)
        expect_runs({});
    server->stop();
    server->set_back();
    server->start();
    refused({}, ", the server only to ");
    expect_another_log_runs();
}

TEST_F(BridgeRemedyLaterTest, SilentServerGetsMoreTime)
{
    expect_runs({"--create"});
    start_bridge({"--timeout", "1"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    server->freeze();
    EXPECT_TRUE(bridge_says("the server has been silent for 1 second (following the stream)"));
    server->thaw();
    bridge.end(SIGTERM);
    start_bridge({"--timeout", "60"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    server->freeze();
    usleep(3'000'000); // of which nothing is told
    server->thaw();
    insert(next);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(next));
    EXPECT_THAT(bridge.err(), Not(HasSubstr("silent")));
}

TEST_F(BridgeRemedyLaterTest, WholeOldRowsFromNowOn)
{
    ASSERT_NO_FATAL_FAILURE(set_keyed_aside());
    sql("ALTER TABLE load.keyed REPLICA IDENTITY FULL");
    expect_keyed_is_followed();
}

TEST_F(BridgeRemedyLaterTest, MarksInsteadOfWholeOldRows)
{
    ASSERT_NO_FATAL_FAILURE(set_keyed_aside());
    configure(std::string("values error\ntable load.keyed values=mark\n") + ledger_cfg);
    expect_keyed_is_followed();
}

// A type's library that is not where the server looks for it: mended on the server, nothing is
// to be passed over.
TEST_F(BridgeRemedyLaterTest, WhatTheServerCannotSendIsMendedThere)
{
    const std::string library = value("SHOW data_directory") + "/pairs.so";
    std::filesystem::copy_file(value("SELECT setting FROM pg_config WHERE name = 'PKGLIBDIR'") +
                                   "/hstore.so",
                               library, std::filesystem::copy_options::overwrite_existing);
    sql("CREATE SCHEMA odd; CREATE TYPE odd.pairs; CREATE FUNCTION odd.take(cstring) RETURNS "
        "odd.pairs AS '" +
        library +
        "', 'hstore_in' LANGUAGE C IMMUTABLE STRICT; CREATE FUNCTION odd.give(odd.pairs) RETURNS "
        "cstring AS '" +
        library +
        "', 'hstore_out' LANGUAGE C IMMUTABLE STRICT;"
        "CREATE TYPE odd.pairs (INPUT = odd.take, OUTPUT = odd.give, INTERNALLENGTH = VARIABLE);"
        "CREATE TABLE load.kept (id bigint PRIMARY KEY, pairs odd.pairs);"
        "ALTER TABLE load.kept REPLICA IDENTITY FULL");
    expect_runs({"--create"});
    sql("BEGIN; INSERT INTO load.kept VALUES (1, 'a=>1');"
        "INSERT INTO load.ledger VALUES (500, 0, 1, 'with it', NULL); COMMIT");
    std::filesystem::rename(library, library + ".away");
    EXPECT_THAT(refused({}, "fwlog: following the server, in transaction "),
                HasSubstr("could not access file \"" + library +
                          "\": No such file or directory; if that cannot be mended on the server, "
                          "pass the transaction over with --skip-transaction "));
    EXPECT_FALSE(logged("after ID=500 "));
    std::filesystem::rename(library + ".away", library);
    expect_runs({});
    EXPECT_TRUE(logged("after ID=500 "));
    EXPECT_TRUE(logged("PAIRS=\"\\\"a\\\"=>\\\"1\\\"\""));
}

// Each start leaves a mark behind the one before, as far as there is place.
TEST_F(BridgeRemedyLaterTest, NoPositionIsLeftForAGapMark)
{
    constexpr int PLACES = 7; // between two positions of the server
    sql("CREATE TABLE load.other (id bigint PRIMARY KEY);"
        "ALTER TABLE load.other REPLICA IDENTITY FULL");
    expect_runs({"--create"});
    const std::string none_left = "the log has no position left behind ";
    for (int i = 0; i <= PLACES; i++) {
        configure(std::string("skip-table load.other\n") + ledger_cfg);
        EXPECT_EQ(catch_up().status, 0);
        configure(ledger_cfg);
        const run_result result = catch_up();
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(occurrences(result.err, none_left), i < PLACES ? 0 : 1) << result.err;
    }
    EXPECT_EQ(occurrences(dump(), "skip-table was taken out"), PLACES);
    expect_runs({});
}

// What --resume refuses, and the same --resume once that is mended.
TEST_F(BridgeRemedyLaterTest, WhatWasNotTakenInIsTakenInOnceItIsMended)
{
    const std::string leave_out = "skip-table load.left_out\n";
    configure(leave_out);
    sql("CREATE TABLE load.left_out (a integer PRIMARY KEY); INSERT INTO load.left_out VALUES (71);"
        "CREATE UNLOGGED TABLE load.quick (a integer PRIMARY KEY);"
        "INSERT INTO load.quick VALUES (72);"
        "CREATE TABLE load.parts (a integer PRIMARY KEY) PARTITION BY RANGE (a);"
        "CREATE TABLE load.part_1 PARTITION OF load.parts FOR VALUES FROM (0) TO (100);"
        "INSERT INTO load.parts VALUES (73)");
    expect_runs({"--create"});

    const std::string left_out = refused({"--resume", "load.left_out"}, "table load.left_out is "
                                                                        "not taken in: the "
                                                                        "configuration leaves it "
                                                                        "out: take ");
    EXPECT_EQ(found_in(left_out, "take \"(skip-table [^\"]*)\" out of ") + "\n", leave_out);
    configure();
    EXPECT_EQ(catch_up({"--resume", "load.left_out"}).status, 0);
    EXPECT_TRUE(logged("after A=71"));

    (void)refused({"--resume", "Load.ledger"}, "the database has no such table (capitals count)");
    EXPECT_EQ(catch_up({"--resume", "load.ledger"}).status, 0);

    (void)refused({"--resume", "load.quick"}, "the server's log does not have it");
    sql("ALTER TABLE load.quick SET LOGGED");
    EXPECT_EQ(catch_up({"--resume", "load.quick"}).status, 0);
    EXPECT_TRUE(logged("after A=72"));

    if (server_version() >= 13) {
        const std::string told = refused({"--resume", "load.part_1"}, "name that one");
        EXPECT_EQ(
            catch_up({"--resume", found_in(told, "it is a part of ([a-z.]*), which is")}).status,
            0);
        EXPECT_TRUE(logged("after A=73"));
    }
    expect_runs({});
    EXPECT_EQ(status_member("aside"), "[]");
}

TEST_F(BridgeRemedyLaterTest, ADamagedFileOfNamesIsRestoredOrRemoved)
{
    sql("CREATE TABLE load.undescribed (a integer PRIMARY KEY);"
        "ALTER TABLE load.undescribed REPLICA IDENTITY FULL");
    expect_runs({"--create"});
    sql("INSERT INTO load.undescribed VALUES (71)");
    EXPECT_EQ(catch_up().status, 0);
    const std::string names = dir.file("log/names");
    const std::string sound = read_file(names);
    ASSERT_NE(sound, "");
    for (const bool restored : {true, false}) {
        write_file(names, "?" + sound);
        sql("INSERT INTO load.undescribed VALUES (" + std::string(restored ? "72" : "73") + ")");
        (void)refused({}, "/names: damaged: it says which dataset each table has; restore it from "
                          "a copy, or remove it: ");
        if (restored)
            write_file(names, sound);
        else
            ASSERT_TRUE(std::filesystem::remove(names));
        expect_runs({});
        EXPECT_TRUE(logged(restored ? "after A=72" : "after A=73"));
        EXPECT_THAT(read_file(names), HasSubstr("\ntable load.undescribed LOAD UNDESCRIBED\n"))
            << "the table has the dataset that it had";
    }
}

// Root obeys rights as others do without two of its capabilities; its next run is one that may
// connect to the server's socket.
TEST_F(BridgeRemedyLaterTest, FilesOfTheLogThatMayNotBeReadGetTheirRights)
{
    sql("CREATE TABLE load.undescribed (a integer PRIMARY KEY);"
        "ALTER TABLE load.undescribed REPLICA IDENTITY FULL");
    expect_runs({"--create"});
    sql("INSERT INTO load.undescribed VALUES (71)");
    EXPECT_EQ(catch_up().status, 0);
    words argv = bridge_argv({"--once"});
    if (geteuid() == 0) {
        const words obeying = {"setpriv", "--bounding-set=-dac_override,-dac_read_search"};
        if (run_program({obeying[0], obeying[1], "true"}, options).status != 0)
            GTEST_SKIP() << "this process obeys no rights";
        argv.insert(argv.begin(), obeying.begin(), obeying.end());
    }
    int id = 71;
    for (const auto &[name, what] :
         {std::pair("log/names", "cannot read the names of datasets and items"),
          std::pair("log/source", "cannot read what the log belongs to"),
          std::pair("log/aside", "cannot read which tables are set aside")}) {
        SCOPED_TRACE(name);
        sql("INSERT INTO load.undescribed VALUES (" + std::to_string(++id) + ")");
        const std::string file = dir.file(name);
        const std::string before = read_file(file);
        ASSERT_EQ(chmod(file.c_str(), 0), 0);
        const run_result refused = run_program(argv, options);
        EXPECT_EQ(refused.status, 1);
        EXPECT_THAT(refused.err,
                    HasSubstr(std::string(name) + ": " + what + ": Permission denied\n"));
        ASSERT_EQ(chmod(file.c_str(), 0600), 0);
        EXPECT_EQ(read_file(file), before);
        const run_result again = catch_up();
        EXPECT_EQ(again.status, 0) << again.err;
        EXPECT_EQ(occurrences(dump(), "after A=" + std::to_string(id)), 1);
    }
    // Nothing can be made in it.
    sql("INSERT INTO load.undescribed VALUES (" + std::to_string(++id) + ")");
    ASSERT_EQ(chmod(dir.file("log").c_str(), 0555), 0);
    const run_result refused = run_program(argv, options);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err,
                HasSubstr("log/postgresql.json: cannot write the state: Permission denied\n"));
    ASSERT_EQ(chmod(dir.file("log").c_str(), 0755), 0);
    next = 2;
    expect_runs({});
    EXPECT_TRUE(logged("after A=" + std::to_string(id)));
}
