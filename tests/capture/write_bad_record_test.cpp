// Log records that do not fit the layout of their dataset, or lack their images.
#include "tests/capture/write_fixture.h"

TEST_F(Write, RecordThatDoesNotConvertIsWrittenAndReportedFailed)
{
    const capfil *cf = text_file("f");
    init_capstats(g_ci);
    g_fwu.items = {{"NAME", 'X', 3}};
    get_dsetinfo(g_ci->dsets);
    EXPECT_EQ(-1, write(capture_write_update));
    EXPECT_EQ("ASCII mode source buffer too large.\nASCII mode source buffer too large.\n",
              printed.err);
    EXPECT_EQ(HEADER("000000", "IU") "oldnew\n", content("f"));
    EXPECT_EQ(1, stats_of(cf->stats).updates) << "it is in the file";
}

TEST_F(Write, NothingOfARecordBeforeShowsWhereAnElementIsUnsupported)
{
    text_file("f");
    g_fwu.items = {{"SECRET", 'X', 4}};
    get_dsetinfo(g_ci->dsets);
    record.after_image = "1234";
    EXPECT_EQ(0, write(capture_write_insert));
    // Its place reaches over the line end of the record before.
    g_fwu.items = {{"A", 'X', 1}, {"B", 'I', 3, 5}};
    get_dsetinfo(g_ci->dsets);
    record.after_image = "Zbbbbbbbbbbbbbbb";
    record.reclen = 16;
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ(HEADER("000000", "IP") "1234\n" HEADER("000001", "IP") "Z     \n", content("f"));
}

TEST_F(Write, NegativeLengthIsAHeaderOnlyLineOfATextFile)
{
    const capfil *cf = text_file("f");
    init_capstats(g_ci);
    for (const int32_t length : {-1, -2147483647 - 1}) {
        record.reclen = length;
        EXPECT_EQ(-1, write(capture_write_insert));
        EXPECT_EQ("ASCII mode source buffer too small.\n", printed.err);
    }
    record.before_image = record.after_image = nullptr;
    EXPECT_EQ(-1, write(capture_write_update)) << "no image is looked at";
    EXPECT_EQ("ASCII mode source buffer too small.\nASCII mode source buffer too small.\n",
              printed.err);
    g_fwu.items = {};
    get_dsetinfo(g_ci->dsets);
    EXPECT_EQ(-1, write(capture_write_delete));
    EXPECT_EQ("ASCII mode source buffer too large.\n", printed.err);
    EXPECT_EQ(HEADER("000000", "IP") "\n" HEADER("000001", "IP") "\n" HEADER(
                  "000002", "IU") "\n" HEADER("000003", "ID") "\n",
              content("f"));
    EXPECT_EQ(2, stats_of(cf->stats).inserts) << "they are in the file";
}

TEST_F(Write, LengthBeyondTheItemsShowsWhatTheyCoverInATextFile)
{
    text_file("f");
    record.reclen = 2147483647; // of which the items ask for four bytes
    EXPECT_EQ(-1, write(capture_write_update));
    EXPECT_EQ("ASCII mode source buffer too large.\nASCII mode source buffer too large.\n",
              printed.err);
    EXPECT_EQ(HEADER("000000", "IU") "old!new!\n", content("f"));
}

TEST_F(Write, MissingImagesAreRefused)
{
    text_file("f");
    record.before_image = nullptr;
    EXPECT_EQ(-1, write(capture_write_update));
    EXPECT_EQ("Log record without its image for ORDERS.CUST\n", printed.err);
    EXPECT_EQ(-1, write(capture_write_delete));
    record.before_image = before_image;
    record.after_image = nullptr;
    EXPECT_EQ(-1, write(capture_write_update));
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_FALSE(std::filesystem::exists(dir.file("f")));
}
