// The capture configuration's records.
#include "capture/capinfo.h"

#include "capture/header.h"
#include "capture/slist.h"
#include "capture/stats.h"
#include "driver/base/logrec.h"
#include "tests/support/core_state.h"

#include <cstring>

class Capinfo : public core_state {};

TEST_F(Capinfo, NewOneIsEmpty)
{
    EXPECT_EQ(0, g_ci->ncf);
    EXPECT_EQ(0, ci_get_ncf(g_ci));
    EXPECT_EQ(nullptr, g_ci->capfiles);
    EXPECT_EQ(nullptr, g_ci->skipstats);
    ASSERT_NE(nullptr, g_ci->dsets);
    EXPECT_EQ(0, g_ci->dsets->nitems);
    EXPECT_EQ(0, g_ci->dsets->nalloc);
}

TEST_F(Capinfo, NullIsAnEmptyOne)
{
    EXPECT_EQ(0, ci_get_ncf(nullptr));
    free_ci(nullptr);
    free_dsetinfo(nullptr);
}

TEST_F(Capinfo, InitCapcfgClearsEveryField)
{
    capcfg cfg;
    memset(&cfg, 0xFF, sizeof cfg);
    init_capcfg(&cfg);
    EXPECT_EQ(0U, cfg.hdropts);
    EXPECT_EQ(0, cfg.share_mode);
    EXPECT_EQ(0U, cfg.ascii_flags);
    EXPECT_EQ(0, cfg.info_item);
    EXPECT_EQ(0, cfg.ndsets);
    EXPECT_EQ(nullptr, cfg.progterm);
    EXPECT_EQ(nullptr, cfg.dsets);
}

TEST_F(Capinfo, PatternsAreKeptAsTyped)
{
    capcfg cfg = {};
    EXPECT_EQ(0, add_capcfg_dset(&cfg, "Orders:cust"));
    EXPECT_EQ(0, add_capcfg_dset(&cfg, "x@"));
    ASSERT_EQ(2, cfg.ndsets);
    EXPECT_STREQ("Orders:cust", cfg.dsets[0]);
    EXPECT_STREQ("x@", cfg.dsets[1]);
    free_capcfg_data(&cfg);
    EXPECT_EQ(0, cfg.ndsets);
}

TEST_F(Capinfo, RejectedPatternIsNotKept)
{
    capcfg cfg = {};
    const captured printed = capture([&] { EXPECT_EQ(-1, add_capcfg_dset(&cfg, "1X")); });
    EXPECT_EQ("Database name must begin with letter in -dset paramter.\n", printed.err);
    EXPECT_EQ(0, cfg.ndsets);
}

TEST_F(Capinfo, FileTakesOverTheOptions)
{
    char progterm[] = ".cmd";
    char name[] = "name.cap";
    capcfg cfg = {};
    cfg.hdropts = HDR_EXTHDR | HDR_YYYY;
    cfg.share_mode = 1;
    cfg.ascii_flags = ASCII_ON | ASCII_DIRTY;
    cfg.info_item = 9;
    cfg.progterm = progterm;
    const capfil *cf = add_file(name, cfg);
    name[0] = progterm[0] = '#';
    EXPECT_STREQ("name.cap", cf->name);
    EXPECT_STREQ(".cmd", cf->progterm);
    EXPECT_EQ(1, cf->share_mode);
    EXPECT_EQ(nullptr, cf->fp);
    EXPECT_EQ(126, cf->hdrsize);
    EXPECT_EQ(126 + 256, cf->bufsize);
    EXPECT_EQ(3U, cf->hdropts);
    EXPECT_EQ(5U, cf->ascii_flags);
    EXPECT_EQ(0, cf->rollover);
    EXPECT_EQ(2147418112, cf->maxbytes);
    EXPECT_EQ(9, cf->info_item);
    EXPECT_EQ(0, cf->nwritten);
    EXPECT_EQ(0, cf->npats);
    EXPECT_EQ(nullptr, cf->pats);
    EXPECT_EQ(nullptr, cf->stats);
}

