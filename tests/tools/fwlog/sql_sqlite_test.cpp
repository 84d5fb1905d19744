// Statements applied to real SQLite databases: whatever is cut off, killed or repeated, the
// tables end as the changes leave them.
#include "tests/tools/fwlog/random_changes.h"
#include "tests/tools/fwlog/sqlite.h"

#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>

using testing::HasSubstr;

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";

class FwlogSqliteTest : public testing::Test {
  protected:
    void SetUp() override
    {
        if (sqlite::missing())
            GTEST_SKIP() << "sqlite3 is missing (Debian package sqlite3)";
    }

    std::string sql(const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> argv = {program,     "sql",    "-cfg",           log.cfg,
                                         "--dialect", "sqlite", "--create-tables"};
        argv.insert(argv.end(), more.begin(), more.end());
        const run_result result = run_program(argv);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }

    std::string once(const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> words = {"--position-table", "done"};
        words.insert(words.end(), more.begin(), more.end());
        return sql(words);
    }

    // A transaction of one row in table SHOP_N.
    void add(int no, const std::string &dataset = "N")
    {
        log.begin();
        log.insert({.dbname = "SHOP",
                    .dsetname = dataset,
                    .items = {{.name = "NO", .type = 'I', .size = 4}}},
                   le(static_cast<uint64_t>(no), 4));
        log.commit();
    }

    // Loses the end of the log, as a damaged disk does, and repairs it.  How many transactions
    // are left.
    uint64_t lose(uintmax_t bytes)
    {
        EXPECT_EQ(fwu_writer_sync(log.writer), 0);
        EXPECT_EQ(fwu_writer_acknowledge(log.writer), 0);
        EXPECT_EQ(fwu_writer_close(log.writer), 0);
        const std::string file = log.log + "/fw0001-00000001.log";
        std::filesystem::resize_file(file, std::filesystem::file_size(file) - bytes);
        const run_result repaired =
            run_program({program, "repair", "-cfg", log.cfg, "--accept-loss"});
        EXPECT_EQ(repaired.status, 0) << repaired.err;
        EXPECT_EQ(fwu_writer_open(&log.writer, log.config), 0);
        const std::string left = sql();
        uint64_t transactions = 0;
        for (size_t at = left.find("COMMIT;"); at != left.npos; at = left.find("COMMIT;", at + 1))
            transactions++;
        return transactions;
    }

    void compare(const random_changes &model, const sqlite &copy) const
    {
        std::string odd = "\"shop_";
        for (const char c : std::string(random_changes::ODD))
            odd += c == '"' ? "\"\"" : std::string(1, c);
        const std::string extra = model.with_extra ? ", extra" : "";
        EXPECT_EQ(copy.rows("SELECT no, net, \"na\"\"me\"" + extra + " FROM " + odd + "\""),
                  model.odd_rows());
        EXPECT_EQ(copy.rows("SELECT a, b FROM shop_plain"), model.plain_rows());
    }

    written_log log{"database SHOP\ndataset N\nitem NO I 4 key\n"};
    sqlite target{log.dir.file("copy.db")};
};

TEST_F(FwlogSqliteTest, RandomChangesGiveTheirTables)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    random_changes model(log, seed);
    for (int n = 0; n < 150; n++) {
        if (n % 40 == 39)
            model.alter();
        model.transaction();
    }
    const run_result plain = target.run(sql());
    EXPECT_EQ(plain.err, "");
    compare(model, target);
    const sqlite other(log.dir.file("other.db"));
    const run_result counted = other.run(once());
    EXPECT_EQ(counted.err, "");
    compare(model, other);
}

// What a killed writer, client or pipe leaves: the beginning of the text.
TEST_F(FwlogSqliteTest, TextsCutAnywhereAndRepeatedGiveTheTablesOnce)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    random_changes model(log, seed);
    for (int n = 0; n < 40; n++) {
        if (n % 15 == 14)
            model.alter();
        model.transaction();
    }
    const std::string whole = once();
    for (int round = 0; round < 25; round++) {
        const sqlite copy(log.dir.file("copy" + std::to_string(round) + ".db"));
        const bool bail = round % 2 == 0;
        EXPECT_EQ(copy.run("SELECT 1").err, ""); // a text cut to nothing makes no file
        std::string text = whole;
        for (int cut = 0; cut < 4; cut++) {
            const size_t left = round < 2 && cut == 0 ? 0 : random() % text.size();
            (void)copy.run(text.substr(0, left), bail);
            // A client with -bail begins where the database is, others anywhere before.
            const bool there =
                copy.value("SELECT count(*) FROM sqlite_master WHERE name = 'done'") == "1";
            const std::string position = there ? copy.value("SELECT position FROM done") : "";
            const bool begun = there && !position.ends_with(".0000000000");
            text = begun && (bail || random() % 2 == 0) ? once({"--after", position}) : whole;
            if (text.empty())
                text = whole;
        }
        const run_result last = copy.run(text, bail);
        if (bail && text != whole) {
            EXPECT_EQ(last.err, "");
        }
        compare(model, copy);
    }
}

