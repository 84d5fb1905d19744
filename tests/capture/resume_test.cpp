// The mark of how far capture files are on disk, and a start behind a power cut that
// goes by it.
#include "capture/sync.h"

#include "capture/settings.h"
#include "capture/syncmark.h"
#include "driver/base/logrec.h"
#include "fwutil/fwutil.h"
#include "msgfile/tmf.h"
#include "tests/support/core_state.h"
#include "tests/support/tempdir.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace std::string_literals;

class Resume : public core_state {
  protected:
    Resume()
    {
        capture_sync_begin();
    }
    ~Resume() override
    {
        g_capture_settings.text = TEXT_TRUNCATE;
    }

    void write(int n = 1)
    {
        for (int i = 0; i < n; i++)
            EXPECT_EQ(0, capture_write_insert(g_ci, &record));
    }
    void close_files()
    {
        (void)capture([] { capture_close(g_ci); });
        g_ci = new_capinfo();
        get_dsetinfo(g_ci->dsets);
    }
    std::string mark() const
    {
        const char *lines = capture_sync(g_ci);
        return lines == nullptr ? "failed" : lines;
    }
    // Result of a start with the mark; what is told goes to told.
    int resume(const std::string &lines)
    {
        int rc = 0;
        told = without_stamps(capture([&] { rc = capture_resume(lines.c_str()); }).err);
        return rc;
    }
    std::string inode(const std::string &path) const
    {
        struct stat st = {};
        EXPECT_EQ(0, stat(path.c_str(), &st));
        return std::to_string(st.st_ino);
    }
    // The message file's records, by their sequence numbers.
    std::string sequences() const
    {
        std::string numbers;
        tmf_handle *reader =
            tmf_fopen(message.c_str(), TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
        char bytes[100];
        while (tmf_fread(reader, bytes, sizeof bytes, 0) > 0)
            numbers += std::string(bytes + 5, 1);
        tmf_fclose(reader);
        return numbers;
    }
    void take(int n) const
    {
        tmf_handle *reader = tmf_fopen(message.c_str(), TMF_MODE_READ);
        char bytes[100];
        for (int i = 0; i < n; i++)
            EXPECT_EQ(66, tmf_fread(reader, bytes, sizeof bytes, 0));
        EXPECT_EQ(0, tmf_fclose(reader));
    }

    const tempdir dir;
    const std::string text = dir.file("cap");
    const std::string message = dir.file("msg");
    log_record record = customer();
    std::string told;
};

static const char line_0[] = "000000ORDERS                  CUST            24010100:00:00IPnew!\n";
static const char line_1[] = "000001ORDERS                  CUST            24010100:00:00IPnew!\n";

TEST_F(Resume, TheMarkSaysHowFarEachFileIsOnDisk)
{
    const std::string odd = dir.file("100%\nodd");
    add_file(text, text_options());
    add_file(message);
    add_file(odd, text_options());
    add_file("/dev/null", text_options());
    const std::string zeros = " 0000000000000000 ";
    EXPECT_EQ("file text 0 0" + zeros + text + "\nfile message 0 0" + zeros + message +
                  "\nfile text 0 0" + zeros + dir.path() + "/100%25%0Aodd\n",
              mark());
    write();
    const std::string lines = mark();
    EXPECT_EQ("file text " + inode(text) + " 67" + zeros + text + "\n",
              lines.substr(0, lines.find('\n') + 1));
    EXPECT_NE(std::string::npos, lines.find("\nfile message " + inode(message) + " 4424 "));

    const char *at = lines.c_str();
    mark_line line;
    bool good = false;
    std::vector<std::string> paths;
    while (mark_next(&at, line, &good))
        paths.push_back(line.path);
    EXPECT_TRUE(good);
    EXPECT_EQ(std::vector<std::string>({text, message, odd}), paths);
}

TEST_F(Resume, NamesAreThoseOfAnyDirectory)
{
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    add_file("cap", text_options());
    const std::string absent = mark();
    write();
    const std::string there = mark();
    std::filesystem::current_path(before);
    EXPECT_EQ(" " + text + "\n", absent.substr(absent.rfind(' ')));
    EXPECT_EQ(" " + text + "\n", there.substr(there.rfind(' ')));
}

TEST_F(Resume, WhatATextFileHoldsBehindTheMarkIsMovedAside)
{
    add_file(text, text_options());
    write();
    const std::string first = mark();
    write();
    close_files();
    EXPECT_EQ(0, resume(first));
    EXPECT_EQ(line_0, read_file(text));
    EXPECT_EQ(line_1, read_file(text + ".cut"));
    EXPECT_EQ("LOG Capture file " + text + ": what comes again, 67 bytes, moved to " + text +
                  ".cut\n",
              told);
    EXPECT_EQ(0, resume(first));
    EXPECT_EQ("", told) << "nothing is left to do";
    EXPECT_EQ(line_1, read_file(text + ".cut"));
}

TEST_F(Resume, AFileThatWasNotThereComesAgainWhole)
{
    add_file(text, text_options());
    const std::string before = mark();
    write(2);
    close_files();
    EXPECT_EQ(0, resume(before));
    EXPECT_EQ("", read_file(text));
    EXPECT_EQ(std::string(line_0) + line_1, read_file(text + ".cut"));
}

TEST_F(Resume, AnotherFileOfThatNameAndOneThatIsGoneAreLeftAlone)
{
    add_file(text, text_options());
    write();
    const std::string first = mark();
    write();
    close_files();
    std::filesystem::rename(text, text + ".moved");
    EXPECT_EQ(0, resume(first));
    EXPECT_EQ("", told);
    write_file(text, "something else that is longer than the mark says, by a bit or two\n\n\n");
    const std::string other = read_file(text);
    EXPECT_EQ(0, resume(first));
    EXPECT_EQ(other, read_file(text));
    EXPECT_EQ("", told);
}

// As it is moved before its writer opens the name anew.
TEST_F(Resume, ATextFileThatWasRotatedIsCutUnderItsNewName)
{
    for (const char *name : {".1", "-20240101", ".12.gz"}) {
        SCOPED_TRACE(name);
        add_file(text, text_options());
        write();
        const std::string first = mark();
        write();
        close_files();
        std::filesystem::rename(text, text + name);
        write_file(text, line_1); // with the first record of a run, whose position is not on disk
        EXPECT_EQ(0, resume(first));
        EXPECT_EQ(line_0, read_file(text + name));
        EXPECT_EQ(line_1, read_file(text + name + ".cut"));
        EXPECT_EQ("", read_file(text));
        EXPECT_EQ(line_1, read_file(text + ".cut"));
        for (const std::string &left : {text, text + ".cut"})
            std::filesystem::remove(left);
    }
    // Another file of such a name, and a message file, are left alone.
    add_file(text, text_options());
    add_file(message);
    write();
    const std::string first = mark();
    write();
    close_files();
    std::filesystem::copy(text, text + ".1", std::filesystem::copy_options::overwrite_existing);
    std::filesystem::remove(text);
    std::filesystem::rename(message, message + ".1");
    EXPECT_EQ(0, resume(first));
    EXPECT_EQ("", told);
    EXPECT_EQ(std::string(line_0) + line_1, read_file(text + ".1"));
}

TEST_F(Resume, AFileThatWasEmptiedLosesOnlyZeros)
{
    add_file(text, text_options());
    write(3);
    const std::string third = mark();
    close_files();
    for (const char *name : {"", "a\nb", "a\nb\n"}) {
        truncate(text.c_str(), 0);
        { // the same file
            std::ofstream out(text, std::ios::in | std::ios::out);
            out << name;
        }
        EXPECT_EQ(0, resume(third));
        EXPECT_EQ(name, read_file(text));
        EXPECT_EQ("", told);
    }
    {
        std::ofstream out(text, std::ios::in | std::ios::out);
        out << "whole\nhalf" << std::string(50, '\0') << "other half\n";
    }
    EXPECT_EQ(0, resume(third));
    EXPECT_EQ("whole\n", read_file(text));
    EXPECT_EQ("half" + std::string(50, '\0') + "other half\n", read_file(text + ".cut"));
}

TEST_F(Resume, WhatCannotBeKeptStopsTheRun)
{
    add_file(text, text_options());
    write();
    const std::string first = mark();
    write();
    close_files();
    std::filesystem::create_directory(text + ".cut");
    write_file(text + ".cut/file", "");
    EXPECT_EQ(-1, resume(first));
    EXPECT_NE(std::string::npos, told.find("Error taking back what capture file " + text)) << told;
    EXPECT_EQ(std::string(line_0) + line_1, read_file(text));
}

// The copy beside would take the place of a capture file.
TEST_F(Resume, ACaptureFileThatIsTheCopyOfAnotherStopsTheRunBehindAPowerCut)
{
    const std::string copy = dir.path() + "/./cap.cut";
    add_file(text, text_options());
    add_file(copy, text_options());
    write();
    const std::string first = mark();
    write();
    close_files();
    const std::string both = std::string(line_0) + line_1;
    for (const bool in_mark : {true, false}) {
        if (!in_mark)
            add_file(copy);
        EXPECT_EQ(-1, resume(in_mark ? first : first.substr(0, first.find('\n') + 1)));
        EXPECT_NE(std::string::npos, told.find("cap.cut has the name of the copy that ")) << told;
        EXPECT_EQ(both, read_file(text));
        EXPECT_EQ(both, read_file(copy));
    }
}

TEST_F(Resume, AMarkThatIsNoneStopsTheRun)
{
    for (const char *bad : {"file text 1 2 3", "file thing 1 2 0000000000000000 /x\n", "x\n",
                            "file text -- 0000000000000000 /x\n",
                            "file text 1 -2 0000000000000000 /x\n", "file text 1 2\n/x y\n"}) {
        EXPECT_EQ(-1, resume(bad)) << bad;
        EXPECT_NE(std::string::npos, told.find("cannot be read")) << told;
    }
    EXPECT_EQ(0, resume(""));
}

TEST_F(Resume, AMessageFileIsCutBackToTheMark)
{
    add_file(message);
    write(3);
    const std::string third = mark();
    write(2);
    close_files();
    EXPECT_EQ(0, resume(third));
    EXPECT_EQ("LOG Capture file " + message +
                  ": cut back to what does not come again; as it was "
                  "in " +
                  message + ".cut\n",
              told);
    EXPECT_EQ("012", sequences());
    EXPECT_TRUE(std::filesystem::exists(message + ".cut"));
    EXPECT_EQ(0, resume(third));
    EXPECT_EQ("", told);
    EXPECT_EQ("012", sequences());
}

TEST_F(Resume, RecordsTakenBeforeTheCutStayTaken)
{
    add_file(message);
    write(3);
    const std::string third = mark();
    take(2);
    write(2);
    close_files();
    EXPECT_EQ(0, resume(third));
    EXPECT_EQ("2", sequences());
}

TEST_F(Resume, AMessageFileEmptiedBehindTheMarkComesAgainWhole)
{
    for (const int after : {1, 3, 5}) { // shorter than the mark, as long, longer
        SCOPED_TRACE(after);
        add_file(message);
        write(3);
        const std::string third = mark();
        take(3);
        write(after);
        close_files();
        EXPECT_EQ(0, resume(third));
        EXPECT_EQ("", sequences());
        EXPECT_NE("", told);
        std::filesystem::remove(message);
    }
}

TEST_F(Resume, AMessageFileThatTheRunHadNotOpenedIsCutBackToWhereItEndedAtTheStart)
{
    add_file(message);
    write(3);
    close_files();
    add_file(message);
    const std::string start = mark();
    EXPECT_NE(std::string::npos, start.find(" 4568 ")) << start; // 3 records of 72 bytes
    EXPECT_EQ(start, mark());
    write();
    close_files();
    EXPECT_EQ(0, resume(start));
    EXPECT_EQ("012", sequences());
    EXPECT_NE("", told);
}

TEST_F(Resume, AMessageFileWhoseEndWasNotKnownIsOnlyMended)
{
    add_file(message);
    write(4);
    close_files();
    const std::string start =
        "file message " + inode(message) + " -1 0000000000000000 " + message + "\n";
    EXPECT_EQ(0, resume(start));
    EXPECT_EQ("0123", sequences());
    EXPECT_EQ("", told);
    truncate(message.c_str(), 4352 + 3 * 72 + 20); // the last record never came to the disk
    EXPECT_EQ(0, resume(start));
    EXPECT_EQ("012", sequences());
    EXPECT_NE("", told);
}

TEST_F(Resume, AMessageFilePastTwoGigabytesIsOnlyMended)
{
    const capfil *cf = add_file(message);
    write();
    const int32_t end = -2000000000;
    ASSERT_EQ(4, pwrite(cf->fnum, &end, sizeof end, 44));
    EXPECT_EQ("file message " + inode(message) + " -1 ",
              mark().substr(0, 17 + inode(message).size()));
}
