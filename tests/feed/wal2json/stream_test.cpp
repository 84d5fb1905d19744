// Lines to transactions in the log: sessions, what is left out, and what is
// wrong with the order of lines.
#include "feed/wal2json/stream.h"
#include "tests/feed/rows.h"
#include "tests/support/log_lines.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;

// 1970-01-01 00:00:01.5, so that commit time and logtime are easily seen.
static const char STAMP[] = R"("timestamp":"1970-01-01 00:00:01.5+00")";

static std::string begin(int xid, const char *lsn)
{
    return R"({"action":"B","xid":)" + std::to_string(xid) + "," + STAMP + R"(,"lsn":")" + lsn +
           R"("})";
}

static std::string commit(int xid, const char *lsn)
{
    return R"({"action":"C","xid":)" + std::to_string(xid) + "," + STAMP + R"(,"lsn":")" + lsn +
           R"("})";
}

static std::string message(int xid, const char *content, const char *prefix = "session",
                           const char *transactional = "true")
{
    return R"({"action":"M","xid":)" + std::to_string(xid) + R"(,"transactional":)" +
           transactional + R"(,"prefix":")" + prefix + R"(","content":")" + content + R"("})";
}

// Where the records of its table come from.
static const char source_line[] = "source SALES.ORDERS sales.orders: a text >0";

