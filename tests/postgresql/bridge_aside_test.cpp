// Tables that are set aside, renamed, made anew or left out until now: what the log says of them,
// what the status file, and that all others go on.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;
using testing::Not;

class BridgeAsideTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        sql("CREATE SCHEMA shop;"
            "CREATE TABLE shop.good (id integer PRIMARY KEY, note varchar(9));"
            "CREATE TABLE shop.\"odd one\" (id integer PRIMARY KEY, note varchar(9));"
            "ALTER TABLE shop.good REPLICA IDENTITY FULL;"
            "ALTER TABLE shop.\"odd one\" REPLICA IDENTITY FULL;");
        configure("table shop.\"odd one\" values=error\ntable shop.good values=mark\n");
        catch_up_well({"--create"});
    }

    std::string catch_up_well(const std::vector<std::string> &more = {}) const
    {
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.err;
    }

    // What happened in the log, a line each: "c ORDERS 5", "gap ORDERS: reason".
    std::string history() const
    {
        const run_result result = fwlog({"dump", "--json"});
        EXPECT_EQ(result.status, 0) << result.err;
        std::string lines;
        std::istringstream in(result.out);
        for (std::string line; std::getline(in, line);) {
            const std::string op = json_member(line, "op");
            if (op == "g" || op == "t")
                lines += (op == "g" ? "gap " : "truncate ") + json_member(line, "dataset") + ": " +
                         json_member(line, "reason") + "\n";
            else if (!op.empty()) // else what a dataset is
                lines +=
                    op + " " + json_member(line, "dataset") + " " + json_member(line, "ID") + "\n";
        }
        return lines;
    }

    std::string status_text() const
    {
        return read_file(dir.file("log/postgresql.json"));
    }

    // Makes a change that cannot be taken.
    void spoil() const
    {
        sql("ALTER TABLE shop.\"odd one\" REPLICA IDENTITY DEFAULT;"
            "UPDATE shop.\"odd one\" SET note = 'y'");
    }
};

TEST_F(BridgeAsideTest, TheOthersGoOnAndTheLogSaysWhatIsMissing)
{
    sql("INSERT INTO shop.\"odd one\" VALUES (1, 'x')");
    sql("BEGIN; INSERT INTO shop.good VALUES (1); INSERT INTO shop.\"odd one\" VALUES (2, 'x');"
        "ALTER TABLE shop.\"odd one\" REPLICA IDENTITY DEFAULT;"
        "UPDATE shop.\"odd one\" SET note = 'y' WHERE id = 2; INSERT INTO shop.good VALUES (2);"
        "DELETE FROM shop.\"odd one\"; COMMIT");
    const std::string told = catch_up_well();
    EXPECT_EQ(occurrences(told, "is set aside from transaction "), 1) << told;
    EXPECT_THAT(told, HasSubstr("table shop.\"odd one\" is set aside from transaction "));
    EXPECT_THAT(told, HasSubstr("or leave the table out with the line skip-table shop.\"odd one\"; "
                                "the others go on; mend that, then fwlog postgresql --resume "
                                "'shop.\"odd one\"'\n"));
    const std::string log = history();
    EXPECT_THAT(log, HasSubstr("c ODD-ONE-ODNCD 1\nc GOOD 1\nc ODD-ONE-ODNCD 2\n"
                               "gap ODD-ONE-ODNCD: shop."));
    EXPECT_THAT(fwlog({"dump"}).out, HasSubstr("the change comes without the whole old row"));
    EXPECT_THAT(log, HasSubstr("\nc GOOD 2\n"));
    EXPECT_THAT(log, Not(HasSubstr("d ODD")));
    EXPECT_THAT(status_text(), HasSubstr("\"aside\":[{\"table\":\"shop.\\\"odd one\\\"\","
                                         "\"dataset\":\"SHOP.ODD-ONE-"));
    EXPECT_THAT(status_text(), HasSubstr("\"missed\":2}]"));

    // A new start knows it, and passes over what comes.
    sql("INSERT INTO shop.\"odd one\" VALUES (3, 'x'); INSERT INTO shop.good VALUES (3)");
    EXPECT_THAT(catch_up_well(), HasSubstr("warning: 1 table is set aside: shop.\"odd one\"; "));
    EXPECT_EQ(history(), log + "c GOOD 3\n");
    EXPECT_THAT(status_text(), HasSubstr("\"missed\":1}]"));
    sql("TRUNCATE shop.\"odd one\"");
    catch_up_well();
    EXPECT_EQ(history(), log + "c GOOD 3\n");
    EXPECT_EQ(fwlog({"verify"}).status, 0);
}

