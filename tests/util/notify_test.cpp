// What goes to a service manager, and what values of its variables are passed over.
#include "util/notify.h"

#include "tests/support/notified.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

class Notify : public testing::Test {
  protected:
    Notify()
    {
        for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            unsetenv(name);
    }
    ~Notify() override
    {
        for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            unsetenv(name);
    }

    const tempdir dir;
};

TEST_F(Notify, ReachesASocketByPathAndByAbstractName)
{
    const std::string longest = "@" + dir.path() + std::string(106 - dir.path().size(), 'x');
    for (const std::string &name : {dir.file("socket"), "@" + dir.path(), longest}) {
        SCOPED_TRACE(name);
        const notified manager(name);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        EXPECT_TRUE(notify_wanted());
        EXPECT_TRUE(notify_send("READY=1\nSTATUS=fine"));
        EXPECT_EQ(manager.next(), "READY=1\nSTATUS=fine");
        EXPECT_EQ(manager.next(), "");
    }
}

TEST_F(Notify, ValuesThatNameNoSocketAreNone)
{
    EXPECT_FALSE(notify_wanted());
    for (const std::string &name :
         {std::string(), std::string("/"), std::string("@"), std::string("socket"),
          std::string("./socket"), std::string("vsock:2:1234"), "/" + std::string(107, 'x'),
          "@" + std::string(107, 'x'), "/" + std::string(100'000, 'x')}) {
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        EXPECT_FALSE(notify_wanted()) << name.substr(0, 120);
        EXPECT_FALSE(notify_send("READY=1")) << name.substr(0, 120);
    }
}

TEST_F(Notify, NobodyThereIsNoError)
{
    write_file(dir.file("text"), "mine");
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    for (const std::string &name : {dir.file("none"), dir.file("text"), dir.file("fifo"),
                                    dir.path(), std::string("/dev/null"), "@" + dir.file("none")}) {
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        EXPECT_TRUE(notify_wanted()) << name;
        EXPECT_FALSE(notify_send("READY=1")) << name;
    }
    EXPECT_EQ(read_file(dir.file("text")), "mine");
}

TEST_F(Notify, AManagerThatTakesNothingHoldsNobodyUp)
{
    const notified manager(dir.file("socket"));
    setenv("NOTIFY_SOCKET", dir.file("socket").c_str(), 1);
    int taken = 0;
    while (taken < 100'000 && notify_send("WATCHDOG=1"))
        taken++;
    EXPECT_LT(taken, 100'000) << "the socket has no end";
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
    EXPECT_TRUE(notify_send("READY=1")) << "there is room again";
}

TEST_F(Notify, AValueIsOneLine)
{
    EXPECT_EQ(notify_value("a\nREADY=1"), "a READY=1");
    EXPECT_EQ(notify_value(std::string("a\0b", 3)), "a b");
}

TEST_F(Notify, TheWatchdogIsThisProcesssOrNone)
{
    const struct {
        const char *usec;
        std::string pid;
        int64_t result;
    } rows[] = {{"30000000", "", 30'000'000},
                {"30000000", std::to_string(getpid()), 30'000'000},
                {"30000000", std::to_string(getpid() + 1), 0},
                {"30000000", "x", 0},
                {"0", "", 0},
                {"-5", "", 0},
                {"", "", 0},
                {"12x", "", 0},
                {" 12", "", 0},
                {"9223372036854775807", "", INT64_MAX},
                {"99999999999999999999", "", 0}};
    for (const auto &row : rows) {
        setenv("NOTIFY_SOCKET", "/run/socket", 1);
        setenv("WATCHDOG_USEC", row.usec, 1);
        setenv("WATCHDOG_PID", row.pid.c_str(), 1);
        EXPECT_EQ(notify_watchdog_us(), row.result) << row.usec << ' ' << row.pid;
        unsetenv("NOTIFY_SOCKET");
        EXPECT_EQ(notify_watchdog_us(), 0) << "nobody to pat";
    }
}
