// Tables and values of every kind on their way into the log: layouts from the server's
// catalogue, changed tables, partitions, values stored apart.
#include "tests/postgresql/bridge_fixture.h"

#include <sstream>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class BridgeTableTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        sql("CREATE SCHEMA shop");
        ASSERT_EQ(catch_up({"--create"}).status, 0);
    }

    void catch_up_well() const
    {
        const run_result result = catch_up();
        EXPECT_EQ(result.status, 0) << result.err;
    }

    // Lines of the dump that tell of layouts with their items, or of images, each
    // without its position and numbers.
    std::vector<std::string> dumped(const std::string &kind) const
    {
        std::vector<std::string> found;
        std::istringstream lines(dump());
        bool in_layout = false;
        for (std::string line; std::getline(lines, line);) {
            const bool indented = line.rfind("    ", 0) == 0;
            if (!indented)
                in_layout = line.find(" layout ") != std::string::npos;
            if (kind == "layout" && in_layout)
                found.push_back(indented ? line.substr(4) : line.substr(line.find("layout")));
            if (kind != "layout" && indented && line.compare(4, kind.size(), kind) == 0)
                found.push_back(line.substr(4));
        }
        return found;
    }

    // What Kestro writes behind the header of each line.
    std::vector<std::string> columns_captured() const
    {
        const run_result result =
            run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-cfg", "fwutil.cfg", "-stat",
                         "text.status", "-synconly", "-ascii", "all.txt"},
                        options);
        EXPECT_EQ(result.status, 0) << result.err;
        std::vector<std::string> bodies;
        std::istringstream lines(read_file(dir.file("all.txt")));
        for (std::string line; std::getline(lines, line);)
            bodies.push_back(line.substr(60, 2) + line.substr(62));
        return bodies;
    }
};

TEST_F(BridgeTableTest, EveryTypeHasItsItem)
{
    sql("CREATE TABLE shop.kinds (a_small smallint, an_int integer, a_big bigint, an_oid oid,"
        " a_real real, a_double double precision, money_7_2 numeric(7,2), whole_6 numeric(6),"
        " huge numeric(30,2), fixed char(5), varied varchar(7), flag boolean, one \"char\","
        " a_name name, a_day date, a_time time, a_time_2 time(2), zoned timetz, stamp timestamp,"
        " stamp_0 timestamp(0), stamp_3 timestamp(3), stamptz timestamptz, id uuid)");
    sql("INSERT INTO shop.kinds VALUES (-2, 70000, -9007199254740993, 4000000000, 1.5, 0.1,"
        " -871.20, 123456, -1234567890123456789012345678.25, 'ab', 'caf\u00e9', true, 'x',"
        " 'some_name', '2026-03-09', '08:18:01.25', '08:18:01.25', '08:18:01+02',"
        " '2026-03-09 08:18:01.2', '2026-03-09 08:18:01', '2026-03-09 08:18:01.2',"
        " '2026-03-09 08:18:01+02', '6b29fc40-ca47-1067-b31d-00dd010662da')");
    catch_up_well();
    EXPECT_THAT(dumped("layout"),
                ElementsAre("layout SHOP.KINDS: 24 items, 377 bytes", "A-SMALL I 2", "AN-INT I 4",
                            "A-BIG I 8", "AN-OID K 4", "A-REAL E 4", "A-DOUBLE E 8",
                            "MONEY-7-2 P 4 scale=2", "WHOLE-6 P 4", "HUGE X 33", "FIXED X 12",
                            "VARIED X 16", "FLAG X 1", "ONE X 1", "A-NAME X 63", "A-DAY X 10",
                            "A-TIME X 15", "A-TIME-2 X 11", "ZONED X 24", "STAMP X 26",
                            "STAMP-0 X 19", "STAMP-3 X 23", "STAMPTZ X 26", "ID X 36",
                            "NULL-MAP X 23"));
    EXPECT_THAT(
        dumped("after"),
        ElementsAre("after A-SMALL=-2 AN-INT=70000 A-BIG=-9007199254740993 AN-OID=4000000000"
                    " A-REAL=1.5 A-DOUBLE=0.1 MONEY-7-2=-871.20 WHOLE-6=123456"
                    " HUGE=\"-1234567890123456789012345678.25\" FIXED=\"ab\" VARIED=\"caf\u00e9\""
                    " FLAG=\"T\" ONE=\"x\" A-NAME=\"some_name\" A-DAY=\"2026-03-09\""
                    " A-TIME=\"08:18:01.25\" A-TIME-2=\"08:18:01.25\" ZONED=\"08:18:01+02\""
                    " STAMP=\"2026-03-09 08:18:01.200000\" STAMP-0=\"2026-03-09 08:18:01\""
                    " STAMP-3=\"2026-03-09 08:18:01.200\" STAMPTZ=\"2026-03-09 06:18:01.000000\""
                    " ID=\"6b29fc40-ca47-1067-b31d-00dd010662da\""
                    " NULL-MAP=\"" +
                    std::string(23, '.') + "\""));
}

