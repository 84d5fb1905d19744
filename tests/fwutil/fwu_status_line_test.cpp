// Lines of a status file, byte for byte.
#include "fwutil/fwu_status_line.h"

#include "fwutil/fwu_crc32c.h"
#include "tests/fwutil/status_lines.h"

#include <climits>
#include <gtest/gtest.h>
#include <random>

class StatusLineTest : public testing::Test {
  protected:
    std::string set(int number, const fwu_place &place)
    {
        fwu_status_line_set(line, number, place);
        return {line.text, sizeof line.text};
    }
    const uint32_t prefix_crc = fwu_crc32c(0, PREFIX, sizeof PREFIX - 1);
    fwu_status_line line = {.prefix_crc = prefix_crc};
};

TEST_F(StatusLineTest, IsWrittenByteForByteWhateverStoodThereBefore)
{
    EXPECT_EQ(set(0, {}), NONE_0);
    EXPECT_EQ(set(0, place_of(340)), LINE_0);
    EXPECT_EQ(set(1, place_of(340)), LINE_1);
    EXPECT_EQ(set(2, place_of(341)), LINE_2);
    fwu_place other = place_of(340, 26);
    other.time_us++;
    other.lsn++;
    other.identity = {};
    EXPECT_NE(set(5, other), LINE_5);
    EXPECT_EQ(set(5, place_of(340)), LINE_5);
    other = place_of(340);
    other.lsn++;
    EXPECT_NE(set(5, other), LINE_5);
    EXPECT_EQ(set(5, place_of(340)), LINE_5) << "only the source position differs";
    EXPECT_EQ(set(1, {}), NONE_1);
    EXPECT_EQ(set(5, place_of(340)), LINE_5);
}

TEST_F(StatusLineTest, IsReadAsItWasWritten)
{
    fwu_place unknown = place_of(7);
    unknown.full = false;
    unknown.lsn = 0;
    unknown.identity = {};
    fwu_place old = place_of(7);
    old.identity = {};
    for (const fwu_place &written : {place_of(7), fwu_place(), unknown, old}) {
        fwu_place read;
        EXPECT_TRUE(fwu_status_line_get(set(3, written), prefix_crc, read));
        EXPECT_EQ(read, written) << set(3, written);
        EXPECT_FALSE(fwu_status_line_get(set(3, written), prefix_crc + 1, read)) << "other prefix";
        EXPECT_TRUE(fwu_place_line_get(fwu_place_line(written), read));
        EXPECT_EQ(read, written);
    }
}

// What is changed in place is the same as what is formatted anew.
TEST_F(StatusLineTest, AnyPlaceBehindAnyOtherIsWrittenAsInAFreshLine)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    fwu_place place = place_of(1);
    for (int round = 0; round < 20000; round++) {
        const auto pick = [&random](uint32_t n) { return static_cast<int32_t>(random() % n); };
        if (pick(3) != 0)
            place.position.tag++;
        switch (pick(12)) {
        case 0:
            place.position = {1, 25 + pick(2), pick(100)};
            break;
        case 1:
            place.position.generation = 1 + pick(2);
            break;
        case 2:
            place.time_us += pick(2000) * 1000 - 1000000;
            break;
        case 3:
            place.lsn += static_cast<uint64_t>(pick(3));
            break;
        case 4:
            place.position.sequence++; // a file has one identity
            place.identity.bytes[0] = static_cast<unsigned char>(pick(2));
            break;
        case 5:
            place.time_us = -pick(2000000);
            break;
        case 6:
            place = fwu_place();
            break;
        case 7:
            place = place_of(pick(100));
            place.full = false;
            place.lsn = 0;
            place.identity = {};
            break;
        default:
            break;
        }
        if (place.position.tag > 0 && !fwu_place_named(place))
            place = place_of(7);
        fwu_status_line fresh;
        fresh.prefix_crc = prefix_crc;
        fwu_status_line_set(fresh, round % 10, place);
        ASSERT_EQ(set(round % 10, place), std::string(fresh.text, sizeof fresh.text)) << round;
    }
}

TEST_F(StatusLineTest, APointerIsReadAsItWasWritten)
{
    const std::string text = fwu_pointer_line({449, 200, 0x120ed675}, 1, prefix_crc);
    EXPECT_EQ(text, std::string(POINTERS_340).substr(FWU_POINTER_SIZE));
    fwu_pointer pointer;
    ASSERT_TRUE(fwu_pointer_line_get(text, prefix_crc, pointer));
    EXPECT_EQ(pointer.at, 449U);
    EXPECT_EQ(pointer.length, 200U);
    EXPECT_EQ(pointer.crc, 0x120ed675U);
}

