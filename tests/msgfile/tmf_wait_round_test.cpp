// One round of a wait: what ended it, and the port that it was spent on.  Ports
// are taken and found free in words only, since they are the whole machine's.
#include "msgfile/tmf_wait.h"
#include "tests/msgfile/records.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>

class TmfWaitRound : public MessageFile {
  protected:
    system_calls_guard guard;
    int busy = 0; // ports still to be found taken

    void SetUp() override
    {
        before_call(CALL_BIND, [this] {
            if (busy-- > 0)
                fail_call(CALL_BIND, EADDRINUSE);
            else
                answer_call(CALL_BIND, 0);
        });
    }
};

TEST_F(TmfWaitRound, RoundTellsAWakeUpFromTheTimeASignalAndAnError)
{
    const opened_file h(path, TMF_MODE_READ);
    uint16_t port = 40000;
    answer_call(CALL_POLL, 0);
    EXPECT_EQ(tmf_wait(h, &port, 7), TMF_WAIT_TIMEOUT);
    EXPECT_EQ(calls_made(CALL_POLL).back().a, 7000);
    fail_call(CALL_POLL, EINTR);
    EXPECT_EQ(tmf_wait(h, &port, 7), TMF_WAIT_SIGNAL);
    fail_call(CALL_POLL, ENOMEM);
    EXPECT_EQ(tmf_wait(h, &port, 7), TMF_ERECEIVE);
    answer_call(CALL_RECVFROM, 12);
    EXPECT_EQ(tmf_wait(h, &port, 7), TMF_WAIT_WOKEN);
    EXPECT_EQ(port, 40000);
    EXPECT_EQ(calls_made(CALL_BIND).size(), 1U);
}

TEST_F(TmfWaitRound, RoundIsSpentOnThePortBehindTheBusyOnes)
{
    const struct {
        int busy;
        int result;
        uint16_t port;
    } rows[] = {
        {0, TMF_WAIT_TIMEOUT, 53248},
        {1, TMF_WAIT_TIMEOUT, 53264},
        {14, TMF_WAIT_TIMEOUT, 53248 + 14 * 16},
        {15, TMF_EPORTBUSY, 53248 + 14 * 16},
    };
    for (const auto &row : rows) {
        const opened_file h(path, TMF_MODE_READ);
        forget_calls();
        busy = row.busy;
        answer_call(CALL_POLL, 0);
        uint16_t port = 53248;
        EXPECT_EQ(tmf_wait(h, &port, 1), row.result) << row.busy;
        EXPECT_EQ(port, row.port) << row.busy;
        EXPECT_EQ(calls_made(CALL_BIND).back().a, row.port);
        EXPECT_EQ(h->receive.socket != 0, row.result > 0) << row.busy;
        EXPECT_STREQ(h->net_error_text, "");
    }
}

// Every system error but a busy port ends the round with the first port tried.
TEST_F(TmfWaitRound, OtherErrorsTakeNoOtherPort)
{
    const struct {
        call_kind kind;
        int os_errno;
        int code;
    } rows[] = {
        {CALL_SOCKET, EMFILE, TMF_ERECEIVE},
        {CALL_FCNTL, EIO, TMF_ENONBLOCK},
        {CALL_RECVFROM, ECONNREFUSED, TMF_ERECEIVE},
    };
    for (const auto &row : rows) {
        const opened_file h(path, TMF_MODE_READ);
        uint16_t port = 53248;
        fail_call(row.kind, row.os_errno);
        EXPECT_EQ(tmf_wait(h, &port, 1), row.code);
        EXPECT_EQ(port, 53248);
    }
}

TEST_F(TmfWaitRound, NewPortIsAnnouncedByTheNextRoundOfTheSameWait)
{
    make();
    const opened_file h(path, TMF_MODE_READ);
    std::vector<std::string> announced;
    before_call(CALL_POLL, [&] { announced.push_back(bytes_through(h).substr(92, 2)); });
    answer_call(CALL_POLL, 0, 0, -1);
    busy = 2; // before the entry is written, and in the first round
    EXPECT_EQ(tmf_freadx(h, nullptr, 0, 0, 100), 0);
    EXPECT_EQ(announced, (std::vector<std::string>{be16(53248), be16(53264)}));
    EXPECT_EQ(h->signal_port, 53264);
}