TEST_F(BridgeTableTest, GreatestAndSmallestValuesFitTheirItems)
{
    // Scales outside the digits are known from version 15 on.
    const std::string scales = server_version() < 15 ? " q varchar(6), r varchar(8),"
                                                     : " q numeric(3,-2), r numeric(2,5),";
    sql("CREATE TABLE shop.edges (n numeric(27,27), o numeric(27,0), p numeric(28,28)," + scales +
        " t timetz, b bigint)");
    sql("INSERT INTO shop.edges VALUES (-0.999999999999999999999999999,"
        " -999999999999999999999999999, -0.9999999999999999999999999999, -99900, -0.00099,"
        " '23:59:59.999999-15:59:59', -9223372036854775808)");
    sql("INSERT INTO shop.edges VALUES ('0', '0', '0', '0', '0', '24:00:00+00', 0)");
    catch_up_well();
    const std::vector<std::string> images = dumped("after");
    ASSERT_EQ(images.size(), 2U);
    EXPECT_EQ(images[0], "after N=-0.999999999999999999999999999 O=-999999999999999999999999999"
                         " P=\"-0.9999999999999999999999999999\" Q=\"-99900\" R=\"-0.00099\""
                         " T=\"23:59:59.999999-15:59:59\" B=-9223372036854775808"
                         " NULL-MAP=\".......\"");
}

TEST_F(BridgeTableTest, NullsAreInTheNullMap)
{
    sql("CREATE TABLE shop.voids (a integer, b varchar(3), c numeric(5,2), d date)");
    sql("INSERT INTO shop.voids VALUES (NULL, '', NULL, NULL), (0, NULL, 0, '2026-01-01')");
    catch_up_well();
    EXPECT_THAT(dumped("after"),
                ElementsAre("after A=0 B=\"\" C=0.00 D=\"\" NULL-MAP=\"N.NN\"",
                            "after A=0 B=\"\" C=0.00 D=\"2026-01-01\" NULL-MAP=\".N..\""));
}

TEST_F(BridgeTableTest, AChangedTableHasItsNewLayoutFromThatTransactionOn)
{
    sql("CREATE TABLE shop.parts (id integer, note varchar(5));"
        "ALTER TABLE shop.parts REPLICA IDENTITY FULL");
    sql("INSERT INTO shop.parts VALUES (1, 'one')");
    sql("ALTER TABLE shop.parts ADD COLUMN qty smallint");
    sql("INSERT INTO shop.parts VALUES (2, 'two', 7)");
    sql("ALTER TABLE shop.parts ALTER COLUMN note TYPE varchar(9)");
    sql("UPDATE shop.parts SET note = 'very long' WHERE id = 2");
    sql("BEGIN; DELETE FROM shop.parts WHERE id = 1;"
        "ALTER TABLE shop.parts DROP COLUMN qty;"
        "INSERT INTO shop.parts VALUES (3, 'three'); COMMIT");
    sql("ALTER TABLE shop.parts RENAME COLUMN note TO remark");
    sql("INSERT INTO shop.parts VALUES (4, 'four')");
    catch_up_well();

    EXPECT_THAT(
        dumped("layout"),
        ElementsAre("layout SHOP.PARTS: 3 items, 18 bytes", "ID I 4", "NOTE X 12",
                    "NULL-MAP X 2", //
                    "layout SHOP.PARTS: 4 items, 21 bytes", "ID I 4", "NOTE X 12", "QTY I 2",
                    "NULL-MAP X 3", //
                    "layout SHOP.PARTS: 4 items, 29 bytes", "ID I 4", "NOTE X 20", "QTY I 2",
                    "NULL-MAP X 3", //
                    "layout SHOP.PARTS: 3 items, 26 bytes", "ID I 4", "NOTE X 20",
                    "NULL-MAP X 2", //
                    "layout SHOP.PARTS: 3 items, 26 bytes", "ID I 4", "REMARK X 20",
                    "NULL-MAP X 2"));
    // A row from before a column was added has it as null.
    EXPECT_THAT(columns_captured(),
                ElementsAre("IP             1one         ..",                //
                            "IP             2two                      7...", //
                            "IU             2two                              7..."
                            "             2very long                        7...",   //
                            "ID             1one                              0..N", //
                            "IP             3three               ..",                //
                            "IP             4four                .."));
}

