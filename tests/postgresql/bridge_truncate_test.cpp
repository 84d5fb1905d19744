// Truncates of a live server: marks in the log at their places, and what Kestro does there.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;

static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";

class BridgeTruncateTest : public LedgerTest {
  protected:
    // The lines of the dump that tell of changes and marks, without positions.
    std::string events() const
    {
        std::string text;
        std::istringstream lines(dump());
        for (std::string line; std::getline(lines, line);) {
            for (const char *word : {" insert ", " update ", " delete ", " mark "})
                if (const size_t at = line.find(word); at != std::string::npos && line[0] != ' ')
                    text += line.substr(at + 1, line.find(" #", at) - at - 1) + "\n";
        }
        return text;
    }

    run_result capture(const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> argv = {kestro, "-cfg", "fwutil.cfg", "-stat", "k.status"};
        argv.insert(argv.end(), more.begin(), more.end());
        argv.insert(argv.end(), {"-synconly", "k.msg"});
        return run_program(argv, options);
    }

    size_t records() const
    {
        return message_records(dir.file("k.msg")).size();
    }

    // The configuration's way with truncates changes, nothing else.
    void say(const char *line) const
    {
        configure(std::string(line) + "\n" + ledger_cfg);
    }
};

static const char MARK[] = "mark truncate LOAD.LEDGER table load.ledger: TRUNCATE\n";

TEST_F(BridgeTruncateTest, StandsAmongTheChangesOfItsTransaction)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1);
    sql("BEGIN; INSERT INTO load.ledger VALUES (2, 0, 1, 'row', NULL); TRUNCATE load.ledger;"
        " INSERT INTO load.ledger VALUES (3, 0, 1, 'row', NULL); COMMIT");
    sql("TRUNCATE load.ledger");
    const run_result taken = catch_up();
    EXPECT_EQ(taken.status, 0);
    EXPECT_EQ(taken.err, "");
    const std::string text = events();
    EXPECT_EQ(occurrences(text, "insert LOAD.LEDGER"), 3);
    EXPECT_EQ(occurrences(text, MARK), 2);
    EXPECT_EQ(text.find(MARK) > text.find("insert", text.find("insert") + 1), true);
    EXPECT_TRUE(text.ends_with(MARK)) << text;
    insert(4); // a restart passes over what it has
    EXPECT_EQ(catch_up().status, 0);
    EXPECT_EQ(occurrences(events(), MARK), 2);
}

TEST_F(BridgeTruncateTest, EveryTableOfOneCommandHasItsMark)
{
    configure("skip-table load.scratch\n");
    sql("CREATE TABLE load.scratch (id integer PRIMARY KEY);"
        "CREATE TABLE load.\"two words\" (id integer PRIMARY KEY);"
        "CREATE TABLE load.never_changed (id integer PRIMARY KEY);"
        "CREATE TABLE load.part (id integer PRIMARY KEY) PARTITION BY RANGE (id);"
        "CREATE TABLE load.part_1 PARTITION OF load.part FOR VALUES FROM (0) TO (10)");
    const bool by_root = server_version() >= 13; // else partitions are tables of their own
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    sql("INSERT INTO load.part VALUES (1); INSERT INTO load.\"two words\" VALUES (1)");
    sql("TRUNCATE load.scratch, load.\"two words\", load.never_changed, load.part");
    ASSERT_EQ(catch_up().status, 0);
    const std::string text = events();
    EXPECT_EQ(occurrences(text, "mark truncate"), 3) << text;
    EXPECT_THAT(text, HasSubstr("table load.\"two words\": TRUNCATE\n"));
    EXPECT_THAT(text, HasSubstr("mark truncate LOAD.NEVER-CHANGED table load.never_changed: "));
    EXPECT_THAT(text,
                HasSubstr(by_root ? "mark truncate LOAD.PART table load.part: TRUNCATE\n"
                                  : "mark truncate LOAD.PART-1 table load.part_1: TRUNCATE\n"));

    // Of a single partition of a table that is followed as a whole the stream does not tell.
    sql("INSERT INTO load.part VALUES (2); TRUNCATE load.part_1");
    ASSERT_EQ(catch_up().status, 0);
    EXPECT_EQ(occurrences(events(), "mark truncate"), by_root ? 3 : 4);
}

TEST_F(BridgeTruncateTest, ADescribedTableStopsKestroUntilItsMessageIsFollowed)
{
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1);
    sql("TRUNCATE load.ledger");
    insert(2);
    sql("TRUNCATE load.ledger");
    insert(3);
    ASSERT_EQ(catch_up().status, 0);
    const auto remedy = [](const std::string &err) {
        const size_t at = err.find("(-start ") + 8;
        return err.substr(at, err.find(')', at) - at);
    };
    run_result stopped = capture();
    EXPECT_EQ(stopped.status, 1);
    EXPECT_EQ(records(), 1U);
    EXPECT_THAT(stopped.err, HasSubstr(": LOAD.LEDGER (table load.ledger) was truncated here, "));
    EXPECT_THAT(capture().err, HasSubstr(remedy(stopped.err) + ": LOAD.LEDGER"));
    EXPECT_EQ(records(), 1U);

    // This one, then all.
    stopped = capture({"-start", remedy(stopped.err)});
    EXPECT_EQ(stopped.status, 1);
    EXPECT_EQ(records(), 2U);
    say("truncate mark");
    EXPECT_EQ(capture().status, 0);
    EXPECT_EQ(records(), 3U);
    say("truncate stop");
    EXPECT_EQ(capture().status, 0) << "what was passed over stops no more";
    EXPECT_EQ(records(), 3U);
}

TEST_F(BridgeTruncateTest, WithoutADescriptionKestroGoesOn)
{
    configure();
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    insert(1);
    sql("TRUNCATE load.ledger");
    insert(2);
    ASSERT_EQ(catch_up().status, 0);
    EXPECT_EQ(capture().status, 0);
    EXPECT_EQ(records(), 2U);
}