TEST_F(BridgeAsideTest, ItIsSetAsideOnceHoweverOftenTheServerSendsIt)
{
    sql("INSERT INTO shop.\"odd one\" VALUES (1, 'x')");
    start_bridge();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    spoil();
    ASSERT_TRUE(poll_until([&] { return occurrences(history(), "gap ODD-ONE-ODNCD") == 1; }));
    bridge.end(SIGKILL); // perhaps before the server was told
    sql("INSERT INTO shop.good VALUES (1)");
    catch_up_well();
    EXPECT_EQ(occurrences(history(), "gap ODD-ONE-ODNCD"), 1);
    EXPECT_THAT(history(), HasSubstr("c GOOD 1\n"));
}

TEST_F(BridgeAsideTest, WhatTheFileSaysBeforeTheLogHasItDoesNotCount)
{
    // As a kill leaves it between the file and the log.
    sql("INSERT INTO shop.\"odd one\" VALUES (1, 'x')");
    catch_up_well();
    spoil();
    std::filesystem::copy(dir.file("log"), dir.file("before"));
    start_bridge();
    ASSERT_TRUE(poll_until([&] { return occurrences(history(), "gap ODD-ONE-ODNCD") == 1; }));
    bridge.end(SIGKILL);
    const std::string aside = read_file(dir.file("log/aside"));
    EXPECT_THAT(aside, HasSubstr("aside at="));
    const std::string log = history();
    std::filesystem::remove_all(dir.file("log"));
    std::filesystem::rename(dir.file("before"), dir.file("log"));
    write_file(dir.file("log/aside"), aside);
    const std::string told = catch_up_well();
    EXPECT_THAT(told, Not(HasSubstr("1 table is set aside: ")));
    EXPECT_THAT(told, HasSubstr("table shop.\"odd one\" is set aside from transaction "));
    EXPECT_EQ(history(), log);
}

TEST_F(BridgeAsideTest, WhereTheFileIsDamagedAllTablesHaveAGap)
{
    sql("INSERT INTO shop.\"odd one\" VALUES (1, 'x')");
    spoil();
    catch_up_well();
    write_file(dir.file("log/aside"), "fwlog aside 1\n");
    EXPECT_EQ(catch_up().status, 1);
    catch_up_well({"--accept-gap"});
    const std::string log = history();
    EXPECT_THAT(log,
                testing::ContainsRegex("gap null: file aside was damaged: tables that were set "
                                       "aside are followed again\n$"));
    sql("ALTER TABLE shop.\"odd one\" REPLICA IDENTITY FULL;"
        "INSERT INTO shop.\"odd one\" VALUES (2, 'x')");
    catch_up_well();
    EXPECT_EQ(history(), log + "c ODD-ONE-ODNCD 2\n");
    catch_up_well({"--resume", "shop.\"odd one\""});
    EXPECT_THAT(history().substr(log.size()),
                testing::ContainsRegex("^c ODD-ONE-ODNCD 2\ntruncate ODD-ONE-ODNCD: .*\n"
                                       "r ODD-ONE-ODNCD 1\nr ODD-ONE-ODNCD 2\n$"));
}

TEST_F(BridgeAsideTest, SkipTableTakenOutLeavesAMark)
{
    sql("INSERT INTO shop.good VALUES (1)");
    configure("skip-table shop.good\n");
    sql("INSERT INTO shop.good VALUES (2); INSERT INTO shop.\"odd one\" VALUES (1)");
    catch_up_well();
    const std::string before = history();
    EXPECT_EQ(occurrences(before, "c ODD-ONE"), 1) << before;
    configure();
    EXPECT_THAT(catch_up_well(), HasSubstr("for shop.good: skip-table was taken out\n"));
    EXPECT_EQ(history(), before + "gap GOOD: skip-table was taken out\n");
    sql("INSERT INTO shop.good VALUES (3)");
    catch_up_well();
    EXPECT_EQ(history(), before + "gap GOOD: skip-table was taken out\nc GOOD 3\n");
}

TEST_F(BridgeAsideTest, AMarkHasAPlaceDirectlyBehindASnapshot)
{
    sql("INSERT INTO shop.good VALUES (1); INSERT INTO shop.\"odd one\" VALUES (1);"
        "SELECT pg_drop_replication_slot('" +
        database + "')");
    std::filesystem::remove_all(dir.file("log"));
    configure("skip-table shop.good\n");
    catch_up_well({"--create", "--snapshot"});
    EXPECT_EQ(history(), "r ODD-ONE-ODNCD 1\n");
    configure();
    catch_up_well();
    EXPECT_EQ(history(), "r ODD-ONE-ODNCD 1\ngap GOOD: skip-table was taken out\n");
}

