// Waiting for a record: when a reader waits, for how long, on which port, and what
// ends the wait.  No round takes its time: poll is answered, or something happens.
#include "msgfile/tmf_wait.h"

#include "msgfile/tmf_area.h"
#include "msgfile/tmf_common.h"
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/records.h"
#include "tests/msgfile/system_calls.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>

// Sends a byte to a port of the loopback address, as any wake-up would come.
static void send_to(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(sendto(fd, "x", 1, 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)), 1);
    ::close(fd);
}

// A UDP port that nobody uses at this moment.
static uint16_t free_port()
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    socklen_t length = sizeof(here);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&here), length), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&here), &length), 0);
    ::close(fd);
    return ntohs(here.sin_port);
}

class TmfWait : public MessageFile {
  protected:
    // Other tests wait on the default ports at the same time.
    TmfWait()
    {
        make();
        store<uint16_t>(92, htons(free_port()));
        forget_calls();
    }
    ~TmfWait() override
    {
        if (h != nullptr)
            tmf_fclose(h);
    }
    void reader()
    {
        h = open(TMF_MODE_READ);
        ASSERT_NE(h, nullptr);
    }
    // Appends a record in another process.
    static std::function<int()> append(const std::string &path)
    {
        return [path] {
            tmf_handle *w = tmf_fopen(path.c_str(), 0);
            return tmf_fwrite(w, "late", 4) + tmf_fclose(w);
        };
    }
    // Seconds of the rounds so far.
    static std::vector<int> rounds()
    {
        std::vector<int> seconds;
        for (const call_made &call : calls_made(CALL_POLL)) {
            EXPECT_EQ(call.a % 1000, 0);
            seconds.push_back(static_cast<int>(call.a / 1000));
        }
        return seconds;
    }
    bool listed() const
    {
        return (bytes_through(h)[124] & 1) != 0;
    }
    int read(int flags)
    {
        char buf[20];
        return tmf_fread(h, buf, sizeof(buf), flags);
    }
    int readx(int timeout, int flags = 0)
    {
        char buf[20];
        return tmf_freadx(h, buf, sizeof(buf), flags, timeout);
    }
    using seconds = std::vector<int>;
    const system_calls_guard guard;
    tmf_handle *h = nullptr;
};

TEST_F(TmfWait, UnlimitedWaitTakes4SecondsAndThen60UntilARecordComes)
{
    other_user writer(path, 0);
    other_process late({append(path)});
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    int before_it_comes = 3;
    before_call(CALL_POLL, [&] {
        EXPECT_TRUE(listed());
        if (--before_it_comes == 0) {
            EXPECT_EQ(late.run(), 0);
        }
    });
    EXPECT_EQ(read(0), 4);
    EXPECT_EQ(rounds(), (seconds{4, 60, 60}));
    EXPECT_FALSE(listed());
    EXPECT_EQ(tmf_geterrno(h), 0);
}

TEST_F(TmfWait, LimitedWaitsTakeTheirTimeInRoundsOfAMinute)
{
    const struct {
        int timeout;
        seconds expected;
    } rows[] = {
        {10, {10}}, {100, {60, 40}}, {0, {4}},      {-5, {4}},
        {1, {1}},   {60, {60}},      {61, {60, 1}}, {INT32_MIN, {4}},
    };
    other_user writer(path, 0);
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    for (const auto &row : rows) {
        forget_calls();
        EXPECT_EQ(readx(row.timeout), 0);
        EXPECT_EQ(rounds(), row.expected) << row.timeout;
        EXPECT_EQ(tmf_geterrno(h), TMF_ETIMEOUT);
    }
    forget_calls();
    EXPECT_EQ(read(TMF_READ_LIMIT), TMF_ETIMEOUT);
    EXPECT_EQ(message_of(h), "Timeout on read of message file.");
    EXPECT_EQ(rounds(), seconds{4});
}

TEST_F(TmfWait, EntryStaysInTheFileBehindAWaitThatTimeEnded)
{
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    EXPECT_FALSE(listed());
    EXPECT_EQ(readx(1), 0);
    EXPECT_TRUE(listed()) << "its end is not written, since the area is not locked then";
}

