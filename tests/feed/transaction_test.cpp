// What is told of a transaction in hand, and marks in it; what becomes of its rows stands in the
// tests of the sources.
#include "feed/transaction.h"

#include "tests/support/tempdir.h"

#include <filesystem>
#include <gtest/gtest.h>

class Transaction : public testing::Test {
  protected:
    Transaction()
    {
        tell_as("prog");
        testing::internal::CaptureStderr();
    }

    static std::string told()
    {
        return testing::internal::GetCapturedStderr();
    }

    feed_transaction tx;
};

TEST_F(Transaction, WhatIsWrongIsToldWithTheTransactionInHand)
{
    tx.open = true;
    tx.commit.xid = 7;
    tx.commit.lsn = 0x10000002A;
    EXPECT_EQ(feed_tell_bad(tx, outcome_bad("the value is 100% odd")).kind(), OUTCOME_FAILED);
    EXPECT_EQ(told(), "prog: transaction 7 of 1/2A: the value is 100% odd\n");
}

TEST_F(Transaction, WhatIsWrongOutsideATransactionIsToldAsItIs)
{
    EXPECT_EQ(feed_tell_bad(tx, outcome_bad("odd")).kind(), OUTCOME_FAILED);
    EXPECT_EQ(told(), "prog: odd\n");
}

TEST_F(Transaction, OtherOutcomesPassAndNothingIsTold)
{
    EXPECT_TRUE(feed_tell_bad(tx, {}));
    EXPECT_EQ(feed_tell_bad(tx, OUTCOME_FAILED).kind(), OUTCOME_FAILED);
    const outcome lost = feed_tell_bad(tx, {OUTCOME_LOST, "gone"});
    EXPECT_EQ(lost.kind(), OUTCOME_LOST);
    EXPECT_EQ(lost.text(), "gone");
    EXPECT_EQ(told(), "");
}

TEST_F(Transaction, NotesAreToldOnceEachBehindItsPlace)
{
    tx.work.notes = {"one", "two"};
    feed_tell_notes(tx, "file:3: ");
    feed_tell_notes(tx);
    tx.work.notes = {"three"};
    feed_tell_notes(tx);
    EXPECT_EQ(told(), "prog: file:3: warning: one\nprog: file:3: warning: two\n"
                      "prog: warning: three\n");
}

// A log of a test's own, whose bytes are looked at: what an entry is, its own tests tell.
class MarkInTransaction : public testing::Test {
  protected:
    MarkInTransaction()
    {
        write_file(cfg, "log-directory log\n");
        EXPECT_EQ(fwu_config_read(config, cfg.c_str()), 0);
        EXPECT_EQ(fwu_writer_open(&tx.writer, config), 0);
    }

    ~MarkInTransaction() override
    {
        EXPECT_EQ(fwu_writer_close(tx.writer), 0);
    }

    // The bytes of all files of the log.
    std::string logged() const
    {
        std::string bytes;
        for (const auto &entry : std::filesystem::directory_iterator(dir.file("log")))
            bytes += read_file(entry.path());
        return bytes;
    }

    bool has(const std::string &bytes) const
    {
        return logged().find(bytes) != std::string::npos;
    }

    tempdir dir;
    std::string cfg = dir.file("fwutil.cfg");
    fwu_config config;
    feed_transaction tx;
};

TEST_F(MarkInTransaction, StandsInATransactionOfItsOwnWithItsSession)
{
    feed_begin(tx, {.time_us = 1'700'000'000'000'000, .xid = 7, .lsn = 0x10000002A});
    ASSERT_TRUE(
        feed_put_mark(tx, {FWU_MARK_TRUNCATE, "SALES", "ORDERS", "sales", "orders", "why"}));
    ASSERT_TRUE(feed_commit(tx));
    EXPECT_EQ(fwu_writer_last_lsn(tx.writer), 0x10000002AU);
    EXPECT_EQ(tx.totals.transactions, 1U);
    // kind, lengths of the names, zero; both names; lengths and texts of table and reason
    EXPECT_TRUE(has(std::string("t\5\6\0SALES\0ORDERS\0"
                                "\5\0\0\0sales\0\6\0\0\0orders\0\3\0\0\0why\0",
                                4 + 13 + 10 + 11 + 8)));
    EXPECT_TRUE(has("xid=7"));
}

TEST_F(MarkInTransaction, OfATransactionThatTheLogHasIsPassedOver)
{
    for (int i = 0; i < 2; i++) {
        feed_begin(tx, {.time_us = 1, .xid = 7, .lsn = 16});
        ASSERT_TRUE(feed_put_mark(tx, {.reason = "why"}));
        ASSERT_TRUE(feed_commit(tx));
    }
    EXPECT_EQ(tx.totals.transactions, 1U);
    EXPECT_EQ(tx.totals.skipped, 1U);
}

TEST_F(MarkInTransaction, IsForgottenWithATransactionThatIsGivenUp)
{
    feed_begin(tx, {.time_us = 1, .xid = 7, .lsn = 16});
    ASSERT_TRUE(feed_put_mark(tx, {.reason = "why"}));
    feed_abandon(tx);
    EXPECT_EQ(fwu_writer_last_lsn(tx.writer), 0U);
}

TEST_F(MarkInTransaction, ReasonOfAnyBytesAndLengthIsTaken)
{
    const std::string odd("zero \0 and \xFF", 12);
    feed_begin(tx, {.time_us = 1, .xid = 7, .lsn = 16});
    ASSERT_TRUE(feed_put_mark(tx, {.reason = odd}));
    ASSERT_TRUE(feed_put_mark(tx, {.reason = std::string(5'000'000, 'x')}));
    ASSERT_TRUE(feed_put_mark(tx, {.reason = std::string(4095, 'y') + "\xC3\xA4"}));
    ASSERT_TRUE(feed_commit(tx));
    EXPECT_TRUE(has(std::string("\16\0\0\0zero   and \xEF\xBF\xBD\0", 19)));
    EXPECT_TRUE(has(std::string("\0\x10\0\0", 4) + std::string(4096, 'x') + std::string(1, '\0')));
    EXPECT_TRUE(
        has(std::string("\xFF\x0F\0\0", 4) + std::string(4095, 'y') + std::string(1, '\0')));
}
