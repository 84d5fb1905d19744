// How each implementation, in each build, wakes and waits: the datagrams that a
// writer sends, a port that is taken, a signal, the end of the time.
#include "msgfile/tmf.h"
#include "tests/msgpeer/pair_test.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

class WakeTest : public testing::TestWithParam<peer> {
  protected:
    void SetUp() override
    {
        const std::string missing = missing_for(GetParam());
        if (!missing.empty())
            GTEST_SKIP() << missing;
        port_ = files_.next_port;
        path_ = files_.make("f", is_big_endian(GetParam()));
    }

    test_files files_;
    int port_ = 0; // of reader slot 0
    std::string path_;
};

// A UDP socket bound to a port of one local address.
class bound_socket {
  public:
    bound_socket(const char *address, int port)
        : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_in name = {};
        name.sin_family = AF_INET;
        name.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, address, &name.sin_addr);
        if (bind(fd_, reinterpret_cast<sockaddr *>(&name), sizeof name) != 0)
            throw std::runtime_error("port taken");
    }
    ~bound_socket()
    {
        close(fd_);
    }
    bound_socket(const bound_socket &) = delete;
    bound_socket &operator=(const bound_socket &) = delete;

    // The next datagram; empty when none has come.
    std::string take()
    {
        char data[64];
        const ssize_t n = recv(fd_, data, sizeof data, 0);
        return n < 0 ? "" : std::string(data, static_cast<size_t>(n));
    }

  private:
    int fd_;
};

TEST_P(WakeTest, AWriterSendsADatagramForEachRecordAndForItsClose)
{
    // Slots 1 and 9 wait, at another address of this host.
    std::string file = read_file(path_);
    file.replace(AT_SIGNAL_ADDR, 4, "\x7F\x00\x00\x02", 4);
    file.replace(AT_WAIT_LIST, 2, "\x02\x02", 2);
    write_file(path_, file);
    bound_socket slot1("127.0.0.2", be16_at(file, AT_SIGNAL_PORTS + 2));
    bound_socket slot9("127.0.0.2", be16_at(file, AT_SIGNAL_PORTS + 18));

    participant writer(GetParam());
    ASSERT_EQ(writer.run("open w " + path_ + " 0"), 0);
    const std::string stamp = read_file(path_).substr(AT_STAMP, 8);
    EXPECT_EQ(stamp.find_first_not_of("0123456789abcdef"), std::string::npos) << stamp;
    EXPECT_NE(stamp, "00000000"); // the first user has set it
    EXPECT_EQ(slot1.take(), "");

    ASSERT_EQ(writer.run("write w A 1 2 20"), 2);
    ASSERT_EQ(writer.run("close w"), 0);
    for (bound_socket *slot : {&slot1, &slot9}) {
        EXPECT_EQ(slot->take(), std::string("mW\0\x08", 4) + stamp);
        EXPECT_EQ(slot->take(), std::string("mW\0\x08", 4) + stamp);
        EXPECT_EQ(slot->take(), std::string("mC\0\x08", 4) + stamp);
        EXPECT_EQ(slot->take(), "");
    }
    EXPECT_EQ(be16_at(read_file(path_), AT_WAIT_LIST), 0x0202); // the readers' own to clear
}

TEST_P(WakeTest, AReadersCloseWakesNobody)
{
    std::string file = read_file(path_);
    file.replace(AT_WAIT_LIST, 2, "\x02\x00", 2);
    write_file(path_, file);
    bound_socket slot1("127.0.0.1", be16_at(file, AT_SIGNAL_PORTS + 2));
    participant reader(GetParam());
    ASSERT_EQ(reader.run("open r " + path_ + " 1"), 0);
    ASSERT_EQ(reader.run("close r"), 0);
    EXPECT_EQ(slot1.take(), "");
}

TEST_P(WakeTest, AReaderWhosePortIsTakenWaitsOnAnother)
{
    const bound_socket taken("0.0.0.0", port_);
    participant reader(GetParam());
    participant writer(GetParam());
    ASSERT_EQ(reader.run("open r " + path_ + " 1"), 0);
    reader.start("read r 1 8");
    ASSERT_TRUE(comes_to_wait(path_, 0)); // this test's own socket is bound
    EXPECT_EQ(reader.interrupt(), TMF_ESIGNAL);
    EXPECT_EQ(be16_at(read_file(path_), AT_SIGNAL_PORTS), port_);

    reader.start("read r 1 0 600"); // the new port is in the file from the next round on
    ASSERT_TRUE(poll_until([&] { return be16_at(read_file(path_), AT_SIGNAL_PORTS) != port_; }));
    ASSERT_TRUE(comes_to_wait(path_, 0));
    // 16 further on, or a multiple when that is taken as well, in 2048 ports from 53248.
    const int port = be16_at(read_file(path_), AT_SIGNAL_PORTS);
    EXPECT_EQ(port / 2048, 26);
    EXPECT_EQ((port - port_) % 16, 0);
    ASSERT_EQ(writer.run("open w " + path_ + " 0"), 0);
    ASSERT_EQ(writer.run("write w A 1 1 20"), 1);
    EXPECT_EQ(reader.result(), 1);
}

TEST_P(WakeTest, ASignalEndsAWaitThatAllowsIt)
{
    participant reader(GetParam());
    ASSERT_EQ(reader.run("open r " + path_ + " 1"), 0);
    reader.start("read r 1 8"); // otherwise as long as it takes
    ASSERT_TRUE(comes_to_wait(path_, 0));
    EXPECT_EQ(reader.interrupt(), TMF_ESIGNAL);
    // The wait ends outside the lock: the reader stays on the list.
    EXPECT_TRUE(is_waiting(read_file(path_), 0));

    reader.start("read r 1 0 600");
    EXPECT_EQ(reader.interrupt(), 0); // tmf_freadx makes it "no record"
}

static std::string peer_name(const testing::TestParamInfo<peer> &info)
{
    static const char *const names[] = {"Library", "Library32", "S390x", "Python", "PythonBig"};
    return names[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Every, WakeTest,
                         testing::Values(peer::library, peer::library32, peer::s390x, peer::python,
                                         peer::python_big),
                         peer_name);
