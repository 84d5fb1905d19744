// Signals that do not end Kestro.  SIGHUP behind a file that was moved away: what the run
// writes to all its files together is what it would have written to one.
#include "tests/procs/growing_log.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <pty.h>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>

using testing::HasSubstr;
namespace fs = std::filesystem;

static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";

class HangupTest : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64K");
        options.directory = dir.path();
        options.env["TZ"] = "UTC";
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    }
    void TearDown() override
    {
        fwu_writer_close(writer);
    }

    void append(int n)
    {
        ASSERT_TRUE(append_transaction(writer, made + 1, n));
        made += n;
    }
    pid_t start(const std::string &name = "cap")
    {
        return start_program({kestro, "-ascii", name}, options, dir.file("out"), dir.file("err"));
    }
    // Moves the file away as often as it was moved before, and asks for a new one.
    void rotate(pid_t pid)
    {
        if (!fs::exists(dir.file("cap")))
            return; // the run has not come to it since the last time
        fs::rename(dir.file("cap"), dir.file("cap." + std::to_string(++moved)));
        kill(pid, SIGHUP);
    }
    std::string all() const
    {
        std::string text;
        for (int i = 1; i <= moved; i++)
            text += read_file(dir.file("cap." + std::to_string(i)));
        return fs::exists(dir.file("cap")) ? text + read_file(dir.file("cap")) : text;
    }
    size_t records() const
    {
        const std::string text = all();
        return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    }
    void wait_for_all() const
    {
        ASSERT_TRUE(poll_until([&] { return records() == static_cast<size_t>(made); }))
            << records() << " of " << made << "; " << read_file(dir.file("err"));
    }
    void stop(pid_t pid) const
    {
        kill(pid, SIGTERM);
        EXPECT_EQ(wait_program(pid), 0);
        EXPECT_EQ(read_file(dir.file("err")), "");
    }
    // What a run without all this makes of the log.
    std::string reference()
    {
        const run_result run =
            run_program({kestro, "-synconly", "-stat", "other", "-ascii", "reference"}, options);
        EXPECT_EQ(run.status, 0) << run.err;
        return read_file(dir.file("reference"));
    }

    tempdir dir;
    run_setup options;
    fwu_writer *writer = nullptr;
    int made = 0;
    int moved = 0;
};

TEST_F(HangupTest, UnderLoadAllFilesTogetherAreThatOfARunWithoutIt)
{
    std::mt19937 random{17};
    for (const char *sync : {"idle", "record", "off"}) {
        SCOPED_TRACE(sync);
        options.env["KESTRO_SYNC"] = sync;
        for (const char *name : {"fwutil.status", "other", "cap"})
            fs::remove(dir.file(name));
        for (; moved > 0; moved--)
            fs::remove(dir.file("cap." + std::to_string(moved)));
        const pid_t pid = start();
        for (int round = 0; round < 150 || (moved <= 10 && round < 5000); round++) {
            append(1 + static_cast<int>(random() % 9));
            if (round >= 150 || random() % 3 == 0) // the run has to come along
                usleep(static_cast<useconds_t>(random() % 3000));
            rotate(pid);
        }
        wait_for_all();
        EXPECT_GT(moved, 10);
        stop(pid);
        const std::string expected = reference();
        EXPECT_TRUE(all() == expected) << "compare the files";
    }
}

TEST_F(HangupTest, AtRestTheNewFileIsThereAtOnceAndThePositionKnowsIt)
{
    append(3);
    const pid_t pid = start();
    wait_for_all();
    // Its mark of the files is on disk.
    const auto marked = [&](int64_t end) {
        struct stat st = {};
        return stat(dir.file("cap").c_str(), &st) == 0 &&
               read_file(dir.file("fwutil.status"))
                       .find("file text " + std::to_string(st.st_ino) + " " + std::to_string(end) +
                             " ") != std::string::npos;
    };
    ASSERT_TRUE(poll_until([&] { return marked(static_cast<int64_t>(all().size())); }));
    rotate(pid);
    EXPECT_TRUE(poll_until([&] { return marked(0); }));
    append(2);
    wait_for_all();
    stop(pid);
    EXPECT_EQ(all(), reference());
}

TEST_F(HangupTest, AKillBehindItLosesNothing)
{
    options.env["KESTRO_TEXT"] = "append";
    std::mt19937 random{23};
    for (int round = 0; round < 10; round++) {
        const size_t before = records();
        append(5);
        const pid_t pid = start();
        ASSERT_TRUE(poll_until([&] { return records() > before + 1; })) << "one may come again";
        append(20);
        rotate(pid);
        usleep(static_cast<useconds_t>(random() % 5000));
        kill(pid, SIGKILL);
        ASSERT_EQ(wait_program(pid), 128 + SIGKILL);
    }
    const pid_t pid = start();
    append(1); // so that this run is known to have begun
    // Each kill may repeat the record in hand.
    const auto numbers = [&] {
        std::vector<std::string> found;
        const std::string text = all();
        for (size_t at = 0, end = 0; (end = text.find('\n', at)) != text.npos; at = end + 1)
            if (const std::string item = text.substr(at + 62, end - at - 62);
                found.empty() || found.back() != item)
                found.push_back(item);
        return found;
    };
    EXPECT_TRUE(poll_until([&] { return numbers().size() == static_cast<size_t>(made); }))
        << numbers().size() << " of " << made;
    stop(pid);
    std::vector<std::string> expected;
    const std::string text = reference();
    for (size_t at = 0, end = 0; (end = text.find('\n', at)) != text.npos; at = end + 1)
        expected.push_back(text.substr(at + 62, end - at - 62));
    EXPECT_EQ(numbers(), expected);
}

TEST_F(HangupTest, ARunWhoseFileHasItsNameGoesOnAsBefore)
{
    append(2);
    const pid_t pid = start();
    wait_for_all();
    for (const int number : {SIGHUP, SIGUSR1, SIGUSR2, SIGHUP})
        kill(pid, number);
    append(2);
    wait_for_all();
    stop(pid);
    EXPECT_EQ(all(), reference());
}

// Nothing else is open when the first record waits for a pipe's reader.
TEST_F(HangupTest, ARunThatWaitsForAPipesReaderGoesOnWaiting)
{
    ASSERT_EQ(mkfifo(dir.file("pipe").c_str(), 0600), 0);
    append(2);
    const pid_t pid = start("pipe");
    const auto waits = [&] {
        const std::string stat = read_file("/proc/" + std::to_string(pid) + "/wchan");
        return stat.find("wait_for_partner") != stat.npos || stat.find("fifo_open") != stat.npos;
    };
    (void)poll_until(waits, 1); // where the system tells
    for (const int number : {SIGHUP, SIGUSR1, SIGUSR2})
        kill(pid, number);
    const pid_t reader = start_program({"head", "-n", "2", "pipe"}, options, dir.file("cap"), "");
    EXPECT_EQ(wait_program(reader), 0);
    stop(pid);
    EXPECT_EQ(all(), reference());
}

// A run that somebody started by hand and left.
TEST_F(HangupTest, ARunInTheForegroundOfATerminalEndsWhenThatIsClosed)
{
    append(2);
    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (chdir(dir.path().c_str()) != 0)
            _exit(9);
        execl(kestro.c_str(), kestro.c_str(), "-ascii", "cap", nullptr);
        _exit(9);
    }
    wait_for_all();
    kill(pid, SIGHUP); // the terminal is there
    append(2);
    wait_for_all();
    close(terminal);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGHUP) << status;
}
