// Record locks: the primitives, and the calls that wait for the common lock.
#include "msgfile/tmf_lock.h"
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"
#include "tests/support/run.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>

class TmfLock : public MessageFile {
  protected:
    system_calls_guard guard;
    int fd = -1;

    void SetUp() override
    {
        make();
        fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        forget_calls();
    }
    void TearDown() override
    {
        close(fd);
    }
};

struct primitive {
    const char *name;
    int (*call)(int fd, off_t offset, off_t length);
    int command;
    int code;
};

static const primitive by_seek[] = {
    {"wait", tf_lock_file_wait, F_LOCK, TMF_ELOCK_WAIT},
    {"nowait", tf_lock_file_nowait, F_TLOCK, TMF_ELOCK_NOWAIT},
    {"test", tf_lock_file_test, F_TEST, TMF_ELOCK_TEST},
    {"unlock", tf_unlock_file, F_ULOCK, TMF_EUNLOCK},
};

static const primitive by_range[] = {
    {"wait", tf_lock_range_wait, F_SETLKW, TMF_ELOCK_WAIT},
    {"unlock", tf_unlock_range, F_SETLK, TMF_EUNLOCK},
};

TEST_F(TmfLock, EachPrimitiveSeeksAndThenLocksTheLength)
{
    for (const primitive &p : by_seek) {
        forget_calls();
        EXPECT_EQ(p.call(fd, 320, 4), 0) << p.name;
        ASSERT_EQ(calls_made().size(), 2U) << p.name;
        const call_made seek = calls_made()[0];
        const call_made lock = calls_made()[1];
        EXPECT_EQ(seek.kind, CALL_LSEEK) << p.name;
        EXPECT_EQ(seek.a, 320) << p.name;
        EXPECT_EQ(seek.b, SEEK_SET) << p.name;
        EXPECT_EQ(lock.kind, CALL_LOCKF) << p.name;
        EXPECT_EQ(lock.fd, fd) << p.name;
        EXPECT_EQ(lock.a, p.command) << p.name;
        EXPECT_EQ(lock.b, 4) << p.name;
    }
}

TEST_F(TmfLock, SystemErrorsAreHeldByAnotherOrThePrimitivesCode)
{
    for (const primitive &p : by_seek) {
        for (const int os_errno : {EACCES, EAGAIN, EINTR, ENOLCK, EDEADLK, EBADF, EINVAL}) {
            const int expected = os_errno == EACCES || os_errno == EAGAIN ? 1 : p.code;
            fail_call(CALL_LOCKF, os_errno);
            EXPECT_EQ(p.call(fd, 0, 256), expected) << p.name << " " << strerror(os_errno);
        }
    }
    for (const primitive &p : by_range) {
        for (const int os_errno : {EACCES, EAGAIN, EINTR, ENOLCK, EDEADLK, EINVAL}) {
            const int expected = os_errno == EACCES || os_errno == EAGAIN ? 1 : p.code;
            fail_call(CALL_FCNTL, os_errno);
            EXPECT_EQ(p.call(fd, 0, 256), expected) << p.name << " " << strerror(os_errno);
        }
    }
}

TEST_F(TmfLock, DescriptorThatDoesNotSeekIsABadHandle)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    for (const primitive &p : by_seek) {
        EXPECT_EQ(p.call(ends[0], 0, 4), TMF_EHANDLE) << p.name;
        EXPECT_EQ(p.call(-1, 0, 4), TMF_EHANDLE) << p.name;
        answer_call(CALL_LSEEK, 321); // elsewhere
        EXPECT_EQ(p.call(fd, 320, 4), TMF_EHANDLE) << p.name;
    }
    EXPECT_EQ(tf_lock_range_wait(-1, 0, 4), TMF_EHANDLE);
    EXPECT_EQ(tf_unlock_range(-1, 0, 4), TMF_EHANDLE);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(TmfLock, LockOfAnotherProcessHoldsItsBytesUntilItDies)
{
    lock_holder other(path, 320, 4);
    const struct {
        off_t offset;
        off_t length;
        int expected;
    } rows[] = {{320, 4, 1}, {316, 4, 0}, {324, 4, 0}, {316, 5, 1}, {323, 1, 1}, {0, 256, 0}};
    for (const auto &row : rows) {
        EXPECT_EQ(tf_lock_file_test(fd, row.offset, row.length), row.expected) << row.offset;
        EXPECT_EQ(tf_lock_file_nowait(fd, row.offset, row.length), row.expected) << row.offset;
    }
    other.kill();
    EXPECT_EQ(tf_lock_file_test(fd, 320, 4), 0);
    EXPECT_EQ(tf_lock_file_nowait(fd, 320, 4), 0);
}

