// Where the value of an item is, by its flag in the null map and what stands beside the record.
#include "tests/changes/made_changes.h"

#include <gtest/gtest.h>

struct place_row {
    char flag;
    change_place without; // a whole value beside the record
    change_place with;
};

static const place_row PLACES[] = {
    {'.', CHANGE_IN_IMAGE, CHANGE_WHOLE},      {'N', CHANGE_NULL, CHANGE_NULL},
    {'C', CHANGE_IN_IMAGE, CHANGE_WHOLE},      {'R', CHANGE_IN_IMAGE, CHANGE_WHOLE},
    {'?', CHANGE_NOT_KNOWN, CHANGE_NOT_KNOWN}, {'!', CHANGE_NOT_KNOWN, CHANGE_WHOLE},
    {'\0', CHANGE_IN_IMAGE, CHANGE_WHOLE},     {' ', CHANGE_IN_IMAGE, CHANGE_WHOLE},
    {'\x7F', CHANGE_IN_IMAGE, CHANGE_WHOLE},
};

static change_row row_of(const std::string &image, std::span<const fwu_value> values = {})
{
    return {reinterpret_cast<const unsigned char *>(image.data()), values};
}

TEST(ChangePlace, IsToldByTheFlagAndByWhatStandsBesideTheRecord)
{
    const change_dataset dataset =
        dataset_of("D", {{"A", 'X', 2}, {"MAP", 'X', 2}, {"B", 'X', 2}}, "MAP");
    const std::vector<fwu_value> values = {{.item = 0, .text = "of A"},
                                           {.item = 2, .text = "of B"}};
    for (const place_row &row : PLACES) {
        const std::string image = std::string("aa.") + row.flag + "bb";
        std::string_view whole = "untouched";
        EXPECT_EQ(change_place_of(whole, dataset, row_of(image), 2), row.without) << row.flag;
        EXPECT_EQ(whole, "untouched");
        EXPECT_EQ(change_place_of(whole, dataset, row_of(image, values), 2), row.with) << row.flag;
        EXPECT_EQ(whole, row.with == CHANGE_WHOLE ? "of B" : "untouched");
        EXPECT_EQ(change_place_of(whole, dataset, row_of(image, std::span(values).first(1)), 2),
                  row.without)
            << row.flag << ": that of A only";
    }
}

TEST(ChangePlace, IsTheImageOrBesideItWithoutNullMap)
{
    const change_dataset dataset = dataset_of("D", {{"A", 'X', 2}, {"B", 'X', 2}});
    const std::vector<fwu_value> values = {{.item = 1, .text = ""}};
    std::string_view whole = "left over";
    EXPECT_EQ(change_place_of(whole, dataset, row_of("N?"), 0), CHANGE_IN_IMAGE);
    EXPECT_EQ(change_place_of(whole, dataset, row_of("aaNN", values), 0), CHANGE_IN_IMAGE);
    EXPECT_EQ(change_place_of(whole, dataset, row_of("aaNN", values), 1), CHANGE_WHOLE);
    EXPECT_EQ(whole, "");
}
