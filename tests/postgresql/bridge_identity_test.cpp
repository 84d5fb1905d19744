// What the server sends of old rows: whole ones, keys, nothing, and those of partitions in the
// name of their table.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;

class BridgeIdentityTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        sql("CREATE SCHEMA shop");
        ASSERT_EQ(catch_up({"--create"}).status, 0);
    }

    void catch_up_well(const std::vector<std::string> &more = {}) const
    {
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 0) << result.err;
    }

    // The commands that the bridge says are needed, behind this text, each on a line of its own.
    static std::string commands_in(const std::string &text, const std::string &behind)
    {
        std::string commands;
        for (size_t at = std::min(text.find(behind), text.size());
             (at = text.find("\n  ALTER TABLE ", at)) != std::string::npos;) {
            const size_t end = text.find('\n', at + 1);
            commands += text.substr(at + 3, end - at - 2);
            at = end;
        }
        return commands;
    }
};

TEST_F(BridgeIdentityTest, ANewPartitionsKeysAreNoWholeRows)
{
    configure("values error\n");
    sql("CREATE TABLE shop.\"Parts\" (id integer PRIMARY KEY, qty integer, note varchar(9))"
        " PARTITION BY RANGE (id);"
        "CREATE TABLE shop.parts_1 PARTITION OF shop.\"Parts\" FOR VALUES FROM (0) TO (10);"
        "ALTER TABLE shop.\"Parts\" REPLICA IDENTITY FULL;"
        "ALTER TABLE shop.parts_1 REPLICA IDENTITY FULL;");
    sql("INSERT INTO shop.\"Parts\" VALUES (1, NULL, 'one')");
    sql("DELETE FROM shop.\"Parts\"");
    catch_up_well();
    EXPECT_THAT(dump(), HasSubstr("before ID=1 QTY=0 NOTE=\"one\" NULL-MAP=\".N.\""));
    sql("CREATE TABLE shop.parts_2 PARTITION OF shop.\"Parts\" FOR VALUES FROM (10) TO (20)");
    sql("INSERT INTO shop.\"Parts\" VALUES (11, 5, 'two')");
    catch_up_well();
    sql("DELETE FROM shop.\"Parts\"");
    const run_result aside = catch_up();
    EXPECT_EQ(aside.status, 0);
    EXPECT_THAT(aside.err, HasSubstr("the change comes without the whole old row"));
    EXPECT_EQ(commands_in(aside.err, "is set aside"),
              "ALTER TABLE shop.parts_2 REPLICA IDENTITY FULL;\n");
}

TEST_F(BridgeIdentityTest, AChangeMadeBeforeTheCommandIsToldSo)
{
    configure("values error\n");
    sql("CREATE TABLE shop.keyed (id integer PRIMARY KEY, qty integer)");
    sql("INSERT INTO shop.keyed VALUES (1, 5)");
    sql("DELETE FROM shop.keyed");
    sql("ALTER TABLE shop.keyed REPLICA IDENTITY FULL");
    EXPECT_THAT(catch_up().err,
                HasSubstr("shop.keyed: the change comes without the whole old row, since it was "
                          "made before the table got REPLICA IDENTITY FULL, which mends it; else "
                          "mark what is not known with the line table shop.keyed values=mark, or "
                          "leave the table out with the line skip-table shop.keyed; the others go "
                          "on"));
    catch_up_well({"--resume", "shop.keyed"});
    sql("INSERT INTO shop.keyed VALUES (2, 6)");
    sql("DELETE FROM shop.keyed");
    catch_up_well();
    EXPECT_THAT(dump(), HasSubstr("before ID=2 QTY=6 "));
}

TEST_F(BridgeIdentityTest, TheCommandsAreThoseOfTheTableAndAllItsPartitions)
{
    if (server_version() < 13)
        return; // partitions are published as tables of their own
    configure("values error\n");
    sql("CREATE TABLE shop.\"My_Parts\" (id integer PRIMARY KEY, qty integer) PARTITION BY RANGE "
        "(id);"
        "CREATE TABLE shop.low PARTITION OF shop.\"My_Parts\" FOR VALUES FROM (0) TO (10)"
        " PARTITION BY RANGE (id);"
        "CREATE TABLE shop.lowest PARTITION OF shop.low FOR VALUES FROM (0) TO (5);");
    sql("INSERT INTO shop.\"My_Parts\" VALUES (1, 1)");
    catch_up_well();
    sql("UPDATE shop.\"My_Parts\" SET qty = 2");
    const run_result aside = catch_up();
    EXPECT_EQ(aside.status, 0);
    EXPECT_EQ(commands_in(aside.err, "is set aside"),
              "ALTER TABLE shop.\"My_Parts\" REPLICA IDENTITY FULL;\n"
              "ALTER TABLE shop.low REPLICA IDENTITY FULL;\n"
              "ALTER TABLE shop.lowest REPLICA IDENTITY FULL;\n");
}

