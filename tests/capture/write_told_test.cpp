// What is told of writing and closing: dumps, log lines, the count at the end.
#include "capture/ebmf.h"
#include "tests/capture/write_fixture.h"

#include <unistd.h>

// The line of a dump of 4 bytes: 18 characters of offset and hex, 37 blanks up
// to column 55, the characters, and the blanks of the three groups behind.
#define BLANKS37 \
    "          " \
    "          " \
    "          " \
    "       "
#define DUMP4(hex, text) "0000: " hex " " BLANKS37 " " text "   \n"

TEST_F(Write, DumpsShowImagesForEveryFileThatTakesTheRecord)
{
    g_flags = FLAG_DUMPRECS;
    add_file(dir.file("no/f"));
    add_file(dir.file("no/g"));
    EXPECT_EQ(-1, write(capture_write_insert));
    const std::string insert =
        "Insert log record length 4 (0x0004) for ORDERS.CUST\n" DUMP4("6e 65 77 21", "new!");
    EXPECT_EQ(insert + insert, printed.out) << "the capture record is shown after the open only";
    EXPECT_EQ(-1, write(capture_write_delete));
    const std::string removal =
        "Delete log record length 4 (0x0004) for ORDERS.CUST\n" DUMP4("6f 6c 64 21", "old!");
    EXPECT_EQ(removal + removal, printed.out);
    EXPECT_EQ(-1, write(capture_write_update));
    const std::string update =
        "Update log record length 4 (0x0004) (Before) for ORDERS.CUST\n" DUMP4(
            "6f 6c 64 21", "old!") "Update log record length 4 (0x0004) (After) for "
                                   "ORDERS.CUST\n" DUMP4("6e 65 77 21", "new!");
    EXPECT_EQ(update + update, printed.out);
}

TEST_F(Write, SessionDataComeBehindTheImagesDump)
{
    g_flags = FLAG_DUMPRECS | FLAG_SESSDATA;
    g_fwu.session_data = {"some"};
    text_file("no/f");
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ("Insert log record length 4 (0x0004) for ORDERS.CUST\n" DUMP4(
                  "6e 65 77 21", "new!") "session_data[0]=some\n",
              printed.out);
}

TEST_F(Write, DumpShowsTheCaptureRecord)
{
    g_flags = FLAG_DUMPRECS;
    text_file("f");
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ("Insert log record length 4 (0x0004) for ORDERS.CUST\n" DUMP4(
                  "6e 65 77 21", "new!") "Writing capture record length 66 (0x0042) to " +
                  dir.file("f") +
                  "\n"
                  "0000: 30 30 30 30  30 30 4f 52  44 45 52 53  20 20 20 20  0000 00OR DERS     \n"
                  "0010: 20 20 20 20  20 20 20 20  20 20 20 20  20 20 43 55                   CU\n"
                  "0020: 53 54 20 20  20 20 20 20  20 20 20 20  20 20 32 34  ST               24\n"
                  "0030: 30 31 30 31  30 30 3a 30  30 3a 30 30  49 50 6e 65  0101 00:0 0:00 IPne\n"
                  "0040: 77 21 " BLANKS37 "       w!   \n",
              printed.out);
}

TEST_F(Write, OpenAndCloseAreLogged)
{
    g_loglevel = LOG_VERBOSE;
    capfil *cf = text_file("f");
    EXPECT_EQ(0, write(capture_write_insert));
    const std::string number = ", #" + std::to_string(cf->fnum) + "\n";
    EXPECT_EQ("LOG Opened capture file " + dir.file("f") + number, without_stamps(printed.err));
    EXPECT_EQ(fileno(cf->fp->textfp), cf->fnum);
    printed = capture([&] { EXPECT_EQ(0, cap_close_capture_file(cf)); });
    EXPECT_EQ("1 records written to capture file " + dir.file("f") + "\n", printed.out);
    EXPECT_EQ("LOG Closed capture file " + dir.file("f") + number, without_stamps(printed.err));
    EXPECT_EQ(nullptr, cf->fp);
    EXPECT_EQ(nullptr, cf->recbuf);
}

TEST_F(Write, SharedModeIsLogged)
{
    g_loglevel = LOG_VERBOSE;
    capcfg cfg = text_options();
    cfg.share_mode = 1;
    const capfil *cf = add_file(dir.file("f"), cfg);
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ("LOG Opened capture file " + dir.file("f") + " in shr mode, #" +
                  std::to_string(cf->fnum) + "\n",
              without_stamps(printed.err));
}

TEST_F(Write, CloseReportsFilesThatWereNeverOpened)
{
    text_file("a");
    text_file("b");
    printed = capture([] { EXPECT_EQ(0, capture_close(g_ci)); });
    g_ci = nullptr;
    EXPECT_EQ("0 records written to capture file " + dir.file("a") +
                  "\n0 records written to capture file " + dir.file("b") + "\n",
              printed.out);
    EXPECT_FALSE(std::filesystem::exists(dir.file("a")));
}

TEST_F(Write, CloseIsSilentBesideTheStatistics)
{
    g_flags = FLAG_CAPSTATS;
    g_loglevel = LOG_VERBOSE;
    capfil *cf = text_file("a");
    printed = capture([&] { EXPECT_EQ(0, cap_close_capture_file(cf)); });
    EXPECT_EQ("", printed.out);
    EXPECT_EQ("LOG Closed capture file " + dir.file("a") + ", #0\n", without_stamps(printed.err));
}

TEST_F(Write, CloseFailureIsReturnedWithoutAMessageAndTheRestIsClosed)
{
    const capfil *cf = text_file("a");
    text_file("b");
    EXPECT_EQ(0, write(capture_write_insert));
    close(cf->fnum);
    int rc = 0;
    printed = capture([&] { rc = capture_close(g_ci); });
    g_ci = nullptr;
    EXPECT_NE(0, rc);
    EXPECT_EQ("1 records written to capture file " + dir.file("b") + "\n", printed.out);
    EXPECT_EQ("", printed.err);
}

TEST_F(Write, ClosingNothing)
{
    EXPECT_EQ(0, capture_close(nullptr));
}