TEST_F(BridgeTableTest, ALayoutOutlivesRestartsOfTheBridge)
{
    sql("CREATE TABLE shop.parts (id integer, note varchar(5))");
    sql("INSERT INTO shop.parts VALUES (1, 'one')");
    catch_up_well();
    sql("INSERT INTO shop.parts VALUES (2, 'two')");
    catch_up_well();
    sql("ALTER TABLE shop.parts ADD COLUMN qty smallint");
    sql("INSERT INTO shop.parts VALUES (3, 'three', 3)");
    catch_up_well();
    EXPECT_THAT(columns_captured(),
                ElementsAre("IP             1one         ..", "IP             2two         ..",
                            "IP             3three                    3..."));
}

TEST_F(BridgeTableTest, ADroppedTableMayComeBackWithOtherColumns)
{
    sql("CREATE TABLE shop.again (id integer)");
    sql("INSERT INTO shop.again VALUES (1)");
    sql("DROP TABLE shop.again; CREATE TABLE shop.again (code char(3), id bigint)");
    sql("INSERT INTO shop.again VALUES ('abc', 2)");
    catch_up_well();
    EXPECT_THAT(dumped("after"), ElementsAre("after ID=1 NULL-MAP=\".\"",
                                             "after CODE=\"abc\" ID=2 NULL-MAP=\"..\""));
}

TEST_F(BridgeTableTest, AValueStoredApartIsInEveryImage)
{
    const std::string text = "a long text that is stored apart from its row";
    const int repeats = 200; // 9,000 characters, not compressed
    configure("database SHOP\ndataset DOCS\nitem ID I 4\nitem SEEN I 4\nitem BODY X 9000\n");
    sql("CREATE TABLE shop.docs (id integer, seen integer, body text);"
        "ALTER TABLE shop.docs ALTER COLUMN body SET STORAGE EXTERNAL;"
        "ALTER TABLE shop.docs REPLICA IDENTITY FULL");
    sql("INSERT INTO shop.docs VALUES (1, 0, repeat('" + text + "', " + std::to_string(repeats) +
        "))");
    sql("UPDATE shop.docs SET seen = 1");
    sql("DELETE FROM shop.docs");
    catch_up_well();
    EXPECT_EQ(occurrences(dump(), text), 4 * repeats);
    EXPECT_EQ(occurrences(dump(), "after ID=1 SEEN=1 BODY=\"a long text"), 1);
}

TEST_F(BridgeTableTest, PartitionsAreTheirTable)
{
    const bool apart = server_version() < 13; // partitions are tables of their own
    sql("CREATE TABLE shop.years (year integer, note varchar(5)) PARTITION BY LIST (year);"
        "CREATE TABLE shop.y2025 PARTITION OF shop.years FOR VALUES IN (2025);"
        "CREATE TABLE shop.y2026 PARTITION OF shop.years FOR VALUES IN (2026);"
        "ALTER TABLE shop.years REPLICA IDENTITY FULL;"
        "ALTER TABLE shop.y2025 REPLICA IDENTITY FULL;"
        "ALTER TABLE shop.y2026 REPLICA IDENTITY FULL");
    sql("INSERT INTO shop.years VALUES (2025, 'a'), (2026, 'b')");
    sql("UPDATE shop.years SET note = 'c' WHERE year = 2025");
    sql("UPDATE shop.years SET year = 2026 WHERE year = 2025"); // moves the row
    sql("DELETE FROM shop.years WHERE note = 'b'");
    catch_up_well();
    EXPECT_THAT(columns_captured(),
                ElementsAre("IP          2025a           ..", "IP          2026b           ..",
                            "IU          2025a           ..          2025c           ..",
                            "ID          2025c           ..", "IP          2026c           ..",
                            "ID          2026b           .."));
    EXPECT_THAT(dump(), HasSubstr(apart ? " layout SHOP.Y2025: " : " layout SHOP.YEARS: "));
}

