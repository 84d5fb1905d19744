// Readers that wait for records of other processes: what wakes them, what ends
// their wait, and what is left of them when they die.
#include "tests/procs/message_view.h"
#include "tests/procs/message_workers.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

class MessageWake : public ::testing::Test {
  protected:
    tempdir dir;
    std::string path = dir.file("queue");
    const shared_memory<call_counts> calls;
    const calls_counted counted{&*calls};

    void SetUp() override
    {
        make_message_file(path);
    }
    // Whether these reader slots' processes come to wait.
    bool come_to_wait(const std::vector<int> &slots) const
    {
        return std::all_of(slots.begin(), slots.end(), [&](int slot) {
            return poll_until([&] { return is_waiting(path, slot); });
        });
    }
    // Waits in which readers of this test have been since it began.
    bool come_to_waits(uint32_t n) const
    {
        return poll_until([&] { return calls->waits >= n; });
    }
    // Another writer appends these records and closes the file.
    void append(const std::vector<std::string> &records) const
    {
        std::vector<deed> steps = {opens(path, 0)};
        for (const std::string &record : records)
            steps.push_back(writes(record));
        steps.push_back(closes());
        user_process writer(steps);
        for (size_t i = 0; i < steps.size(); i++)
            ASSERT_EQ(writer.run(), 0);
    }
    void expect_sound(const std::vector<pid_t> &users, const std::vector<pid_t> &killed = {}) const
    {
        const message_view view = look(path);
        EXPECT_EQ(faults_of(view, {killed, {}}), "");
        EXPECT_EQ(registered(view), users);
    }
    // Any datagram to the port of reader slot i.
    void send_datagram(int i) const
    {
        const tmf_common common = look(path).common;
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        memcpy(&to.sin_port, common.signal_ports[i], sizeof(to.sin_port)); // big-endian, too
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(sendto(fd, "?", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof(to)), 1);
        close(fd);
    }
};

TEST_F(MessageWake, RecordWakesAllWaitingReadersAndOneTakesIt)
{
    std::vector<std::unique_ptr<user_process>> readers;
    for (int i = 0; i < 4; i++) {
        readers.push_back(
            std::make_unique<user_process>(std::vector<deed>{opens(path, 1), reads(0), closes()}));
        ASSERT_EQ(readers.back()->run(), 0);
        readers.back()->begin();
    }
    ASSERT_TRUE(come_to_wait({0, 1, 2, 3}));
    user_process writer({opens(path, 0), writes("1"), closes()});
    ASSERT_EQ(writer.run(), 0);
    ASSERT_EQ(writer.run(), 0);
    const auto ended = [&] {
        return std::count_if(readers.begin(), readers.end(),
                             [](const auto &reader) { return reader->has_ended(); });
    };
    ASSERT_TRUE(poll_until([&] { return ended() == 1; }));
    ASSERT_TRUE(come_to_waits(4 + 3));
    // None of the others has read anything, so they wait on without a writer.
    ASSERT_EQ(writer.run(), 0);
    ASSERT_TRUE(come_to_waits(4 + 3 + 3));
    for (int i = 0; i < 4; i++)
        EXPECT_TRUE(readers[static_cast<size_t>(i)]->has_ended() || come_to_wait({i}));
    EXPECT_EQ(ended(), 1);

    append({"22", "333", "4444"});
    std::vector<int> lengths(readers.size());
    std::transform(readers.begin(), readers.end(), lengths.begin(),
                   [](const auto &reader) { return reader->result(); });
    std::sort(lengths.begin(), lengths.end());
    EXPECT_EQ(lengths, (std::vector{1, 2, 3, 4}));
    for (const auto &reader : readers)
        EXPECT_EQ(reader->run(), 0);
    expect_sound({});
}

// Each of the readers takes one of the batch's records, though it is told of them only once.
TEST_F(MessageWake, BatchWakesAllWaitingReadersAndNoneSleepsWhileARecordIsThere)
{
    std::vector<std::unique_ptr<user_process>> readers;
    for (int i = 0; i < 4; i++) {
        readers.push_back(std::make_unique<user_process>(
            i < 2 ? std::vector<deed>{opens(path, 1), reads(0), closes()}
                  : std::vector<deed>{opens(path, 1), reads_batch(1, 0), closes()}));
        ASSERT_EQ(readers.back()->run(), 0);
        readers.back()->begin();
    }
    ASSERT_TRUE(come_to_wait({0, 1, 2, 3}));
    user_process writer({opens(path, 0), writes_batch({"1", "1", "1", "1"}), closes()});
    ASSERT_EQ(writer.run(), 0);
    ASSERT_EQ(writer.run(), 0);
    for (const auto &reader : readers)
        EXPECT_EQ(reader->result(), 1);
    EXPECT_EQ(look(path).common.record_count, 0);
    EXPECT_EQ(writer.run(), 0);
    for (const auto &reader : readers)
        EXPECT_EQ(reader->run(), 0);
    expect_sound({});
}

