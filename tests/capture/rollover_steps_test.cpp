// The size limit of message capture files: full files, rollover, and what every
// failure on the way leaves behind.  The message-file calls that hardly ever fail
// are led through functions that make them.
#include "capture/rollover.h"

#include "capture/ebmf.h"
#include "capture/write.h"
#include "driver/base/logrec.h"
#include "msgfile/tmf.h"
#include "tests/support/core_state.h"
#include "tests/support/tempdir.h"

#include "capture/report.h"
#include "capture/stats.h"
#include <cstdarg>
#include <sys/stat.h>
#include <unistd.h>

// Calls let through before one fails; -1: all.
static int getinfo_left = -1;
static int finfo_result = 0;
static int fclose_result = 0;

static bool one_fails(int &left)
{
    return left >= 0 && left-- == 0;
}

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
int __real_tmf_getinfo(tmf_handle *h, ...);
int __wrap_tmf_getinfo(tmf_handle *h, int item, int32_t *value, int end);
int __wrap_tmf_getinfo(tmf_handle *h, int item, int32_t *value, int end)
{
    return one_fails(getinfo_left) ? TMF_EREAD_COMMON : __real_tmf_getinfo(h, item, value, end);
}

int __real_tmf_finfo(tmf_handle *h, int item, void *out, int len);
int __wrap_tmf_finfo(tmf_handle *h, int item, void *out, int len);
int __wrap_tmf_finfo(tmf_handle *h, int item, void *out, int len)
{
    return finfo_result != 0 ? finfo_result : __real_tmf_finfo(h, item, out, len);
}

int __real_tmf_fclose(tmf_handle *h);
int __wrap_tmf_fclose(tmf_handle *h);
int __wrap_tmf_fclose(tmf_handle *h)
{
    const int rc = __real_tmf_fclose(h);
    return fclose_result != 0 ? fclose_result-- : rc;
}
// NOLINTEND(bugprone-reserved-identifier)
}

// Every record below takes 62 + 4 bytes of data and 6 of frame.
static constexpr int data_start = 4352;
static constexpr int record_size = 72;

class RolloverSteps : public core_state {
  protected:
    RolloverSteps()
    {
        getinfo_left = -1;
        finfo_result = fclose_result = 0;
    }
    ~RolloverSteps() override
    {
        getinfo_left = -1;
        finfo_result = fclose_result = 0;
        unsetenv("KESTRO_MAXCAP");
    }

    // A capture file that is full behind its n-th record.
    capfil *file_of(int n, bool rollover, const char *name = "cap.dat")
    {
        setenv("KESTRO_MAXCAP", std::to_string(data_start + record_size * n - 1).c_str(), 1);
        g_flags = rollover ? FLAG_ROLLOVER : 0;
        return add_file(dir.file(name));
    }
    int write()
    {
        int rc = 0;
        printed = capture([&] { rc = capture_write_insert(g_ci, &record); });
        return rc;
    }
    // Records in a closed or open file, by its header.
    int records(const char *name) const
    {
        const std::string bytes = read_file(dir.file(name));
        int32_t count = -1;
        if (bytes.size() >= 256)
            memcpy(&count, bytes.data() + 16, sizeof count);
        return count;
    }
    int writers(const char *name) const
    {
        const std::string bytes = read_file(dir.file(name));
        int16_t count = -1;
        if (bytes.size() >= 256)
            memcpy(&count, bytes.data() + 70, sizeof count);
        return count;
    }

    const tempdir dir;
    log_record record = customer();
    captured printed;
};

TEST_F(RolloverSteps, RecordThatPassesTheLimitIsTheLastOne)
{
    capfil *cf = file_of(2, false);
    EXPECT_EQ(0, write());
    EXPECT_EQ(-1, write());
    EXPECT_EQ("End of file on capture file " + dir.file("cap.dat") + "\n", printed.err);
    EXPECT_EQ(2, records("cap.dat")) << "it is in the file";
    EXPECT_EQ(2, cf->nwritten);
    EXPECT_NE(nullptr, cf->fp);
}

TEST_F(RolloverSteps, RecordUpToTheLimitIsWithinIt)
{
    setenv("KESTRO_MAXCAP", std::to_string(data_start + record_size).c_str(), 1);
    add_file(dir.file("cap.dat"));
    EXPECT_EQ(0, write());
    EXPECT_EQ("", printed.err);
}

