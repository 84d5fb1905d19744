// Start specifications and the files that they find.
#include "fwutil/fwu_start.h"

#include "fwutil/fwu_cursor.h"
#include "tests/fwutil/log_fixture.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

struct start_row {
    const char *text;
    bool good;
    fwu_position position;
};

TEST(Start, AcceptsAFileWithOrWithoutGenerationAndAWholePosition)
{
    for (const start_row &row : std::vector<start_row>{
             {"25", true, {0, 25, 0}},
             {"00025", true, {0, 25, 0}},
             {"99999999", true, {0, 99999999, 0}},
             {"1-25.340", true, {1, 25, 340}},
             {"9999-1.0", true, {9999, 1, 0}},
             {"1-25", true, {1, 25, 0}},
             {"1-25.2147483647", true, {1, 25, 2147483647}},
             {"", false, {}},
             {"0", false, {}},
             {"100000000", false, {}},
             {"-1", false, {}},
             {"+1", false, {}},
             {" 1", false, {}},
             {"1 ", false, {}},
             {"x", false, {}},
             {"1-x", false, {}},
             {"1-", false, {}},
             {"1--25", false, {}},
             {"1-25.-0", false, {}},
             {"1.5", false, {}},
             {"0-1.1", false, {}},
             {"10000-1.1", false, {}},
             {"1-0.1", false, {}},
             {"1-25.", false, {}},
             {"1-25.x", false, {}},
             {"1-25.340x", false, {}},
             {"1-25.2147483648", false, {}},
             {"99999999999999999999", false, {}},
         }) {
        fwu_position position;
        int result = 0;
        const std::string err = stderr_of([&] { result = fwu_start_parse(row.text, position); });
        EXPECT_EQ(result, row.good ? 0 : -1) << row.text;
        if (row.good)
            EXPECT_EQ(position, row.position) << row.text;
        else
            EXPECT_EQ(err, std::string("fwutil: start position \"") + row.text +
                               "\": give a log file number (25, 1-25) for its first record, or "
                               "generation-sequence.tag (1-25.340) for the record behind that "
                               "one\n");
    }
}

static std::vector<fwu_log_file> files(const std::vector<std::pair<int, int>> &numbers)
{
    std::vector<fwu_log_file> list;
    list.reserve(numbers.size());
    for (const auto &[generation, sequence] : numbers)
        list.push_back({generation, sequence, fwu_log_file_name(generation, sequence), ""});
    return list;
}

TEST(Start, AFileNumberMeansTheNewestGenerationThatHasIt)
{
    const auto list = files({{1, 24}, {1, 25}, {2, 25}, {2, 26}});
    const fwu_log_file *file = nullptr;
    fwu_position position{0, 25, 0};
    ASSERT_EQ(fwu_start_find(list, position, "x", file), 0);
    EXPECT_EQ(file->name, "fw0002-00000025.log");
    position = {0, 24, 0};
    ASSERT_EQ(fwu_start_find(list, position, "x", file), 0);
    EXPECT_EQ(position, (fwu_position{1, 24, 0}));
    position = {1, 25, 9};
    ASSERT_EQ(fwu_start_find(list, position, "x", file), 0);
    EXPECT_EQ(file->name, "fw0001-00000025.log");
}

TEST(Start, AMissingFileIsAnErrorThatNamesWhatThereIs)
{
    const fwu_log_file *file = nullptr;
    fwu_position position{1, 26, 3};
    EXPECT_EQ(stderr_of([&] {
                  EXPECT_EQ(fwu_start_find(files({{1, 24}, {2, 26}}), position, "here", file), -1);
              }),
              "fwutil: here: the log does not have that file; it has fw0001-00000024.log (start "
              "position 1-24.0) to fw0002-00000026.log (2-26.0)\n");
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(fwu_start_find({}, position, "here", file), -1); }),
                HasSubstr("here: the log has no files yet"));
}

TEST(Start, PositionsAreShownWithoutLeadingZeros)
{
    EXPECT_EQ(fwu_position_text({1, 25, 340}), "1-25.340");
}

TEST(Start, PositionsOfTheSourceAreTwoHexadecimalNumbers)
{
    EXPECT_EQ(fwu_lsn_text(0), "0/0");
    EXPECT_EQ(fwu_lsn_text(0x1BC8080), "0/1BC8080");
    EXPECT_EQ(fwu_lsn_text(UINT64_MAX), "FFFFFFFF/FFFFFFFF");
    EXPECT_EQ(fwu_lsn_text(0x1A0000002BU), "1A/2B");
    uint64_t lsn = 0;
    ASSERT_TRUE(fwu_lsn_parse(lsn, "0/195E398"));
    EXPECT_EQ(lsn, 0x195E398U);
    ASSERT_TRUE(fwu_lsn_parse(lsn, "1A/2b"));
    EXPECT_EQ(lsn, 0x1A0000002BU);
    ASSERT_TRUE(fwu_lsn_parse(lsn, "FFFFFFFF/FFFFFFFF"));
    for (const char *text : {"", "/", "1", "1/", "/1", "1/2/3", "1/2 ", " 1/2", "-1/2", "1/-2",
                             "100000000/0", "0/100000000", "0x1/2", "g/1"})
        EXPECT_FALSE(fwu_lsn_parse(lsn, text)) << text;
    EXPECT_EQ(lsn, UINT64_MAX);
}
