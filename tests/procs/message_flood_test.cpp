// Readers that wait, and somebody without any right to the file who sends datagrams to their ports:
// as many as go, of every kind. Each wakes, none brings or takes anything.
#include "tests/procs/message_view.h"
#include "tests/procs/message_workers.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <arpa/inet.h>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

static sockaddr_in loopback(const unsigned char port[2])
{
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    memcpy(&to.sin_port, port, sizeof(to.sin_port)); // big-endian, too
    return to;
}

// Datagrams as a writer sends them, of another file, of other kinds and lengths.
static const std::string forged[] = {
    std::string("mW\0\x08"
                "65f0aa00",
                12),
    std::string("mC\0\x08"
                "00000000",
                12),
    std::string("mW\0\xFF", 4),
    std::string(12, '\0'),
    "m",
    std::string(16, 'W'),
    std::string(1400, 'x'),
    std::string(65000, '\xFF'),
};
static const std::string empty_one;

class MessageFlood : public ::testing::Test {
  protected:
    void SetUp() override
    {
        make_message_file(path);
        common = look(path).common;
    }
    void TearDown() override
    {
        if (flooder > 0)
            stop_flood();
    }
    // Sends all kinds in turn to the first reader slots, until it is stopped.
    void begin_flood(const std::vector<std::string> &kinds)
    {
        flooder = fork();
        ASSERT_GE(flooder, 0);
        if (flooder != 0)
            return;
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const pid_t test = getppid();
        while (getppid() == test) {
            for (int i = 0; i < 4; i++) {
                const sockaddr_in to = loopback(common.signal_ports[i]);
                for (const std::string &kind : kinds) {
                    (void)sendto(fd, kind.data(), kind.size(), MSG_DONTWAIT,
                                 reinterpret_cast<const sockaddr *>(&to), sizeof(to));
                    ++*sent;
                }
            }
        }
        _exit(0);
    }
    void stop_flood()
    {
        kill(flooder, SIGKILL);
        (void)wait_program(flooder);
        flooder = -1;
    }
    // The flood goes on while this is looked at.
    void expect_more_sent()
    {
        const uint32_t before = *sent;
        EXPECT_TRUE(poll_until([&] { return *sent > before + 100; }));
    }

    tempdir dir;
    std::string path = dir.file("queue");
    tmf_common common = {};
    const shared_memory<call_counts> calls;
    const calls_counted counted{&*calls};
    shared_memory<std::atomic<uint32_t>> sent;
    pid_t flooder = -1;
};

TEST_F(MessageFlood, EachRecordComesOnceAndInOrder)
{
    constexpr int RECORDS = 50;
    std::vector<deed> reading = {opens(path, 1)};
    std::vector<deed> writing = {opens(path, 0)};
    for (int i = 1; i <= RECORDS; i++) {
        reading.push_back(reads(TMF_READ_WAIT));
        writing.push_back(writes(std::string(static_cast<size_t>(i), 'r')));
    }
    reading.push_back(reads(0));
    reading.push_back(closes());
    writing.push_back(closes());
    user_process reader(reading);
    user_process writer(writing);
    ASSERT_EQ(reader.run(), 0);
    ASSERT_EQ(writer.run(), 0);
    begin_flood({std::begin(forged), std::end(forged)});
    expect_more_sent();
    for (int i = 1; i <= RECORDS; i++) {
        reader.begin(); // before or after the record, as it happens; the first one waits for it
        ASSERT_TRUE(i > 1 || poll_until([&] { return calls->waits > 0; }));
        ASSERT_EQ(writer.run(), 0) << i;
        ASSERT_EQ(reader.result(), i);
    }
    expect_more_sent();
    EXPECT_EQ(writer.run(), 0);
    EXPECT_EQ(reader.run(), 0) << "no writer is left, and the flood is none";
    EXPECT_EQ(reader.run(), 0);
    stop_flood();
    const message_view view = look(path);
    EXPECT_EQ(faults_of(view, {}), "");
    EXPECT_EQ(registered(view), std::vector<pid_t>{});
}

// Four readers that are all kept busy, and a writer that comes and goes: it is never kept out.
TEST_F(MessageFlood, WritersComeAndGo)
{
    std::vector<std::unique_ptr<user_process>> readers;
    for (int i = 0; i < 4; i++) {
        readers.push_back(std::make_unique<user_process>(
            std::vector<deed>{opens(path, 1), reads(TMF_READ_WAIT), closes()}));
        ASSERT_EQ(readers.back()->run(), 0);
        readers.back()->begin();
    }
    begin_flood({std::begin(forged), std::end(forged)});
    expect_more_sent();
    for (int i = 1; i <= 4; i++) {
        for (const auto &reader : readers)
            EXPECT_TRUE(!reader->has_ended() || i > 1) << "there was no record yet";
        user_process writer(
            {opens(path, 0), writes(std::string(static_cast<size_t>(i), 'r')), closes()});
        for (int step = 0; step < 3; step++)
            ASSERT_EQ(writer.run(), 0);
    }
    int sum = 0;
    for (const auto &reader : readers) {
        sum += reader->result();
        EXPECT_EQ(reader->run(), 0);
    }
    EXPECT_EQ(sum, 1 + 2 + 3 + 4);
    stop_flood();
    EXPECT_EQ(faults_of(look(path), {}), "");
}

// One without a byte counts as a round that is over: a wait with a limit may end early, one without
// goes on.
TEST_F(MessageFlood, EmptyDatagramsEndRoundsAndNothingElse)
{
    const auto limited = [](tmf_handle *&h) {
        char data[16];
        return tmf_freadx(h, data, sizeof data, TMF_READ_WAIT, 3600);
    };
    const auto why = [](tmf_handle *&h) {
        const int code = tmf_geterrno(h);
        tmf_clearerr(h);
        return code;
    };
    user_process reader({opens(path, 1), limited, why, reads(TMF_READ_WAIT), closes()});
    user_process writer({opens(path, 0), writes("record"), closes()});
    ASSERT_EQ(reader.run(), 0);
    reader.begin();
    begin_flood({empty_one});
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(reader.run(), TMF_ETIMEOUT);
    reader.begin();
    expect_more_sent();
    EXPECT_FALSE(reader.has_ended());
    for (int step = 0; step < 3; step++)
        ASSERT_EQ(writer.run(), 0);
    EXPECT_EQ(reader.result(), 6);
    EXPECT_EQ(reader.run(), 0);
}

// Nobody gets a reader's wake-ups by taking its port, too.
TEST_F(MessageFlood, PortOfAWaitingReaderCannotBeTaken)
{
    user_process reader({opens(path, 1), reads(TMF_READ_WAIT), closes()});
    ASSERT_EQ(reader.run(), 0);
    reader.begin();
    ASSERT_TRUE(poll_until([&] { return is_waiting(path, 0); }));
    const tmf_common now = look(path).common;
    for (const in_addr_t at : {INADDR_LOOPBACK, INADDR_ANY}) {
        for (const int option : {SO_REUSEADDR, SO_REUSEPORT}) {
            const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            const int on = 1;
            ASSERT_EQ(setsockopt(fd, SOL_SOCKET, option, &on, sizeof on), 0);
            sockaddr_in here = loopback(now.signal_ports[0]);
            here.sin_addr.s_addr = htonl(at);
            EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&here), sizeof(here)), -1);
            EXPECT_EQ(errno, EADDRINUSE);
            close(fd);
        }
    }
    user_process writer({opens(path, 0), writes("record"), closes()});
    for (int step = 0; step < 3; step++)
        ASSERT_EQ(writer.run(), 0);
    EXPECT_EQ(reader.result(), 6);
}
