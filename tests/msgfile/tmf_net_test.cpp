// Wake-up datagrams: their bytes, who gets them, and what the network's failures
// leave behind.
#include "msgfile/tmf_net.h"

#include "msgfile/tmf_area.h"
#include "msgfile/tmf_common.h"
#include "msgfile/tmf_wait.h"
#include "msgfile/tmu.h"
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/records.h"
#include "tests/msgfile/system_calls.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <netinet/in.h>
#include <sys/socket.h>

// A UDP socket on a port that the system chose.
class listener {
  public:
    listener() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        sockaddr_in here = {};
        here.sin_family = AF_INET;
        here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(here);
        if (bind(fd_, reinterpret_cast<sockaddr *>(&here), length) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr *>(&here), &length) != 0)
            throw std::runtime_error("no UDP port");
        port_ = ntohs(here.sin_port);
    }
    ~listener()
    {
        ::close(fd_);
    }
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;
    // The next datagram; "(none)" when none is there.
    std::string next() const
    {
        char buf[100];
        const ssize_t n = recv(fd_, buf, sizeof(buf), 0);
        return n < 0 ? "(none)" : std::string(buf, static_cast<size_t>(n));
    }
    uint16_t port() const
    {
        return port_;
    }

  private:
    int fd_;
    uint16_t port_ = 0;
};

class TmfNet : public MessageFile {
  protected:
    ~TmfNet() override
    {
        if (h != nullptr)
            tmf_fclose(h);
    }
    // Enters a port in the wait list of the closed file, as a reader of slot i does.
    void enter(int i, uint16_t port) const
    {
        std::string changed = bytes();
        tmu_set_bit(reinterpret_cast<unsigned char *>(changed.data()) + 124, i);
        put_number(changed, 92 + 2 * static_cast<size_t>(i), htons(port));
        write_file(path, changed);
    }
    int write()
    {
        return tmf_fwrite(h, "x", 1);
    }
    int readx()
    {
        char buf[5];
        return tmf_freadx(h, buf, sizeof(buf), 0, 1);
    }
    tmf_handle *h = nullptr;
};

TEST_F(TmfNet, EachRecordAndTheCloseWakeEveryReaderOfTheList)
{
    const listener first;
    const listener last;
    {
        const system_calls_guard guard;
        answer_call(CALL_TIME, 0x6553F100);
        make();
    }
    enter(0, first.port());
    enter(15, last.port());
    const system_calls_guard guard;
    answer_call(CALL_TIME, 0x6553F100);
    h = open(0);
    EXPECT_EQ(first.next(), "(none)") << "an open wakes nobody";
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(write(), 0);
    const std::string wrote("mW\0\x08"
                            "6553f100",
                            12);
    for (const listener *reader : {&first, &last}) {
        EXPECT_EQ(reader->next(), wrote);
        EXPECT_EQ(reader->next(), wrote);
        EXPECT_EQ(reader->next(), "(none)");
    }
    EXPECT_EQ(tmf_fclose(h), 0);
    h = nullptr;
    EXPECT_EQ(first.next(), std::string("mC\0\x08"
                                        "6553f100",
                                        12));
    EXPECT_EQ(last.next().substr(0, 2), "mC");
    EXPECT_EQ(stored<uint16_t>(124), number_at<uint16_t>("\x01\x80", 0))
        << "readers leave it alone";
}

TEST_F(TmfNet, WakeUpsGoOutBeforeTheUnlock)
{
    const listener reader;
    make();
    enter(3, reader.port());
    h = open(0);
    EXPECT_EQ(write(), 0);
    const system_calls_guard guard;
    EXPECT_EQ(write(), 0);
    std::vector<call_kind> order;
    for (const call_made &call : calls_made())
        order.push_back(call.kind);
    EXPECT_EQ(order, (std::vector<call_kind>{CALL_FCNTL, CALL_PREAD, CALL_PWRITE, CALL_SENDTO,
                                             CALL_PWRITE, CALL_FCNTL}));
    EXPECT_EQ(calls_made(CALL_SENDTO)[0].b, reader.port());
}

TEST_F(TmfNet, ReaderThatClosesWakesNobody)
{
    const listener reader;
    make();
    enter(3, reader.port());
    h = open(TMF_MODE_READ);
    EXPECT_EQ(tmf_fclose(h), 0);
    h = nullptr;
    EXPECT_EQ(reader.next(), "(none)");
}