TEST_F(Capinfo, LimitIsReadForEachFile)
{
    setenv("KESTRO_MAXCAP", "5000", 1);
    const capfil *first = add_file("a");
    setenv("KESTRO_MAXCAP", "6000", 1);
    const capfil *second = add_file("b");
    unsetenv("KESTRO_MAXCAP");
    EXPECT_EQ(5000, first->maxbytes);
    EXPECT_EQ(6000, second->maxbytes);
}

TEST_F(Capinfo, FilesStandInOrder)
{
    for (const char *name : {"c", "a", "b", "a"})
        add_file(name);
    ASSERT_EQ(4, ci_get_ncf(g_ci));
    EXPECT_STREQ("c", g_ci->capfiles[0]->name);
    EXPECT_STREQ("a", g_ci->capfiles[1]->name);
    EXPECT_STREQ("b", g_ci->capfiles[2]->name);
    EXPECT_STREQ("a", g_ci->capfiles[3]->name);
}

TEST_F(Capinfo, PatternsAreNormalisedInOrder)
{
    capcfg cfg = {};
    for (const char *pattern : {"cust", "orders:", "a:b"})
        add_capcfg_dset(&cfg, pattern);
    const capfil *cf = add_file("f", cfg);
    free_capcfg_data(&cfg);
    ASSERT_EQ(3, cf->npats);
    EXPECT_STREQ("@:CUST", cf->pats[0]);
    EXPECT_STREQ("ORDERS:@", cf->pats[1]);
    EXPECT_STREQ("A:B", cf->pats[2]);
}

TEST_F(Capinfo, RolloverCountsForMessageFilesNamedAfterIt)
{
    EXPECT_EQ(0, add_file("before")->rollover);
    g_flags = FLAG_ROLLOVER;
    EXPECT_EQ(1, add_file("after")->rollover);
    EXPECT_EQ(0, add_file("text", text_options())->rollover);
    EXPECT_EQ(0, g_ci->capfiles[0]->rollover);
}

TEST_F(Capinfo, FreshBufferIsBlankButForTheItemsOfNoRecord)
{
    g_fwu.session = {{"user", "MGR"}, {"pid", "77"}};
    const capfil *cf = add_file("f", text_options(ASCII_ON, HDR_EXTHDR | HDR_RECNUM));
    std::string expected(139 + 256, ' ');
    expected.replace(0, 6, "000000");
    expected.replace(86, 3, "MGR");
    expected.replace(118, 6, " 00077");
    EXPECT_EQ(expected, std::string(cf->recbuf, static_cast<size_t>(cf->bufsize)));
}

TEST_F(Capinfo, SetUpIsLoggedInOrder)
{
    g_loglevel = LOG_VERBOSE;
    capcfg cfg = {};
    const captured printed = capture([&] { add_capfile(g_ci, "dir/f", &cfg); });
    EXPECT_EQ("LOG Capture file maximum size is 2147418112 bytes.\n"
              "LOG Setup capture file dir/f header, size=62\n",
              without_stamps(printed.err));
}

TEST_F(Capinfo, EverythingIsReleased)
{
    // A leak checker looks at this one.
    capcfg cfg = text_options(ASCII_ON, 15);
    char progterm[] = "t";
    cfg.progterm = progterm;
    char pattern[] = "a";
    char *patterns[] = {pattern};
    cfg.dsets = patterns;
    cfg.ndsets = 1;
    const capfil *cf = add_file("f", cfg);
    init_capstats(g_ci);
    g_ci->skipstats = slist_new();
    log_record record = {};
    record.dbname = "D";
    for (const char *set : {"S", "T"}) {
        record.dsetname = set;
        add_capstat(cf->stats, &record, STAT_INSERT);
        add_capstat(g_ci->skipstats, &record, STAT_INSERT);
    }
    g_fwu.items = {{"I", 'X', 4}};
    get_dsetinfo(g_ci->dsets);
    free(cf->recbuf);
    free_ci(g_ci);
    g_ci = nullptr;
}
