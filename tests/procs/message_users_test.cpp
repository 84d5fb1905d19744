// Many writers and readers of one message file at once, and users that fork.
#include "tests/procs/message_view.h"
#include "tests/procs/message_workers.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

constexpr uint32_t RECORDS = 20000; // of each writer
constexpr uint32_t WRITERS = 4;
constexpr uint32_t READERS = 3;
constexpr uint32_t STAGES = 20;

class MessageUsers : public ::testing::Test {
  protected:
    tempdir dir;
    std::string path = dir.file("queue");

    void SetUp() override
    {
        make_message_file(path);
    }
    void expect_sound(const std::vector<pid_t> &users) const
    {
        const message_view view = look(path);
        EXPECT_EQ(faults_of(view, {}), "");
        EXPECT_EQ(registered(view), users);
    }
};

// ---- at once

// All processes report when they have used the file for the first time, and the
// writers at the end of each stage but the last.
static bool all_ready(message_board &board, uint32_t processes)
{
    board.ready++;
    return poll_until([&] { return board.ready >= processes; });
}

// Writer 0 begins with one record for each reader, so that none of them waits for
// its first one when there is no writer any more.  No stage begins before a reader
// has run out of the records of the last one, so that each has readers to wake.
static int write_all(message_board &board, int worker, const std::string &path)
{
    const uint32_t writer = static_cast<uint32_t>(worker);
    tmf_handle *h = tmf_fopen(path.c_str(), 0);
    if (h == nullptr)
        return tmf_geterrno(nullptr);
    int code = 0;
    uint32_t sequence = 1;
    for (; writer == 0 && sequence <= READERS && code == 0; sequence++)
        code = write_message(board, worker, h, {writer, sequence});
    uint32_t reports = WRITERS + READERS;
    if (!all_ready(board, reports))
        return 1;
    uint32_t waits = board.calls.waits;
    for (; sequence <= RECORDS && code == 0; sequence++) {
        code = write_message(board, worker, h, {writer, sequence});
        if (sequence % (RECORDS / STAGES) != 0 || sequence == RECORDS)
            continue;
        reports += WRITERS;
        if (!all_ready(board, reports) || !poll_until([&] { return board.calls.waits > waits; }))
            return 2;
        waits = board.calls.waits;
    }
    const int close_code = tmf_fclose(h);
    return code != 0 ? code : close_code;
}

static int read_all(message_board &board, int worker, const std::string &path)
{
    set_wait_style(WAIT_FOR_EVER_ONCE_BOUND);
    tmf_handle *h = tmf_fopen(path.c_str(), TMF_MODE_READ);
    if (h == nullptr)
        return tmf_geterrno(nullptr);
    message m;
    int result = read_message(board, worker, h, 0, &m);
    if (result != 1)
        return 1;
    if (!all_ready(board, WRITERS + READERS))
        return 2;
    while (result == 1)
        result = read_message(board, worker, h, 0, &m);
    const int close_code = tmf_fclose(h);
    return result != 0 ? result : close_code;
}

TEST_F(MessageUsers, EachRecordGoesToOneReaderInTheOrderOfItsWriter)
{
    const shared_memory<message_board> board;
    const calls_counted counted(&board->calls);
    std::vector<std::unique_ptr<user_process>> workers;
    for (int i = 0; i < int{WRITERS + READERS}; i++) {
        const bool writer = i < int{WRITERS};
        workers.push_back(std::make_unique<user_process>(std::vector<deed>{[&, writer, i](auto &) {
            return writer ? write_all(*board, i, path) : read_all(*board, i, path);
        }}));
    }
    for (const auto &worker : workers)
        worker->begin();
    for (size_t i = 0; i < workers.size(); i++)
        ASSERT_EQ(workers[i]->result(), 0) << "process " << i;

    uint32_t once = 0;
    for (uint32_t writer = 0; writer < WRITERS; writer++) {
        EXPECT_EQ(board->acknowledged[writer], RECORDS);
        for (uint32_t sequence = 1; sequence <= RECORDS; sequence++)
            once += board->deliveries[writer][sequence] == 1;
    }
    EXPECT_EQ(once, WRITERS * RECORDS);
    EXPECT_GE(board->calls.waits, STAGES - 1);
    expect_sound({});
    EXPECT_EQ(look(path).common.record_count, 0);
}

// ---- forks

static int fork_and_wait(const std::function<void()> &child)
{
    const pid_t pid = fork();
    if (pid == 0) {
        child();
        _exit(0);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid ? status : -1;
}

static void close_all()
{
    for (int fd = 3; fd < 100; fd++)
        close(fd);
}

static int fork_that_exits(tmf_handle *& /*h*/)
{
    return fork_and_wait([] {});
}

static int fork_that_closes(tmf_handle *& /*h*/)
{
    return fork_and_wait(close_all);
}

static int fork_that_is_killed(tmf_handle *& /*h*/)
{
    return fork_and_wait([] { raise(SIGKILL); }) == SIGKILL ? 0 : -1;
}

TEST_F(MessageUsers, EndOfAForkedChildDoesNotFreeItsParentsSlot)
{
    for (const int mode : {0, 1}) {
        user_process user(
            {opens(path, mode), fork_that_exits, fork_that_closes, fork_that_is_killed, closes()});
        ASSERT_EQ(user.run(), 0);
        for (int child = 0; child < 3; child++) {
            ASSERT_EQ(user.run(), 0) << child;
            user_process next({opens(path, 0), closes()}); // removes the dead
            ASSERT_EQ(next.run(), 0);
            expect_sound({user.pid(), next.pid()});
            ASSERT_EQ(next.run(), 0);
            expect_sound({user.pid()});
        }
        EXPECT_EQ(user.run(), 0);
        expect_sound({});
    }
}

// Locks are not inherited: a child that has the descriptor is no user.
TEST_F(MessageUsers, KilledParentIsRemovedThoughItsChildHasTheFileOpen)
{
    const shared_memory<std::atomic<bool>> end;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    user_process user({opens(path, 1), [&](auto &) {
                           const pid_t child = fork();
                           if (child == 0) {
                               close(ends[1]);
                               char byte;
                               [[maybe_unused]] const ssize_t got = read(ends[0], &byte, 1);
                               _exit(0);
                           }
                           return child;
                       }});
    ASSERT_EQ(user.run(), 0);
    const pid_t child = user.run();
    ASSERT_GT(child, 0);
    const pid_t dead = user.pid();
    user.kill();
    EXPECT_EQ(registered(look(path)), std::vector{dead});
    user_process next({opens(path, 1), closes()});
    ASSERT_EQ(next.run(), 0);
    EXPECT_EQ(kill(child, 0), 0);
    expect_sound({next.pid()});
    EXPECT_EQ(next.run(), 0);
    expect_sound({});
    close(ends[1]);
    close(ends[0]);
}