TEST_F(TmfNet, SocketIsKeptForTheSamePortAndMadeAnewForAnother)
{
    const listener first;
    const listener second;
    make();
    enter(1, first.port());
    const system_calls_guard guard;
    h = open(0);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(calls_made(CALL_SOCKET).size(), 1U);
    for (const call_made &call : calls_made(CALL_SOCKET))
        EXPECT_EQ(call.a, SOCK_DGRAM | SOCK_CLOEXEC);
    const unsigned char loopback[4] = {127, 0, 0, 1};
    EXPECT_EQ(tmf_udp_send(h, loopback, second.port(), "y", 1), 0);
    EXPECT_EQ(calls_made(CALL_SOCKET).size(), 2U);
    EXPECT_EQ(second.next(), "y");
}

TEST_F(TmfNet, FailedWakeUpIsReportedThoughTheRecordIsThere)
{
    const listener reader;
    make();
    enter(0, reader.port());
    const system_calls_guard guard;
    h = open(0);
    fail_call(CALL_SENDTO, 111);
    EXPECT_EQ(write(), TMF_ESEND);
    EXPECT_EQ(message_of(h), "Error #111 on sendto() sending udp data.");
    EXPECT_EQ(message_of(h), "Error  sending udp data.") << "the system's part is told once";
    EXPECT_EQ(number_at<int32_t>(bytes_through(h), 16), 1);
    EXPECT_EQ(h->send.socket, 0);
    fail_call(CALL_SOCKET, EMFILE);
    EXPECT_EQ(write(), TMF_ESEND);
    EXPECT_EQ(message_of(h), "Error #24 on socket() sending udp data.");
    EXPECT_EQ(h->send.port, 0);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(number_at<int32_t>(bytes_through(h), 16), 3);
}

TEST_F(TmfNet, FullQueueIsAsGoodAsAWakeUp)
{
    const listener reader;
    make();
    enter(0, reader.port());
    const system_calls_guard guard;
    h = open(0);
    fail_call(CALL_SENDTO, EAGAIN);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(tmf_geterrno(h), 0);
}

TEST_F(TmfNet, FirstFailedSendEndsTheRound)
{
    const listener reader;
    make();
    enter(0, reader.port());
    enter(5, reader.port());
    const system_calls_guard guard;
    h = open(0);
    fail_call(CALL_SENDTO, ENETDOWN);
    EXPECT_EQ(write(), TMF_ESEND);
    EXPECT_EQ(calls_made(CALL_SENDTO).size(), 1U);
    EXPECT_EQ(reader.next(), "(none)");
    fail_call(CALL_SENDTO, ENETDOWN);
    EXPECT_EQ(tmf_fclose(h), 0) << "a close goes on without its wake-ups";
    h = nullptr;
}

TEST_F(TmfNet, FailuresOfTheWaitingSocketHaveTheirTexts)
{
    const struct {
        call_kind kind;
        int os_errno;
        int after;
        int code;
        const char *text;
    } rows[] = {
        {CALL_SOCKET, EMFILE, 0, TMF_ERECEIVE, "Error #24 on socket() receiving udp data."},
        {CALL_BIND, EACCES, 0, TMF_ERECEIVE, "Error #13 on bind() receiving udp data."},
        {CALL_RECVFROM, EIO, 0, TMF_ERECEIVE, "Error #5 on recvfrom() receiving udp data."},
        {CALL_POLL, ENOMEM, 0, TMF_ERECEIVE, "Error #12 on select() receiving udp data."},
        {CALL_FCNTL, EIO, 0, TMF_ENONBLOCK, "Error #5 on fcntl() setting non-blocking socket."},
    };
    make();
    for (const auto &row : rows) {
        const system_calls_guard guard;
        h = open(TMF_MODE_READ);
        fail_call(row.kind, row.os_errno, row.after);
        EXPECT_EQ(readx(), row.code) << row.text;
        EXPECT_EQ(tmf_geterrno(h), row.code);
        EXPECT_EQ(message_of(h), row.text);
        if (row.kind != CALL_RECVFROM && row.kind != CALL_POLL) {
            EXPECT_EQ(h->receive.socket, 0);
        }
        answer_call(CALL_POLL, 0, 0, -1);
        EXPECT_EQ(readx(), 0) << "the next wait begins anew";
        EXPECT_EQ(tmf_fclose(h), 0);
        h = nullptr;
    }
}

TEST_F(TmfNet, DatagramThatCannotBeReadAfterTheWaitIsAnError)
{
    make();
    const system_calls_guard guard;
    h = open(TMF_MODE_READ);
    answer_call(CALL_POLL, 1, 0, -1);
    EXPECT_EQ(readx(), TMF_ERECEIVE) << "poll tells of one that is not there";
    EXPECT_EQ(message_of(h), "Error #11 on recvfrom() receiving udp data.");
}

