// Users of a message file killed at random moments while others go on: whoever
// opens the file next finds it sound, and no record is lost or read twice but
// those that the killed had in hand.
#include "tests/procs/message_view.h"
#include "tests/procs/message_workers.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <atomic>
#include <gtest/gtest.h>
#include <iostream>
#include <memory>
#include <random>
#include <sched.h>

constexpr int KILLS = 200;
constexpr int WRITERS = 4;
constexpr int READERS = 3;
constexpr uint32_t LAST_WRITER = 0; // its records tell readers to end

// A writer that has got so far waits until the file is empty, so that the file
// is cut down to 64 KiB again and again.
constexpr int32_t FULL_AT = 200000;

// ---- the workers

static int count_records(message_board &board, int worker, tmf_handle *h, int32_t *records)
{
    auto &me = board.workers[worker];
    me.in_library = true;
    const int code = tmf_getinfo(h, TMF_INFO_RECORDS, records, 0);
    me.in_library = false;
    me.progress++;
    return code;
}

static int wait_until_empty(message_board &board, int worker, tmf_handle *h)
{
    int32_t records = 1;
    int code = 0;
    while (records != 0 && code == 0 && !board.stop) {
        sched_yield();
        code = count_records(board, worker, h, &records);
    }
    return code;
}

static tmf_handle *open_counted(message_board &board, int worker, const std::string &path, int mode)
{
    auto &me = board.workers[worker];
    me.in_library = true;
    tmf_handle *h = tmf_fopen(path.c_str(), mode);
    me.in_library = false;
    me.progress++;
    return h;
}

static int close_counted(message_board &board, int worker, tmf_handle *h)
{
    auto &me = board.workers[worker];
    me.in_library = true;
    const int code = tmf_fclose(h);
    me.in_library = false;
    me.progress++;
    return code;
}

// Opens, writes some records and closes, over and over; now and then as another
// writer, whose numbers begin anew.
static int write_on(message_board &board, int worker, const std::string &path, unsigned seed)
{
    set_wait_style(WAIT_FOR_EVER_ONCE_BOUND);
    std::mt19937 random(seed);
    message m = {0, MAX_SEQUENCE};
    while (!board.stop) {
        tmf_handle *h = open_counted(board, worker, path, 0);
        if (h == nullptr)
            return tmf_geterrno(nullptr);
        for (auto left = 1 + random() % 60; left > 0; left--) {
            if (m.sequence == MAX_SEQUENCE) {
                m = {board.writers++, 0};
                board.workers[worker].writer = m.writer;
            }
            m.sequence++;
            int code = write_message(board, worker, h, m);
            int32_t end = 0;
            tmf_finfo(h, TMF_FINFO_RECORD_END, &end, sizeof(end));
            if (code == 0 && end > FULL_AT)
                code = wait_until_empty(board, worker, h);
            if (code != 0)
                return code;
        }
        const int code = close_counted(board, worker, h);
        if (code != 0)
            return code;
    }
    return 0;
}

// Opens, reads some records and closes, until a record of the last writer comes.
static int read_on(message_board &board, int worker, const std::string &path, unsigned seed)
{
    set_wait_style(WAIT_FOR_EVER_ONCE_BOUND);
    std::mt19937 random(seed);
    for (;;) {
        tmf_handle *h = open_counted(board, worker, path, TMF_MODE_READ);
        if (h == nullptr)
            return tmf_geterrno(nullptr);
        const int flags = random() % 2 == 0 ? TMF_READ_WAIT : 0;
        message m = {1, 0};
        int result = 1;
        for (auto left = 1 + random() % 40; left > 0 && result == 1 && m.writer != LAST_WRITER;
             left--)
            result = read_message(board, worker, h, flags, &m);
        if (result < 0)
            return result;
        const int code = close_counted(board, worker, h);
        if (code != 0 || m.writer == LAST_WRITER)
            return code;
    }
}

// ---- the test

class MessageKill : public ::testing::Test {
  protected:
    tempdir dir;
    std::string path = dir.file("queue");
    const shared_memory<message_board> board;
    const calls_counted counted{&board->calls};
    std::vector<std::unique_ptr<user_process>> workers;
    const unsigned seed = std::random_device{}();
    std::mt19937 random{seed};
    killed_users killed;
    std::vector<bool> was_killed = std::vector<bool>(MAX_WRITERS); // writers
    uint32_t in_library = 0;                                       // kills inside a call
    uint32_t in_read = 0;                                          // kills inside tmf_fread

    void SetUp() override
    {
        make_message_file(path);
        board->writers = LAST_WRITER + 1;
        workers.resize(WRITERS + READERS);
        for (int i = 0; i < WRITERS + READERS; i++)
            start(i);
    }

    uint32_t below(uint32_t limit)
    {
        return static_cast<uint32_t>(random() % limit);
    }

