// Bit maps, reversal and big-endian words.
#include "msgfile/tmu.h"

#include <cstring>
#include <gtest/gtest.h>

TEST(Tmu, BitsCountFromTheLeastSignificantOfEachByte)
{
    unsigned char map[2] = {};
    tmu_set_bit(map, 0);
    tmu_set_bit(map, 3);
    tmu_set_bit(map, 15);
    EXPECT_EQ(map[0], 0x09);
    EXPECT_EQ(map[1], 0x80);
    EXPECT_EQ(tmu_get_bit(map, 3), 1);
    EXPECT_EQ(tmu_get_bit(map, 4), 0);
    EXPECT_EQ(tmu_get_bit(map, 15), 1);
    tmu_clear_bit(map, 3);
    tmu_clear_bit(map, 4);
    EXPECT_EQ(map[0], 0x01);
    EXPECT_EQ(map[1], 0x80);
}

TEST(Tmu, ReverseTurnsTwoOrFourBytesAndNothingElse)
{
    const struct {
        int n;
        unsigned char expected[5];
    } rows[] = {
        {0, {1, 2, 3, 4, 5}}, {1, {1, 2, 3, 4, 5}}, {2, {2, 1, 3, 4, 5}},
        {3, {1, 2, 3, 4, 5}}, {4, {4, 3, 2, 1, 5}}, {8, {1, 2, 3, 4, 5}},
    };
    for (const auto &row : rows) {
        unsigned char bytes[5] = {1, 2, 3, 4, 5};
        tmu_reverse(bytes, row.n);
        EXPECT_EQ(memcmp(bytes, row.expected, sizeof(bytes)), 0) << row.n;
    }
}

TEST(Tmu, BigEndianWordsPutTheHighByteFirst)
{
    unsigned char word[2];
    put_be16(word, 0xD012);
    EXPECT_EQ(word[0], 0xD0);
    EXPECT_EQ(word[1], 0x12);
    EXPECT_EQ(get_be16(word), 0xD012);
}

TEST(Tmu, HostOrderIsToldFromMemory)
{
    EXPECT_EQ(is_big_endian(), __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 1 : 0);
}