TEST_F(TmfWait, SignalEndsTheWaitThatAsksForItAndCostsOthersARound)
{
    reader();
    fail_call(CALL_POLL, EINTR, 0, -1);
    EXPECT_EQ(read(TMF_READ_WAIT | TMF_READ_SIGNAL), TMF_ESIGNAL);
    EXPECT_EQ(message_of(h), "Signal received while reading message file.");
    EXPECT_EQ(readx(100), 0);
    EXPECT_EQ(tmf_geterrno(h), TMF_ESIGNAL);
    forget_calls();
    EXPECT_EQ(read(TMF_READ_WAIT | TMF_READ_LIMIT), TMF_ETIMEOUT);
    EXPECT_EQ(rounds(), seconds{4});
}

TEST_F(TmfWait, WakeUpThatBringsNothingCostsNoTime)
{
    reader();
    int wake_ups = 3;
    answer_call(CALL_POLL, 0, 3, -1); // behind three that find a datagram
    before_call(CALL_POLL, [&] {
        if (wake_ups-- > 0)
            send_to(h->signal_port);
    });
    EXPECT_EQ(readx(10), 0);
    EXPECT_EQ(tmf_geterrno(h), TMF_ETIMEOUT);
    EXPECT_EQ(rounds(), (seconds{10, 10, 10, 10}));
}

TEST_F(TmfWait, WakeUpThatCameBeforehandEndsTheNextWaitAtOnce)
{
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    EXPECT_EQ(readx(1), 0); // binds the socket
    send_to(h->signal_port);
    forget_calls();
    EXPECT_EQ(readx(1), 0);
    EXPECT_EQ(calls_made(CALL_RECVFROM).size(), 2U) << "the one that came, and then none";
    EXPECT_TRUE(calls_made(CALL_SOCKET).empty());
}

TEST_F(TmfWait, FirstReadWaitsForAWriterAndLaterOnesEndTheFile)
{
    other_process late({append(path)});
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    before_call(CALL_POLL, [&] {
        if (calls_made(CALL_POLL).size() == 2) {
            EXPECT_EQ(late.run(), 0);
        }
    });
    EXPECT_EQ(read(0), 4) << "nobody was there to write when the wait began";
    EXPECT_EQ(rounds(), (seconds{4, 60}));
    forget_calls();
    EXPECT_EQ(read(0), 0);
    EXPECT_EQ(readx(100), 0);
    EXPECT_TRUE(rounds().empty());
    answer_call(CALL_POLL, 0, 0, -1);
    EXPECT_EQ(read(TMF_READ_WAIT | TMF_READ_LIMIT), TMF_ETIMEOUT);
}

TEST_F(TmfWait, DeathOfTheLastWriterEndsTheWait)
{
    make({"one"});
    other_user writer(path, 0);
    reader();
    EXPECT_EQ(read(0), 3);
    answer_call(CALL_POLL, 0, 0, -1);
    before_call(CALL_POLL, [&] { writer.kill(); });
    EXPECT_EQ(read(0), 0);
    EXPECT_EQ(rounds(), seconds{4});
    EXPECT_FALSE(listed());
}

TEST_F(TmfWait, DeadWriterIsNoReasonToWait)
{
    make({"one"});
    other_user writer(path, 0);
    reader();
    EXPECT_EQ(read(0), 3);
    writer.kill();
    EXPECT_EQ(read(0), 0);
    EXPECT_TRUE(rounds().empty());
}

TEST_F(TmfWait, BusyPortIsChangedAndStoredAtTheNextWait)
{
    store<uint16_t>(92, 0);
    reader();
    fail_call(CALL_BIND, EADDRINUSE, 0, 2); // before the entry is written, and in the wait
    answer_call(CALL_POLL, 0, 0, -1);
    EXPECT_EQ(readx(1), 0);
    const std::vector<call_made> binds = calls_made(CALL_BIND);
    ASSERT_GE(binds.size(), 3U);
    EXPECT_EQ(binds[0].a, 53248);
    EXPECT_EQ(binds[1].a, 53248);
    EXPECT_EQ(binds[2].a, 53264);
    EXPECT_EQ(h->signal_port, binds.back().a); // the first free one
    EXPECT_EQ(bytes_through(h).substr(92, 2), std::string("\xD0\0", 2)) << "announced before";
    EXPECT_EQ(readx(1), 0);
    const std::string stored = bytes_through(h).substr(92, 2);
    EXPECT_EQ(static_cast<unsigned char>(stored[0]) << 8 | static_cast<unsigned char>(stored[1]),
              binds.back().a);
}

