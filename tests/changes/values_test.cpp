// Whole values put together from the pieces in which they stand in a log.
#include "changes/values.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

static const unsigned char SOME_IMAGE[1] = {};

static fwu_value_piece piece(int32_t item, fwu_image image, std::string_view bytes,
                             bool more = false)
{
    return {.item = item, .image = image, .more = more, .bytes = bytes};
}

// "0=abc 2=d|1=e", the old row's in front; "?": refused.
static std::string given(change_values &values, size_t items = 3, bool before = true,
                         bool after = true)
{
    change_row old_row = {before ? SOME_IMAGE : nullptr, {}};
    change_row new_row = {after ? SOME_IMAGE : nullptr, {}};
    if (!change_values_give(values, items, old_row, new_row))
        return "?";
    std::string out;
    for (const change_row *row : {&old_row, &new_row}) {
        out += row == &new_row ? "|" : "";
        for (const fwu_value &value : row->values)
            out += (out.empty() || out.back() == '|' ? "" : " ") + std::to_string(value.item) +
                   "=" + std::string(value.text);
    }
    return out;
}

TEST(ChangeValues, GoToTheRowsInTheOrderOfTheirItems)
{
    change_values values;
    EXPECT_EQ(given(values), "|");
    EXPECT_TRUE(change_values_take(values, piece(2, FWU_IMAGE_AFTER, "cc")));
    EXPECT_TRUE(change_values_take(values, piece(1, FWU_IMAGE_BEFORE, "")));
    EXPECT_TRUE(change_values_take(values, piece(0, FWU_IMAGE_AFTER, "aa")));
    EXPECT_TRUE(change_values_wait(values));
    EXPECT_EQ(given(values), "1=|0=aa 2=cc");
    EXPECT_FALSE(change_values_wait(values));
    EXPECT_EQ(given(values), "|") << "they were another change's";
    EXPECT_TRUE(change_values_take(values, piece(0, FWU_IMAGE_BEFORE, "b")));
    EXPECT_EQ(given(values, 1, true, false), "0=b|");
}

TEST(ChangeValues, ArePutTogetherFromTheirPieces)
{
    change_values values;
    EXPECT_TRUE(change_values_take(values, piece(1, FWU_IMAGE_AFTER, "one ", true)));
    EXPECT_TRUE(change_values_take(values, piece(1, FWU_IMAGE_AFTER, "", true)));
    EXPECT_TRUE(change_values_take(values, piece(1, FWU_IMAGE_AFTER, "two")));
    EXPECT_TRUE(change_values_take(values, piece(1, FWU_IMAGE_BEFORE, "three")));
    EXPECT_EQ(given(values), "1=three|1=one two");
}

TEST(ChangeValues, ThatCannotBeTheChangesAreRefused)
{
    change_values values;
    const auto fresh = [&values](std::initializer_list<fwu_value_piece> pieces) {
        change_values_clear(values);
        bool taken = true;
        for (const fwu_value_piece &one : pieces)
            taken = taken && change_values_take(values, one);
        return taken;
    };
    EXPECT_TRUE(fresh({piece(3, FWU_IMAGE_AFTER, "no such item")}));
    EXPECT_EQ(given(values, 3), "?");
    EXPECT_TRUE(fresh({piece(INT32_MAX, FWU_IMAGE_AFTER, "")}));
    EXPECT_EQ(given(values, 3), "?");
    EXPECT_TRUE(fresh({piece(0, FWU_IMAGE_BEFORE, "of no row")}));
    EXPECT_EQ(given(values, 3, false, true), "?");
    EXPECT_TRUE(fresh({piece(0, FWU_IMAGE_AFTER, "of no row")}));
    EXPECT_EQ(given(values, 3, true, false), "?");
    EXPECT_TRUE(fresh({piece(0, FWU_IMAGE_AFTER, "a"), piece(0, FWU_IMAGE_AFTER, "twice")}));
    EXPECT_EQ(given(values), "?");
    EXPECT_TRUE(fresh({piece(0, FWU_IMAGE_AFTER, "unfinished", true)}));
    EXPECT_EQ(given(values), "?");
    EXPECT_FALSE(
        fresh({piece(0, FWU_IMAGE_AFTER, "a", true), piece(1, FWU_IMAGE_AFTER, "another item")}));
    EXPECT_FALSE(
        fresh({piece(0, FWU_IMAGE_AFTER, "a", true), piece(0, FWU_IMAGE_BEFORE, "another row")}));
    EXPECT_TRUE(fresh({piece(0, FWU_IMAGE_AFTER, "well")}));
    EXPECT_EQ(given(values), "|0=well");
}

TEST(ChangeValues, HugeOnesAreNotKeptInMemory)
{
    change_values values;
    const std::string huge(8 * FWU_VALUE_PIECE_MAX, 'x');
    EXPECT_TRUE(change_values_take(values, piece(0, FWU_IMAGE_AFTER, huge)));
    EXPECT_EQ(given(values), "|0=" + huge);
    EXPECT_EQ(given(values), "|");
    EXPECT_LE(values.bytes.capacity(), 2 * FWU_VALUE_PIECE_MAX);
}

TEST(ChangeValues, AreThoseOfAMapForAnyPieces)
{
    constexpr unsigned SEED = 20260711;
    std::mt19937 random(SEED);
    const auto below = [&random](uint32_t n) { return static_cast<uint32_t>(random()) % n; };
    change_values values;
    for (int round = 0; round < 2000; round++) {
        std::map<std::pair<bool, int32_t>, std::string> expected; // by "new row" and item
        const uint32_t wanted = below(6);
        while (expected.size() < wanted) {
            const bool after = below(2) == 1;
            const auto item = static_cast<int32_t>(below(5));
            if (expected.contains({after, item}))
                continue;
            std::string &text = expected[{after, item}];
            for (uint32_t left = 1 + below(4); left > 0; left--) {
                const std::string part(below(4), static_cast<char>('a' + below(26)));
                text += part;
                EXPECT_TRUE(change_values_take(
                    values,
                    piece(item, after ? FWU_IMAGE_AFTER : FWU_IMAGE_BEFORE, part, left > 1)));
            }
        }
        std::string shown;
        std::string other;
        for (const auto &[place, text] : expected) {
            std::string &to = place.first ? other : shown;
            to += (to.empty() ? "" : " ") + std::to_string(place.second) + "=" + text;
        }
        ASSERT_EQ(given(values, 5), shown + "|" + other) << "seed " << SEED << " round " << round;
    }
}
