// Truncates on the way of a follower: where it ends, what its message says to do, carried out as
// it is written, and what a run that goes on keeps of them.
#include "fwutil/fwu_process.h"

#include "fwutil/fwu_start.h"
#include "tests/fwutil/follow_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <gmock/gmock.h>
#include <random>

using testing::HasSubstr;

class TruncateTest : public follow_test {
  protected:
    static fwu_mark mark_of(const char *dbname = "SALES", const char *dsetname = "ORDERS",
                            const char *schema = "sales", const char *table = "orders")
    {
        return {.kind = FWU_MARK_TRUNCATE,
                .dbname = dbname,
                .dsetname = dsetname,
                .schema = schema,
                .table = table,
                .reason = "TRUNCATE"};
    }

    // What a configuration says, and nothing of tables: the writer has those.
    void say(const std::string &lines)
    {
        write_file(cfg, "log-directory log\n" + lines);
    }

    void put_record(int32_t number)
    {
        seen change = insert(number);
        ASSERT_EQ(put(change), 0);
        change.recnum = static_cast<int32_t>(written.size() + 1);
        written.push_back(change);
    }

    void add_marks(const std::vector<fwu_mark> &marks)
    {
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        for (const fwu_mark &mark : marks)
            ASSERT_EQ(fwu_writer_mark(writer, mark), 0);
        ASSERT_EQ(commit(), 0);
    }

    // Layout 1, record 1, mark 3, record 4, commit; then a transaction of a record, which is 6.
    void one_inside()
    {
        open_writer();
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        put_record(1);
        ASSERT_EQ(fwu_writer_mark(writer, mark_of()), 0);
        put_record(2);
        ASSERT_EQ(commit(), 0);
        add({insert(3)});
        close_writer();
    }

    std::string stop_text(const std::string &at, const std::string &of) const
    {
        return "fwutil: " + at + ": " + of +
               " was truncated here, and nothing in the records tells it: empty what is made of "
               "them, then start with start position " +
               at + " (-start " + at +
               "), which passes over this truncate, or with the line \"truncate mark\" in " + cfg +
               ", which passes over all; a start may empty the program's text files: keep them "
               "aside first\n";
    }
};

static const char ORDERS[] = "SALES.ORDERS (table sales.orders)";

TEST_F(TruncateTest, EndsTheRunBeforeItAgainAndAgain)
{
    one_inside();
    run_outcome outcome = run();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.records, written_from(1, 1));
    EXPECT_EQ(outcome.err, stop_text("1-1.3", ORDERS));
    EXPECT_THAT(read_file(status), HasSubstr(" position 0001-00000001.0000000002 time "));
    for (const char *start : {static_cast<const char *>(nullptr), "1-1.2"}) {
        outcome = run(start);
        EXPECT_EQ(outcome.result, -1);
        EXPECT_TRUE(outcome.records.empty());
        EXPECT_EQ(outcome.err, stop_text("1-1.3", ORDERS));
    }
    EXPECT_EQ(run("1").records, written_from(1, 1));
}

TEST_F(TruncateTest, TheStartPositionThatItsMessageGivesPassesOverThatOneOnly)
{
    one_inside();
    open_writer();
    add_marks({mark_of()}); // 8, behind commit 7
    close_writer();
    EXPECT_EQ(run().records, written_from(1, 1));
    run_outcome outcome = run("1-1.3");
    EXPECT_EQ(outcome.records, written_from(2));
    EXPECT_EQ(outcome.err, stop_text("1-1.8", ORDERS));
    EXPECT_EQ(run().err, stop_text("1-1.8", ORDERS));
    // Nothing is behind it, and yet the next start knows that it was answered.
    outcome = run("1-1.8");
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_TRUE(outcome.records.empty());
    EXPECT_THAT(read_file(status), HasSubstr(" position 0001-00000001.0000000008 time "));
    outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    open_writer();
    add({insert(4)});
    close_writer();
    EXPECT_EQ(run().records, written_from(4));
}

TEST_F(TruncateTest, TheLineThatItsMessageGivesPassesOverAllAndMayBeTakenOutAgain)
{
    one_inside();
    open_writer();
    add_marks({mark_of()});
    close_writer();
    EXPECT_EQ(run().result, -1);
    const std::string stops = read_file(cfg);
    write_file(cfg, stops + "truncate mark\n");
    run_outcome outcome = run();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.records, written_from(2));
    write_file(cfg, stops);
    outcome = run();
    EXPECT_EQ(outcome.result, 0) << outcome.err;
    EXPECT_TRUE(outcome.records.empty());
    open_writer();
    add_marks({mark_of()});
    close_writer();
    EXPECT_EQ(run().err, stop_text("1-1.10", ORDERS));
}