// One that takes them all leaves the others waiting, for the next ones.
TEST_F(MessageWake, BatchTakenByOneReaderLeavesTheOthersWaiting)
{
    std::vector<std::unique_ptr<user_process>> readers;
    for (int i = 0; i < 3; i++) {
        readers.push_back(std::make_unique<user_process>(
            std::vector<deed>{opens(path, 1), reads_batch(9, 0), closes()}));
        ASSERT_EQ(readers.back()->run(), 0);
        readers.back()->begin();
    }
    ASSERT_TRUE(come_to_wait({0, 1, 2}));
    user_process writer({opens(path, 0), writes_batch({"1", "22", "333"}),
                         writes_batch({"4444", "55555"}), writes("666666"), closes()});
    ASSERT_EQ(writer.run(), 0);
    const auto ended = [&] {
        return std::count_if(readers.begin(), readers.end(),
                             [](const auto &reader) { return reader->has_ended(); });
    };
    for (int n = 1; n <= 3; n++) {
        ASSERT_EQ(writer.run(), 0);
        ASSERT_TRUE(poll_until([&] { return ended() == n; }));
    }
    std::vector<int> counts(readers.size());
    std::transform(readers.begin(), readers.end(), counts.begin(),
                   [](const auto &reader) { return reader->result(); });
    std::sort(counts.begin(), counts.end());
    EXPECT_EQ(counts, (std::vector{1, 2, 3}));
    EXPECT_EQ(writer.run(), 0);
    for (const auto &reader : readers)
        EXPECT_EQ(reader->run(), 0);
    expect_sound({});
}

TEST_F(MessageWake, CloseOfTheLastWriterEndsTheWaitOfReadersThatHaveRead)
{
    append({"1", "22"});
    user_process first({opens(path, 1), reads(0), reads(0)});
    user_process patient({opens(path, 1), reads(0), reads(TMF_READ_WAIT)});
    user_process fresh({opens(path, 1), reads(0)});
    user_process one({opens(path, 0), closes()});
    user_process other({opens(path, 0), closes()});
    for (user_process *user : {&first, &patient, &fresh, &one, &other})
        ASSERT_EQ(user->run(), 0);
    EXPECT_EQ(first.run(), 1);
    EXPECT_EQ(patient.run(), 2);
    for (user_process *reader : {&first, &patient, &fresh})
        reader->begin();
    ASSERT_TRUE(come_to_wait({0, 1, 2}));

    EXPECT_EQ(one.run(), 0);
    ASSERT_TRUE(come_to_waits(6)); // woken, and a writer is left
    ASSERT_TRUE(come_to_wait({0, 1, 2}));
    EXPECT_EQ(other.run(), 0);
    EXPECT_EQ(first.result(), 0);
    ASSERT_TRUE(come_to_waits(8));
    ASSERT_TRUE(come_to_wait({1, 2}));
    EXPECT_FALSE(patient.has_ended());
    EXPECT_FALSE(fresh.has_ended());
    expect_sound({first.pid(), patient.pid(), fresh.pid()});

    append({"333", "4444"});
    EXPECT_EQ(patient.result() + fresh.result(), 7);
}

// ---- writers that die

// How a waiting reader comes to look at the file after its writer has died.
struct wake_up {
    const char *name;
    void (*wake)(const std::function<void(int)> &datagram, const std::string &path);
};

static void PrintTo(const wake_up &wake, std::ostream *out)
{
    *out << wake.name;
}

class MessageDeadWriter : public MessageWake, public ::testing::WithParamInterface<wake_up> {};

static void wake_by_datagram(const std::function<void(int)> &datagram, const std::string & /*path*/)
{
    datagram(0);
    datagram(1);
}

static void wake_by_close(const std::function<void(int)> & /*datagram*/, const std::string &path)
{
    user_process writer({opens(path, 0), closes()});
    EXPECT_EQ(writer.run(), 0);
    EXPECT_EQ(writer.run(), 0);
}

TEST_P(MessageDeadWriter, WaitEndsForAReaderThatHasReadAndGoesOnForAFreshOne)
{
    append({"1"});
    user_process reader({opens(path, 1), reads(0), reads(0)});
    user_process fresh({opens(path, 1), reads(0)});
    user_process writer({opens(path, 0)});
    for (user_process *user : {&reader, &fresh, &writer})
        ASSERT_EQ(user->run(), 0);
    EXPECT_EQ(reader.run(), 1);
    reader.begin();
    fresh.begin();
    ASSERT_TRUE(come_to_wait({0, 1}));
    const pid_t dead = writer.pid();
    writer.kill();
    EXPECT_EQ(registered(look(path)), (std::vector{reader.pid(), fresh.pid(), dead}));
    EXPECT_EQ(calls->waits, 2U); // its death has woken nobody

    GetParam().wake([this](int slot) { send_datagram(slot); }, path);
    EXPECT_EQ(reader.result(), 0);
    ASSERT_TRUE(come_to_waits(3));
    ASSERT_TRUE(come_to_wait({1}));
    EXPECT_FALSE(fresh.has_ended());
    expect_sound({reader.pid(), fresh.pid()});
    append({"22"});
    EXPECT_EQ(fresh.result(), 2);
}

