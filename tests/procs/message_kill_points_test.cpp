// Each call of the message-file library, ended by SIGKILL before each of its
// system calls, inside its writes and right behind its end: the next user finds
// a sound file, in which the call has been made or has not.
#include "tests/procs/message_view.h"
#include "tests/procs/message_workers.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>

// A record's data follows from its length.
static std::string data_of(int length)
{
    std::string data(static_cast<size_t>(length), '\0');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(static_cast<size_t>(length) + i * 5);
    return data;
}

using lengths = std::vector<int>; // of records, oldest first

// Records that processes have read.
struct read_list {
    std::atomic<int> count;
    int records[16]; // their lengths; -1: not what was written

    void add(int length)
    {
        records[count++] = length;
    }
    lengths all() const
    {
        return {records, records + count};
    }
};

// ---- steps

static deed appends(int length)
{
    return writes(data_of(length));
}

static deed takes(read_list &list, int flags)
{
    return [&list, flags](tmf_handle *&h) {
        std::string buffer(TMF_MAX_DATA, '\0');
        const int length = tmf_fread(h, buffer.data(), TMF_MAX_DATA, flags);
        if (length > 0) {
            buffer.resize(static_cast<size_t>(length));
            list.add(buffer == data_of(length) ? length : -1);
        }
        return length;
    };
}

static deed takes_all(read_list &list)
{
    return [&list](tmf_handle *&h) {
        int records = 0;
        int code = tmf_getinfo(h, TMF_INFO_RECORDS, &records, 0);
        for (; records > 0 && code >= 0; records--)
            code = takes(list, 0)(h);
        return std::min(code, 0);
    };
}

static int get_info(tmf_handle *&h)
{
    int records = 0;
    return tmf_getinfo(h, TMF_INFO_RECORDS, &records, 0);
}

// ---- cases

enum bystander {
    NOBODY,
    FRESH_READER, // waits for its first record
    READER,       // waits for its second one, as long as there is a writer
    DYING_USERS,  // a writer and a waiting reader that die before the call
};

enum call { OPEN, WRITE, READ, READ_KEEP, GETINFO, CLOSE };

// The file has some records; the victim opens it, reads or writes some, and makes
// the call.
struct kill_case {
    const char *name;
    bool no_file = false;
    lengths written = {};
    int taken = 0; // of them, before the victim comes
    bystander beside = NOBODY;
    int mode = 0;
    int reads_before = 0;  // by the victim
    int writes_before = 0; // one record of that length by the victim
    call killed_in = OPEN;
    int appended = 0;   // what the victim writes
    int fed = 0;        // what another process writes when the victim waits
    lengths before;     // records that are left when the call has not been made
    lengths after;      // and when it has
    lengths given = {}; // what the call reads
    int calls;          // system calls that it makes, at least
    int torn = 0;       // its writes that go across the end of a page
};

static void PrintTo(const kill_case &c, std::ostream *out)
{
    *out << c.name;
}

class MessageKillPoints : public ::testing::TestWithParam<kill_case> {
  protected:
    tempdir dir;
    std::string path = dir.file("queue");
    bool made_once = false; // some earlier victim came as far as making the call

    std::string file; // as the victim finds it

    void SetUp() override
    {
        const kill_case &c = GetParam();
        if (c.no_file)
            return;
        make_message_file(path);
        std::vector<deed> steps = {opens(path, 0)};
        for (const int length : c.written)
            steps.push_back(appends(length));
        steps.push_back(closes());
        steps.push_back(opens(path, 1));
        for (int i = 0; i < c.taken; i++)
            steps.push_back(reads(0));
        steps.push_back(closes());
        user_process maker(steps);
        for (size_t i = 0; i < steps.size(); i++)
            ASSERT_GE(maker.run(), 0);
        file = read_file(path);
    }

    void renew_file() const
    {
        std::filesystem::remove(path);
        if (!file.empty())
            write_file(path, file);
    }

    bool comes_to_wait(const user_process &reader) const
    {
        return poll_until([&] { return reader.ended_by() != 0 || is_waiting(path, 0); });
    }

    deed call_of(read_list &list) const
    {
        const kill_case &c = GetParam();
        switch (c.killed_in) {
        case OPEN:
            return opens(path, c.mode);
        case WRITE:
            return appends(c.appended);
        case READ:
            return takes(list, 0);
        case READ_KEEP:
            return takes(list, TMF_READ_KEEP);
        case GETINFO:
            return get_info;
        default:
            return closes();
        }
    }

    // What processes of one run put down.
    struct run_notes {
        shared_memory<read_list> by_victim;
        shared_memory<read_list> by_others;
        shared_memory<std::atomic<bool>> completed; // the victim's call
    };

    std::vector<deed> steps_of_the_reader(const run_notes &notes) const
    {
        std::vector<deed> steps = {opens(path, 1)};
        if (GetParam().beside == READER)
            steps.push_back(reads(0));
        steps.push_back(takes(*notes.by_others, 0));
        steps.push_back(closes());
        return steps;
    }

