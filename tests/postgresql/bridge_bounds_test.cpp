// "fwlog postgresql" and what a client may write: a transaction of millions of rows, values of
// hundreds of megabytes, as many columns and tables as the server takes.  The bridge goes on, in
// 100 MiB and three times the length of the longest message; scripts/long/postgresql-bounds has
// all of it larger.
#include "tests/postgresql/bridge_fixture.h"

#include <climits>
#include <fstream>

using testing::HasSubstr;

#ifdef KESTRO_SANITIZED
constexpr bool SANITIZED = true; // such a build keeps what was freed
#else
constexpr bool SANITIZED = false;
#endif

constexpr int64_t MIB = 1024 * 1024;
constexpr int64_t MEMORY_MAX = 100 * MIB;

// How large it is to be: what the environment says, else little for a build that is slow.
static int64_t size_of(const char *variable, int64_t usual, int64_t sanitized)
{
    const char *said = getenv(variable);
    return said != nullptr ? atoll(said) : SANITIZED ? sanitized : usual;
}

class BridgeBoundsTest : public BridgeTest {
  protected:
    // The most memory that the bridge has had since forget_peak.
    int64_t peak_memory() const
    {
        const std::string status = read_file(proc("status"));
        const size_t at = status.find("VmHWM:");
        return at == std::string::npos ? -1 : atoll(status.c_str() + at + 6) * 1024;
    }

    void forget_peak() const
    {
        std::ofstream(proc("clear_refs")) << "5";
    }

    // That the messages since forget_peak, the longest of which had so many bytes, took no more
    // memory than they may.
    void expect_bounded(const std::string &what, int64_t longest) const
    {
        if (SANITIZED)
            return;
        const int64_t peak = peak_memory();
        RecordProperty(what + " (MiB)", std::to_string(peak / MIB));
        EXPECT_GT(peak, 0);
        EXPECT_LT(peak, MEMORY_MAX + 3 * longest) << what;
        if (getenv("KESTRO_BOUNDS_TELL") != nullptr)
            printf("%-40s message %6.1f MiB, memory %6.1f MiB\n", what.c_str(),
                   static_cast<double>(longest) / MIB, static_cast<double>(peak) / MIB);
    }

    // Waits until the bridge has logged so many changes since its start.
    void wait_for_changes(int64_t changes)
    {
        const std::string wanted = std::to_string(changes);
        ASSERT_TRUE(poll_until(
            [&] { return status_member("changes") == wanted || !bridge.running(); }, 550))
            << bridge.err();
        ASSERT_TRUE(bridge.running()) << bridge.err();
    }

    void end_well()
    {
        EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
        EXPECT_EQ(fwlog({"verify"}).status, 0);
    }

  private:
    std::string proc(const char *name) const
    {
        return "/proc/" + std::to_string(bridge.pid) + "/" + name;
    }
};

TEST_F(BridgeBoundsTest, MillionsOfRowsInOneTransactionNeedLittleMemory)
{
    const int64_t rows = size_of("KESTRO_BOUND_ROWS", 1'000'000, 100'000);
    const std::string changes = std::to_string(rows);
    configure(ledger_cfg);
    sql(ledger_sql);
    begin_following();
    sql("INSERT INTO load.ledger SELECT g, 0, g % 1000000, 'a row of usual length ' || g, NULL "
        "FROM generate_series(1, " +
        changes + ") g");
    wait_for_changes(rows);
    expect_bounded(changes + " rows", 0);
    end_well();
    EXPECT_THAT(fwlog({"info", "--json"}).out, HasSubstr("\"transactions\":1,"));
    const run_result capture =
        run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-cfg", "fwutil.cfg", "-stat", "text.status",
                     "-synconly", "-ascii", "/dev/null"},
                    options);
    EXPECT_THAT(capture.out, HasSubstr(changes + " records written to capture file /dev/null\n"));
}

