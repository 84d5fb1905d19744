// Following: what comes later is printed when it comes, until a signal, behind a whole line.
#include "tests/tools/capread/capread_fixture.h"

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

TEST_F(CapreadFollow, TextThatBecomesShorter)
{
    insert(1);
    kestro({"-ascii", "-dirty", "t"});
    start({"-ascii", "-dirty", "t"});
    EXPECT_TRUE(comes(line(1)));
    std::filesystem::resize_file(file("t"), 10);
    const int status = wait_program(pid);
    pid = -1;
    EXPECT_EQ(status, 1);
    EXPECT_EQ(read_file(file("err")), "capread: t: it has become shorter, 10 bytes\n");
}