TEST_F(RolloverSteps, FullFileRollsOverToTheNextName)
{
    write_file(dir.file("cap1.dat"), "");
    write_file(dir.file("cap2.dat"), "");
    capfil *cf = file_of(2, true);
    g_loglevel = LOG_NOTICE | LOG_VERBOSE;
    EXPECT_EQ(0, write());
    EXPECT_EQ(0, write());
    EXPECT_EQ("LOG Closed capture file " + dir.file("cap.dat") + " for rollover.\n" +
                  "LOG Rolled over to capture file " + dir.file("cap3.dat") + "\n",
              without_stamps(printed.err));
    EXPECT_EQ(dir.file("cap3.dat"), cf->name);
    EXPECT_EQ(0, writers("cap.dat"));
    EXPECT_EQ(1, writers("cap3.dat"));
    struct stat by_name = {};
    struct stat by_number = {};
    ASSERT_EQ(0, stat(cf->name, &by_name));
    ASSERT_EQ(0, fstat(cf->fnum, &by_number));
    EXPECT_EQ(by_name.st_ino, by_number.st_ino);
    EXPECT_EQ(0, write());
    EXPECT_EQ(0, write());
    EXPECT_EQ(dir.file("cap4.dat"), cf->name);
    EXPECT_EQ(2, records("cap.dat"));
    EXPECT_EQ(2, records("cap3.dat"));
    EXPECT_EQ(0, records("cap4.dat"));
    EXPECT_EQ(4, cf->nwritten) << "counted over all files";
}

TEST_F(RolloverSteps, FileFoundFullIsReportedBeforeAnythingIsWritten)
{
    capfil *cf = file_of(1, false);
    EXPECT_EQ(-1, write());
    (void)capture([] { capture_close(g_ci); });
    g_ci = new_capinfo();
    cf = file_of(1, false);
    EXPECT_EQ(-1, write());
    EXPECT_EQ("Capture file " + dir.file("cap.dat") + " is full.\n", printed.err);
    EXPECT_EQ(1, records("cap.dat"));
    EXPECT_EQ(0, cf->nwritten);
}

TEST_F(RolloverSteps, FileFoundFullStaysOpenForTheNextRecord)
{
    file_of(1, false);
    EXPECT_EQ(-1, write());
    (void)capture([] { capture_close(g_ci); });
    g_ci = new_capinfo();
    get_dsetinfo(g_ci->dsets);
    const capfil *cf = file_of(1, false);
    EXPECT_EQ(-1, write());
    const ebmf *open_file = cf->fp;
    ASSERT_NE(nullptr, open_file);
    EXPECT_EQ(1, writers("cap.dat"));
    EXPECT_EQ(-1, write()) << "appended and reported";
    EXPECT_EQ("End of file on capture file " + dir.file("cap.dat") + "\n", printed.err);
    EXPECT_EQ(2, records("cap.dat"));
    EXPECT_EQ(1, cf->nwritten);
    EXPECT_EQ(open_file, cf->fp);
}

TEST_F(RolloverSteps, RecordThatPassedTheLimitIsNotCounted)
{
    const capfil *cf = file_of(2, false);
    init_capstats(g_ci);
    EXPECT_EQ(0, write());
    EXPECT_EQ(-1, write());
    EXPECT_EQ(-1, write());
    EXPECT_EQ(3, records("cap.dat"));
    const std::string report = capture([] { show_capstats(g_ci); }).out;
    EXPECT_NE(std::string::npos,
              report.find(
                  "      CUST                                     1        0        0        1\n"))
        << report;
    EXPECT_EQ(3, cf->nwritten);
}

TEST_F(RolloverSteps, FileFoundFullRollsOverAtOnce)
{
    file_of(1, false);
    EXPECT_EQ(-1, write());
    (void)capture([] { capture_close(g_ci); });
    g_ci = new_capinfo();
    file_of(1, true);
    g_loglevel = LOG_NOTICE;
    EXPECT_EQ(0, write());
    EXPECT_EQ("LOG Capture file " + dir.file("cap.dat") + " is full.\n" +
                  "LOG Rolled over to capture file " + dir.file("cap1.dat") + "\n" +
                  "LOG Rolled over to capture file " + dir.file("cap2.dat") + "\n",
              without_stamps(printed.err));
    EXPECT_EQ(1, records("cap.dat"));
    EXPECT_EQ(1, records("cap1.dat"));
}

