// The two statistics reports.
#include "capture/report.h"

#include "capture/slist.h"
#include "capture/stats.h"
#include "driver/base/logrec.h"
#include "tests/support/core_state.h"
#include "tests/support/golden.h"

class Report : public core_state {
  protected:
    static void count(slist *list, const char *db, const char *set, int code, int times = 1)
    {
        log_record record = {};
        record.dbname = db;
        record.dsetname = set;
        for (int i = 0; i < times; i++)
            add_capstat(list, &record, code);
    }
};

TEST_F(Report, HeaderOptionNames)
{
    const char *const names[16] = {
        "",
        "EXTHDR",
        "YYYY",
        "YYYY, EXTHDR",
        "RECNUM",
        "EXTHDR, RECNUM",
        "YYYY, RECNUM",
        "YYYY, EXTHDR, RECNUM",
        "FGA",
        "EXTHDR, FGA",
        "YYYY, FGA",
        "YYYY, EXTHDR, FGA",
        "RECNUM, FGA",
        "EXTHDR, RECNUM, FGA",
        "YYYY, RECNUM, FGA",
        "YYYY, EXTHDR, RECNUM, FGA",
    };
    for (uint32_t hdropts = 0; hdropts < 16; hdropts++)
        EXPECT_STREQ(names[hdropts], hdroptsstr(hdropts));
}

TEST_F(Report, ThreeCaptureFiles)
{
    capcfg cfg = text_options(ASCII_ON, HDR_EXTHDR | HDR_YYYY | HDR_RECNUM | HDR_FGA);
    for (const char *pattern : {"cust", "orders:", "@.log@"})
        add_capcfg_dset(&cfg, pattern);
    const capfil *first = add_file("first.cap", cfg);
    free_capcfg_data(&cfg);
    add_file("second.cap");
    const capfil *third = add_file("third.cap");
    init_capstats(g_ci);
    count(first->stats, "TOOLONGNAME.X", "b", STAT_DELETE, 30);
    count(first->stats, "TOOLONGNAME.X", "b", STAT_INSERT, 10);
    count(first->stats, "TOOLONGNAME.X", "b", STAT_UPDATE, 20);
    count(first->stats, "TOOLONGNAME.X", "A", STAT_UPDATE);
    count(first->stats, "ACCTDB.PROD.FIN", "CUST", STAT_INSERT);
    count(third->stats, "A-DATABASE-NAME-OF-THIRTY-CHAR", "CUST", STAT_UPDATE);
    EXPECT_EQ(golden("capstats_three_files.txt"), capture([] { show_capstats(g_ci); }).out);
}

TEST_F(Report, OneFileWithOneDatasetHasNoTotals)
{
    const capfil *cf = add_file("only.cap", text_options(ASCII_ON, HDR_RECNUM));
    init_capstats(g_ci);
    count(cf->stats, "ORDERS", "CUST", STAT_INSERT, 2);
    count(cf->stats, "ORDERS", "CUST", STAT_UPDATE);
    count(cf->stats, "ORDERS", "CUST", STAT_DELETE);
    EXPECT_EQ(golden("capstats_one_file.txt"), capture([] { show_capstats(g_ci); }).out);
}

TEST_F(Report, NoCaptureFiles)
{
    EXPECT_EQ("\nNumber of records written to capture files:\n\n",
              capture([] { show_capstats(g_ci); }).out);
}

TEST_F(Report, NothingSkipped)
{
    g_ci->skipstats = slist_new();
    EXPECT_EQ("\nLog records not copied to any capture file:\n"
              "\n    * No records skipped.  All records copied to a capture file.\n\n",
              capture([] { show_skipped(g_ci); }).out);
}

TEST_F(Report, OneSkippedDatabaseHasNoTotal)
{
    g_ci->skipstats = slist_new();
    count(g_ci->skipstats, "A-DATABASE-NAME-OF-THIRTY-CHAR", "CUST", STAT_DELETE, 7);
    EXPECT_EQ(golden("skipped_one_database.txt"), capture([] { show_skipped(g_ci); }).out);
}

TEST_F(Report, SkippedDatabasesAreTotalled)
{
    g_ci->skipstats = slist_new();
    count(g_ci->skipstats, "STOCK", "PARTS", STAT_DELETE, 3);
    count(g_ci->skipstats, "STOCK", "BINS", STAT_UPDATE, 2);
    count(g_ci->skipstats, "ORDERS", "CUST", STAT_INSERT);
    EXPECT_EQ(golden("skipped_two_databases.txt"), capture([] { show_skipped(g_ci); }).out);
}

TEST_F(Report, TwoCaptureFilesAreTotalled)
{
    add_file("a");
    add_file("b");
    init_capstats(g_ci);
    EXPECT_EQ("\nNumber of records written to capture files:\n"
              "\n  Capture file: a\n"
              "\n    *Capture file total*                       0        0        0        0\n"
              "\n  Capture file: b\n"
              "\n    *Capture file total*                       0        0        0        0\n"
              "\n  *Total for all capture files*                0        0        0        0\n"
              "\n",
              capture([] { show_capstats(g_ci); }).out);
}

TEST_F(Report, SkippedDatabasesKeepTheirNamesBesideFga)
{
    add_file("a", text_options(ASCII_ON, HDR_FGA));
    g_ci->skipstats = slist_new();
    count(g_ci->skipstats, "A.B.C", "CUST", STAT_INSERT);
    const std::string report = capture([] { show_skipped(g_ci); }).out;
    EXPECT_NE(std::string::npos, report.find("    Database A.B.C                      ")) << report;
}

TEST_F(Report, DatabasesAreKeptByTheirWholeNames)
{
    const capfil *cf = add_file("f", text_options());
    init_capstats(g_ci);
    count(cf->stats, "A-DATABASE-NAME-OF-THIRTY-CHAR", "CUST", STAT_INSERT);
    count(cf->stats, "A-DATABASE-NAME-OF-THIRTY-OTHR", "CUST", STAT_DELETE);
    const std::string block = "\n    Database A-DATABASE-NAME-OF-THIRT    Inserts  Updates  Deletes"
                              "    Total\n      CUST                            ";
    EXPECT_EQ("\nNumber of records written to capture files:\n"
              "\n  Capture file: f\n" +
                  block + "         1        0        0        1\n" + block +
                  "         0        0        1        1\n"
                  "\n    *Capture file total*                       1        0        1        2\n"
                  "\n",
              capture([] { show_capstats(g_ci); }).out);
}

TEST_F(Report, DatasetNamesAreNotCut)
{
    const capfil *cf = add_file("f", text_options());
    init_capstats(g_ci);
    count(cf->stats, "D", "A-DATASET-OF-THIRTY-CHARACTERS", STAT_UPDATE);
    const std::string report = capture([] { show_capstats(g_ci); }).out;
    EXPECT_NE(
        std::string::npos,
        report.find(
            "      A-DATASET-OF-THIRTY-CHARACTERS               0        1        0        1\n"))
        << report;
}