TEST_F(FwlogSqliteTest, AnAppliedLogDoesNothingAgain)
{
    for (int no = 1; no <= 5; no++)
        add(no);
    EXPECT_EQ(target.run(once()).err, "");
    EXPECT_EQ(target.value("SELECT position FROM done"), "0001-00000001.0000000011");
    // A row changed meanwhile shows that nothing is done.
    EXPECT_EQ(
        target.run("UPDATE SHOP_N SET NO = 50 WHERE NO = 5; DELETE FROM SHOP_N WHERE NO = 4").err,
        "");
    EXPECT_EQ(target.run(once()).err, "");
    EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1,2,3,50");
    add(6);
    EXPECT_EQ(target.run(once()).err, "");
    EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1,2,3,6,50");
    EXPECT_EQ(target.value("SELECT pending IS NULL FROM done"), "1");
}

// A client that goes on after errors neither applies the rest nor passes over anything.
TEST_F(FwlogSqliteTest, ATransactionOfWhichAStatementFailsIsAllOrNothing)
{
    add(1);
    log.begin();
    const fwu_layout layout{
        .dbname = "SHOP", .dsetname = "N", .items = {{.name = "NO", .type = 'I', .size = 4}}};
    log.insert(layout, le(2, 4));
    log.insert(layout, le(3, 4));
    log.change(FWU_OP_DELETE, layout, le(1, 4), "");
    log.insert(layout, le(4, 4));
    log.commit();
    add(5);
    struct row {
        const char *broken, *mended, *before;
    };
    const row rows[] = {
        // a row that is there already
        {"INSERT INTO SHOP_N VALUES (3)", "DELETE FROM SHOP_N WHERE NO = 3", "1,3"},
        // a row that is not there
        {"DELETE FROM SHOP_N", "INSERT INTO SHOP_N VALUES (1)", "?"},
        // a table that is not there
        {"ALTER TABLE SHOP_N RENAME TO AWAY",
         "DROP TABLE IF EXISTS SHOP_N; ALTER TABLE AWAY RENAME TO SHOP_N", "?"},
        // a statement that changes more than its row
        {"CREATE TABLE seen(n); CREATE TRIGGER t AFTER DELETE ON SHOP_N BEGIN INSERT INTO seen "
         "VALUES (1); END",
         "DROP TRIGGER t", "1"},
    };
    for (const row &of : rows)
        for (const bool bail : {true, false}) {
            std::filesystem::remove(target.path);
            EXPECT_EQ(target.run(once({"--to", "1-1.3"})).err, "");
            EXPECT_EQ(target.run(of.broken).err, "") << of.broken;
            const run_result failed = target.run(once(), bail);
            EXPECT_NE(failed.status, 0) << of.broken;
            EXPECT_EQ(target.value("SELECT position FROM done"), "0001-00000001.0000000003")
                << of.broken;
            if (of.before != std::string("?")) {
                EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), of.before)
                    << of.broken;
            }
            EXPECT_EQ(target.run(of.mended).err, "") << of.broken;
            EXPECT_EQ(target.run(once()).err, "") << of.broken;
            EXPECT_EQ(target.value("SELECT group_concat(NO) FROM (SELECT NO FROM SHOP_N ORDER BY "
                                   "NO)"),
                      "2,3,4,5")
                << of.broken;
        }
}

