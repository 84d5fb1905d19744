// Text capture files that are there when a run opens them.
#include "capture/textfile.h"

#include "capture/capinfo.h"
#include "capture/ebmf.h"
#include "capture/settings.h"
#include "driver/base/globals.h"
#include "tests/support/captured.h"
#include "tests/support/tempdir.h"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::string_literals;

class TextFile : public testing::Test {
  protected:
    TextFile()
    {
        g_loglevel = LOG_NOTICE;
    }
    ~TextFile() override
    {
        g_capture_settings.text = TEXT_TRUNCATE;
    }

    // Opens the file by the mode, writes two records and closes it; what is told.
    std::string run(text_mode mode, uint32_t ascii_flags = ASCII_ON)
    {
        g_capture_settings.text = mode;
        return without_stamps(capture([&] {
                                  ebmf *file = ebmf_fopen(name.c_str(), 0, ascii_flags);
                                  ASSERT_NE(nullptr, file);
                                  char one[] = "one##";
                                  char two[] = "two##";
                                  EXPECT_EQ(0, ebmf_fwrite(file, one, 3));
                                  EXPECT_EQ(0, ebmf_fwrite(file, two, 3));
                                  EXPECT_EQ(0, ebmf_fclose(file));
                              }).err);
    }
    std::string content() const
    {
        return read_file(name);
    }

    const tempdir dir;
    const std::string name = dir.file("cap");
};

TEST_F(TextFile, AppendGoesOnBehindTheLastWholeLine)
{
    const std::string big(200000, 'x');
    const struct {
        std::string before, kept, cut;
    } cases[] = {
        {"", "", ""},
        {"a\n", "a\n", ""},
        {"a\nb\n", "a\nb\n", ""},
        {"a\nb", "a\n", "b"},
        {"torn", "", "torn"},
        {"\n", "\n", ""},
        {"a\n" + big, "a\n", big},
        {big + "\n", big + "\n", ""},
        {big + "\nb", big + "\n", "b"},
        {std::string(65535, 'x') + "\nb", std::string(65535, 'x') + "\n", "b"},
        {"a\n" + std::string(65536, 'x'), "a\n", std::string(65536, 'x')},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.before.substr(0, 10) + " " + std::to_string(c.before.size()));
        std::filesystem::remove(name + ".cut");
        write_file(name, c.before);
        const std::string told = run(TEXT_APPEND);
        EXPECT_EQ(c.kept + "one\ntwo\n", content());
        EXPECT_EQ(!c.cut.empty(), std::filesystem::exists(name + ".cut"));
        EXPECT_EQ(c.cut, c.cut.empty() ? "" : read_file(name + ".cut"));
        EXPECT_EQ(c.cut.empty()
                      ? ""
                      : "LOG Capture file " + name + ": a line without its end, " +
                            std::to_string(c.cut.size()) + " bytes, moved to " + name + ".cut\n",
                  told);
    }
    std::filesystem::remove(name);
    EXPECT_EQ("", run(TEXT_APPEND)) << "a file that is not there is made";
    EXPECT_EQ("one\ntwo\n", content());
}

TEST_F(TextFile, AppendKeepsADirtyFilesLastLineWithoutItsEnd)
{
    // A NUL in a record ends its line without an end: it is whole all the same.
    write_file(name, "a\nacknowledged");
    EXPECT_EQ("", run(TEXT_APPEND, ASCII_ON | ASCII_DIRTY));
    EXPECT_EQ("a\nacknowledgedone\ntwo\n", content());
    EXPECT_FALSE(std::filesystem::exists(name + ".cut"));
}

