// What is given and not acknowledged: case by case, against a naive model, and when there is more
// than is kept.
#include "tools/fwlog/outstanding.h"

#include <gtest/gtest.h>
#include <optional>
#include <random>

static change_transaction transaction_at(int32_t sequence, int32_t tag)
{
    return {.commit = {.time_us = tag, .xid = 7, .lsn = static_cast<uint64_t>(tag) * 16},
            .position = {1, sequence, tag},
            .identity = {{9}}};
}

static fwu_place place_at(int32_t sequence, int32_t tag, int32_t commit)
{
    return {{1, sequence, tag}, commit, true, static_cast<uint64_t>(commit) * 16, {{9}}};
}

// Lines of 10 bytes each, all of them with the consumer.
struct Outstanding : testing::Test {
    void give(const std::vector<int32_t> &tags, int32_t commit)
    {
        const change_transaction transaction = transaction_at(1, commit);
        for (const int32_t tag : tags) {
            fwlog_outstanding_line(o, {1, 1, tag}, transaction, bytes);
            bytes += 10;
        }
        fwlog_outstanding_end(o, transaction, bytes);
        fwlog_outstanding_written(o, bytes);
    }
    fwlog_acked take(int32_t tag)
    {
        return fwlog_outstanding_take(o, {1, 1, tag});
    }
    fwlog_outstanding o;
    uint64_t bytes = 0;
};

TEST_F(Outstanding, LinesAndCommitsAreAcknowledged)
{
    give({2, 3}, 4);
    give({6}, 7);
    EXPECT_EQ(fwlog_outstanding_count(o), 2U);
    EXPECT_FALSE(fwu_place_named(o.dealt));
    EXPECT_EQ(take(2), FWLOG_ACKED);
    EXPECT_EQ(o.dealt, place_at(1, 2, 4)) << "inside a transaction";
    EXPECT_EQ(fwlog_outstanding_count(o), 2U);
    EXPECT_EQ(take(3), FWLOG_ACKED);
    EXPECT_EQ(o.dealt, place_at(1, 4, 4)) << "its last line means all of it";
    EXPECT_EQ(fwlog_outstanding_count(o), 1U);
    EXPECT_EQ(take(4), FWLOG_ACKED);
    EXPECT_EQ(o.dealt, place_at(1, 4, 4));
    EXPECT_EQ(take(7), FWLOG_ACKED);
    EXPECT_EQ(o.dealt, place_at(1, 7, 7));
    EXPECT_EQ(fwlog_outstanding_count(o), 0U);
}

TEST_F(Outstanding, RepeatsAreHarmlessAndNothingElseIsTakenTwice)
{
    EXPECT_EQ(take(2), FWLOG_ACK_AHEAD);
    give({2, 3}, 4);
    EXPECT_EQ(take(5), FWLOG_ACK_AHEAD);
    EXPECT_EQ(take(3), FWLOG_ACKED);
    EXPECT_EQ(take(3), FWLOG_ACKED);
    EXPECT_EQ(take(2), FWLOG_ACK_BACKWARD);
    EXPECT_EQ(o.dealt, place_at(1, 4, 4));
}

TEST_F(Outstanding, WhatWasNotWantedIsBehindWithWhatIsBeforeIt)
{
    give({}, 2);
    EXPECT_EQ(o.dealt, place_at(1, 2, 2));
    give({4}, 5);
    give({}, 7);
    give({}, 9);
    EXPECT_EQ(o.dealt, place_at(1, 2, 2));
    EXPECT_EQ(fwlog_outstanding_count(o), 1U);
    EXPECT_EQ(take(4), FWLOG_ACKED);
    EXPECT_EQ(o.dealt, place_at(1, 9, 9));
    give({}, 11);
    EXPECT_EQ(o.dealt, place_at(1, 11, 11));
}

TEST_F(Outstanding, OnTheWayToTheStartNothingGoesBack)
{
    fwlog_outstanding_begin(o, place_at(1, 6, 8), {1, 1, 6});
    give({}, 2);
    EXPECT_EQ(o.dealt, place_at(1, 6, 8));
    EXPECT_EQ(take(6), FWLOG_ACKED) << "the place of the start again";
    EXPECT_EQ(take(5), FWLOG_ACK_BACKWARD);
    give({7}, 8);
    EXPECT_EQ(take(7), FWLOG_ACKED);
    EXPECT_EQ(o.dealt, place_at(1, 8, 8));
}

TEST_F(Outstanding, OnlyWhatIsWithTheConsumerCanBeAcknowledged)
{
    const change_transaction transaction = transaction_at(1, 4);
    fwlog_outstanding_line(o, {1, 1, 2}, transaction, 0);
    fwlog_outstanding_line(o, {1, 1, 3}, transaction, 10);
    EXPECT_EQ(fwlog_outstanding_count(o), 0U);
    EXPECT_EQ(take(2), FWLOG_ACK_AHEAD);
    fwlog_outstanding_written(o, 10);
    EXPECT_EQ(take(2), FWLOG_ACKED);
    EXPECT_EQ(take(3), FWLOG_ACK_AHEAD);
    fwlog_outstanding_end(o, transaction, 20);
    fwlog_outstanding_written(o, 19);
    EXPECT_EQ(take(4), FWLOG_ACK_AHEAD) << "the last line's end is missing";
    EXPECT_EQ(take(3), FWLOG_ACKED);
    EXPECT_EQ(o.dealt, place_at(1, 4, 4));
}