    // The last step is the call in which it dies.
    std::vector<deed> steps_of_the_victim(const run_notes &notes, int n, bool inside_write) const
    {
        const kill_case &c = GetParam();
        std::vector<deed> steps;
        if (c.killed_in != OPEN)
            steps.push_back(opens(path, c.mode));
        for (int i = 0; i < c.reads_before; i++)
            steps.push_back(reads(0));
        if (c.writes_before != 0)
            steps.push_back(appends(c.writes_before));
        steps.push_back([&notes, n, inside_write, call = call_of(*notes.by_victim)](auto &h) {
            (inside_write ? die_inside_write : die_before_call)(n);
            *notes.completed = call(h) >= 0;
            raise(SIGKILL);
            return 0;
        });
        return steps;
    }

    // Kills a victim before its n-th system call, or inside its n-th torn write,
    // and looks what it leaves.  Sets whether its call came to an end before.
    void kill_at(int n, bool inside_write, bool *completed)
    {
        const kill_case &c = GetParam();
        renew_file();
        const run_notes notes;
        std::unique_ptr<user_process> dying_writer;
        std::unique_ptr<user_process> reader;
        const std::vector<deed> steps = steps_of_the_victim(notes, n, inside_write);
        user_process victim(steps);

        // Everyone comes, and does what comes before the call.
        if (c.beside == DYING_USERS) {
            dying_writer = std::make_unique<user_process>(std::vector{opens(path, 0)});
            ASSERT_EQ(dying_writer->run(), 0);
        }
        if (c.beside != NOBODY) {
            reader = std::make_unique<user_process>(steps_of_the_reader(notes));
            ASSERT_EQ(reader->run(), 0);
            ASSERT_GE(c.beside == READER ? reader->run() : 0, 0);
        }
        for (size_t i = 0; i + 1 < steps.size(); i++)
            ASSERT_GE(victim.run(), 0);
        if (c.beside != NOBODY) {
            reader->begin();
            ASSERT_TRUE(comes_to_wait(*reader));
        }
        killed_users killed = {{victim.pid()}, {}};
        if (c.appended != 0)
            killed.records.push_back(data_of(c.appended));
        if (c.beside == DYING_USERS) {
            killed.pids.insert(killed.pids.end(), {dying_writer->pid(), reader->pid()});
            dying_writer.reset();
            reader.reset();
        }

        victim.begin();
        if (c.fed != 0) {
            ASSERT_TRUE(comes_to_wait(victim));
            user_process feeder({opens(path, 0), appends(c.fed), closes()});
            for (int step = 0; step < 3; step++)
                ASSERT_EQ(feeder.run(), 0);
        }
        ASSERT_EQ(victim.result(), DIED);
        ASSERT_EQ(victim.ended_by(), SIGKILL);
        victim.kill();
        *completed = *notes.completed;
        EXPECT_TRUE(!*completed || notes.by_victim->all() == c.given);
        expect_others_go_on(notes, killed, reader.get());
    }

    // The next user opens the file, appends a record and closes it; then all that
    // is there is read.  reader: the one that waits and lives, if any.
    void expect_others_go_on(const run_notes &notes, const killed_users &killed,
                             user_process *reader)
    {
        constexpr int extra = 77;
        user_process next({opens(path, 0), appends(extra), closes()});
        ASSERT_EQ(next.run(), 0);
        std::vector<pid_t> users = {next.pid()};
        if (reader != nullptr)
            users.insert(users.begin(), reader->pid());
        const message_view view = look(path);
        EXPECT_EQ(faults_of(view, killed), "");
        EXPECT_EQ(registered(view), users);
        ASSERT_EQ(next.run(), 0);
        ASSERT_EQ(next.run(), 0);
        if (reader != nullptr) {
            const int length = reader->result();
            EXPECT_TRUE(length >= 0 && length <= TMF_MAX_DATA) << length;
            EXPECT_EQ(reader->run(), 0);
        }
        user_process last({opens(path, 1), takes_all(*notes.by_others), closes()});
        for (int step = 0; step < 3; step++)
            ASSERT_EQ(last.run(), 0);
        expect_made_or_not(notes.by_others->all(), extra, *notes.completed);
        const message_view empty = look(path);
        EXPECT_EQ(faults_of(empty, killed), "");
        EXPECT_EQ(registered(empty), std::vector<pid_t>{});
        EXPECT_EQ(empty.common.record_count, 0);
    }

    void expect_made_or_not(lengths found, int extra, bool completed)
    {
        const kill_case &c = GetParam();
        ASSERT_FALSE(found.empty());
        EXPECT_EQ(found.back(), extra);
        found.pop_back();
        if (found == c.after) {
            made_once = c.before != c.after;
            return;
        }
        EXPECT_EQ(found, c.before);
        EXPECT_FALSE(completed) << "acknowledged and lost";
        EXPECT_FALSE(made_once) << "made by a victim that was killed earlier";
    }
};