static std::string row(const char *value)
{
    return std::string(R"([{"name":"a","type":"text","value":")") + value + R"("}])";
}

// A change of table sales.orders; null rows are left out.
static std::string change(char action, int xid, const char *fresh, const char *old,
                          const char *table = "orders")
{
    return std::string(R"({"action":")") + action + R"(","xid":)" + std::to_string(xid) +
           R"(,"schema":"sales","table":")" + table + '"' +
           (fresh == nullptr ? "" : R"(,"columns":)" + row(fresh)) +
           (old == nullptr ? "" : R"(,"identity":)" + row(old)) + "}";
}

class FwlogStream : public testing::Test {
  protected:
    FwlogStream()
    {
        config = config_of({item_of("A", 'X', 2)});
        config.log_directory = dir.file("log");
        config.skip_tables = {"sales.audit"};
        stream.tables.config = &config;
        open_log();
    }
    ~FwlogStream() override
    {
        close_log();
    }

    void close_log()
    {
        EXPECT_EQ(fwu_writer_close(stream.tx.writer), 0);
        stream.tx.writer = nullptr;
    }

    void open_log()
    {
        ASSERT_EQ(fwu_writer_open(&stream.tx.writer, config), 0);
    }

    // Takes lines until one is wrong, whose error it returns; "" when none is.
    std::string take(const std::vector<std::string> &lines)
    {
        for (const std::string &line : lines) {
            const outcome done = w2j_stream_line(stream, line, ++number);
            if (!done)
                return done.text();
        }
        return "";
    }

    std::vector<std::string> log()
    {
        return log_lines(config.log_directory);
    }

    tempdir dir;
    fwu_config config;
    w2j_stream stream;
    uint64_t number = 0;
};

TEST_F(FwlogStream, TransactionReachesTheLogAtItsEnd)
{
    EXPECT_EQ(take({begin(7, "0/A"), change('I', 7, "n", nullptr), change('U', 7, "o", "n"),
                    change('D', 7, nullptr, "o")}),
              "");
    EXPECT_THAT(log(), ElementsAre());
    EXPECT_EQ(take({commit(7, "0/A")}), "");
    EXPECT_THAT(log(), ElementsAre("session | <xid=7> <lsn=0/A>", "layout SALES.ORDERS",
                                   source_line, "insert SALES.ORDERS 1 1 <|6E20>",
                                   "update SALES.ORDERS 1 2 <6E20|6F20>",
                                   "delete SALES.ORDERS 1 3 <6F20|>", "commit 1500000 7 10"));
    EXPECT_EQ(stream.tx.totals.transactions, 1U);
    EXPECT_EQ(stream.tx.totals.inserts, 1U);
    EXPECT_EQ(stream.tx.totals.updates, 1U);
    EXPECT_EQ(stream.tx.totals.deletes, 1U);
}

TEST_F(FwlogStream, TruncateIsAMarkAtItsPlaceAmongTheChanges)
{
    EXPECT_EQ(take({begin(6, "0/9"), change('T', 6, nullptr, nullptr), commit(6, "0/9"),
                    begin(7, "0/A"), change('I', 7, "n", nullptr), change('T', 7, nullptr, nullptr),
                    change('T', 7, nullptr, nullptr, "audit"), change('I', 7, "o", nullptr),
                    commit(7, "0/A"), begin(7, "0/A"), change('T', 7, nullptr, nullptr),
                    commit(7, "0/A")}),
              "");
    const std::string mark = "mark t SALES.ORDERS sales.orders: TRUNCATE";
    EXPECT_THAT(log(), ElementsAre("session | <xid=6> <lsn=0/9>", mark, "commit 1500000 6 9",
                                   "session | <xid=7> <lsn=0/A>", "layout SALES.ORDERS",
                                   source_line, "insert SALES.ORDERS 1 1 <|6E20>", mark,
                                   "insert SALES.ORDERS 1 2 <|6F20>", "commit 1500000 7 10"));
    EXPECT_EQ(stream.tx.totals.transactions, 2U);
    EXPECT_EQ(stream.tx.totals.skipped, 1U);
}

TEST_F(FwlogStream, SessionMessageGivesEntriesAndDataElements)
{
    EXPECT_EQ(take({begin(7, "0/A"), message(7, "pid=12;login=ann;user=;pname=desk;info=a=b c"),
                    change('I', 7, "n", nullptr), commit(7, "0/A")}),
              "");
    EXPECT_EQ(log().at(0),
              "session pname=<desk> user=<> login=<ann> pid=<12> info=<a=b c> | <pid=12> "
              "<login=ann> <user=> <pname=desk> <info=a=b c> <xid=7> <lsn=0/A>");
}

TEST_F(FwlogStream, SessionOfOneTransactionIsNotThatOfTheNext)
{
    EXPECT_EQ(
        take({begin(7, "0/A"), message(7, "pid=12"), change('I', 7, "n", nullptr), commit(7, "0/A"),
              begin(8, "0/B"), change('I', 8, "n", nullptr), commit(8, "0/B")}),
        "");
    const std::vector<std::string> lines = log();
    EXPECT_EQ(lines.at(0), "session pid=<12> | <pid=12> <xid=7> <lsn=0/A>");
    EXPECT_EQ(lines.at(5), "session | <xid=8> <lsn=0/B>");
}

TEST(FwlogSession, PartsWithoutKeyOrOfOtherKeysAreDataOnly)
{
    fwu_session session;
    feed_session_from(session, "host=x;alone;;=;pid=1;pid=2;PID=3");
    EXPECT_EQ(session.data,
              (std::vector<std::string>{"host=x", "alone", "=", "pid=1", "pid=2", "PID=3"}));
    EXPECT_EQ(session.pid, "1");
    EXPECT_FALSE(session.user.has_value());
    feed_session_from(session, "");
    EXPECT_TRUE(session.data.empty());
    EXPECT_FALSE(session.pid.has_value());
}

TEST(FwlogSession, TextsAreIso88591)
{
    fwu_session session;
    feed_session_from(session, "user=J\xC3\xBCrg \xE2\x82\xAC");
    EXPECT_EQ(session.user, "J\xFCrg ?");
}

TEST_F(FwlogStream, OtherMessagesAreLeftOut)
{
    EXPECT_EQ(take({message(0, "pid=1", "session", "false"), begin(7, "0/A"),
                    message(7, "pid=1", "other"), message(99, "pid=1", "session", "false"),
                    change('I', 7, "n", nullptr), commit(7, "0/A"), message(0, "x", "other")}),
              "");
    EXPECT_EQ(log().at(0), "session | <xid=7> <lsn=0/A>");
}

// With the plugin's options for transaction ids and times.
TEST_F(FwlogStream, MessagesOutsideTransactionsArePassedOver)
{
    const std::string outside = R"({"action":"M","xid":null,"timestamp":null,"lsn":"0/9",)"
                                R"("transactional":false,"prefix":"session","content":"pid=1"})";
    EXPECT_EQ(take({outside, begin(7, "0/A"), outside, change('I', 7, "n", nullptr), outside,
                    commit(7, "0/A"), outside}),
              "");
    EXPECT_EQ(log().at(0), "session | <xid=7> <lsn=0/A>");
}

TEST_F(FwlogStream, LastSessionMessageBeforeTheFirstChangeCounts)
{
    EXPECT_EQ(take({begin(7, "0/A"), message(7, "pid=1"), message(7, "pid=2"),
                    change('I', 7, "n", nullptr), message(7, "pid=2"), commit(7, "0/A")}),
              "");
    EXPECT_EQ(log().at(0), "session pid=<2> | <pid=2> <xid=7> <lsn=0/A>");
}

TEST_F(FwlogStream, ASessionBehindTheFirstChangeCountsFromThereOnAndIsToldOnce)
{
    EXPECT_EQ(
        take({begin(7, "0/A"), change('I', 7, "n", nullptr), message(7, "pid=1"),
              message(7, "pid=2"), change('I', 7, "m", nullptr), commit(7, "0/A"), begin(8, "0/B"),
              message(8, "pid=3"), change('I', 8, "k", nullptr), message(8, "pid=4"),
              change('I', 8, "j", nullptr), message(8, "pid=5"), commit(8, "0/B"), begin(9, "0/C"),
              change('I', 9, "i", nullptr), commit(9, "0/C")}),
        "");
    EXPECT_THAT(
        log(), ElementsAre(
                   "session | <xid=7> <lsn=0/A>", "layout SALES.ORDERS", source_line,
                   "insert SALES.ORDERS 1 1 <|6E20>", "session pid=<2> | <pid=2> <xid=7> <lsn=0/A>",
                   "insert SALES.ORDERS 1 2 <|6D20>", "commit 1500000 7 10",
                   "session pid=<3> | <pid=3> <xid=8> <lsn=0/B>", "insert SALES.ORDERS 1 3 <|6B20>",
                   "session pid=<4> | <pid=4> <xid=8> <lsn=0/B>", "insert SALES.ORDERS 1 4 <|6A20>",
                   "commit 1500000 8 11", "session | <xid=9> <lsn=0/C>",
                   "insert SALES.ORDERS 1 5 <|6920>", "commit 1500000 9 12"));
    EXPECT_THAT(stream.tx.work.notes,
                ElementsAre("transaction 7: a session message comes behind the first change and "
                            "counts from there on (this is told once)"));
}

TEST_F(FwlogStream, TransactionsWithoutChangesLeaveNoTrace)
{
    EXPECT_EQ(take({begin(7, "0/A"), commit(7, "0/A"), begin(8, "0/B"), message(8, "pid=1"),
                    commit(8, "0/B"), begin(9, "0/C"), change('I', 9, "n", nullptr, "audit"),
                    change('T', 9, nullptr, nullptr, "audit"), commit(9, "0/C")}),
              "");
    EXPECT_THAT(log(), ElementsAre());
    EXPECT_EQ(stream.tx.totals.empty, 3U);
    EXPECT_EQ(stream.tx.totals.transactions, 0U);
    EXPECT_EQ(stream.tx.totals.inserts, 0U);
}

TEST_F(FwlogStream, TransactionsThatTheLogHasAreSkipped)
{
    const std::vector<std::string> lines = {
        begin(7, "0/FFFFFFFF"), change('I', 7, "n", nullptr), commit(7, "0/FFFFFFFF"),
        begin(5, "1/0"),        change('I', 5, "m", nullptr), commit(5, "1/0")};
    EXPECT_EQ(take(lines), "");
    const std::vector<std::string> before = log();
    close_log();
    open_log();
    EXPECT_EQ(take(lines), "");
    EXPECT_EQ(log(), before);
    EXPECT_EQ(stream.tx.totals.skipped, 2U);
    EXPECT_EQ(stream.tx.totals.transactions, 2U);
    EXPECT_EQ(take({begin(6, "1/1"), change('I', 6, "k", nullptr), commit(6, "1/1")}), "");
    EXPECT_EQ(count_lines(log(), "insert "), 3U);
}

TEST_F(FwlogStream, LinesOutsideATransactionAreErrors)
{
    for (const char action : {'I', 'U', 'D', 'T'}) {
        EXPECT_EQ(take({change(action, 7, "n", "o")}),
                  std::string("a line of kind ") + action +
                      " stands outside a transaction: its B line is missing");
    }
    EXPECT_EQ(take({commit(7, "0/A")}),
              "a line of kind C stands outside a transaction: its B line is missing");
    EXPECT_EQ(take({message(7, "pid=1")}), "a session message stands outside a transaction");
    EXPECT_THAT(log(), ElementsAre());
}

// Each is the third line of a transaction that has a change; the transaction
// before it stays, its own is not loaded.
struct wrong_line {
    std::string line;
    std::string error;
};

TEST_F(FwlogStream, WrongLineLoadsNothingOfItsTransaction)
{
    const std::string seven = "transaction 7 (begun in line ";
    const std::vector<wrong_line> cases = {
        {begin(8, "0/B"),
         "a transaction begins inside transaction 7 (begun in line 4), whose C line is "
         "missing: the stream has a gap"},
        {commit(8, "0/B"), "xid 8 stands inside transaction 7 (begun in line 4)"},
        {change('I', 8, "n", nullptr), "xid 8 stands inside transaction 7 (begun in line 4)"},
        {message(8, "pid=1"), "xid 8 stands inside transaction 7 (begun in line 4)"},
        {message(7, "pid=\\u0000"), "the session message holds a NUL character"},
        {commit(7, "0/C"),
         "the C line's lsn \"0/C\" is not the \"0/B\" of transaction 7 (begun in line 4)"},
        {change('U', 7, "n", nullptr),
         "sales.orders: the change comes without the old row: run ALTER "
         "TABLE sales.orders REPLICA IDENTITY FULL"},
        {change('D', 7, nullptr, nullptr),
         "sales.orders: the change comes without the old row: run "
         "ALTER TABLE sales.orders REPLICA IDENTITY FULL"},
        {change('T', 7, nullptr, nullptr, "other"),
         "table sales.other is not in test.cfg: describe dataset OTHER of database SALES there, or "
         "leave the table out with the line skip-table sales.other"},
        {change('I', 7, "abc", nullptr), "sales.orders.a: \"abc\" is 3 characters long, item A (X "
                                         "2) holds 2: make the item wider, or "
                                         "cut texts with --truncate"},
        {change('U', 7, "a", "abc"), "sales.orders.a: \"abc\" is 3 characters long, item A (X 2) "
                                     "holds 2: make the item wider, or "
                                     "cut texts with --truncate"},
        {change('I', 7, "a", nullptr, "other"),
         "table sales.other is not in test.cfg: describe dataset OTHER of database SALES there, or "
         "leave the table out with the line skip-table sales.other"},
        {"{\"action\"}", "is not valid JSON at byte 10: unexpected '}'; expected ':'"},
    };
    for (const wrong_line &wrong : cases) {
        close_log();
        config.log_directory += "+"; // a log of its own
        stream = {};
        stream.tables.config = &config;
        open_log();
        number = 0;
        EXPECT_EQ(take({begin(6, "0/A"), change('I', 6, "n", nullptr), commit(6, "0/A"),
                        begin(7, "0/B"), change('I', 7, "n", nullptr), wrong.line}),
                  wrong.error)
            << wrong.line;
        EXPECT_EQ(number, 6U) << wrong.line;
        EXPECT_THAT(log(),
                    ElementsAre("session | <xid=6> <lsn=0/A>", "layout SALES.ORDERS", source_line,
                                "insert SALES.ORDERS 1 1 <|6E20>", "commit 1500000 6 10"))
            << wrong.line;
        EXPECT_EQ(stream.tx.totals.transactions, 1U);
        EXPECT_EQ(stream.tx.totals.inserts, 1U);
    }
}

TEST_F(FwlogStream, BeginLineNeedsPositionAndTime)
{
    EXPECT_EQ(take({begin(7, "x")}), "lsn \"x\" is not a log position");
    EXPECT_EQ(take({R"({"action":"B","xid":7,"timestamp":"2026-11-20 22:08:38","lsn":"0/A"})"}),
              "timestamp \"2026-11-20 22:08:38\" is not a time with an offset from UTC");
    EXPECT_EQ(take({R"({"action":"B","xid":7,"timestamp":"","lsn":"0/A"})"}),
              "timestamp \"\" is not a time with an offset from UTC");
}

TEST_F(FwlogStream, CommitTimeIsUtcAndLogtimeItsFullSeconds)
{
    // 00:59:58.25 in a zone two hours east is 1.75 seconds before 23:00 of the
    // day before: -3601.75 seconds from 1970.
    const std::string stamp = R"("timestamp":"1970-01-01 00:59:58.25+02")";
    EXPECT_EQ(
        take({R"({"action":"B","xid":7,"lsn":"0/A",)" + stamp + "}", change('I', 7, "n", nullptr),
              R"({"action":"C","xid":7,"lsn":"0/A",)" + stamp + "}"}),
        "");
    const std::vector<std::string> lines = log();
    EXPECT_EQ(lines.at(3), "insert SALES.ORDERS -3602 1 <|6E20>");
    EXPECT_EQ(lines.at(4), "commit -3601750000 7 10");
}

TEST_F(FwlogStream, TextsCutInATransactionThatIsNotLoadedDoNotCount)
{
    stream.tx.work.settings.truncate = true;
    EXPECT_EQ(
        take({begin(7, "0/A"), change('I', 7, "long", nullptr), commit(7, "0/A"), begin(8, "0/B"),
              change('I', 8, "long", nullptr), change('I', 8, "long", nullptr)}),
        "");
    EXPECT_EQ(stream.tx.work.truncated, 3U);
    feed_abandon(stream.tx);
    EXPECT_EQ(stream.tx.work.truncated, 1U);
    EXPECT_EQ(count_lines(log(), "insert "), 1U);
}

TEST_F(FwlogStream, WhatAnItemCannotHoldIsMarkedAndWholeInTheLog)
{
    config.datasets[0].layout.items = {item_of("A", 'X', 2), item_of("B", 'I', 2),
                                       item_of("NULL-MAP", 'X', 2)};
    config.datasets[0].null_map = 2;
    config.policy = FWU_POLICY_MARK;
    const auto line = [](char action, int xid, const std::string &fresh, const std::string &old) {
        return std::string(R"({"action":")") + action + R"(","xid":)" + std::to_string(xid) +
               R"(,"schema":"sales","table":"orders")" +
               (fresh.empty() ? "" : R"(,"columns":[)" + fresh + "]") +
               (old.empty() ? "" : R"(,"identity":[)" + old + "]") + "}";
    };
    const std::string a = R"({"name":"a","type":"text","value":"long"})";
    const std::string b = R"({"name":"b","type":"integer","value":70000})";
    EXPECT_EQ(take({begin(7, "0/A"), line('I', 7, a + "," + b, ""), line('U', 7, b, a),
                    commit(7, "0/A")}),
              "");
    const feed_marked expected = {.cut = 3, .replaced = 0, .left_out = 2, .unknown = 1};
    EXPECT_EQ(stream.tx.totals.marked, expected);
    EXPECT_EQ(stream.tx.work.notes.size(), 3U);
    const std::vector<std::string> lines = log();
    ASSERT_EQ(lines.size(), 11U);
    EXPECT_THAT(std::vector(lines.begin() + 3, lines.end()),
                ElementsAre("value 0a <long>", "value 1a <70000>",
                            "insert SALES.ORDERS 1 1 <|6C6F00004321>", // "lo", 0, "C!"
                            "value 0b <long>", "value 0a <long>", "value 1a <70000>",
                            "update SALES.ORDERS 1 2 <6C6F0000433F|6C6F00004321>", // "C?", "C!"
                            "commit 1500000 7 10"));
    // What a transaction that is given up has marked does not count.
    EXPECT_EQ(take({begin(8, "0/B"), line('I', 8, a + "," + b, "")}), "");
    EXPECT_EQ(stream.tx.work.marked.cut, 4U);
    feed_abandon(stream.tx);
    EXPECT_EQ(stream.tx.work.marked, expected);
}

TEST_F(FwlogStream, SourceOfALayoutIsWhatTheLinesTellOfTheTable)
{
    config.datasets[0].layout.items = {item_of("ORDER-NO", 'I', 4), item_of("NULL-MAP", 'X', 2),
                                       item_of("PRICE", 'P', 5, 1, 2)};
    config.datasets[0].null_map = 1;
    const std::string note = R"({"name":"note","type":"text","value":"x"})";
    const auto line = [](char action, const std::string &fresh, const std::string &old = "") {
        return std::string(R"({"action":")") + action +
               R"(","xid":7,"schema":"sales","table":"orders")" +
               (fresh.empty() ? "" : R"(,"columns":[)" + fresh + "]") +
               (old.empty() ? "" : R"(,"identity":[)" + old + "]") +
               R"(,"pk":[{"name":"order_no","type":"integer"}]})";
    };
    const std::string fixed = R"({"name":"order_no","type":"integer","value":1},)"
                              R"~({"name":"price","type":"numeric(9,2)","value":1.00})~";
    EXPECT_EQ(
        take({begin(7, "0/A"), line('I', fixed + "," + note), line('U', fixed, fixed + "," + note),
              line('D', "", fixed + "," + note), commit(7, "0/A")}),
        "");
    std::vector<std::string> lines = log();
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_EQ(lines[2], "source SALES.ORDERS sales.orders null-map=1: "
                        "order_no integer >0 #1; price numeric(9,2) >2; note text");

    // The next run goes on in the same file, and finds the layout there.
    close_log();
    stream = {};
    stream.tables.config = &config;
    open_log();
    EXPECT_EQ(take({begin(7, "0/B"), line('D', "", fixed + "," + note), commit(7, "0/B")}), "");
    lines = log();
    ASSERT_EQ(lines.size(), 10U);
    EXPECT_TRUE(lines[8].starts_with("delete SALES.ORDERS")) << lines[8];

    // A column goes: the layout comes again, its items being the same, with its new source.
    EXPECT_EQ(take({begin(7, "0/C"), line('I', fixed), commit(7, "0/C")}), "");
    lines = log();
    ASSERT_EQ(lines.size(), 15U);
    EXPECT_EQ(lines[11], "layout SALES.ORDERS");
    EXPECT_EQ(lines[12], "source SALES.ORDERS sales.orders null-map=1: "
                         "order_no integer >0 #1; price numeric(9,2) >2");
}