TEST_F(TmfNet, SixteenBytesAreTakenOfADatagramWhateverItHolds)
{
    make();
    const system_calls_guard guard;
    h = open(TMF_MODE_READ);
    answer_call(CALL_POLL, 0, 0, -1);
    EXPECT_EQ(readx(), 0);
    for (const call_made &call : calls_made(CALL_RECVFROM))
        EXPECT_EQ(call.a, 16);
    EXPECT_TRUE(tmfc_valid_msg(nullptr, 0));
    EXPECT_EQ(tmf_start_net(), 0);
    EXPECT_EQ(tmf_net_cleanup(), 0);
}

TEST_F(TmfNet, WaitWithoutALimitUsesABlockingSocket)
{
    make();
    const system_calls_guard guard;
    h = open(TMF_MODE_READ);
    answer_call(CALL_RECVFROM, 1);
    char buf[16];
    EXPECT_EQ(tmf_udp_recv(h, 0, 0, buf, sizeof(buf)), 1);
    EXPECT_TRUE(calls_made(CALL_FCNTL).empty());
    EXPECT_TRUE(calls_made(CALL_POLL).empty());
    fail_call(CALL_RECVFROM, EAGAIN);
    EXPECT_EQ(tmf_udp_recv(h, 0, 0, buf, sizeof(buf)), TMF_ERECEIVE);
    EXPECT_EQ(tmf_set_nonblocking(h, h->receive.socket, 0), 0);
    fail_call(CALL_FCNTL, EIO);
    EXPECT_EQ(tmf_set_nonblocking(h, h->receive.socket, 0), 0) << "only switching on may fail";
}

TEST_F(TmfNet, WakeUpsGoInTheOrderOfSlotsToTheAddressOfTheFile)
{
    make();
    enter(0, 0); // no port stored
    enter(9, 0);
    enter(15, 40000);
    std::string changed = bytes();
    changed.replace(80, 4, "\x7F\0\0\x09", 4);
    write_file(path, changed);
    const system_calls_guard guard;
    answer_call(CALL_SENDTO, 12, 0, -1);
    std::vector<std::string> addresses;
    h = open(0);
    before_call(CALL_SENDTO, [&] { addresses.emplace_back(inet_ntoa(h->send.addr.sin_addr)); });
    EXPECT_EQ(write(), 0);
    std::vector<int64_t> ports;
    for (const call_made &call : calls_made(CALL_SENDTO)) {
        EXPECT_EQ(call.a, 12);
        ports.push_back(call.b);
    }
    EXPECT_EQ(ports, (std::vector<int64_t>{53248, 53257, 40000}));
    EXPECT_EQ(addresses, std::vector<std::string>(3, "127.0.0.9"));
    EXPECT_EQ(calls_made(CALL_SOCKET).size(), 3U) << "a socket serves one port";
}

TEST_F(TmfNet, NobodyWaitingNeedsNoSocket)
{
    make();
    const system_calls_guard guard;
    h = open(0);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
    h = nullptr;
    EXPECT_TRUE(calls_made(CALL_SOCKET).empty());
}

TEST_F(TmfNet, SendToAReaderThatIsGoneIsNotNoticed)
{
    uint16_t port = 0;
    {
        const listener gone;
        port = gone.port();
    }
    make();
    enter(0, port);
    h = open(0);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(write(), 0);
}

TEST_F(TmfNet, ReceivingSocketStaysUntilAnotherPortIsWanted)
{
    make();
    h = open(TMF_MODE_READ);
    const listener known;
    uint16_t ports[2];
    {
        const listener first;
        const listener second;
        ports[0] = first.port();
        ports[1] = second.port();
    }
    const size_t descriptors = open_descriptors();
    const system_calls_guard guard;
    char buf[16];
    const unsigned char loopback[4] = {127, 0, 0, 1};
    for (const uint16_t port : {ports[0], ports[0], ports[1]}) {
        ASSERT_EQ(tmf_udp_bind(h, port, 1), 0);
        EXPECT_EQ(tmf_udp_send(h, loopback, port, "01234567890123456789", 20), 0);
        EXPECT_EQ(tmf_udp_recv(h, port, 1, buf, sizeof(buf)), 16) << "as much as there is room";
        EXPECT_EQ(std::string(buf, 16), "0123456789012345");
        EXPECT_EQ(h->receive.port, port);
    }
    EXPECT_EQ(calls_made(CALL_BIND).size(), 2U);
    EXPECT_EQ(open_descriptors(), descriptors + 2); // this and the sending one
    sockaddr_in here = {};
    socklen_t length = sizeof(here);
    ASSERT_EQ(getsockname(h->receive.socket, reinterpret_cast<sockaddr *>(&here), &length), 0);
    EXPECT_EQ(here.sin_addr.s_addr, htonl(INADDR_ANY));

    EXPECT_EQ(tmf_udp_recv(h, known.port(), 1, buf, sizeof(buf)), TMF_EPORTBUSY);
    EXPECT_STREQ(h->net_error_text, "");
    EXPECT_EQ(h->receive.socket, 0);
    tmf_net_close(h);
    EXPECT_EQ(h->send.socket, 0);
    EXPECT_EQ(open_descriptors(), descriptors);
    tmf_net_close(h);
}