INSTANTIATE_TEST_SUITE_P(Wakes, MessageDeadWriter,
                         ::testing::Values(wake_up{"ByDatagram", wake_by_datagram},
                                           wake_up{"ByAnotherWritersClose", wake_by_close}),
                         [](const auto &wake) { return std::string(wake.param.name); });

TEST_F(MessageWake, ReaderThatComesAndGoesWakesNobody)
{
    append({"1"});
    user_process reader({opens(path, 1), reads(0), reads(0)});
    user_process writer({opens(path, 0)});
    ASSERT_EQ(reader.run(), 0);
    ASSERT_EQ(writer.run(), 0);
    EXPECT_EQ(reader.run(), 1);
    reader.begin();
    ASSERT_TRUE(come_to_wait({0}));
    writer.kill();
    user_process passer_by({opens(path, 1), closes()});
    EXPECT_EQ(passer_by.run(), 0);
    EXPECT_EQ(passer_by.run(), 0);
    expect_sound({reader.pid()}); // the dead writer is gone
    EXPECT_TRUE(is_waiting(path, 0));
    EXPECT_EQ(calls->waits, 1U);
    send_datagram(0);
    EXPECT_EQ(reader.result(), 0);
}

static int read_until_time_is_over(tmf_handle *&h)
{
    set_wait_style(WAIT_NOT_AT_ALL);
    char byte;
    const int length = tmf_freadx(h, &byte, 1, 0, 30);
    return length != 0 ? length : tmf_geterrno(h);
}

TEST_F(MessageWake, LimitedWaitOfAFreshReaderEndsWhenItsTimeIsOver)
{
    user_process reader({opens(path, 1), read_until_time_is_over, closes()});
    user_process writer({opens(path, 0)});
    ASSERT_EQ(reader.run(), 0);
    ASSERT_EQ(writer.run(), 0);
    const pid_t dead = writer.pid();
    writer.kill();
    EXPECT_EQ(reader.run(), TMF_ETIMEOUT);
    EXPECT_EQ(calls->waits, 1U);
    // Its wait saw to the dead writer before it began.
    EXPECT_EQ(registered(look(path)), std::vector{reader.pid()}) << dead;
    EXPECT_EQ(reader.run(), 0);
}

// ---- readers that die

static int count_readers(tmf_handle *&h)
{
    int readers = -1;
    const int code = tmf_getinfo(h, TMF_INFO_READERS, &readers, 0);
    return code != 0 ? code : readers;
}

TEST_F(MessageWake, ReaderThatDiedWaitingIsRemovedByGetinfo)
{
    user_process writer({opens(path, 0), count_readers, count_readers, closes()});
    user_process reader({opens(path, 1), reads(0)});
    user_process other({opens(path, 1), reads(0), closes()});
    for (user_process *user : {&writer, &reader, &other})
        ASSERT_EQ(user->run(), 0);
    reader.begin();
    other.begin();
    ASSERT_TRUE(come_to_wait({0, 1}));
    EXPECT_EQ(writer.run(), 2);
    EXPECT_EQ(look(path).common.wait_list[0], 3);
    reader.kill();
    EXPECT_EQ(look(path).common.wait_list[0], 3);
    EXPECT_EQ(writer.run(), 1);
    EXPECT_EQ(look(path).common.wait_list[0], 2);
    expect_sound({other.pid(), writer.pid()});
    EXPECT_EQ(calls->waits, 2U); // which woke nobody
    append({"1"});
    EXPECT_EQ(other.result(), 1);
    EXPECT_EQ(other.run(), 0);
    EXPECT_EQ(writer.run(), 0);
    expect_sound({});
}

TEST_F(MessageWake, DeadReaderOnTheWaitListDoesNotKeepARecordFromTheNext)
{
    user_process writer({opens(path, 0), writes("1"), writes("22"), closes()});
    user_process dying({opens(path, 1), reads(0)});
    user_process reader({opens(path, 1), reads(0), reads(0), closes()});
    for (user_process *user : {&writer, &dying, &reader})
        ASSERT_EQ(user->run(), 0);
    dying.begin();
    reader.begin();
    ASSERT_TRUE(come_to_wait({0, 1}));
    dying.kill();
    EXPECT_EQ(writer.run(), 0); // wakes both, as far as it knows
    EXPECT_EQ(reader.result(), 1);
    reader.begin(); // the wait begins by removing the dead
    ASSERT_TRUE(come_to_wait({1}));
    expect_sound({reader.pid(), writer.pid()});
    EXPECT_EQ(writer.run(), 0);
    EXPECT_EQ(reader.result(), 2);
    EXPECT_EQ(reader.run(), 0);
    EXPECT_EQ(writer.run(), 0);
    expect_sound({});
}