TEST_F(TmfLock, OwnLockIsSeenByOthersAndNoObstacleToTheProcess)
{
    EXPECT_EQ(tf_lock_file_nowait(fd, 320, 4), 0);
    EXPECT_EQ(tf_lock_file_test(fd, 320, 4), 0);
    EXPECT_EQ(tf_lock_file_nowait(fd, 320, 4), 0);
    EXPECT_EQ(holder_of(path, 320, 4), getpid());
    EXPECT_EQ(holder_of(path, 324, 4), 0);
    EXPECT_EQ(tf_unlock_file(fd, 320, 4), 0);
    EXPECT_EQ(holder_of(path, 320, 4), 0);

    EXPECT_EQ(tf_lock_range_wait(fd, 0, 256), 0);
    EXPECT_EQ(holder_of(path, 255, 1), getpid());
    EXPECT_EQ(holder_of(path, 256, 4096), 0);
    EXPECT_EQ(tf_unlock_range(fd, 0, 256), 0);
    EXPECT_EQ(holder_of(path, 0, 256), 0);
}

TEST_F(TmfLock, WaitingLocksWaitForTheOtherProcess)
{
    for (const auto wait : {tf_lock_file_wait, tf_lock_range_wait}) {
        ASSERT_EQ(pwrite(fd, "0", 1, 4400), 1);
        ASSERT_EQ(tf_lock_file_wait(fd, 0, 256), 0);
        other_process waiter({[&] {
            const int own = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
            const int code = wait(own, 0, 256);
            char mark = 0;
            return code == 0 && pread(own, &mark, 1, 4400) == 1 ? mark : -1;
        }});
        waiter.start();
        ASSERT_TRUE(poll_until([&] { return is_asleep(waiter.pid()); }));
        ASSERT_EQ(pwrite(fd, "1", 1, 4400), 1);
        ASSERT_EQ(tf_unlock_file(fd, 0, 256), 0);
        EXPECT_EQ(waiter.result(), '1');
    }
}

// ---- the common lock of the calls

// Counts SIGUSR1 until the end of the test.
class signal_counter {
  public:
    explicit signal_counter(int flags)
    {
        count = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) { count = count + 1; };
        action.sa_flags = flags;
        sigaction(SIGUSR1, &action, &before_);
    }
    ~signal_counter()
    {
        sigaction(SIGUSR1, &before_, nullptr);
    }
    static volatile sig_atomic_t count;

  private:
    struct sigaction before_ = {};
};
volatile sig_atomic_t signal_counter::count;

// Sends SIGUSR1 to the parent so many times when it is asleep, or until it is gone.
static int signal_sleeper(pid_t parent, int times)
{
    poll_until([&] {
        if (is_asleep(parent) && kill(parent, SIGUSR1) == 0)
            times--;
        return times == 0 || getppid() != parent;
    });
    return times;
}