TEST_F(BridgeAsideTest, ATableThatIsLeftOutIsSetAsideNoMore)
{
    sql("INSERT INTO shop.\"odd one\" VALUES (1, 'x')");
    spoil();
    catch_up_well();
    EXPECT_THAT(status_text(), Not(HasSubstr("\"aside\":[]")));
    configure("skip-table shop.\"odd one\"\n");
    catch_up_well();
    EXPECT_THAT(status_text(), HasSubstr("\"aside\":[]"));
    configure("values mark\n");
    catch_up_well();
    sql("INSERT INTO shop.\"odd one\" VALUES (2)");
    catch_up_well();
    EXPECT_THAT(history(), testing::ContainsRegex("gap ODD-ONE-ODNCD: skip-table was taken out\nc "
                                                  "ODD-ONE-ODNCD 2\n$"));
}

TEST_F(BridgeAsideTest, AcceptedGapsAreMarked)
{
    sql("INSERT INTO shop.good VALUES (1)");
    catch_up_well();
    EXPECT_EQ(catch_up_well({"--accept-gap"}), "") << "nothing is missing";
    sql("SELECT pg_drop_replication_slot('" + database + "')");
    sql("INSERT INTO shop.good VALUES (2)");
    EXPECT_EQ(catch_up({"--create"}).status, 1);
    catch_up_well({"--create", "--accept-gap"});
    sql("INSERT INTO shop.good VALUES (3)");
    catch_up_well({"--create", "--accept-gap"});
    EXPECT_THAT(history(), testing::ContainsRegex("^c GOOD 1\ngap null: .*\nc GOOD 3\n$"));
    EXPECT_THAT(fwlog({"dump"}).out, HasSubstr("slot \"" + database + "\" is not there"));

    sql("SELECT pg_drop_replication_slot('" + database + "')");
    sql("INSERT INTO shop.good VALUES (4)");
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
    EXPECT_THAT(catch_up_well({"--accept-gap"}), HasSubstr("the log has a gap mark at "));
    EXPECT_EQ(occurrences(history(), "gap null"), 2);
    EXPECT_THAT(fwlog({"dump"}).out, testing::ContainsRegex("slot \"" + database +
                                                            "\" stands at [0-9A-F/]+, the log "
                                                            "goes up to [0-9A-F/]+ only"));
    EXPECT_EQ(catch_up_well({"--accept-gap"}), "");
}

// The stream tells of it with the next change only, which may never come.
TEST_F(BridgeAsideTest, ARenamedTableIsTakenInThoughNothingChangesInIt)
{
    sql("INSERT INTO shop.good VALUES (1, 'one'), (2, 'two')");
    catch_up_well();
    sql("ALTER TABLE shop.good RENAME TO better");
    EXPECT_THAT(catch_up_well(), HasSubstr("table shop.good was renamed to shop.better by "));
    EXPECT_THAT(history(), HasSubstr("gap GOOD: renamed to shop.better\n"
                                     "gap BETTER: renamed from shop.good\n"
                                     "r BETTER 1\nr BETTER 2\n"));
    EXPECT_THAT(catch_up_well(), Not(HasSubstr("renamed")));
    sql("INSERT INTO shop.better VALUES (3, 'three')");
    EXPECT_THAT(catch_up_well(), Not(HasSubstr("renamed")));
    EXPECT_EQ(occurrences(history(), "renamed to"), 1);
    EXPECT_THAT(history(), HasSubstr("c BETTER 3\n"));
}

TEST_F(BridgeAsideTest, TablesThatChangeNamesAreTakenInWithoutAChange)
{
    sql("INSERT INTO shop.good VALUES (1, 'good'); INSERT INTO shop.\"odd one\" VALUES (2, 'odd')");
    catch_up_well();
    sql("BEGIN; ALTER TABLE shop.good RENAME TO x; ALTER TABLE shop.\"odd one\" RENAME TO good;"
        "ALTER TABLE shop.x RENAME TO \"odd one\"; COMMIT");
    catch_up_well();
    const std::string lines = history();
    EXPECT_THAT(lines, HasSubstr("truncate GOOD: TRUNCATE\nr GOOD 2\n"));
    EXPECT_THAT(lines, HasSubstr("truncate ODD-ONE-ODNCD: TRUNCATE\nr ODD-ONE-ODNCD 1\n"));
    EXPECT_THAT(catch_up_well(), Not(HasSubstr("renamed")));
}

TEST_F(BridgeAsideTest, ARunningBridgeSeesThatATableWasRenamed)
{
    sql("INSERT INTO shop.good VALUES (1, 'one')");
    start_bridge();
    ASSERT_TRUE(poll_until([&] { return status_member("changes") == "1"; })) << bridge.err();
    sql("ALTER TABLE shop.good RENAME TO better");
    EXPECT_TRUE(poll_until([&] { return history().find("r BETTER 1\n") != std::string::npos; }))
        << bridge.err();
}

