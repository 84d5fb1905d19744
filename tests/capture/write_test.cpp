// Writing log records to capture files.
#include "capture/write.h"

#include "capture/ebmf.h"
#include "capture/header.h"
#include "capture/slist.h"
#include "capture/stats.h"
#include "driver/base/logrec.h"
#include "tests/support/core_state.h"
#include "tests/support/tempdir.h"

#include <sys/stat.h>
#include <unistd.h>

// Header of a record of ORDERS.CUST at 1 January 2024, UTC.
#define HEADER(seq, op) seq "ORDERS                  CUST            24010100:00:00" op

static const char before_image[] = "old!";
static const char after_image[] = "new!";

class Write : public core_state {
  protected:
    Write()
    {
        g_fwu.items = {{"NAME", 'X', 3}, {"MARK", 'X', 1}};
        get_dsetinfo(g_ci->dsets);
        record.dbname = "ORDERS";
        record.dsetname = "CUST";
        record.logtime = 1704067200;
        record.recnum = 7;
        record.reclen = 4;
        record.before_image = before_image;
        record.after_image = after_image;
    }

    capfil *text_file(const std::string &name)
    {
        return add_file(dir.file(name), text_options());
    }

    std::string content(const std::string &name)
    {
        return read_file(dir.file(name));
    }

    // Result of writing the record; what is printed goes to printed.
    int write(int (*how)(capinfo *, const log_record *))
    {
        int rc = 0;
        printed = capture([&] { rc = how(g_ci, &record); });
        return rc;
    }

    static setstats stats_of(const slist *list)
    {
        if (list == nullptr || list->n == 0)
            return {0, 0, 0};
        const auto *sets = static_cast<slist *>(slist_find(list, "ORDERS"));
        return *static_cast<setstats *>(slist_find(sets, "CUST"));
    }

    const tempdir dir;
    log_record record = {};
    captured printed;
};

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

TEST_F(Write, MessageFileThatCannotBeOpenedFailsTheRecord)
{
    const std::string name = dir.file("no/f");
    const capfil *cf = add_file(name);
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ("CAPERR: Error opening file: No such file or directory\n"
              "Error opening message capture file: " +
                  name + "\n",
              printed.err);
    EXPECT_EQ(0, cf->nwritten);
    ASSERT_TRUE(std::filesystem::create_directory(dir.file("no")));
    EXPECT_EQ(0, write(capture_write_insert)) << "the next record opens it";
    EXPECT_EQ(1, cf->nwritten);
}

TEST_F(Write, ForeignFileIsLeftAlone)
{
    const std::string name = dir.file("f");
    write_file(name, "something else\n");
    add_file(name);
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ("CAPERR: File is not a message file.\nError opening message capture file: " + name +
                  "\n",
              printed.err);
    EXPECT_EQ("something else\n", content("f"));
}

// The data area's records, without their frames.
static std::vector<std::string> records_of(const std::string &name)
{
    std::vector<std::string> records;
    tmf_handle *reader =
        tmf_fopen(name.c_str(), TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
    std::string buffer(TMF_MAX_DATA, '\0');
    for (int n = 0; (n = tmf_fread(reader, buffer.data(), TMF_MAX_DATA, 0)) > 0;)
        records.push_back(buffer.substr(0, static_cast<size_t>(n)));
    EXPECT_EQ(0, tmf_fclose(reader));
    return records;
}

TEST_F(Write, MessageRecordHoldsTheImagesBehindTheHeader)
{
    const capfil *cf = add_file(dir.file("f"));
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ(0, write(capture_write_update));
    EXPECT_EQ(0, write(capture_write_delete));
    EXPECT_EQ(62 + 256, cf->bufsize);
    const std::string image(200, 'x');
    record.reclen = 200;
    record.before_image = record.after_image = image.data();
    EXPECT_EQ(0, write(capture_write_update));
    EXPECT_EQ(62 + 400, cf->bufsize);
    EXPECT_EQ("", printed.out + printed.err);
    const std::vector<std::string> expected = {
        HEADER("000000", "IP") "new!", HEADER("000001", "IU") "old!new!",
        HEADER("000002", "ID") "old!", HEADER("000003", "IU") + image + image};
    EXPECT_EQ(expected, records_of(dir.file("f")));
}

TEST_F(Write, MessageFileIsAppendedToAndPrivate)
{
    capfil *cf = add_file(dir.file("f"));
    EXPECT_EQ(0, write(capture_write_insert));
    struct stat st = {};
    ASSERT_EQ(0, stat(cf->name, &st));
    EXPECT_EQ(0600U, st.st_mode & 0777U);
    EXPECT_EQ(0, ebmf_fclose(cf->fp));
    cf->fp = nullptr;
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ(2U, records_of(dir.file("f")).size());
}

TEST_F(Write, SharedMessageFileIsEverybodys)
{
    capcfg cfg = {};
    cfg.share_mode = 1;
    const capfil *cf = add_file(dir.file("f"), cfg);
    g_loglevel = LOG_VERBOSE;
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ("LOG Opened capture file " + dir.file("f") + " in shr mode, #" +
                  std::to_string(cf->fnum) + "\n",
              without_stamps(printed.err));
    struct stat st = {};
    ASSERT_EQ(0, stat(cf->name, &st));
    EXPECT_EQ(0666U, st.st_mode & 0777U);
}

TEST_F(Write, RecordTooLongForAMessageFileFails)
{
    const capfil *cf = add_file(dir.file("f"));
    const std::string image(TMF_MAX_DATA - 62 + 1, 'x');
    record.after_image = image.data();
    record.reclen = static_cast<int32_t>(image.size());
    EXPECT_EQ(-1, write(capture_write_insert));
    EXPECT_EQ("CAPERR: Invalid record size.\nError writing to capture file: " + dir.file("f") +
                  "\n",
              printed.err);
    EXPECT_EQ(1, cf->nwritten);
    record.reclen--;
    EXPECT_EQ(0, write(capture_write_insert));
    EXPECT_EQ(1U, records_of(dir.file("f")).size());
}

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

TEST_F(Write, ImpossibleLengthsAreRefusedByAMessageFile)
{
    add_file(dir.file("message"));
    g_ci->skipstats = slist_new();
    const int32_t lengths[] = {-1, -2147483647 - 1, 2147483647};
    for (const int32_t length : lengths) {
        record.reclen = length;
        EXPECT_EQ(-1, write(capture_write_update));
        EXPECT_EQ("Invalid log record length " + std::to_string(length) + " for ORDERS.CUST\n",
                  printed.err);
    }
    EXPECT_FALSE(std::filesystem::exists(dir.file("message")));
    EXPECT_EQ(0, g_ci->skipstats->n) << "the file took them";
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