TEST_F(TextFile, AFailedWriteBehindAnAppendTakesBackItsOwnRecordOnly)
{
    write_file(name, "before\n");
    g_capture_settings.text = TEXT_APPEND;
    ebmf *file = ebmf_fopen(name.c_str(), 0, ASCII_ON);
    ASSERT_NE(nullptr, file);
    rlimit old = {};
    getrlimit(RLIMIT_FSIZE, &old);
    const rlimit limit = {10, old.rlim_max};
    void (*handler)(int) = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    char record[] = "record##";
    EXPECT_NE(0, ebmf_fwrite(file, record, 6));
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, handler);
    EXPECT_EQ("before\n", content());
    EXPECT_EQ(0, ebmf_fwrite(file, record, 6));
    EXPECT_EQ("before\nrecord\n", content());
    ebmf_fclose(file);
}

TEST_F(TextFile, AppendRefusesAFileWhoseRestCannotBeKept)
{
    write_file(name, "a\ntorn");
    std::filesystem::create_directory(name + ".cut"); // in the copy's place
    write_file(name + ".cut/file", "");
    g_capture_settings.text = TEXT_APPEND;
    EXPECT_EQ(nullptr, ebmf_fopen(name.c_str(), 0, ASCII_ON));
    EXPECT_TRUE(fil_open_os_errno == EISDIR || fil_open_os_errno == ENOTEMPTY);
    EXPECT_EQ("a\ntorn", content());
    EXPECT_FALSE(std::filesystem::exists(name + ".cut.part"));
}

// Whatever has the copy's name: it is neither waited for nor followed.
TEST_F(TextFile, WhatHasTheNameOfAnUnfinishedCopyIsNotWrittenTo)
{
    const std::string part = name + ".cut.part";
    const std::string foreign = dir.file("foreign");
    const struct {
        const char *what;
        std::function<int()> make;
    } cases[] = {
        {"pipe", [&] { return mkfifo(part.c_str(), 0600); }},
        {"symbolic link", [&] { return symlink(foreign.c_str(), part.c_str()); }},
        {"hard link", [&] { return link(foreign.c_str(), part.c_str()); }},
    };
    write_file(foreign, "foreign\n");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        write_file(name, "a\ntorn");
        ASSERT_EQ(0, c.make());
        // A waiting open is ended by a reader that goes at once.
        const int reader = open(part.c_str(), O_RDONLY | O_NONBLOCK);
        run(TEXT_APPEND);
        close(reader);
        EXPECT_EQ("a\none\ntwo\n", content());
        EXPECT_EQ("foreign\n", read_file(foreign));
        EXPECT_EQ("torn", std::filesystem::is_regular_file(name + ".cut") ? read_file(name + ".cut")
                                                                          : "no file");
        EXPECT_FALSE(std::filesystem::exists(part));
        std::filesystem::remove(name + ".cut");
    }
    write_file(name, "a\ntorn");
    std::filesystem::create_directory(part);
    EXPECT_EQ(nullptr, ebmf_fopen(name.c_str(), 0, ASCII_ON));
    EXPECT_EQ("a\ntorn", content());
}

TEST_F(TextFile, AppendGoesBehindTheLinesOfOthers)
{
    g_capture_settings.text = TEXT_APPEND;
    write_file(name, "before\n");
    ebmf *one = ebmf_fopen(name.c_str(), 0, ASCII_ON);
    ebmf *two = ebmf_fopen(name.c_str(), 0, ASCII_ON);
    ASSERT_TRUE(one != nullptr && two != nullptr);
    std::string expected = "before\n";
    for (const char *text : {"a##", "b##", "c##"}) {
        for (ebmf *file : {one, two}) {
            char record[] = "1x##";
            record[0] = file == one ? '1' : '2';
            record[1] = text[0];
            EXPECT_EQ(0, ebmf_fwrite(file, record, 2));
            expected += std::string(record, 2) + "\n";
        }
    }
    EXPECT_EQ(expected, content());
    ebmf_fclose(one);
    ebmf_fclose(two);
}

