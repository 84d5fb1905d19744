// Text capture files whose names have been given to other files.
#include "capture/reopen.h"

#include "capture/capinfo.h"
#include "capture/ebmf.h"
#include "capture/settings.h"
#include "capture/sync.h"
#include "driver/base/logrec.h"
#include "fwutil/fwutil.h"
#include "tests/support/core_state.h"
#include "tests/support/tempdir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

class Reopen : public core_state {
  protected:
    Reopen()
    {
        capture_sync_begin();
    }
    ~Reopen() override
    {
        g_capture_settings.text = TEXT_TRUNCATE;
        g_capture_settings.sync = SYNC_IDLE;
    }

    void write()
    {
        EXPECT_EQ(0, capture_write_insert(g_ci, &record));
    }
    int reopen()
    {
        int rc = 0;
        told = without_stamps(capture([&] { rc = capture_reopen(g_ci); }).err);
        return rc;
    }

    const tempdir dir;
    const std::string text = dir.file("cap");
    log_record record = customer();
    std::string told;
};

static std::string line(int number)
{
    return "00000" + std::to_string(number) +
           "ORDERS                  CUST            24010100:00:00IPnew!\n";
}

TEST_F(Reopen, AFileThatWasMovedIsLeftAndANewOneBegun)
{
    for (const text_mode mode : {TEXT_TRUNCATE, TEXT_APPEND, TEXT_NEW}) {
        SCOPED_TRACE(mode);
        fs::remove(text);
        g_capture_settings.text = mode;
        add_file(text, text_options());
        write();
        fs::rename(text, text + ".1");
        write();
        EXPECT_EQ(1, reopen());
        EXPECT_EQ("", told);
        EXPECT_TRUE(fs::exists(text)) << "at once";
        write();
        EXPECT_EQ(line(0) + line(1), read_file(text + ".1"));
        EXPECT_EQ(line(2), read_file(text)) << "its records are numbered on";
        (void)capture([] { capture_close(g_ci); });
        g_ci = new_capinfo();
        get_dsetinfo(g_ci->dsets);
    }
}

TEST_F(Reopen, AFileThatHasTheNameIsAppendedTo)
{
    g_capture_settings.text = TEXT_TRUNCATE;
    add_file(text, text_options());
    write();
    fs::rename(text, text + ".1");
    write_file(text, "there\ntorn");
    EXPECT_EQ(1, reopen());
    EXPECT_EQ("LOG Capture file " + text + ": a line without its end, 4 bytes, moved to " + text +
                  ".cut\n",
              told);
    write();
    EXPECT_EQ("there\n" + line(1), read_file(text));
}

TEST_F(Reopen, AFileThatHasItsNameStaysOpen)
{
    add_file(text, text_options());
    EXPECT_EQ(0, reopen()) << "not open yet";
    EXPECT_FALSE(fs::exists(text));
    write();
    const ebmf *fp = g_ci->capfiles[0]->fp;
    FILE *stream = fp->textfp;
    EXPECT_EQ(0, reopen());
    EXPECT_EQ(stream, fp->textfp);
    fs::create_symlink(text, text + ".link"); // another spelling of it
    fs::rename(text, dir.file("elsewhere"));
    fs::create_symlink(dir.file("elsewhere"), text);
    EXPECT_EQ(0, reopen());
    EXPECT_EQ("", told);
}

TEST_F(Reopen, WhatIsNoTextFileStaysOpen)
{
    const std::string pipe = dir.file("pipe");
    const std::string message = dir.file("msg");
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    add_file(pipe, text_options());
    add_file("/dev/null", text_options());
    add_file(message);
    write();
    fs::rename(pipe, pipe + ".1");
    fs::rename(message, message + ".1");
    EXPECT_EQ(0, reopen());
    EXPECT_EQ("", told);
    EXPECT_FALSE(fs::exists(pipe));
    EXPECT_FALSE(fs::exists(message));
    close(reader);
}

TEST_F(Reopen, ANameThatCannotBeOpenedIsToldAndTheOldFileGoesOn)
{
    add_file(text, text_options());
    write();
    fs::rename(text, text + ".1");
    const struct {
        const char *detail;
        void (*make)(const std::string &);
    } cases[] = {
        {"Is a directory", [](const std::string &path) { fs::create_directory(path); }},
        {"No such device or address",
         [](const std::string &path) { ASSERT_EQ(0, mkfifo(path.c_str(), 0600)); }},
        {"Operation not supported",
         [](const std::string &path) { fs::create_symlink("/dev/null", path); }},
        {"Too many levels of symbolic links",
         [](const std::string &path) { fs::create_symlink(path, path); }},
    };
    int n = 0;
    std::string lines = line(n++);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.detail);
        c.make(text);
        EXPECT_EQ(0, reopen());
        EXPECT_EQ("CAPERR: " + std::string(c.detail) + "\nError opening ASCII capture file anew: " +
                      text + "; the records go on into the file that had this name\n",
                  told);
        write();
        lines += line(n++);
        EXPECT_EQ(lines, read_file(text + ".1"));
        fs::remove(text);
    }
    EXPECT_EQ(1, reopen()) << "the next wish finds the way free";
}

// The mark that is made behind it covers the file that was left whole, and names the new one.
TEST_F(Reopen, TheMarkNamesTheNewFileBeforeItHoldsARecord)
{
    for (const sync_mode mode : {SYNC_IDLE, SYNC_OFF}) {
        g_capture_settings.sync = mode;
        add_file(text, text_options());
        write();
        fs::rename(text, text + ".1");
        EXPECT_EQ(1, reopen());
        struct stat st = {};
        ASSERT_EQ(0, stat(text.c_str(), &st));
        if (mode == SYNC_IDLE) {
            EXPECT_EQ(1, capture_sync_due(FWU_AT_RECORD)) << "before the next record";
            EXPECT_EQ("file text " + std::to_string(st.st_ino) + " 0 0000000000000000 " + text +
                          "\n",
                      std::string(capture_sync(g_ci)));
        }
        (void)capture([] { capture_close(g_ci); });
        g_ci = new_capinfo();
        get_dsetinfo(g_ci->dsets);
        fs::remove(text);
    }
}