TEST_F(BridgeTableTest, LongNamesAreShortenedOrGivenByTheConfiguration)
{
    sql("CREATE TABLE shop.a_table_of_long_name (id integer, a_column_of_long_name integer)");
    sql("INSERT INTO shop.a_table_of_long_name VALUES (1, 2)");
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("table shop.a_table_of_long_name: its dataset is named "));
    EXPECT_THAT(result.err, HasSubstr("column shop.a_table_of_long_name.a_column_of_long_name: "
                                      "its item is named "));
    sql("INSERT INTO shop.a_table_of_long_name VALUES (3, 4)");
    const run_result again = catch_up();
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_THAT(again.err, Not(HasSubstr("is named"))) << "told once";
    const std::vector<std::string> layout = dumped("layout");
    ASSERT_EQ(layout.size(), 4U) << "one for both runs";
    EXPECT_THAT(layout[0], MatchesRegex("layout SHOP\\.A-TABLE-OF-[0-9A-V]{5}: 3 items, 10 bytes"));
    EXPECT_THAT(layout[2], MatchesRegex("A-COLUMN-OF-[0-9A-V]{5} I 4"));
    configure("column shop.a_table_of_long_name.a_column_of_long_name item=COL\n"
              "database SHOP\ndataset LONG table=shop.a_table_of_long_name\n");
    sql("INSERT INTO shop.a_table_of_long_name VALUES (5, 6)");
    catch_up_well();
    EXPECT_EQ(dumped("after").back(), "after ID=5 COL=6 NULL-MAP=\"..\"");
}

TEST_F(BridgeTableTest, TypesWithoutAGreatestLengthHaveADefaultWidth)
{
    sql("CREATE TABLE shop.notes (id integer, body text, facts jsonb, weeks smallint[])");
    sql("INSERT INTO shop.notes VALUES (1, 'words', '{\"a\": 1}', '{1,2}')");
    configure("column shop.notes.facts width=12\n");
    catch_up_well();
    EXPECT_THAT(dumped("layout"),
                ElementsAre("layout SHOP.NOTES: 5 items, 1275 bytes", "ID I 4", "BODY X 1000",
                            "FACTS X 12", "WEEKS X 255", "NULL-MAP X 4"));
    EXPECT_THAT(dumped("after"),
                ElementsAre("after ID=1 BODY=\"words\" FACTS=\"{\\\"a\\\": 1}\" WEEKS=\"{1,2}\""
                            " NULL-MAP=\"....\""));
}

TEST_F(BridgeTableTest, WhichOfTwoTablesChangesFirstMakesNoDifferenceToTheirNames)
{
    sql("CREATE TABLE shop.a_b (id integer); CREATE TABLE shop.\"A-B\" (id integer)");
    sql("INSERT INTO shop.\"A-B\" VALUES (2)");
    sql("INSERT INTO shop.a_b VALUES (1)");
    catch_up_well();
    const std::vector<std::string> layouts = dumped("layout");
    ASSERT_EQ(layouts.size(), 6U);
    EXPECT_THAT(layouts[0], MatchesRegex("layout SHOP\\.A-B-[0-9A-V]{5}: 2 items, 5 bytes"));
    EXPECT_EQ(layouts[3], "layout SHOP.A-B: 2 items, 5 bytes");
}

TEST_F(BridgeTableTest, GeneratedColumnsAndTablesWithoutColumnsDoNoHarm)
{
    sql("CREATE TABLE shop.sums (a integer, b integer GENERATED ALWAYS AS (a * 2) " +
        unsent_kind() +
        ");"
        "CREATE TABLE shop.nothing (); CREATE UNLOGGED TABLE shop.passing (a integer);"
        "CREATE TEMPORARY TABLE own (a integer); INSERT INTO own VALUES (1);"
        "CREATE MATERIALIZED VIEW shop.seen AS SELECT 1 AS one; REFRESH MATERIALIZED VIEW "
        "shop.seen");
    sql("INSERT INTO shop.sums VALUES (3)");
    sql("INSERT INTO shop.passing VALUES (4)");
    catch_up_well();
    EXPECT_THAT(dumped("after"), ElementsAre("after A=3 NULL-MAP=\".\""));
}