TEST_F(TmfLock, SignalEndsTheWaitOfEveryCall)
{
    tmf_handle *writer = open(0);
    tmf_handle *proven = open(0); // has written, and locks without a seek
    ASSERT_NE(proven, nullptr);
    ASSERT_EQ(tmf_fwrite(proven, "x", 1), 0);
    tmf_handle *reader = open(1);
    ASSERT_NE(reader, nullptr);

    const signal_counter counter(0);
    lock_holder other(path, 0, 256);
    const pid_t self = getpid();
    other_process sender({[=] { return signal_sleeper(self, INT_MAX); }});
    sender.start();
    char buf[8];
    EXPECT_EQ(open(0), nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_ELOCK_WAIT);
    EXPECT_EQ(message_of(nullptr), "Error applying wait lock.");
    EXPECT_EQ(tmf_fwrite(writer, "x", 1), TMF_ELOCK_WAIT);
    EXPECT_EQ(tmf_fwrite(proven, "x", 1), TMF_ELOCK_WAIT);
    EXPECT_EQ(tmf_geterrno(proven), TMF_ELOCK_WAIT);
    EXPECT_EQ(tmf_fread(reader, buf, sizeof(buf), TMF_READ_KEEP), TMF_ELOCK_WAIT);
    EXPECT_EQ(tmf_getinfo(writer, 0), TMF_ELOCK_WAIT);
    EXPECT_EQ(tmf_fclose(writer), TMF_ELOCK_WAIT); // and the handle is gone
    EXPECT_EQ(tmf_fclose(proven), TMF_ELOCK_WAIT);
    EXPECT_EQ(tmf_fclose(reader), TMF_ELOCK_WAIT);
    EXPECT_GE(signal_counter::count, 8);
}

TEST_F(TmfLock, RestartedWaitGoesOn)
{
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    for (int round = 0; round < 2; round++) { // the second locks without a seek
        const signal_counter counter(SA_RESTART);
        const pid_t self = getpid();
        other_process other({
            [&] { return tf_lock_range_wait(fd, 0, 256); },
            [&] { return signal_sleeper(self, 3) + tf_unlock_range(fd, 0, 256); },
        });
        ASSERT_EQ(other.run(), 0);
        other.start();
        EXPECT_EQ(tmf_fwrite(writer, "x", 1), 0);
        EXPECT_EQ(other.result(), 0);
        EXPECT_GE(signal_counter::count, 1);
    }
    EXPECT_EQ(tmf_fclose(writer), 0);
}

TEST_F(TmfLock, CommonLockThatReportsAnotherHolderHasFailed)
{
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    fail_call(CALL_LOCKF, EAGAIN);
    EXPECT_EQ(tmf_fwrite(writer, "x", 1), TMF_ELOCK_WAIT);
    EXPECT_EQ(tmf_fwrite(writer, "x", 1), 0);
    fail_call(CALL_FCNTL, EACCES);
    EXPECT_EQ(tmf_fwrite(writer, "x", 1), TMF_ELOCK_WAIT);
    EXPECT_EQ(tmf_fclose(writer), 0);
}

TEST_F(TmfLock, FileThatCannotBePositionedIsABadHandle)
{
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const int mode : {0, 1, 7}) {
        EXPECT_EQ(tmf_fopen(fifo.c_str(), mode), nullptr);
        EXPECT_EQ(tmf_geterrno(nullptr), TMF_EHANDLE);
        EXPECT_EQ(message_of(nullptr), "Internal error: Bad handle.");
    }
}

// The system takes threads of two processes that wait for each other's files for a
// deadlock.  Primitives say so; a call tries again.
TEST_F(TmfLock, WhatLooksLikeADeadlockIsTriedAgainAboveThePrimitives)
{
    fail_call(CALL_LOCKF, EDEADLK);
    EXPECT_EQ(tf_lock_file_wait(fd, 0, 256), TMF_ELOCK_WAIT);
    fail_call(CALL_FCNTL, EDEADLK);
    EXPECT_EQ(tf_lock_range_wait(fd, 0, 256), TMF_ELOCK_WAIT);

    fail_call(CALL_LOCKF, EDEADLK, 0, 3);
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    fail_call(CALL_LOCKF, EDEADLK, 0, 3);
    EXPECT_EQ(tmf_fwrite(h, "first", 5), 0);
    fail_call(CALL_FCNTL, EDEADLK, 0, 3);
    EXPECT_EQ(tmf_fwrite(h, "second", 6), 0);
    forget_calls();
    fail_call(CALL_FCNTL, ENOLCK);
    EXPECT_EQ(tmf_fwrite(h, "third", 5), TMF_ELOCK_WAIT);
    EXPECT_EQ(calls_made(CALL_FCNTL).size(), 1U);
    EXPECT_EQ(tmf_fclose(h), 0);
}