// Another run may be in the middle of its line.
TEST_F(TextFile, AppendCutsNothingOffAFileThatIsBeingAppendedTo)
{
    g_capture_settings.text = TEXT_APPEND;
    write_file(name, "torn");
    ebmf *one = ebmf_fopen(name.c_str(), 0, ASCII_ON);
    ASSERT_NE(nullptr, one);
    EXPECT_EQ("", content()) << "nobody else has it";
    ASSERT_EQ(4, write(fileno(one->textfp), "half", 4));
    ebmf *two = ebmf_fopen(name.c_str(), 0, ASCII_ON);
    ASSERT_NE(nullptr, two);
    EXPECT_EQ("half", content());
    ebmf_fclose(one);
    ebmf_fclose(two);
    ebmf *three = ebmf_fopen(name.c_str(), 0, ASCII_ON);
    EXPECT_EQ("", content()) << "both are gone";
    ebmf_fclose(three);
}

// What stands behind the own lines when a write fails is somebody's.
TEST_F(TextFile, AFailedWriteTakesBackNoLinesOfOthers)
{
    g_capture_settings.text = TEXT_APPEND;
    ebmf *file = ebmf_fopen(name.c_str(), 0, ASCII_ON);
    ASSERT_NE(nullptr, file);
    char first[] = "first##";
    EXPECT_EQ(0, ebmf_fwrite(file, first, 5));
    {
        std::ofstream other(name, std::ios::app);
        other << "other\n";
    }
    rlimit old = {};
    getrlimit(RLIMIT_FSIZE, &old);
    void (*handler)(int) = signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t size : {12U, 15U}) { // nothing of the record fits, or three bytes
        const rlimit limit = {size, old.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        char record[] = "record##";
        EXPECT_NE(0, ebmf_fwrite(file, record, 6));
        setrlimit(RLIMIT_FSIZE, &old);
        EXPECT_EQ("first\nother\n", content());
    }
    signal(SIGXFSZ, handler);
    ebmf_fclose(file);
}

TEST_F(TextFile, NewRefusesAFileThatIsThere)
{
    EXPECT_EQ("", run(TEXT_NEW));
    EXPECT_EQ("one\ntwo\n", content());
    for (const char *before : {"kept\n", ""}) {
        write_file(name, before);
        EXPECT_EQ(nullptr, ebmf_fopen(name.c_str(), 0, ASCII_ON));
        EXPECT_EQ(EEXIST, fil_open_os_errno);
        EXPECT_EQ(before, content());
    }
    std::filesystem::remove(name);
    std::filesystem::create_symlink(dir.file("elsewhere"), name);
    EXPECT_EQ(nullptr, ebmf_fopen(name.c_str(), 0, ASCII_ON)) << "the name is there";
    EXPECT_FALSE(std::filesystem::exists(dir.file("elsewhere")));
}

TEST_F(TextFile, PipesAndDevicesAreWrittenAsTheyAre)
{
    ASSERT_EQ(0, mkfifo(name.c_str(), 0600));
    for (const text_mode mode : {TEXT_TRUNCATE, TEXT_APPEND, TEXT_NEW}) {
        SCOPED_TRACE(mode);
        const int reader = open(name.c_str(), O_RDONLY | O_NONBLOCK);
        EXPECT_EQ("", run(mode));
        char bytes[20] = "";
        EXPECT_EQ(8, read(reader, bytes, sizeof bytes));
        EXPECT_STREQ("one\ntwo\n", bytes);
        close(reader);
        g_capture_settings.text = mode;
        ebmf *device = ebmf_fopen("/dev/full", 0, ASCII_ON);
        ASSERT_NE(nullptr, device);
        char record[] = "one##";
        EXPECT_EQ(1, ebmf_fwrite(device, record, 3));
        ebmf_fclose(device);
    }
}

TEST_F(TextFile, NewFilesHaveTheModeOfTheirProcess)
{
    const mode_t old = umask(027);
    for (const text_mode mode : {TEXT_TRUNCATE, TEXT_APPEND, TEXT_NEW}) {
        std::filesystem::remove(name);
        run(mode);
        struct stat st = {};
        EXPECT_EQ(0, stat(name.c_str(), &st));
        EXPECT_EQ(0640U, st.st_mode & 0777U);
    }
    umask(old);
}