TEST_F(BridgeAsideTest, ARenamedTableLeavesAMarkUnderItsOldName)
{
    sql("INSERT INTO shop.good VALUES (1)");
    catch_up_well();
    sql("ALTER TABLE shop.good RENAME TO better; INSERT INTO shop.better VALUES (2)");
    EXPECT_THAT(catch_up_well(), HasSubstr("table shop.good was renamed to shop.better by "
                                           "transaction "));
    EXPECT_THAT(history(), HasSubstr("c GOOD 1\ngap GOOD: renamed to shop.better\n"));
    EXPECT_THAT(history(), HasSubstr("gap BETTER: renamed from shop.good\n"));
    catch_up_well();
    EXPECT_EQ(occurrences(history(), "renamed to"), 1);
}

TEST_F(BridgeAsideTest, ATableThatBecomesAPartitionLeavesMarks)
{
    if (server_version() < 13)
        return; // partitions are followed as tables of their own
    sql("CREATE TABLE shop.days (id integer PRIMARY KEY, note varchar(9)) PARTITION BY RANGE (id);"
        "CREATE TABLE shop.monday (LIKE shop.days INCLUDING ALL);"
        "INSERT INTO shop.monday VALUES (1, 'one')");
    catch_up_well();
    sql("ALTER TABLE shop.days ATTACH PARTITION shop.monday FOR VALUES FROM (1) TO (10)");
    EXPECT_THAT(catch_up_well(), HasSubstr("table shop.monday has become a part of shop.days: "));
    EXPECT_THAT(history(), HasSubstr("gap MONDAY: is a part of shop.days\n"
                                     "gap DAYS: the rows that shop.monday had before it became a "
                                     "part are missing\n"));
    EXPECT_THAT(catch_up_well(), Not(HasSubstr("become a part")));
    catch_up_well({"--resume", "shop.days"});
    EXPECT_THAT(history(), HasSubstr("r DAYS 1\n"));
}

// Rows that were there get the default value without a change.
TEST_F(BridgeAsideTest, ANewColumnWithADefaultIsTold)
{
    start_bridge();
    sql("INSERT INTO shop.good VALUES (1, 'one')");
    ASSERT_TRUE(poll_until([&] { return status_member("changes") == "1"; })) << bridge.err();
    sql("ALTER TABLE shop.good ADD plain integer; INSERT INTO shop.good VALUES (2, 'two')");
    ASSERT_TRUE(poll_until([&] { return status_member("changes") == "2"; })) << bridge.err();
    EXPECT_THAT(bridge.err(), Not(HasSubstr("new column")));
    sql("ALTER TABLE shop.good ADD seven integer DEFAULT 7; INSERT INTO shop.good VALUES (3)");
    EXPECT_TRUE(poll_until([&] { return history().find("c GOOD 3\n") != std::string::npos; }))
        << bridge.err();
    EXPECT_THAT(bridge.err(),
                HasSubstr("warning: table shop.good has a new column with a default (seven): "));
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    catch_up_well({"--resume", "shop.good"});
    EXPECT_THAT(fwlog({"dump"}).out, HasSubstr(" ID=1 NOTE=\"one\" PLAIN=0 SEVEN=7 "));
}

// The file does not grow with each table that was there once; its name is what counts.
TEST_F(BridgeAsideTest, ADroppedTableIsForgottenButForItsName)
{
    sql("INSERT INTO shop.good VALUES (1)");
    catch_up_well();
    const std::string line = "id " + value("SELECT 'shop.good'::regclass::oid::text") + " shop ";
    const auto file = [this] { return read_file(dir.file("log/aside")); };
    EXPECT_THAT(file(), HasSubstr(line));
    sql("DROP TABLE shop.good; INSERT INTO shop.\"odd one\" VALUES (1)");
    catch_up_well(); // has come behind it
    sql("INSERT INTO shop.\"odd one\" VALUES (2)");
    catch_up_well();
    EXPECT_THAT(file(), Not(HasSubstr(line)));
    EXPECT_THAT(file(), HasSubstr(" shop good "));
    sql("CREATE TABLE shop.good (id integer PRIMARY KEY, other integer);"
        "INSERT INTO shop.good VALUES (2, 5)");
    catch_up_well();
    EXPECT_THAT(history(), HasSubstr("truncate GOOD: dropped and made anew\nc GOOD 2\n"));
}

TEST_F(BridgeAsideTest, ATableMadeAnewBeginsWithATruncate)
{
    sql("INSERT INTO shop.good VALUES (1)");
    catch_up_well();
    sql("DROP TABLE shop.good; CREATE TABLE shop.good (id integer PRIMARY KEY, other integer);"
        "INSERT INTO shop.good VALUES (2, 5)");
    catch_up_well();
    sql("INSERT INTO shop.good VALUES (3, 5)");
    catch_up_well();
    EXPECT_EQ(history(), "c GOOD 1\ntruncate GOOD: dropped and made anew\n"
                         "c GOOD 2\nc GOOD 3\n");
}