TEST_F(TmfWait, PortIsBoundBeforeWritersSeeTheEntry)
{
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    forget_calls();
    EXPECT_EQ(readx(1), 0);
    size_t last_bind = 0;
    size_t entry_written = 0;
    for (size_t i = 0; i < calls_made().size(); i++) {
        if (calls_made()[i].kind == CALL_BIND)
            last_bind = i;
        if (calls_made()[i].kind == CALL_WRITE)
            entry_written = i;
    }
    if (calls_made(CALL_BIND).size() == 1) { // else the port was busy
        EXPECT_LT(last_bind, entry_written);
    }
}

TEST_F(TmfWait, FifteenBusyPortsEndTheWait)
{
    store<uint16_t>(92, htons(55290));
    reader();
    fail_call(CALL_BIND, EADDRINUSE, 0, -1);
    EXPECT_EQ(readx(1), TMF_EPORTBUSY);
    EXPECT_EQ(message_of(h), "Error waiting: UDP port already in use.");
    const std::vector<call_made> binds = calls_made(CALL_BIND);
    ASSERT_EQ(binds.size(), 1 + 15U);
    EXPECT_EQ(binds[1].a, 55290);
    EXPECT_EQ(binds[2].a, 53258); // begins again at the range's start
    EXPECT_EQ(binds[15].a, 53258 + 13 * 16);
}

TEST_F(TmfWait, ErrorsOfTheAreaEndTheWait)
{
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    fail_call(CALL_WRITE, EIO); // writing the entry
    EXPECT_EQ(readx(100), TMF_EWRITE_COMMON);
    EXPECT_TRUE(rounds().empty());
    int polls = 0;
    before_call(CALL_POLL, [&] {
        if (++polls == 1)
            fail_call(CALL_LOCKF, ENOLCK); // the lock behind the wait
    });
    EXPECT_EQ(readx(100), TMF_ELOCK_WAIT);
    EXPECT_EQ(polls, 1);
}

TEST_F(TmfWait, ReadGoesOnWithTheCopyReadLastWhenTheLockFails)
{
    make({"one"});
    reader();
    EXPECT_EQ(read(TMF_READ_KEEP), 3);
    fail_call(CALL_FCNTL, EINTR);
    EXPECT_EQ(read(0), TMF_ELOCK_WAIT) << "a record is known of, but the lock's failure stands";
    EXPECT_EQ(read(0), 3);
    // The copy knows of no record now, and the entry cannot be written.
    fail_call(CALL_FCNTL, EINTR);
    EXPECT_EQ(read(TMF_READ_WAIT), TMF_EINTERNAL);
    EXPECT_TRUE(rounds().empty());
}

TEST_F(TmfWait, ResultOfTheWaitTakesThePlaceOfAFailedLocks)
{
    make({"one"});
    other_process late({append(path), append(path)});
    reader();
    EXPECT_EQ(read(0), 3);
    answer_call(CALL_POLL, 0, 0, -1);
    EXPECT_EQ(readx(1, TMF_READ_WAIT), 0); // leaves the entry in the file
    EXPECT_EQ(late.run(), 0);              // and two wake-ups in the socket
    EXPECT_EQ(read(0), 4);                 // the copy: entry there, no record, not dirty
    EXPECT_EQ(late.run(), 0);
    fail_call(CALL_FCNTL, EINTR);
    EXPECT_EQ(read(TMF_READ_WAIT), 4) << "the wake-up led to a lock and a record";
    EXPECT_EQ(number_at<int32_t>(bytes_through(h), 16), 0);
}

TEST_F(TmfWait, NothingIsLockedWhileAReaderWaitsButItsSlot)
{
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    int waits = 0;
    before_call(CALL_POLL, [&] {
        waits++;
        EXPECT_EQ(holder_of(path, 0, 256), 0);
        EXPECT_EQ(holder_of(path, 256, 4), getpid());
        EXPECT_EQ(bytes_through(h).substr(92, 2), be16(h->signal_port));
    });
    EXPECT_EQ(readx(100), 0);
    EXPECT_EQ(waits, 2);
    EXPECT_EQ(holder_of(path, 0, 256), 0);
}

TEST_F(TmfWait, SignalsWithoutTheirFlagCostWholeRounds)
{
    other_process late({append(path)});
    reader();
    fail_call(CALL_POLL, EINTR, 0, -1);
    ASSERT_EQ(tmf_get_common(h), 0);
    EXPECT_EQ(tmf_fread_wait(h, TMF_READ_WAIT | TMF_READ_LIMIT, 100), TMF_ETIMEOUT);
    EXPECT_EQ(rounds(), (seconds{60, 40}));
    forget_calls();
    before_call(CALL_POLL, [&] {
        if (calls_made(CALL_POLL).size() == 3) {
            EXPECT_EQ(late.run(), 0);
        }
    });
    EXPECT_EQ(read(0), 4) << "without a limit it waits on";
    EXPECT_EQ(rounds(), (seconds{4, 60, 60}));
}