TEST_F(Outstanding, AnEndThatComesLaterFollowsTheAcknowledgement)
{
    const change_transaction transaction = transaction_at(1, 4);
    fwlog_outstanding_line(o, {1, 1, 2}, transaction, 0);
    fwlog_outstanding_written(o, 10);
    EXPECT_EQ(take(2), FWLOG_ACKED);
    EXPECT_EQ(o.dealt, place_at(1, 2, 4));
    EXPECT_EQ(fwlog_outstanding_count(o), 0U) << "a range may end here";
    fwlog_outstanding_end(o, transaction, 10);
    EXPECT_EQ(o.dealt, place_at(1, 4, 4));
}

// Everything that was given, in order; what is dealt with is looked up from the beginning.
struct naive {
    struct entry {
        fwu_position position;
        bool line = false; // else the end of a transaction
        uint64_t there = 0;
        bool wanted = false; // of an end: lines came before it
    };
    std::vector<entry> entries;
    fwu_position acked;

    bool is_there(const fwu_position &position, uint64_t written) const
    {
        fwu_position last;
        for (const entry &e : entries)
            if ((e.line || e.wanted) && e.there <= written)
                last = e.position;
        return position <= last;
    }
    std::optional<fwu_position> dealt() const
    {
        std::optional<fwu_position> found;
        for (const entry &e : entries) {
            if (e.line && !(e.position <= acked)) // the first line that is not dealt with
                break;
            found = e.position;
        }
        return found;
    }
};

TEST(OutstandingModel, RandomRunsAgreeWithANaiveModel)
{
    std::random_device device;
    for (const unsigned seed : {1U, 2U, 3U, static_cast<unsigned>(device())}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const auto below = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
        fwlog_outstanding o;
        naive model;
        int32_t tag = 0;
        uint64_t bytes = 0;
        uint64_t written = 0;
        for (int round = 0; round < 1500; round++) {
            const int32_t lines = static_cast<int32_t>(below(4));
            const change_transaction transaction = transaction_at(1, tag + 2 * lines + 2);
            for (int32_t i = 0; i < lines; i++) {
                tag += 2;
                fwlog_outstanding_line(o, {1, 1, tag}, transaction, bytes);
                model.entries.push_back({{1, 1, tag}, true, bytes + 1, false});
                bytes += 10;
            }
            tag += 2;
            fwlog_outstanding_end(o, transaction, bytes);
            model.entries.push_back({transaction.position, false, bytes, lines > 0});
            if (below(3) == 0)
                written += below(static_cast<uint32_t>(bytes - written + 1));
            fwlog_outstanding_written(o, written);
            for (uint32_t i = below(3); i > 0; i--) {
                const fwu_position position = {
                    1, 1, model.acked.tag + static_cast<int32_t>(below(20)) - 2};
                const fwlog_acked expected = position == model.acked  ? FWLOG_ACKED
                                             : position < model.acked ? FWLOG_ACK_BACKWARD
                                             : model.is_there(position, written) ? FWLOG_ACKED
                                                                                 : FWLOG_ACK_AHEAD;
                ASSERT_EQ(fwlog_outstanding_take(o, position), expected);
                if (expected == FWLOG_ACKED)
                    model.acked = position;
            }
            // Between two entries is where the one before it is.
            const fwu_position dealt = model.dealt().value_or(fwu_position());
            ASSERT_EQ(o.dealt.position.tag - o.dealt.position.tag % 2, dealt.tag)
                << "round " << round;
        }
    }
}

TEST_F(Outstanding, OfTooManySomeAreForgottenAndNoneIsSkipped)
{
    const int32_t transactions = 4 * static_cast<int32_t>(FWLOG_OUTSTANDING_MAX) + 3;
    for (int32_t i = 0; i < transactions; i++) {
        give({2 * i + 1}, 2 * i + 2);
        ASSERT_LE(o.kept.size(), FWLOG_OUTSTANDING_MAX);
    }
    EXPECT_EQ(fwlog_outstanding_count(o), static_cast<uint64_t>(transactions));
    int32_t furthest = 0; // that the place was behind the acknowledgement
    for (int32_t tag = 1; tag <= 2 * transactions; tag += 997) {
        ASSERT_EQ(take(tag), FWLOG_ACKED);
        ASSERT_LE(o.dealt.position.tag, tag + 1) << "the commit of an acknowledged line";
        furthest = std::max(furthest, tag - o.dealt.position.tag);
        ASSERT_GE(fwlog_outstanding_count(o) * 2,
                  static_cast<uint64_t>(2 * transactions - tag - 1));
    }
    EXPECT_GT(furthest, 2) << "some were forgotten";
    EXPECT_LE(furthest, 32);
    EXPECT_EQ(take(2 * transactions), FWLOG_ACKED);
    EXPECT_EQ(o.dealt.position.tag, 2 * transactions) << "the last one is always kept";
    EXPECT_EQ(fwlog_outstanding_count(o), 0U);
}
