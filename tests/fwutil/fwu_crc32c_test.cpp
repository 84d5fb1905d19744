// The checksum against published values, and both ways against each other.
#include "fwutil/fwu_crc32c.h"

#include <gtest/gtest.h>
#include <random>
#include <string>

struct known_crc {
    std::string bytes;
    uint32_t crc;
};

static std::vector<known_crc> known()
{
    std::string ascending;
    for (char c = 0; c < 32; c++)
        ascending += c;
    return {{"", 0},
            {"123456789", 0xE3069283},
            {std::string(32, '\0'), 0x8A9136AA},
            {std::string(32, '\xFF'), 0x62A8AB43},
            {ascending, 0x46DD794E}};
}

TEST(Crc32c, GivesPublishedValues)
{
    for (const known_crc &row : known()) {
        EXPECT_EQ(fwu_crc32c(0, row.bytes.data(), row.bytes.size()), row.crc);
        EXPECT_EQ(fwu_crc32c_tables(0, row.bytes.data(), row.bytes.size()), row.crc);
    }
}

TEST(Crc32c, InPiecesIsTheSameAsInOne)
{
    const std::string bytes = "123456789";
    for (size_t cut = 0; cut <= bytes.size(); cut++)
        EXPECT_EQ(
            fwu_crc32c(fwu_crc32c(0, bytes.data(), cut), bytes.data() + cut, bytes.size() - cut),
            0xE3069283U);
}

TEST(Crc32c, InstructionAndTablesAgreeAtEveryLengthAndAlignment)
{
    std::mt19937 random(1);
    std::string bytes(200, '\0');
    for (char &c : bytes)
        c = static_cast<char>(random());
    for (size_t from = 0; from < 9; from++)
        for (size_t length = 0; from + length <= bytes.size(); length++)
            ASSERT_EQ(fwu_crc32c(7, bytes.data() + from, length),
                      fwu_crc32c_tables(7, bytes.data() + from, length));
}