    void start(int worker)
    {
        auto &me = board->workers[worker];
        me.in_library = false;
        me.in_read = false;
        const unsigned own_seed = below(UINT32_MAX);
        const auto life = worker < WRITERS ? write_on : read_on;
        std::vector<deed> steps = {
            [=, this](auto &) { return life(*board, worker, path, own_seed); }};
        workers[static_cast<size_t>(worker)] = std::make_unique<user_process>(steps);
        workers[static_cast<size_t>(worker)]->begin();
    }

    // Kills a worker some steps from now, somewhere in the next one.
    testing::AssertionResult kill_soon(int worker)
    {
        user_process &victim = *workers[static_cast<size_t>(worker)];
        auto &me = board->workers[worker];
        const uint32_t from = me.progress;
        const uint32_t steps = below(30);
        const auto ended = [&] { return victim.has_ended() || victim.ended_by() != 0; };
        if (!poll_until([&] { return me.progress - from >= steps || ended(); }))
            return testing::AssertionFailure() << "process " << worker << " hangs";
        if (ended())
            return testing::AssertionFailure()
                   << "process " << worker << " has ended with " << victim.result();
        for (uint32_t spin = below(20000); spin > 0; spin--)
            std::atomic_thread_fence(std::memory_order_seq_cst);
        killed.pids.push_back(victim.pid());
        victim.kill();
        in_library += me.in_library;
        in_read += me.in_read;
        if (worker < WRITERS && me.writer != 0) {
            was_killed[me.writer] = true;
            killed.records.push_back(message_data({me.writer, board->acknowledged[me.writer] + 1}));
        }
        return testing::AssertionSuccess();
    }

    // The next user comes and goes; the file is looked at in between.
    void expect_next_user_finds_it_sound()
    {
        user_process next({opens(path, static_cast<int>(below(2))), closes()});
        ASSERT_EQ(next.run(), 0);
        const message_view view = look(path);
        ASSERT_EQ(faults_of(view, killed), "");
        for (const std::string &data : records_of(view)) {
            message m;
            ASSERT_TRUE(parse_message(data.data(), static_cast<int>(data.size()), &m));
        }
        ASSERT_EQ(next.run(), 0);
    }

    void expect_all_end()
    {
        board->stop = true;
        for (int i = 0; i < WRITERS; i++)
            ASSERT_EQ(workers[static_cast<size_t>(i)]->result(), 0) << "writer " << i;
        user_process last(
            {opens(path, 0),
             [&](tmf_handle *&h) {
                 int code = 0;
                 for (uint32_t i = 1; i <= READERS && code == 0; i++)
                     code = write_message(*board, MAX_WORKERS - 1, h, {LAST_WRITER, i});
                 return code;
             },
             closes()});
        for (int step = 0; step < 3; step++)
            ASSERT_EQ(last.run(), 0);
        for (int i = WRITERS; i < WRITERS + READERS; i++)
            ASSERT_EQ(workers[static_cast<size_t>(i)]->result(), 0) << "reader " << i;
    }

    void expect_records_read_once() const
    {
        uint32_t lost = 0;
        for (uint32_t writer = 0; writer < board->writers; writer++) {
            const uint32_t newest = board->acknowledged[writer];
            for (uint32_t sequence = 1; sequence <= MAX_SEQUENCE; sequence++) {
                const int times = board->deliveries[writer][sequence];
                ASSERT_LE(times, 1) << "record " << sequence << " of writer " << writer;
                if (sequence <= newest)
                    lost += times == 0;
                else // one that a killed writer had in hand may be in the file
                    ASSERT_TRUE(times == 0 || (was_killed[writer] && sequence == newest + 1))
                        << "record " << sequence << " of writer " << writer;
            }
        }
        EXPECT_LE(lost, in_read); // one that a killed reader had in hand is gone
        std::cout << KILLS << " kills, " << in_library << " inside the library, " << in_read
                  << " inside a read, " << lost << " records gone with them; "
                  << board->calls.truncations << " truncations\n";
    }
};

TEST_F(MessageKill, KilledUsersLeaveASoundFileAndNoRecordLostButTheOneInHand)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (int round = 0; round < KILLS; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        const int victim = static_cast<int>(below(WRITERS + READERS));
        ASSERT_TRUE(kill_soon(victim));
        ASSERT_NO_FATAL_FAILURE(expect_next_user_finds_it_sound());
        start(victim);
    }
    ASSERT_NO_FATAL_FAILURE(expect_all_end());
    expect_records_read_once();
    EXPECT_GT(in_library, KILLS / 2U);
    EXPECT_GT(board->calls.truncations, 0U);
    const message_view view = look(path);
    EXPECT_EQ(faults_of(view, killed), "");
    EXPECT_EQ(registered(view), std::vector<pid_t>{});
    EXPECT_EQ(view.common.record_count, 0);
}