TEST_F(BridgeIdentityTest, WhatIsNotKnownOfOldRowsIsMarked)
{
    sql("CREATE TABLE shop.keyed (id integer PRIMARY KEY, qty integer, note varchar(9))");
    sql("INSERT INTO shop.keyed VALUES (1, 5, 'one')");
    sql("UPDATE shop.keyed SET qty = NULL");
    sql("UPDATE shop.keyed SET id = 2");
    sql("DELETE FROM shop.keyed");
    catch_up_well();
    const std::string text = dump();
    EXPECT_THAT(text, HasSubstr("before ID=1 QTY=0 NOTE=\"\" NULL-MAP=\".??\""));
    EXPECT_THAT(text, HasSubstr("after ID=1 QTY=0 NOTE=\"one\" NULL-MAP=\".N.\""));
    EXPECT_THAT(text, HasSubstr("after ID=2 QTY=0 NOTE=\"one\" NULL-MAP=\".N.\""));
    EXPECT_THAT(text, HasSubstr("before ID=2 QTY=0 NOTE=\"\" NULL-MAP=\".??\""));
    EXPECT_EQ(status_member("unknown"), "6");
}

TEST_F(BridgeIdentityTest, APartitionsKeysAreMarkedAndWholeRowsAreNot)
{
    if (server_version() < 13)
        return; // partitions are published as tables of their own
    sql("CREATE TABLE shop.parts (id integer PRIMARY KEY, qty integer, note varchar(9))"
        " PARTITION BY RANGE (id);"
        "CREATE TABLE shop.parts_1 PARTITION OF shop.parts FOR VALUES FROM (0) TO (10);"
        "ALTER TABLE shop.parts REPLICA IDENTITY FULL;"
        "ALTER TABLE shop.parts_1 REPLICA IDENTITY FULL;");
    sql("INSERT INTO shop.parts VALUES (1, NULL, 'one')");
    sql("DELETE FROM shop.parts");
    catch_up_well();
    EXPECT_THAT(dump(), HasSubstr("before ID=1 QTY=0 NOTE=\"one\" NULL-MAP=\".N.\""));
    sql("CREATE TABLE shop.parts_2 PARTITION OF shop.parts FOR VALUES FROM (10) TO (20)");
    sql("INSERT INTO shop.parts VALUES (11, 5, 'two')");
    sql("UPDATE shop.parts SET qty = 6");
    sql("DELETE FROM shop.parts");
    const run_result marked = catch_up();
    EXPECT_EQ(marked.status, 0) << marked.err;
    EXPECT_EQ(commands_in(marked.err, "for such values, run"),
              "ALTER TABLE shop.parts_2 REPLICA IDENTITY FULL;\n");
    EXPECT_EQ(occurrences(dump(), "before ID=11 QTY=0 NOTE=\"\" NULL-MAP=\".??\""), 2);
    sql(commands_in(marked.err, "for such values, run"));
    sql("INSERT INTO shop.parts VALUES (12, 7, 'three')");
    sql("DELETE FROM shop.parts");
    catch_up_well();
    EXPECT_THAT(dump(), HasSubstr("before ID=12 QTY=7 NOTE=\"three\" NULL-MAP=\"...\""));
}

TEST_F(BridgeIdentityTest, ARemedyIsALineThatTheConfigurationTakes)
{
    configure("values error\n");
    sql("CREATE TABLE shop.keyed (id integer PRIMARY KEY, qty integer)");
    sql("INSERT INTO shop.keyed VALUES (1, 5)");
    sql("UPDATE shop.keyed SET qty = 6");
    const run_result aside = catch_up();
    EXPECT_EQ(aside.status, 0);
    ASSERT_THAT(aside.err, HasSubstr("with the line table shop.keyed values=mark, or leave"));
    configure("values error\ntable shop.keyed values=mark\n");
    ASSERT_THAT(aside.err, HasSubstr("mend that, then fwlog postgresql --resume shop.keyed\n"));
    catch_up_well({"--resume", "shop.keyed"});
    EXPECT_EQ(occurrences(dump(), "after ID=1 QTY=6"), 1) << dump();
    sql("UPDATE shop.keyed SET qty = 7");
    catch_up_well();
    EXPECT_THAT(dump(), HasSubstr("before ID=1 QTY=0 NULL-MAP=\".?\""));
}
