// Writing log records to capture files.
#include "capture/write.h"

#include "capture/header.h"
#include "tests/capture/write_fixture.h"

TEST_F(Write, EachOperationTakesItsImages)
{
    text_file("f");
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ(HEADER("000000", "IP") "new!\n", content("f")) << "it is there at once";
    EXPECT_EQ(0, write(capture_write_update));
    EXPECT_EQ(0, write(capture_write_delete));
    EXPECT_EQ(HEADER("000000", "IP") "new!\n" HEADER("000001", "IU") "old!new!\n" HEADER(
                  "000002", "ID") "old!\n",
              content("f"));
    EXPECT_EQ("", printed.out + printed.err);
}

TEST_F(Write, InsertNeedsNoBeforeImageNorDeleteAnAfterImage)
{
    text_file("f");
    record.before_image = nullptr;
    EXPECT_EQ(0, write(capture_write_insert));
    record.before_image = before_image;
    record.after_image = nullptr;
    EXPECT_EQ(0, write(capture_write_delete));
    EXPECT_EQ(HEADER("000000", "IP") "new!\n" HEADER("000001", "ID") "old!\n", content("f"));
}

TEST_F(Write, EmptyImagesAreWritten)
{
    text_file("f");
    g_fwu.items = {};
    get_dsetinfo(g_ci->dsets);
    record.reclen = 0;
    record.before_image = record.after_image = nullptr;
    EXPECT_EQ(0, write(capture_write_update));
    EXPECT_EQ(HEADER("000000", "IU") "\n", content("f"));
}

TEST_F(Write, LongRecordsMakeTheBufferGrow)
{
    const capfil *cf = text_file("f");
    const std::string image(5000, 'x');
    g_fwu.items = {{"LONG", 'X', 5000}};
    get_dsetinfo(g_ci->dsets);
    record.reclen = 5000;
    record.before_image = record.after_image = image.data();
    EXPECT_EQ(0, write(capture_write_update));
    EXPECT_EQ(62 + 10000, cf->bufsize);
    EXPECT_EQ(HEADER("000000", "IU") + image + image + "\n", content("f"));
    EXPECT_EQ(0, write(capture_write_delete));
    EXPECT_EQ(62 + 10000, cf->bufsize);
    EXPECT_EQ(HEADER("000000", "IU") + image + image + "\n" HEADER("000001", "ID") + image + "\n",
              content("f"));
}

TEST_F(Write, FileIsOpenedAtItsFirstRecord)
{
    write_file(dir.file("f"), "kept");
    capcfg cfg = text_options();
    add_capcfg_dset(&cfg, "other:");
    add_file(dir.file("f"), cfg);
    free_capcfg_data(&cfg);
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ("kept", content("f"));
    record.dbname = "OTHER";
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ("000000OTHER                   CUST            24010100:00:00IPnew!\n", content("f"));
}

TEST_F(Write, EveryFileThatSelectsTheRecordGetsIt)
{
    text_file("a");
    capcfg cfg = text_options(ASCII_ON, HDR_RECNUM);
    add_capcfg_dset(&cfg, "orders:cu@");
    add_file(dir.file("b"), cfg);
    add_capcfg_dset(&cfg, "x");
    free_capcfg_data(&cfg);
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ(HEADER("000000", "IP") "new!\n", content("a"));
    EXPECT_EQ(HEADER("000000", "IP") "000000000000007new!\n", content("b"));
}

TEST_F(Write, SeventhRecordIsNumberSix)
{
    text_file("f");
    for (int i = 0; i < 7; i++)
        EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ(HEADER("000006", "IP") "new!\n", content("f").substr(size_t{6} * 67));
}

TEST_F(Write, FailedOpenIsNotCountedAndTriedAgain)
{
    const capfil *cf = text_file("later/f");
    EXPECT_EQ(-1, write(capture_write_insert));
    const std::string name = dir.file("later/f");
    EXPECT_EQ("CAPERR: No such file or directory\nError opening ASCII capture file: " + name + "\n",
              printed.err);
    EXPECT_EQ(0, cf->nwritten);
    std::filesystem::create_directory(dir.file("later"));
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ(HEADER("000000", "IP") "new!\n", content("later/f"));
}

TEST_F(Write, FullDiskFailsTheRecordAndCountsTheAttempt)
{
    const capfil *cf = add_file("/dev/full", text_options());
    text_file("good");
    init_capstats(g_ci);
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ("CAPERR: Success\nError writing to capture file: /dev/full\n", printed.err);
    EXPECT_EQ(1, cf->nwritten);
    EXPECT_EQ(0, stats_of(cf->stats).inserts) << "a failed write is counted nowhere";
    EXPECT_EQ(HEADER("000000", "IP") "new!\n", content("good")) << "the other file goes on";
    EXPECT_EQ(1, stats_of(g_ci->capfiles[1]->stats).inserts);
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ("000001", std::string(cf->recbuf, 6)) << "the sequence number goes on";
}

TEST_F(Write, StatisticsCountOneOfEachKind)
{
    const capfil *cf = text_file("f");
    init_capstats(g_ci);
    g_ci->skipstats = slist_new();
    write(capture_write_insert);
    write(capture_write_update);
    write(capture_write_update);
    write(capture_write_delete);
    EXPECT_EQ(1, stats_of(cf->stats).inserts);
    EXPECT_EQ(2, stats_of(cf->stats).updates);
    EXPECT_EQ(1, stats_of(cf->stats).deletes);
    EXPECT_EQ(0, g_ci->skipstats->n);
}

TEST_F(Write, RecordThatNoFileSelectsIsSkipped)
{
    capcfg cfg = text_options();
    add_capcfg_dset(&cfg, "other");
    const capfil *cf = add_file(dir.file("f"), cfg);
    free_capcfg_data(&cfg);
    init_capstats(g_ci);
    EXPECT_EQ(0, write(capture_write_insert)) << "also without a list to count it in";
    g_ci->skipstats = slist_new();
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ(0, write(capture_write_update));
    EXPECT_EQ(0, write(capture_write_delete));
    EXPECT_EQ(1, stats_of(g_ci->skipstats).inserts);
    EXPECT_EQ(1, stats_of(g_ci->skipstats).updates);
    EXPECT_EQ(1, stats_of(g_ci->skipstats).deletes);
    EXPECT_EQ(0, cf->stats->n);
    EXPECT_FALSE(std::filesystem::exists(dir.file("f")));
}

TEST_F(Write, FailedRecordIsNotSkipped)
{
    text_file("no/f");
    g_ci->skipstats = slist_new();
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ(0, g_ci->skipstats->n);
}