TEST_F(TmfNet, WaitTakesTheSecondsAskedForOrAnyTime)
{
    make();
    const system_calls_guard guard;
    h = open(TMF_MODE_READ);
    answer_call(CALL_BIND, 0, 0, -1);
    answer_call(CALL_POLL, 0, 0, -1);
    char buf[16];
    for (const int seconds : {1, 60, 3600, INT_MAX, -1, INT_MIN})
        EXPECT_EQ(tmf_udp_recv(h, 53248, seconds, buf, sizeof(buf)), 0);
    std::vector<int64_t> times;
    for (const call_made &call : calls_made(CALL_POLL)) {
        EXPECT_EQ(call.fd, h->receive.socket);
        times.push_back(call.a);
    }
    EXPECT_EQ(times, (std::vector<int64_t>{1000, 60000, 3600000, 2147483000, -1, -1}));
    fail_call(CALL_POLL, EINTR);
    EXPECT_EQ(tmf_udp_recv(h, 53248, 1, buf, sizeof(buf)), TMF_EINTERRUPT);
    EXPECT_STREQ(h->net_error_text, "");
}

TEST_F(TmfNet, FailedSocketsLeaveNoDescriptor)
{
    make();
    enter(0, 40000);
    const struct {
        call_kind kind;
        int os_errno;
    } receiving[] = {
        {CALL_SOCKET, EMFILE}, {CALL_BIND, EACCES}, {CALL_BIND, EADDRINUSE}, {CALL_FCNTL, EIO}};
    const system_calls_guard guard;
    h = open(0);
    const size_t descriptors = open_descriptors();
    char buf[16];
    for (const auto &row : receiving) {
        fail_call(row.kind, row.os_errno);
        EXPECT_LT(tmf_udp_recv(h, 0, 1, buf, sizeof(buf)), 0);
        EXPECT_EQ(h->receive.socket, 0);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
    for (const call_kind kind : {CALL_SOCKET, CALL_SENDTO}) {
        fail_call(kind, EMFILE);
        EXPECT_EQ(write(), TMF_ESEND);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
    answer_call(CALL_SENDTO, 12, 0, -1); // the close's
    EXPECT_EQ(tmf_fclose(h), 0);
    h = nullptr;
    EXPECT_EQ(open_descriptors(), descriptors - 1);
}

// Whatever the network did, the record is the file's, and the next call's success
// does not clear the code.
TEST_F(TmfNet, WriteWithAFailedWakeUpIsWrittenBackAndUnlocked)
{
    make();
    enter(0, 40000);
    const system_calls_guard guard;
    h = open(0);
    fail_call(CALL_SENDTO, EPERM);
    EXPECT_EQ(write_record(h, "abc"), TMF_ESEND);
    EXPECT_EQ(positions_of(h), (positions{1, 4352, 4361, 4361}));
    EXPECT_EQ(bytes_through(h).substr(4352), framed("abc") + "\xFF\xFF");
    EXPECT_EQ(h->common_locked, 0);
    EXPECT_EQ(h->last_record_end, 4361);
    fail_call(CALL_SENDTO, EPERM);
    fail_call(CALL_PWRITE, EIO, 1); // the header's, behind the data's
    EXPECT_EQ(write_record(h, "de"), TMF_ESEND) << "the first error counts";
    EXPECT_EQ(positions_of(h).records, 1);
    answer_call(CALL_SENDTO, 12, 0, -1);
    EXPECT_EQ(write_record(h, "f"), 0);
    EXPECT_EQ(message_of(h), "Error #1 on sendto() sending udp data.");
}