TEST_F(FwlogSqliteTest, GapsAndOtherLogsAreRefused)
{
    for (int no = 1; no <= 4; no++)
        add(no); // commits at 3, 5, 7, 9
    EXPECT_EQ(target.run(once({"--to", "1-1.3"})).err, "");
    for (const bool bail : {true, false}) {
        const run_result gap = target.run(once({"--after", "1-1.5"}), bail);
        EXPECT_NE(gap.status, 0);
        EXPECT_THAT(gap.err, HasSubstr("transactions_before_this_one_are_missing"));
        EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1");
    }
    EXPECT_EQ(target.run("UPDATE done SET log = '0123456789abcdef0123456789abcdef'").err, "");
    for (const bool bail : {true, false}) {
        const run_result other = target.run(once(), bail);
        EXPECT_NE(other.status, 0);
        EXPECT_THAT(other.err, HasSubstr("the_position_is_one_of_another_log"));
        EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1");
    }
    EXPECT_EQ(target.run("DROP TABLE done").err, "");
    EXPECT_EQ(target.run(once({"--after", "1-1.3"})).err, "");
    EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1,2,3,4");
}

// What comes behind a repair has positions that others had before.
TEST_F(FwlogSqliteTest, WhatARepairedLogGoesOnWithIsApplied)
{
    for (int no = 1; no <= 40; no++)
        add(no);
    EXPECT_EQ(target.run(once()).err, "");
    EXPECT_EQ(target.value("SELECT lsn || ' ' || position FROM done"),
              "0000000000000280 0001-00000001.0000000081");
    const uint64_t left = lose(3000);
    EXPECT_GT(left, 10U);
    EXPECT_LT(left, 30U);
    EXPECT_EQ(target.run(once()).err, ""); // nothing new yet
    for (int no = 101; no <= 140; no++)
        add(no);
    // The table's position is another transaction's now.
    for (const bool bail : {true, false}) {
        const run_result gap = target.run(once({"--after", "1-1.81"}), bail);
        EXPECT_NE(gap.status, 0);
        EXPECT_THAT(gap.err, HasSubstr("transactions_before_this_one_are_missing"));
    }
    EXPECT_EQ(target.value("SELECT count(*) || ' ' || max(NO) FROM SHOP_N"), "40 40");
    EXPECT_EQ(target.run(once()).err, "");
    EXPECT_EQ(target.value("SELECT count(*) || ' ' || sum(NO > 100) FROM SHOP_N"), "80 40");
    EXPECT_EQ(target.run(once()).err, "");
    add(141);
    EXPECT_EQ(target
                  .run(once({"--after", "1-" + target.value("SELECT ltrim(substr(position, 6, "
                                                            "8), '0') || '.' || ltrim(substr("
                                                            "position, 15), '0') FROM done")}))
                  .err,
              "");
    EXPECT_EQ(target.value("SELECT count(*) || ' ' || max(NO) FROM SHOP_N"), "81 141");
}

// What was lost comes again from the source, at other positions of the log.
TEST_F(FwlogSqliteTest, WhatComesAgainBehindARepairIsPassedOver)
{
    for (int no = 1; no <= 40; no++)
        add(no);
    EXPECT_EQ(target.run(once()).err, "");
    log.commits = lose(3000);
    log.new_file();
    for (int no = static_cast<int>(log.commits) + 1; no <= 41; no++)
        add(no);
    EXPECT_EQ(target.run(once({"--to", "1-2.30"})).err, "");
    EXPECT_EQ(target.value("SELECT count(*) FROM SHOP_N"), "40");
    EXPECT_EQ(target.value("SELECT position FROM done"), "0001-00000001.0000000081");
    EXPECT_EQ(target.run(once()).err, "");
    EXPECT_EQ(target.value("SELECT count(*) || ' ' || max(NO) FROM SHOP_N"), "41 41");
}

// A log of a source that has no positions.
TEST_F(FwlogSqliteTest, CommitsOfOneSourcePositionStandInTheOrderOfTheLog)
{
    for (int no = 1; no <= 6; no++) {
        log.commits = 0; // each gets the position 0/10
        add(no);
    }
    EXPECT_EQ(target.run(once({"--to", "1-1.7"})).err, "");
    EXPECT_THAT(target.run(once({"--after", "1-1.9"})).err,
                HasSubstr("transactions_before_this_one_are_missing"));
    EXPECT_EQ(target.run(once({"--after", "1-1.7", "--to", "1-1.9"})).err, "");
    EXPECT_EQ(target.run(once()).err, "");
    EXPECT_EQ(target.run(once()).err, "");
    EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1,2,3,4,5,6");
}