TEST_F(RolloverSteps, FileBeyondTwoGigabytesIsFull)
{
    file_of(1000, false);
    EXPECT_EQ(0, write());
    (void)capture([] { capture_close(g_ci); });
    g_ci = new_capinfo();
    std::string bytes = read_file(dir.file("cap.dat"));
    const int32_t end = -2000000000;
    memcpy(bytes.data() + 44, &end, sizeof end);
    write_file(dir.file("cap.dat"), bytes);
    file_of(1000, false);
    EXPECT_EQ(-1, write());
    EXPECT_EQ("Capture file " + dir.file("cap.dat") + " is full.\n", printed.err);
}

TEST_F(RolloverSteps, SizeThatCannotBeAskedShowsErrorZero)
{
    const capfil *cf = file_of(9, false);
    getinfo_left = 1; // the file number comes first
    EXPECT_EQ(-1, write());
    EXPECT_EQ("Error 0 checking capture file EOF on file " + dir.file("cap.dat") + "\n",
              printed.err);
    EXPECT_EQ(0, cf->nwritten);
    EXPECT_EQ(0, write()) << "the next record goes on";
    EXPECT_EQ(1, records("cap.dat"));
}

TEST_F(RolloverSteps, FileNumberThatCannotBeAskedFailsTheRecord)
{
    const capfil *cf = file_of(9, false);
    getinfo_left = 0;
    EXPECT_EQ(-1, write());
    EXPECT_EQ("CAPERR: Error reading common area.\nError opening message capture file: " +
                  dir.file("cap.dat") + "\n",
              printed.err);
    EXPECT_EQ(0, cf->nwritten);
    EXPECT_EQ(0, write());
    EXPECT_EQ(1, records("cap.dat"));
}

TEST_F(RolloverSteps, EndThatCannotBeAskedFailsTheRecordThatIsThere)
{
    const capfil *cf = file_of(9, true);
    finfo_result = TMF_EINFO;
    EXPECT_EQ(-1, write());
    EXPECT_EQ("Error -5259 getting capture file EOF on file " + dir.file("cap.dat") + "\n",
              printed.err);
    EXPECT_EQ(1, records("cap.dat"));
    EXPECT_EQ(1, cf->nwritten);
}

TEST_F(RolloverSteps, FailedCloseLeavesTheNameAndNoHandle)
{
    const capfil *cf = file_of(1, true);
    fclose_result = TMF_EWRITE_COMMON;
    EXPECT_EQ(-1, write());
    EXPECT_EQ("CAPERR: Message file error #0\nError closing capture file " + dir.file("cap.dat") +
                  " for rollover.\n",
              printed.err);
    EXPECT_EQ(nullptr, cf->fp);
    EXPECT_EQ(dir.file("cap.dat"), cf->name);
    fclose_result = 0;
    g_ci->capfiles[0]->maxbytes += record_size;
    EXPECT_EQ(0, write()) << "the next record opens the old name again";
    EXPECT_EQ(0, records("cap1.dat"));
    EXPECT_EQ(2, records("cap.dat"));
}

TEST_F(RolloverSteps, NoFreeNameLeavesNoHandle)
{
    for (int n = 1; n <= 1024; n++)
        write_file(dir.file("cap" + std::to_string(n) + ".dat"), "");
    const capfil *cf = file_of(1, true);
    EXPECT_EQ(-1, write());
    EXPECT_EQ("Unable to find available rollover file for " + dir.file("cap.dat") + "\n",
              printed.err);
    EXPECT_EQ(nullptr, cf->fp);
    EXPECT_EQ(dir.file("cap.dat"), cf->name);
    g_loglevel = LOG_NOTICE;
    EXPECT_EQ(-1, write()) << "it is found full again";
    EXPECT_EQ("LOG Capture file " + dir.file("cap.dat") + " is full.\n" +
                  "Unable to find available rollover file for " + dir.file("cap.dat") + "\n",
              without_stamps(printed.err));
    EXPECT_EQ(1, records("cap.dat"));
    EXPECT_EQ(1, cf->nwritten);
}