TEST_F(BridgeBoundsTest, AMessageNeedsThreeTimesItsLength)
{
    const int64_t length = size_of("KESTRO_BOUND_VALUE_MB", 64, 4) * 1'000'000;
    constexpr int64_t row_length = 1'000'000;
    const int64_t rows = length / row_length;
    const std::string n = std::to_string(length);
    const struct {
        const char *table; // one for each: what a row took is not kept for the next one
        const char *type;
        std::string value;
        const char *more; // makes another one of it, so that both are sent
    } values[] = {
        {"ascii", "text", "repeat('x', " + n + ")", "'!'"},
        {"euros", "text", "repeat('\xE2\x82\xAC', " + n + " / 3)", "'!'"},
        {"bytes", "bytea", "decode(repeat('a5', " + n + " / 2), 'hex')", "'!'"},
        {"bits", "bit varying", "repeat('1', " + n + ")::bit varying", "B'1'"},
        {"list", "text[]", "ARRAY[repeat('x', " + n + ")]", "'!'::text"},
    };
    sql("CREATE SCHEMA load; CREATE TABLE load.more (id integer PRIMARY KEY, words text)");
    for (const auto &row : values) {
        const std::string table = std::string("load.") + row.table;
        sql("CREATE TABLE " + table + " (id integer PRIMARY KEY, value " + row.type +
            "); ALTER TABLE " + table + " REPLICA IDENTITY FULL");
    }
    begin_following();
    int64_t changes = 0;
    for (const auto &row : values) {
        const std::string table = std::string("load.") + row.table;
        forget_peak();
        // The first one is followed by as much again in messages that the connection's buffer may
        // take with it.
        const bool more = &row == values;
        sql("INSERT INTO " + table + " VALUES (0, " + row.value + ")" +
            (more ? "; INSERT INTO load.more SELECT g, repeat('y', " + std::to_string(row_length) +
                        ") FROM generate_series(1, " + std::to_string(rows) + ") g"
                  : ""));
        changes += 1 + (more ? rows : 0);
        wait_for_changes(changes);
        expect_bounded("insert into " + table, length);
        forget_peak();
        sql("UPDATE " + table + " SET value = value || " + row.more + "; DELETE FROM " + table);
        changes += 2;
        wait_for_changes(changes);
        expect_bounded("update of " + table, 2 * length);
    }
    EXPECT_EQ(bridge.err().find("error"), std::string::npos) << bridge.err();
    end_well();
}

TEST_F(BridgeBoundsTest, ATableHasAsManyColumnsAsTheServerTakes)
{
    constexpr int columns = 1600;
    std::string definition;
    std::string values;
    for (int i = 1; i <= columns; i++) {
        definition += (i == 1 ? "" : ", ") + ("c" + std::to_string(i)) + " integer";
        values += (i == 1 ? "" : ", ") + std::to_string(i);
    }
    sql("CREATE SCHEMA load; CREATE TABLE load.wide (" + definition +
        "); ALTER TABLE load.wide REPLICA IDENTITY FULL");
    begin_following();
    sql("INSERT INTO load.wide VALUES (" + values +
        "); UPDATE load.wide SET c1600 = NULL; DELETE FROM load.wide");
    wait_for_changes(3);
    expect_bounded("1600 columns", 0);
    end_well();
    const std::string log = dump();
    EXPECT_THAT(log,
                HasSubstr(" C1599=1599 C1600=1600 NULL-MAP=\"" + std::string(columns, '.') + "\""));
    EXPECT_THAT(
        log, HasSubstr(" C1599=1599 C1600=0 NULL-MAP=\"" + std::string(columns - 1, '.') + "N\""));
}

// bit(32767) has room for all its values always: 1,600 of them would be 52 MB.
TEST_F(BridgeBoundsTest, ATableWhoseImagesWouldBeTooLongIsSetAsideAlone)
{
    std::string definition;
    for (int i = 1; i < 1600; i++)
        definition += ", c" + std::to_string(i) + " bit(32767)";
    sql(ledger_sql);
    sql("CREATE TABLE load.bits (id integer PRIMARY KEY" + definition + ")");
    begin_following();
    sql("INSERT INTO load.bits VALUES (1); INSERT INTO load.ledger VALUES (1, 0, 1, 'row', NULL)");
    wait_for_changes(1);
    sql("UPDATE load.bits SET c1 = repeat('1', 32767)::bit(32767); DELETE FROM load.bits;"
        "INSERT INTO load.ledger VALUES (2, 0, 1, 'row', NULL)");
    wait_for_changes(2);
    expect_bounded("images of 52 MB", 0);
    EXPECT_THAT(bridge.err(),
                HasSubstr("table load.bits: the record image is longer than 16777216 bytes"));
    end_well();
    EXPECT_THAT(dump(), HasSubstr("load.bits"));
}