TEST_P(MessageKillPoints, NextUserFindsTheCallMadeOrNotMade)
{
    bool completed = false;
    for (int n = 1; !completed; n++) {
        SCOPED_TRACE("killed before system call " + std::to_string(n));
        ASSERT_NO_FATAL_FAILURE(kill_at(n, false, &completed));
        EXPECT_TRUE(!completed || n > GetParam().calls) << "calls are missing";
        ASSERT_LT(n, 100);
    }
    completed = false;
    made_once = false;
    for (int n = 1; !completed; n++) {
        SCOPED_TRACE("killed inside write " + std::to_string(n));
        ASSERT_NO_FATAL_FAILURE(kill_at(n, true, &completed));
        EXPECT_EQ(completed, n > GetParam().torn);
        ASSERT_LT(n, 100);
    }
}

// clang-format off
static const kill_case cases[] = {
    {.name = "WriterMakesTheFile", .no_file = true, .mode = 0, .before = {}, .after = {},
     .calls = 12, .torn = 1},
    {.name = "ReaderMakesTheFile", .no_file = true, .mode = 1, .before = {}, .after = {},
     .calls = 12, .torn = 1},
    {.name = "WriterOpens", .written = {10, 20}, .mode = 0, .before = {10, 20}, .after = {10, 20},
     .calls = 8},
    {.name = "ReaderOpens", .written = {10, 20}, .mode = 1, .before = {10, 20}, .after = {10, 20},
     .calls = 8},
    {.name = "ExclusiveWriterOpens", .written = {10}, .mode = 2, .before = {10}, .after = {10},
     .calls = 8},
    {.name = "ExclusiveReaderOpens", .written = {10}, .mode = 3, .before = {10}, .after = {10},
     .calls = 8},
    {.name = "OpenRemovesTheDead", .beside = DYING_USERS, .mode = 1, .before = {}, .after = {},
     .calls = 20},
    {.name = "GetinfoRemovesTheDead", .beside = DYING_USERS, .mode = 0, .killed_in = GETINFO,
     .before = {}, .after = {}, .calls = 16},
    {.name = "FirstWrite", .written = {10}, .killed_in = WRITE, .appended = 50, .before = {10},
     .after = {10, 50}, .calls = 5},
    {.name = "LaterWrite", .writes_before = 15, .killed_in = WRITE, .appended = 50, .before = {15},
     .after = {15, 50}, .calls = 5},
    {.name = "WriteToAnEmptyFile", .killed_in = WRITE, .appended = 50, .before = {},
     .after = {50}, .calls = 5},
    {.name = "WriteAcrossPages", .written = {10}, .killed_in = WRITE, .appended = 20000,
     .before = {10}, .after = {10, 20000}, .calls = 5, .torn = 1},
    {.name = "WriteWakesAReader", .beside = FRESH_READER, .killed_in = WRITE, .appended = 50,
     .before = {}, .after = {50}, .calls = 7},
    {.name = "FirstRead", .written = {10, 20}, .mode = 1, .killed_in = READ, .before = {10, 20},
     .after = {20}, .given = {10}, .calls = 5},
    {.name = "LaterRead", .written = {10, 20, 30}, .mode = 1, .reads_before = 1,
     .killed_in = READ, .before = {20, 30}, .after = {30}, .given = {20}, .calls = 5},
    {.name = "ReadEmptiesTheFile", .written = {10}, .mode = 1, .killed_in = READ,
     .before = {10}, .after = {}, .given = {10}, .calls = 5},
    {.name = "ReadEmptiesAndTruncatesTheFile", .written = {20000, 20001, 20002, 20003}, .taken = 3,
     .mode = 1, .killed_in = READ, .before = {20003}, .after = {}, .given = {20003}, .calls = 7},
    {.name = "LaterReadEmptiesAndTruncatesTheFile", .written = {32000, 32001, 32002},
     .mode = 1, .reads_before = 2, .killed_in = READ, .before = {32002}, .after = {},
     .given = {32002}, .calls = 7},
    {.name = "ReadKeepsTheRecord", .written = {10, 20}, .mode = 1, .killed_in = READ_KEEP,
     .before = {10, 20}, .after = {10, 20}, .given = {10}, .calls = 4},
    {.name = "CopyModeRead", .written = {10, 20}, .mode = 7, .killed_in = READ,
     .before = {10, 20}, .after = {10, 20}, .given = {10}, .calls = 4},
    {.name = "ReadWaits", .mode = 1, .killed_in = READ, .fed = 30, .before = {30},
     .after = {}, .given = {30}, .calls = 14},
    {.name = "WriterCloses", .written = {10}, .mode = 0, .killed_in = CLOSE,
     .before = {10}, .after = {10}, .calls = 7},
    {.name = "ReaderCloses", .written = {10}, .mode = 1, .killed_in = CLOSE,
     .before = {10}, .after = {10}, .calls = 7},
    {.name = "ReaderClosesTheEmptyFile", .written = {10}, .mode = 1, .reads_before = 1, .killed_in = CLOSE,
     .before = {}, .after = {}, .calls = 7},
    {.name = "CloseWakesAReader", .written = {10}, .beside = READER, .mode = 0,
     .killed_in = CLOSE, .before = {}, .after = {}, .calls = 9},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Calls, MessageKillPoints, ::testing::ValuesIn(cases),
                         [](const auto &c) { return std::string(c.param.name); });
