// What is told of a transaction in hand; what becomes of its rows stands in the tests of
// the sources.
#include "feed/transaction.h"

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