TEST_F(StatusLineTest, EachByteChangedOrCutOffIsNoLine)
{
    fwu_place place;
    fwu_pointer pointer;
    const std::string whole = LINE_0;
    const std::string where = std::string(POINTERS_340).substr(0, FWU_POINTER_SIZE);
    for (int bit = 1; bit < 256; bit *= 2) {
        for (size_t i = 0; i < whole.size(); i++) {
            std::string bytes = whole;
            bytes[i] = static_cast<char>(bytes[i] ^ bit);
            EXPECT_FALSE(fwu_status_line_get(bytes, prefix_crc, place)) << i;
            EXPECT_FALSE(fwu_status_line_get(whole.substr(0, i), prefix_crc, place)) << i;
        }
        for (size_t i = 0; i < where.size(); i++) {
            std::string bytes = where;
            bytes[i] = static_cast<char>(bytes[i] ^ bit);
            EXPECT_FALSE(fwu_pointer_line_get(bytes, prefix_crc, pointer)) << i;
            EXPECT_FALSE(fwu_pointer_line_get(where.substr(0, i), prefix_crc, pointer)) << i;
        }
    }
}

static std::string crc_text(uint32_t crc)
{
    char text[9];
    (void)snprintf(text, sizeof text, "%08x", crc);
    return text;
}

// Nor where the checksum is good, or there is none: whoever wrote that is no run of ours.
TEST_F(StatusLineTest, AWrongByteUnderAGoodChecksumIsNoLine)
{
    fwu_place place;
    fwu_pointer pointer;
    fwu_place unknown = place_of(7);
    unknown.full = false;
    for (const fwu_place &written : {place_of(340), fwu_place(), unknown}) {
        const std::string whole = fwu_place_line(written);
        for (size_t i = 0; i < whole.size(); i++) {
            std::string bytes = whole;
            bytes[i] = 'x';
            EXPECT_FALSE(fwu_place_line_get(bytes, place)) << bytes;
        }
    }
    const size_t crc_at = FWU_POINTER_SIZE - 9;
    const std::string where = std::string(POINTERS_340).substr(0, FWU_POINTER_SIZE);
    for (size_t i = 0; i < crc_at; i++) {
        std::string bytes = where;
        bytes[i] = bytes[i] == 'x' ? 'y' : 'x';
        const size_t covered = crc_at - (sizeof " crc " - 1);
        bytes.replace(crc_at, 8, crc_text(fwu_crc32c(prefix_crc, bytes.data(), covered)));
        EXPECT_FALSE(fwu_pointer_line_get(bytes, prefix_crc, pointer)) << bytes;
    }
}

TEST_F(StatusLineTest, AWrongByteOfVersion1UnderAGoodChecksumIsNoLine)
{
    const uint32_t crc = fwu_crc32c(0, PREFIX_1, sizeof PREFIX_1 - 1);
    const size_t crc_at = OLD_1.size() - 9;
    fwu_place place;
    ASSERT_TRUE(fwu_status_line_get_1(OLD_1, crc, place));
    for (size_t i = 0; i < crc_at; i++) {
        std::string bytes = OLD_1;
        bytes[i] = 'x';
        const size_t covered = crc_at - (sizeof " crc " - 1);
        bytes.replace(crc_at, 8, crc_text(fwu_crc32c(crc, bytes.data(), covered)));
        EXPECT_FALSE(fwu_status_line_get_1(bytes, crc, place)) << bytes;
    }
}

TEST_F(StatusLineTest, PositionsThatNoLogHasAreRefused)
{
    const std::string whole = fwu_place_line(place_of(340));
    fwu_place place;
    const auto with = [&whole](const std::string &position) {
        std::string bytes = whole;
        return bytes.replace(sizeof "position " - 1, position.size(), position);
    };
    EXPECT_TRUE(fwu_place_line_get(with("0001-00000025.2147483647"), place));
    for (const char *position :
         {"0001-00000025.2147483648", "0000-00000025.0000000340", "0001-00000000.0000000340"})
        EXPECT_FALSE(fwu_place_line_get(with(position), place)) << position;
}

TEST_F(StatusLineTest, TagsCountUpDigitByDigit)
{
    const auto tag_after = [this](int32_t sequence, int32_t tag) {
        return set(0, {{1, sequence, tag}, 0, true, 0, {}}).substr(25, 10);
    };
    EXPECT_EQ(std::string(LINE_0).substr(25, 10), "0000000340") << "where a line has its tag";
    const struct {
        int32_t sequence, tag;
        const char *digits;
    } rows[] = {
        {25, 8, "0000000008"},          {25, 9, "0000000009"},
        {25, 10, "0000000010"},         {25, 199, "0000000199"},
        {25, 200, "0000000200"},        {25, 99999, "0000099999"},
        {26, 100000, "0000100000"},     {26, 999999999, "0999999999"},
        {26, 1000000000, "1000000000"}, {26, 2147483646, "2147483646"},
        {26, 2147483647, "2147483647"}, {27, 1, "0000000001"},
        {27, 0, "0000000000"},          {27, 1, "0000000001"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(tag_after(row.sequence, row.tag), row.digits);
}

TEST_F(StatusLineTest, TimesOutsideFourDigitYearsStillGiveAGoodLine)
{
    for (const int64_t time : {INT64_MIN, INT64_MAX, int64_t{-1}}) {
        fwu_place place;
        EXPECT_TRUE(fwu_status_line_get(set(0, {{1, 1, 1}, time, true, 0, {}}), prefix_crc, place));
    }
}
