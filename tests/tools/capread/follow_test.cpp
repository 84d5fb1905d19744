// Following: what comes later is printed when it comes, until a signal, behind a whole line.
#include "msgfile/tmf.h"
#include "tests/msgfile/other_process.h"
#include "tests/tools/capread/capread_fixture.h"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

class CapreadFollow : public Capread {
  protected:
    void start(std::vector<std::string> words)
    {
        words.insert(words.begin(), {"-cfg", "fwutil.cfg", "--follow"});
        pid = start_program(command(words), setup(), file("out"), file("err"));
    }
    bool comes(const std::string &wanted)
    {
        return poll_until([&] { return without_layouts(read_file(file("out"))) == wanted; });
    }
    int stop(int signal)
    {
        kill(pid, signal);
        const int status = wait_program(pid);
        pid = -1;
        return status;
    }
    void TearDown() override
    {
        if (pid > 0)
            stop(SIGKILL);
    }
    std::string line(int number) const
    {
        return capread_line("c", "null", capread_values(number, "\"Jo\""));
    }
    void append(const std::string &name, const std::string &text) const
    {
        std::ofstream(file(name), std::ios::binary | std::ios::app) << text;
    }
    // Adds a record as Kestro's next run does.
    void more(uint64_t number)
    {
        insert(number);
        const run_result result = run_program(
            {KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-stat", "status1", "m"}, setup());
        ASSERT_EQ(result.status, 0) << result.out << result.err;
    }
    pid_t pid = -1;
};

TEST_F(CapreadFollow, MessagesThatAreKept)
{
    insert(1);
    kestro({"m"});
    start({"m"});
    EXPECT_TRUE(comes(line(1)));
    more(2);
    EXPECT_TRUE(comes(line(1) + line(2)));
    EXPECT_EQ(stop(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(records("m"), 2);
    EXPECT_EQ(read_file(file("err")), "");
}

TEST_F(CapreadFollow, SignalEndsTheWaitForAPipesWriter)
{
    insert(1);
    ASSERT_EQ(mkfifo(file("pipe").c_str(), 0600), 0);
    start({"-ascii", "pipe"});
    const std::string state = "/proc/" + std::to_string(pid) + "/status";
    EXPECT_TRUE(
        poll_until([&] { return read_file(state).find("State:\tS") != std::string::npos; }));
    EXPECT_EQ(stop(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(read_file(file("err")), "");
}

TEST_F(CapreadFollow, MessagesThatAreRemoved)
{
    insert(1);
    kestro({"m"});
    start({"--remove", "m"});
    EXPECT_TRUE(comes(line(1)));
    more(2);
    EXPECT_TRUE(comes(line(1) + line(2)));
    EXPECT_EQ(stop(SIGINT), 128 + SIGINT);
    EXPECT_EQ(records("m"), 0);
    EXPECT_EQ(read_file(file("err")), "");
}

// The port in the wait list of another file, which a writer floods, that a wait left there which
// was broken off.
TEST_F(CapreadFollow, SignalEndsTheWaitBesideAnotherFilesWriter)
{
    insert(1);
    kestro({"m"});
    write_file(file("other"), read_file(file("m")));
    ASSERT_EQ(capread({"-cfg", "fwutil.cfg", "--remove", "other"}).status, 0);
    start({"--remove", "other"});
    const auto waits = [this](const char *name) { return (read_file(file(name))[124] & 1) != 0; };
    EXPECT_TRUE(poll_until([&] { return waits("other"); }));
    EXPECT_EQ(stop(SIGTERM), 128 + SIGTERM);

    const std::string other = file("other");
    other_process writer({[&] {
        tmf_handle *h = tmf_fopen(other.c_str(), 0);
        while (tmf_fwrite(h, "x", 1) == 0) // a wake-up each
            usleep(50); // and the reader sleeps in between, so that a signal finds it
        return 1;
    }});
    writer.start();
    const auto written = [&] { return std::filesystem::file_size(other); };
    EXPECT_TRUE(poll_until([&] { return written() > 5000; }));
    start({"--remove", "m"});
    EXPECT_TRUE(comes(line(1)));
    EXPECT_TRUE(poll_until([&] { return waits("m"); }));
    EXPECT_EQ(stop(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(read_file(file("err")), "");
    const auto before = written();
    EXPECT_TRUE(poll_until([&] { return written() > before; })) << "it wrote all the time";
    writer.kill();
}

TEST_F(CapreadFollow, TextWhoseLastLineIsTorn)
{
    insert(1);
    insert(2);
    kestro({"-ascii", "-dirty", "t"});
    const std::string text = read_file(file("t"));
    const size_t half = text.size() / 2;
    write_file(file("x"), text.substr(0, half + 30));
    start({"-ascii", "-dirty", "x"});
    EXPECT_TRUE(comes(line(1)));
    append("x", text.substr(half + 30, text.size() - half - 31));
    append("x", "\n");
    EXPECT_TRUE(comes(line(1) + line(2)));
    append("x", text.substr(0, half));
    EXPECT_TRUE(comes(line(1) + line(2) + line(1)));
    EXPECT_EQ(stop(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(read_file(file("err")), "");
}

TEST_F(CapreadFollow, TextThatIsEmptiedAndBegunAnew)
{
    insert(1);
    insert(2);
    kestro({"-ascii", "-dirty", "t"});
    const std::string text = read_file(file("t"));
    start({"-ascii", "-dirty", "t"});
    EXPECT_TRUE(comes(line(1) + line(2)));
    append("t", text.substr(0, 30));
    std::filesystem::resize_file(file("t"), 10);
    EXPECT_TRUE(poll_until([&] { return !read_file(file("err")).empty(); }));
    std::filesystem::resize_file(file("t"), 0);
    append("t", text.substr(text.size() / 2));
    EXPECT_TRUE(comes(line(1) + line(2) + line(2)));
    EXPECT_EQ(stop(SIGTERM), 128 + SIGTERM);
    EXPECT_THAT(
        read_file(file("err")),
        testing::StartsWith("capread: t: it has become shorter, 10 bytes: going on with its "
                            "beginning\n"));
}

// As logrotate does it: the writer goes on in the file that was moved until it opens the name anew.
TEST_F(CapreadFollow, TextThatIsMovedAwayAndMadeAnew)
{
    insert(1);
    insert(2);
    kestro({"-ascii", "-dirty", "t"});
    const std::string text = read_file(file("t"));
    const size_t half = text.size() / 2;
    start({"-ascii", "-dirty", "t"});
    std::string wanted = line(1) + line(2);
    EXPECT_TRUE(comes(wanted));
    for (int turn = 0; turn < 3; turn++) {
        std::filesystem::rename(file("t"), file("moved"));
        append("moved", text.substr(0, half));
        EXPECT_TRUE(comes(wanted += line(1)));
        write_file(file("t"), "");
        append("moved", text.substr(half));
        EXPECT_TRUE(comes(wanted += line(2)));
        append("moved", text); // of which this reader may not know yet when the name is there
        append("t", text.substr(half));
        EXPECT_TRUE(comes(wanted += line(1) + line(2) + line(2)));
    }
    EXPECT_EQ(stop(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(read_file(file("err")), "");
}

TEST_F(CapreadFollow, TextThatIsMovedAwayWithATornLine)
{
    insert(1);
    kestro({"-ascii", "-dirty", "t"});
    const std::string text = read_file(file("t"));
    start({"-ascii", "-dirty", "t"});
    EXPECT_TRUE(comes(line(1)));
    append("t", text.substr(0, text.size() - 5));
    std::filesystem::rename(file("t"), file("moved"));
    write_file(file("t"), text);
    EXPECT_TRUE(comes(line(1) + line(1)));
    append("t", "no record\n" + text);
    EXPECT_EQ(wait_program(pid), 1);
    pid = -1;
    EXPECT_EQ(read_file(file("err")),
              "capread: t: the file that had this name ends within a line, behind " +
                  std::to_string(text.size() - 5) +
                  " bytes; going on with the one that has it now\n"
                  "capread: t: record 2: at byte " +
                  std::to_string(text.size()) +
                  ": at offset 0 stands \"no rec\", where these options have the record's number, "
                  "six digits\n");
}

// Without --follow.  The pipe holds less than what is read at once, so that most of the file is
// still to be read when it is emptied.
TEST_F(CapreadFollow, TextThatBecomesShorterWhileItIsRead)
{
    insert(1);
    kestro({"-ascii", "-dirty", "t"});
    const std::string text = read_file(file("t"));
    std::string all;
    for (int i = 0; i < 10000; i++)
        all += text;
    write_file(file("t"), all);
    const run_result result =
        run_program({"sh", "-c",
                     KESTRO_BUILD_DIR "/bin/capread -cfg fwutil.cfg -ascii -dirty t | "
                                      "{ head -c 1 > first; : > t; cat > rest; }"},
                    setup());
    EXPECT_EQ(result.err, "capread: t: it has become shorter, 0 bytes\n");
}