TEST_F(RolloverSteps, NextFileThatCannotBeOpenedIsTriedAgain)
{
    ASSERT_EQ(0, mkdir(dir.file("d").c_str(), 0700));
    const capfil *cf = file_of(1, true, "d/cap.dat");
    // A link to a directory that is not there: no file has the name, none can get it.
    ASSERT_EQ(0, symlink("nowhere/x", dir.file("d/cap1.dat").c_str()));
    EXPECT_EQ(-1, write());
    EXPECT_EQ("CAPERR: Error opening file: No such file or directory\nError opening capture file " +
                  dir.file("d/cap1.dat") + " for rollover.\n",
              printed.err);
    EXPECT_EQ(nullptr, cf->fp);
    EXPECT_EQ(dir.file("d/cap1.dat"), cf->name);
    EXPECT_EQ(-1, write());
    EXPECT_EQ("CAPERR: Error opening file: No such file or directory\n"
              "Error opening message capture file: " +
                  dir.file("d/cap1.dat") + "\n",
              printed.err);
    EXPECT_EQ(1, cf->nwritten);
    ASSERT_EQ(0, mkdir(dir.file("d/nowhere").c_str(), 0700));
    g_ci->capfiles[0]->maxbytes += record_size;
    EXPECT_EQ(0, write());
    EXPECT_EQ(1, records("d/cap.dat"));
    EXPECT_EQ(1, records("d/cap1.dat"));
}

TEST_F(RolloverSteps, FileNumberOfTheNextFileThatCannotBeAskedFailsTheRecord)
{
    const capfil *cf = file_of(1, true);
    getinfo_left = 2; // behind the first file's number and size
    EXPECT_EQ(-1, write());
    EXPECT_EQ(dir.file("cap1.dat"), cf->name);
    EXPECT_NE(nullptr, cf->fp);
    g_ci->capfiles[0]->maxbytes += record_size;
    EXPECT_EQ(0, write());
    EXPECT_EQ(1, records("cap.dat"));
    EXPECT_EQ(1, records("cap1.dat"));
}

TEST_F(RolloverSteps, TextFileHasNoLimit)
{
    setenv("KESTRO_MAXCAP", "1", 1);
    g_flags = FLAG_ROLLOVER;
    const capfil *cf = add_file(dir.file("cap.txt"), text_options());
    EXPECT_EQ(0, cf->rollover);
    EXPECT_EQ(0, write());
    EXPECT_EQ(0, write());
    EXPECT_EQ("", printed.err);
    EXPECT_EQ(dir.file("cap.txt"), cf->name);
    EXPECT_EQ(2 * 67U, read_file(dir.file("cap.txt")).size());
}

TEST_F(RolloverSteps, OnlyFilesNamedBehindTheOptionRollOver)
{
    const capfil *first = file_of(1, false, "first.dat");
    const capfil *second = file_of(1, true, "second.dat");
    EXPECT_EQ(-1, write());
    EXPECT_EQ(dir.file("first.dat"), first->name);
    EXPECT_EQ(dir.file("second1.dat"), second->name);
}

TEST_F(RolloverSteps, NextFileHasItsOwnNumberAndTheFirstFilesMode)
{
    // A free number below the first file's, which the next file gets.
    const int lower = dup(0);
    capfil *cf = file_of(1, true);
    cf->share_mode = 1;
    cf->maxbytes += record_size;
    EXPECT_EQ(0, write());
    const int32_t first = cf->fnum;
    close(lower);
    EXPECT_EQ(0, write());
    EXPECT_EQ(dir.file("cap1.dat"), cf->name);
    EXPECT_NE(first, cf->fnum);
    struct stat by_name = {};
    struct stat by_number = {};
    ASSERT_EQ(0, stat(cf->name, &by_name));
    ASSERT_EQ(0, fstat(cf->fnum, &by_number));
    EXPECT_EQ(by_name.st_ino, by_number.st_ino);
    EXPECT_EQ(0666U, by_name.st_mode & 0777U);
}

TEST_F(RolloverSteps, ReportNamesTheLatestFile)
{
    file_of(1, true);
    init_capstats(g_ci);
    EXPECT_EQ(0, write());
    const std::string report = capture([] { show_capstats(g_ci); }).out;
    EXPECT_NE(std::string::npos, report.find("  Capture file: " + dir.file("cap1.dat") + "\n"))
        << report;
}

TEST_F(RolloverSteps, FirstCloseErrorIsTheResultAndNothingIsLogged)
{
    file_of(9, false, "a");
    file_of(9, false, "b");
    EXPECT_EQ(0, write());
    g_loglevel = LOG_VERBOSE;
    fclose_result = TMF_EWRITE_COMMON;
    int rc = 0;
    printed = capture([&] { rc = capture_close(g_ci); });
    g_ci = nullptr;
    EXPECT_EQ(TMF_EWRITE_COMMON, rc);
    EXPECT_EQ("", printed.out + printed.err);
}
