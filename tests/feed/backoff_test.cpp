// What is told between attempts at a source, and how long they wait.
#include "feed/backoff.h"
#include "util/outcome.h"
#include "util/stop_signal.h"

#include <gtest/gtest.h>

#include <csignal>

static std::string told(feed_backoff &backoff, const char *why)
{
    tell_as("prog");
    testing::internal::CaptureStderr();
    feed_backoff_tell(backoff, why);
    return testing::internal::GetCapturedStderr();
}

TEST(Backoff, AReasonIsToldWhenItIsNewOrTheFirstSinceAllWentWell)
{
    feed_backoff backoff;
    EXPECT_EQ(told(backoff, "gone"), "prog: gone; trying again\n");
    EXPECT_EQ(told(backoff, "gone"), "prog: gone; trying again\n") << "no pause was made yet";
    backoff.pause_ms = 2 * FEED_FIRST_PAUSE_MS;
    EXPECT_EQ(told(backoff, "gone"), "");
    EXPECT_EQ(told(backoff, "refused"), "prog: refused; trying again\n");
    EXPECT_EQ(told(backoff, "gone"), "prog: gone; trying again\n");
}

TEST(Backoff, PausesDoubleUpToTheLongestAndEndAtASignal)
{
    feed_backoff backoff = {.pause_ms = 1};
    EXPECT_TRUE(feed_backoff_wait(backoff));
    EXPECT_EQ(backoff.pause_ms, 2);
    int called = 0;
    backoff.pause_ms = 1001;
    EXPECT_TRUE(feed_backoff_wait(backoff, [&called] { called++; }));
    EXPECT_EQ(called, 2);
    stop_signal_install();
    raise(SIGTERM); // from here on no pause is made
    backoff.pause_ms = FEED_LONGEST_PAUSE_MS - 1;
    EXPECT_FALSE(feed_backoff_wait(backoff));
    EXPECT_EQ(backoff.pause_ms, FEED_LONGEST_PAUSE_MS);
    EXPECT_FALSE(feed_backoff_wait(backoff));
    EXPECT_EQ(backoff.pause_ms, FEED_LONGEST_PAUSE_MS);
}
