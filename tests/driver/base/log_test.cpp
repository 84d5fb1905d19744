// Error messages, the diagnostic log and the small helpers beside them.
#include "driver/base/log.h"

#include "tests/support/core_state.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

class Log : public core_state {
  protected:
    static void use_log_file(const std::string &path)
    {
        ASSERT_LT(path.size(), sizeof g_logfname);
        memcpy(g_logfname, path.c_str(), path.size() + 1);
    }
};

TEST_F(Log, ErrorIsALineOnStandardError)
{
    const captured printed = capture([] {
        EXPECT_EQ(-1, set_error("Went wrong."));
        EXPECT_EQ(-1, set_error("100% %s"));
        EXPECT_EQ(-1, set_error(""));
    });
    EXPECT_EQ("Went wrong.\n100% %s\n\n", printed.err);
    EXPECT_EQ("", printed.out);
}

TEST_F(Log, FormattedErrors)
{
    const captured printed = capture([] {
        EXPECT_EQ(-1, set_error_f("%s: %d", "file", 7));
        errno = ENOENT;
        EXPECT_EQ(-1, set_error_f("Trouble: %m"));
        EXPECT_EQ(-1, set_error_f("Ends itself\n"));
    });
    EXPECT_EQ("file: 7\nTrouble: No such file or directory\nEnds itself\n\n", printed.err);
}

TEST_F(Log, LongErrorsAreCut)
{
    const std::string fits(1023, 'x');
    const std::string longer(5000, 'x');
    EXPECT_EQ(fits + "\n", capture([&] { set_error_f("%s", fits.c_str()); }).err);
    EXPECT_EQ(fits + "\n", capture([&] { set_error_f("%s", longer.c_str()); }).err);
    EXPECT_EQ(longer + "\n", capture([&] { set_error(longer.c_str()); }).err);
}

TEST_F(Log, LevelMustShareABitWithTheMask)
{
    const struct {
        uint32_t mask, level;
        bool written;
    } cases[] = {{2, 2, true},  {2, 8, false}, {8, 8, true},  {8, 2, false},
                 {0, 2, false}, {10, 2, true}, {2, 10, true}, {2, 0, false}};
    for (const auto &c : cases) {
        g_loglevel = c.mask;
        const captured printed = capture([&] { logmsg(c.level, "text %d", 5); });
        EXPECT_EQ(c.written ? "LOG text 5\n" : "", without_stamps(printed.err));
        EXPECT_EQ("", printed.out);
    }
}

// The stamp of a moment: month first, two digits of the year.
static std::string stamp_of(time_t time)
{
    struct tm tm = {};
    localtime_r(&time, &tm);
    char text[40];
    strftime(text, sizeof text, "%m-%d-%Y %H:%M:%S ", &tm);
    return std::string(text).erase(6, 2) + std::to_string(getpid());
}

TEST_F(Log, LineBeginsWithLocalTimeAndProcessId)
{
    for (const char *zone : {"UTC", "XXX-9:30", "YYY+8"}) {
        set_zone(zone);
        const time_t before = time(nullptr);
        const captured printed = capture([] { logmsg(LOG_NOTICE, "message"); });
        const time_t after = time(nullptr);
        bool found = false;
        for (time_t t = before; t <= after; t++)
            found = found || printed.err == stamp_of(t) + " message\n";
        EXPECT_TRUE(found) << printed.err << " is not at " << stamp_of(before);
    }
}

TEST_F(Log, AChangeOfTheZoneShowsFromTheNextSecondOn)
{
    set_zone("UTC");
    (void)capture([] { logmsg(LOG_NOTICE, "message"); });
    setenv("TZ", "XYZ-11:30", 1); // and nobody says so
    const time_t changed = time(nullptr);
    ASSERT_TRUE(poll_until([&] { return time(nullptr) > changed; }));
    const captured printed = capture([] { logmsg(LOG_NOTICE, "message"); });
    const time_t now = time(nullptr);
    set_zone("XYZ-11:30");
    EXPECT_TRUE(printed.err == stamp_of(now) + " message\n" ||
                printed.err == stamp_of(now - 1) + " message\n")
        << printed.err << " is not at " << stamp_of(now);
}

TEST_F(Log, LongLinesAreCutAndStillEnd)
{
    const std::string text(1000, 'x');
    const captured printed = capture([&] { logmsg(LOG_NOTICE, "%s", text.c_str()); });
    EXPECT_EQ(255U, printed.err.size());
    EXPECT_EQ("xx\n", printed.err.substr(252));
}

TEST_F(Log, LinesAreAppendedToTheLogFile)
{
    const tempdir dir;
    use_log_file(dir.file("log"));
    write_file(dir.file("log"), "before\n");
    const captured printed = capture([] {
        logmsg(LOG_NOTICE, "one");
        logmsg(LOG_VERBOSE, "not this");
        logmsg(LOG_NOTICE, "two");
    });
    EXPECT_EQ("", printed.err + printed.out);
    EXPECT_EQ("before\nLOG one\nLOG two\n", without_stamps(read_file(dir.file("log"))));
}

TEST_F(Log, LineReachesStandardErrorWhenTheLogFileCannotBeOpened)
{
    const tempdir dir;
    use_log_file(dir.file("no/log"));
    const captured printed = capture([] { logmsg(LOG_NOTICE, "message"); });
    EXPECT_EQ("Error opening log file: " + dir.file("no/log") +
                  "\nNo such file or directory\nLOG message\n",
              without_stamps(printed.err));
}

TEST_F(Log, GetLogFname)
{
    char name[8] = "#######";
    get_log_fname(name, sizeof name);
    EXPECT_STREQ("", name);
    use_log_file("/var/log/x");
    get_log_fname(name, sizeof name);
    EXPECT_STREQ("/var/lo", name);
}

TEST(Strmcpy, CopiesWhatFits)
{
    const struct {
        const char *src;
        size_t size;
        std::string expected; // of the bytes "########"
    } cases[] = {
        {"abc", 0, "########"},
        {"abc", 1, std::string("\0#######", 8)},
        {"abc", 2, std::string("a\0######", 8)},
        {"abc", 3, std::string("ab\0#####", 8)},
        {"abc", 4, std::string("abc\0####", 8)},
        {"abc", 8, std::string("abc\0####", 8)},
        {"", 4, std::string("\0#######", 8)},
        {"", 0, "########"},
    };
    for (const auto &c : cases) {
        std::string dst(8, '#');
        strmcpy(dst.data(), c.src, c.size);
        EXPECT_EQ(c.expected, dst) << c.src << " " << c.size;
    }
}

TEST(RemoveFile, SaysWhatItDid)
{
    const tempdir dir;
    const std::string path = dir.file("f");
    write_file(path, "x");
    captured printed = capture([&] { EXPECT_EQ(0, remove_file(path.c_str())); });
    EXPECT_EQ(path + " removed.\n", printed.out);
    EXPECT_FALSE(std::filesystem::exists(path));
    printed = capture([&] { EXPECT_EQ(-1, remove_file(path.c_str())); });
    EXPECT_EQ("Error \"No such file or directory\" removing file " + path + "\n", printed.out);
    EXPECT_EQ("", printed.err);
}