TEST_F(FwlogSqliteTest, AnotherSelectionIsRefused)
{
    add(1);
    add(2, "M");
    EXPECT_EQ(target.run(once({"--dset", "shop:n"})).err, "");
    add(3);
    EXPECT_EQ(target.value("SELECT selection FROM done"), "SHOP:N");
    for (const std::vector<std::string> &other :
         {std::vector<std::string>{}, {"--dset", "M"}, {"--dset", "N", "--dset", "M"}})
        for (const bool bail : {true, false}) {
            const run_result refused = target.run(once(other), bail);
            EXPECT_NE(refused.status, 0);
            EXPECT_THAT(refused.err, HasSubstr("the_position_is_one_of_another_selection"));
            EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1");
        }
    // Another way to say the same is the same.
    EXPECT_EQ(target.run(once({"--dset", "SHOP:N", "--dset", "shop:N"})).err, "");
    EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1,3");
    const sqlite both(log.dir.file("both.db"));
    EXPECT_EQ(both.run(once({"--dset", "SHOP:N", "--dset", "SHOP:M"})).err, "");
    EXPECT_EQ(both.value("SELECT selection FROM done"), "SHOP:M SHOP:N");
    EXPECT_EQ(both.run(once({"--dset", "SHOP:M", "--dset", "SHOP:N"})).err, "");
    // The remedy: a table for each selection.
    EXPECT_EQ(target.run(sql({"--position-table", "done_m", "--dset", "shop:m"})).err, "");
    EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_M"), "2");
}

TEST_F(FwlogSqliteTest, ALogWhoseSourceGoesBackIsRefused)
{
    add(1);
    add(2);
    log.commits = 0;
    add(3);
    const run_result refused = run_program({program, "sql", "-cfg", log.cfg, "--dialect", "sqlite",
                                            "--create-tables", "--position-table", "done"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err,
              "fwlog: position 1-1.6: the source's positions go back here, from 0/20 to 0/10, so "
              "that no table can tell what was applied: go on behind the transaction before with "
              "--after, without --position-table\n");
    EXPECT_EQ(target.run(refused.out).err, "");
    EXPECT_EQ(target.run(sql({"--after", "1-1.5"})).err, "");
    EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1,2,3");
}

TEST_F(FwlogSqliteTest, ADatabaseBehindAPrunedLogIsRefused)
{
    for (int no = 1; no <= 3; no++) {
        log.new_file();
        add(no);
    }
    EXPECT_EQ(target.run(once({"--to", "1-1"})).err, "");
    std::filesystem::remove(log.log + "/fw0001-00000001.log");
    std::filesystem::remove(log.log + "/fw0001-00000002.log");
    const run_result gap = target.run(once());
    EXPECT_THAT(gap.err, HasSubstr("transactions_before_this_one_are_missing"));
    EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1");
    // One that stood at what a repair has cut off, further on.
    EXPECT_EQ(target.run("UPDATE done SET position = '0001-00000003.0000000009'").err, "");
    EXPECT_THAT(target.run(once()).err, HasSubstr("transactions_before_this_one_are_missing"));
    EXPECT_EQ(target.run("UPDATE done SET position = '0001-00000003.0000000000'").err, "");
    EXPECT_EQ(target.run(once()).err, "");
    EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1,3");
}

// A column that comes, goes and comes again: repeated from the beginning, the one that is there
// keeps what it holds.
TEST_F(FwlogSqliteTest, LayoutsAreChangedOnceWhateverIsRepeated)
{
    random_changes model(log, 1);
    for (int n = 0; n < 4; n++) {
        for (int i = 0; i < 10; i++)
            model.transaction();
        model.alter();
    }
    for (int i = 0; i < 10; i++)
        model.transaction();
    ASSERT_FALSE(model.with_extra);
    model.alter();
    for (int i = 0; i < 10; i++)
        model.transaction();
    EXPECT_EQ(target.run(once()).err, "");
    compare(model, target);
    const run_result again = target.run(once(), false);
    EXPECT_THAT(again.err, HasSubstr("this_transaction_was_applied_before"));
    compare(model, target);
    const run_result bailed = target.run(once(), true);
    EXPECT_NE(bailed.status, 0);
    compare(model, target);
}

TEST_F(FwlogSqliteTest, TruncatesEmptyTheTableInTheirTransaction)
{
    const fwu_layout layout{
        .dbname = "SHOP", .dsetname = "N", .items = {{.name = "NO", .type = 'I', .size = 4}}};
    const fwu_mark emptied{.kind = FWU_MARK_TRUNCATE, .dbname = "SHOP", .dsetname = "N"};
    add(1);
    log.begin();
    log.insert(layout, le(2, 4));
    log.mark(emptied);
    log.insert(layout, le(3, 4));
    log.mark(emptied);
    log.insert(layout, le(4, 4));
    log.commit();
    EXPECT_EQ(target.run(once({"--truncate", "apply"})).err, "");
    EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "4");
    // A statement that failed in front of it is not forgotten.
    for (const bool bail : {true, false}) {
        std::filesystem::remove(target.path);
        EXPECT_EQ(target.run(once({"--to", "1-1.3"})).err, "");
        EXPECT_EQ(target.run("INSERT INTO SHOP_N VALUES (2)").err, "");
        EXPECT_NE(target.run(once({"--truncate", "apply"}), bail).status, 0);
        EXPECT_EQ(target.value("SELECT group_concat(NO) FROM SHOP_N"), "1,2");
    }
    const sqlite plain(log.dir.file("plain.db"));
    EXPECT_EQ(plain.run(sql({"--truncate", "apply"})).err, "");
    EXPECT_EQ(plain.value("SELECT group_concat(NO) FROM SHOP_N"), "4");
}