// The longest images that are made: char(10000) needs 10,000 bytes of ISO 8859-1.
TEST_F(BridgeBoundsTest, LargeImagesNeedLittleMemory)
{
    configure("text-encoding iso-8859-1\n");
    std::string definition;
    for (int i = 1; i < 1600; i++)
        definition += ", c" + std::to_string(i) + " char(10000)";
    sql("CREATE SCHEMA load; CREATE TABLE load.chars (id integer PRIMARY KEY" + definition +
        "); ALTER TABLE load.chars REPLICA IDENTITY FULL");
    begin_following();
    sql("INSERT INTO load.chars (id, c1599) VALUES (1, 'x'); UPDATE load.chars SET c1 = 'y';"
        "DELETE FROM load.chars");
    wait_for_changes(3);
    expect_bounded("images of 16 MB", 0);
    end_well();
}

TEST_F(BridgeBoundsTest, ThousandsOfTablesNeedLittleMemory)
{
    const int64_t tables = size_of("KESTRO_BOUND_TABLES", 1000, 100);
    constexpr int64_t at_a_time = 500; // a transaction has so many locks
    sql("CREATE SCHEMA load");
    for (int64_t from = 1; from <= tables; from += at_a_time)
        sql("DO $$ BEGIN FOR i IN " + std::to_string(from) + ".." +
            std::to_string(std::min(from + at_a_time - 1, tables)) +
            " LOOP EXECUTE format('CREATE TABLE load.t%s (id integer PRIMARY KEY, words text, "
            "at timestamp, price numeric(9,2), note varchar(40))', i); END LOOP; END $$");
    start_bridge({"--create"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; }, 300))
        << bridge.err();
    for (int64_t from = 1; from <= tables; from += at_a_time)
        sql("DO $$ BEGIN FOR i IN " + std::to_string(from) + ".." +
            std::to_string(std::min(from + at_a_time - 1, tables)) +
            " LOOP EXECUTE format('INSERT INTO load.t%s VALUES (1, %L)', i, repeat('x', 2000));"
            " EXECUTE format('UPDATE load.t%s SET price = 1', i); END LOOP; END $$");
    wait_for_changes(2 * tables);
    expect_bounded(std::to_string(tables) + " tables", 0);
    end_well();
}

// Two values of 600 MB are more than the server can put into one message.
TEST_F(BridgeBoundsTest, WhatTheServerCannotSendIsPassedOver)
{
    const int64_t length = size_of("KESTRO_BOUND_UNSENDABLE_MB", 0, 0) * 1'000'000;
    if (length == 0)
        GTEST_SKIP() << "takes gigabytes: in the long form only";
    sql("CREATE SCHEMA load; CREATE TABLE load.large (id integer PRIMARY KEY, words text);"
        "ALTER TABLE load.large REPLICA IDENTITY FULL");
    begin_following();
    sql("INSERT INTO load.large VALUES (1, repeat('x', " + std::to_string(length) + "))");
    wait_for_changes(1);
    expect_bounded("a value that is sent", length);
    sql("UPDATE load.large SET words = words || '!'");
    sql("DELETE FROM load.large; INSERT INTO load.large VALUES (2, 'small')");
    EXPECT_EQ(bridge.wait(), 1);
    EXPECT_THAT(bridge.err(), HasSubstr("annot enlarge string buffer")); // or "Cannot"
    const std::string option = "--skip-transaction ";
    const size_t at = bridge.err().rfind(option);
    ASSERT_NE(at, std::string::npos) << bridge.err();
    const std::string rest = bridge.err().substr(at + option.size());
    const run_result skipped =
        catch_up({"--skip-transaction", rest.substr(0, rest.find_first_of(", \n"))});
    EXPECT_EQ(skipped.status, 0) << skipped.err;
    EXPECT_EQ(fwlog({"verify"}).status, 0);
    EXPECT_THAT(fwlog({"info", "--json"}).out,
                HasSubstr("\"inserts\":2,\"updates\":0,\"deletes\":1"));
}