TEST_F(TmfWait, WakeUpInALaterRoundRepeatsThatRound)
{
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    before_call(CALL_POLL, [&] {
        if (calls_made(CALL_POLL).size() == 2) {
            send_to(h->signal_port);
            answer_call(CALL_POLL, 0, 1, -1); // this one finds it
        }
    });
    EXPECT_EQ(readx(100), 0);
    EXPECT_EQ(rounds(), (seconds{60, 40, 40}));
}

// A datagram without a byte is told from none by nothing that a receive gives.
TEST_F(TmfWait, EmptyDatagramCostsARound)
{
    reader();
    answer_call(CALL_RECVFROM, 0, 0, -1);
    EXPECT_EQ(readx(100), 0);
    EXPECT_EQ(tmf_geterrno(h), TMF_ETIMEOUT);
    EXPECT_EQ(calls_made(CALL_RECVFROM).size(), 2U);
    EXPECT_TRUE(rounds().empty());
}

TEST_F(TmfWait, RecordWaitedForMayBeKept)
{
    other_process late({append(path)});
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    before_call(CALL_POLL, [&] {
        if (calls_made(CALL_POLL).size() == 1) {
            EXPECT_EQ(late.run(), 0);
        }
    });
    EXPECT_EQ(readx(100, TMF_READ_KEEP), 4);
    EXPECT_EQ(positions_of(h).records, 1);
    EXPECT_FALSE(listed());
    EXPECT_EQ(read(0), 4);
    EXPECT_EQ(rounds(), seconds{60});
}

TEST_F(TmfWait, PurgeThatFailsBeforehandLeavesNoEntry)
{
    other_user writer(path, 0);
    reader();
    forget_calls();
    fail_call(CALL_LOCKF, ENOLCK, 1); // the test of the writer's slot
    EXPECT_EQ(readx(10), TMF_ELOCK_TEST);
    EXPECT_TRUE(rounds().empty());
    EXPECT_TRUE(calls_made(CALL_SOCKET).empty());
    EXPECT_FALSE(listed());
    EXPECT_EQ(holder_of(path, 0, 256), 0);
}

// With the area locked, the entry is taken off; without it, it stays.
TEST_F(TmfWait, ErrorsBehindARoundEndTheWait)
{
    const struct {
        const char *name;
        void (*plan)();
        int code;
        bool listed;
    } rows[] = {
        {"lock", [] { fail_call(CALL_LOCKF, ENOLCK); }, TMF_ELOCK_WAIT, true},
        {"seek", [] { fail_call(CALL_LSEEK, EIO, 1); }, TMF_ESEEK_COMMON, true},
        {"read", [] { fail_call(CALL_READ, EIO); }, TMF_EREAD_COMMON, true},
        {"short read", [] { answer_call(CALL_READ, 255); }, TMF_EREAD_COMMON_EOF, true},
        {"purge", [] { fail_call(CALL_LOCKF, ENOLCK, 1); }, TMF_ELOCK_TEST, false},
    };
    other_user writer(path, 0);
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    for (const auto &row : rows) {
        forget_calls();
        before_call(CALL_POLL, row.plan);
        EXPECT_EQ(readx(100), row.code) << row.name;
        EXPECT_EQ(tmf_geterrno(h), row.code) << row.name;
        EXPECT_EQ(rounds(), seconds{60}) << row.name;
        EXPECT_EQ(listed(), row.listed) << row.name;
        EXPECT_EQ(holder_of(path, 0, 256), 0) << row.name;
    }
}

TEST_F(TmfWait, FileThatBecameAnotherOneIsNotWrittenTo)
{
    reader();
    answer_call(CALL_POLL, 0, 0, -1);
    const std::string area = bytes_through(h).substr(0, 256);
    std::string foreign;
    before_call(CALL_POLL, [&] {
        ASSERT_EQ(pwrite(h->fd, "text", 4, 4), 4);
        foreign = bytes_through(h);
    });
    EXPECT_EQ(readx(100), TMF_ENOTMSG);
    EXPECT_SAME_BYTES(bytes_through(h), foreign);
    ASSERT_EQ(pwrite(h->fd, area.data(), 256, 0), 256);
}