// SQLite reads the shortest digits of one number in 20,000 wrongly, and those of tiny ones.
TEST_F(FwlogSqliteTest, FloatingPointNumbersComeBackBitByBit)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const fwu_layout layout{
        .dbname = "SHOP",
        .dsetname = "F",
        .items = {{.name = "NO", .type = 'I', .size = 4}, {.name = "F", .type = 'E', .size = 8}}};
    std::vector<uint64_t> bits = {1, 0x8000000000000001, 0x0010000000000000, 0x7FEFFFFFFFFFFFFF,
                                  0x3FFD11819D2391D5 /* 1.816774 */};
    while (bits.size() < 30000) {
        // Of all sizes, tiny ones, and decimals of a few digits.
        const uint64_t any = random();
        const double decimal = static_cast<double>(any % 1'000'000'000) / 1e6;
        uint64_t next = bits.size() % 3 == 0 ? any : any & 0x01FFFFFFFFFFFFFF;
        if (bits.size() % 3 == 2)
            memcpy(&next, &decimal, sizeof next);
        if ((next >> 52 & 0x7FF) != 0x7FF && next << 1 != 0)
            bits.push_back(next);
    }
    log.begin();
    for (size_t i = 0; i < bits.size(); i++)
        log.insert(layout, le(i, 4) + le(bits[i], 8));
    log.commit();
    EXPECT_EQ(target.run(sql()).err, "");
    const run_result read = run_program(
        {"python3", "-c",
         "import sqlite3, struct, sys\n"
         "for f, in sqlite3.connect(sys.argv[1]).execute('SELECT F FROM SHOP_F ORDER BY NO'):\n"
         "    print(struct.unpack('<Q', struct.pack('<d', f))[0])\n",
         target.path});
    if (read.err.find("ModuleNotFoundError") != std::string::npos)
        GTEST_SKIP() << "Python's module sqlite3 is missing";
    std::string expected;
    for (const uint64_t one : bits)
        expected += std::to_string(one) + "\n";
    EXPECT_TRUE(read.out == expected) << read.err;
}

TEST_F(FwlogSqliteTest, WideTablesAndLargeRowsAreFoundByAllTheyHave)
{
    struct row {
        fwu_item item;
        int columns;
        std::string one, other;
    };
    const row rows[] = {
        {{.name = "", .type = 'I', .size = 2}, 1600, le(7, 2), le(8, 2)},
        {{.name = "", .type = 'X', .size = 32767},
         512,
         std::string(32767, 'a'),
         std::string(32767, '\'')},
    };
    for (const row &of : rows) {
        fwu_layout layout{
            .dbname = "SHOP", .dsetname = of.columns == 1600 ? "WIDE" : "LARGE", .items = {}};
        std::string one;
        std::string other;
        for (int i = 0; i < of.columns; i++) {
            layout.items.push_back(of.item);
            layout.items.back().name = "C" + std::to_string(i);
            one += of.one;
            other += of.other;
        }
        log.begin();
        log.insert(layout, one);
        log.insert(layout, one);
        log.change(FWU_OP_UPDATE, layout, one, other);
        log.change(FWU_OP_DELETE, layout, one, "");
        log.commit();
    }
    EXPECT_EQ(target.run(once()).err, "");
    EXPECT_EQ(target.value("SELECT count(*) || ' ' || sum(C0 + C1599) FROM SHOP_WIDE"), "1 16");
    EXPECT_EQ(target.value("SELECT count(*) || ' ' || sum(length(C511)) || substr(C0, 1, 1) FROM "
                           "SHOP_LARGE"),
              "1 32767'");
}