TEST_F(TruncateTest, WhereNothingIsSaidADescriptionDecides)
{
    one_inside();
    const struct {
        const char *lines;
        bool stops;
    } rows[] = {
        {"", false},
        {"values mark\nskip-table a.b\n", false},
        {"database SALES\n", true},
        {"column a.b.c width=9\n", true},
        {"truncate stop\n", true},
        {"database SALES\ntruncate mark\n", false},
    };
    for (const auto &row : rows) {
        say(row.lines);
        EXPECT_EQ(run("1").result, row.stops ? -1 : 0) << row.lines;
    }
}

TEST_F(TruncateTest, ItIsNamedAsFarAsTheLogKnows)
{
    open_writer();
    add_marks({mark_of(), mark_of("", "", "Sales", "two words"), mark_of("SALES", "PARTS", "", ""),
               mark_of("", "", "", "")});
    close_writer();
    EXPECT_EQ(run().err, stop_text("1-1.1", ORDERS));
    EXPECT_EQ(run("1-1.1").err, stop_text("1-1.2", "table Sales.\"two words\""));
    EXPECT_EQ(run("1-1.2").err, stop_text("1-1.3", "SALES.PARTS"));
    EXPECT_EQ(run("1-1.3").err, stop_text("1-1.4", "a table"));
    EXPECT_EQ(run("1-1.4").err, "");
    say("");
    Fwu_verbose(1);
    const run_outcome passed = run("1-1.1");
    Fwu_verbose(0);
    EXPECT_THAT(passed.err, HasSubstr("fwutil: 1-1.1: SALES.ORDERS (table sales.orders) was "
                                      "truncated here\nfwutil: 1-1.2: table Sales.\"two words\" "
                                      "was truncated here\n"));
}

TEST_F(TruncateTest, GapsEndNoRun)
{
    open_writer();
    add({insert(1)});
    add_marks({{.kind = FWU_MARK_GAP, .dbname = "SALES", .dsetname = "ORDERS"}, {}});
    add({insert(2)});
    close_writer();
    say("truncate stop\n");
    EXPECT_EQ(run().records, written);
}

TEST_F(TruncateTest, EndsARunThatFollows)
{
    open_writer();
    add({insert(1)});
    start();
    EXPECT_EQ(next(), 1);
    add_marks({mark_of()});
    EXPECT_EQ(finish_within(30), 1);
    EXPECT_THAT(told(), HasSubstr(": SALES.ORDERS (table sales.orders) was truncated here, and "));
}

TEST_F(TruncateTest, WhatCannotBeKeptOfItEndsTheRun)
{
    const system_calls_guard guard;
    open_writer();
    add_marks({mark_of()});
    close_writer();
    calls.fail_fdatasync = true;
    const run_outcome outcome = run("1-1.1");
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.err, HasSubstr("cannot bring the "));
}

// Whoever does as the message says gets every record once and stops once at each truncate.
TEST_F(TruncateTest, WithTheRemedyOfEachRandomLogsComeWholeAndOnce)
{
    const uint32_t seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 30; round++) {
        std::filesystem::remove_all(log);
        std::filesystem::remove(status);
        written.clear();
        config.log_file_size = 300;
        open_writer();
        int truncates = 0;
        for (uint64_t transaction = random() % 9; transaction > 0; transaction--) {
            ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
            for (uint64_t entry = random() % 5; entry > 0; entry--) {
                if (random() % 2 == 0) {
                    put_record(static_cast<int32_t>(random() % 100));
                } else {
                    ASSERT_EQ(fwu_writer_mark(writer, mark_of()), 0);
                    truncates++;
                }
            }
            ASSERT_EQ(commit(), 0);
        }
        close_writer();

        std::vector<seen> delivered;
        std::string start;
        int stops = 0;
        for (;;) {
            const run_outcome outcome = run(start.empty() ? nullptr : start.c_str());
            delivered.insert(delivered.end(), outcome.records.begin(), outcome.records.end());
            if (outcome.result == 0)
                break;
            ASSERT_LE(++stops, truncates) << outcome.err;
            const size_t at = outcome.err.find("(-start ") + 8;
            start = outcome.err.substr(at, outcome.err.find(')', at) - at);
            if (random() % 2 == 0) { // comes back to it first
                EXPECT_EQ(run().err, outcome.err);
            }
        }
        EXPECT_EQ(stops, truncates);
        EXPECT_EQ(delivered, written);
        EXPECT_EQ(run().result, 0);
    }
}
