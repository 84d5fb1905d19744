// The forward log's writer, its reader and the tools that change a log, with each of their
// system calls failing, doing half, and being the last one of their process: what a commit
// had acknowledged is in the log, once and in order, a transaction is there whole or not at
// all, a reader gets each record, the one in hand twice at most, and the next run goes on.
#include "fwutil/fwu_log.h"
#include "tests/calls/program_calls.h"
#include "tests/procs/growing_log.h"
#include "tests/support/shared_memory.h"

#include <atomic>
#include <gmock/gmock.h>
#include <numeric>

static const std::string fwlog = KESTRO_BUILD_DIR "/bin/fwlog";

struct log_notes {
    std::atomic<int> acknowledged; // the newest record of which the source may be told
    std::atomic<int> attempted;    // the newest record that was to be written
    std::atomic<int> delivered;    // records given to the reader
    int records[200];              // their numbers
};

class LogCalls : public ::testing::Test {
  protected:
    program_world world;
    shared_memory<log_notes> notes;
    int written = 0; // records of the log as renew() brings it back

    // ---- the log

    std::string cfg() const
    {
        return world.file("fwutil.cfg");
    }
    std::string status() const
    {
        return world.file("status");
    }
    fwu_config config(int64_t file_size) const
    {
        fwu_config config;
        if (fwu_config_read(config, cfg().c_str()) != 0)
            _exit(90);
        config.log_file_size = file_size;
        return config;
    }
    void SetUp() override
    {
        write_file(cfg(), "log-directory " + world.file("log") + "\n");
    }
    // Transactions of three records each.
    void make_log(int transactions, int64_t file_size)
    {
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_writer_open(&writer, config(file_size)), 0);
        for (int i = 0; i < transactions; i++) {
            ASSERT_TRUE(append_transaction(writer, written + 1, 3));
            written += 3;
        }
        ASSERT_EQ(fwu_writer_sync(writer), 0);
        ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
        ASSERT_EQ(fwu_writer_close(writer), 0);
    }
    std::string log_file(int number) const
    {
        return world.file("log/" + fwu_log_file_name(1, number));
    }

    // ---- writing

    // Two transactions, the second of them again when it failed, as a source would send it.
    int append_two(int64_t file_size, const char *keep) const
    {
        log_notes &n = *notes;
        fwu_config c = config(file_size);
        if (keep != nullptr) {
            c.keep.bytes = 1;
            c.keep.text = keep;
        }
        fwu_writer *writer = nullptr;
        if (fwu_writer_open(&writer, c) != 0)
            return 1;
        int result = 0;
        int next = written + 1;
        for (int i = 0; i < 3 && next <= written + 6; i++) {
            n.attempted = next + 2;
            if (!append_transaction(writer, next, 3)) {
                fwu_writer_rollback(writer);
                result = 1;
                continue;
            }
            next += 3;
            if (fwu_writer_settle(writer, false) != 0 || fwu_writer_acknowledge(writer) != 0)
                result = 1;
            else
                n.acknowledged = next - 1;
        }
        return fwu_writer_close(writer) != 0 ? 1 : result;
    }
    // All records that the log has, by a reader that begins with the oldest.
    std::vector<int> all_records() const
    {
        const tempdir own;
        std::vector<int> numbers;
        if (!std::filesystem::exists(log_file(1)) && written == 0)
            return numbers; // it was not made yet
        collected = &numbers;
        Fwu_synconly(1);
        EXPECT_EQ(Fwu_process(collect, cfg().c_str(), own.file("status").c_str(), nullptr), 0);
        return numbers;
    }
    static inline std::vector<int> *collected;
    static int collect(uint32_t, const char *, const char *, int32_t, int32_t, int32_t, int32_t,
                       const void *, const void *after)
    {
        int32_t number = 0;
        memcpy(&number, after, sizeof number);
        collected->push_back(number);
        return 0;
    }
    static std::vector<int> numbers(int first, int last)
    {
        std::vector<int> all(static_cast<size_t>(std::max(last - first + 1, 0)));
        std::iota(all.begin(), all.end(), first);
        return all;
    }
    run_result run_in_world(const std::vector<std::string> &words) const
    {
        run_setup setup;
        setup.directory = world.path();
        return run_program(words, setup);
    }
    void expect_sound() const
    {
        const run_result verify = run_in_world({fwlog, "verify"});
        EXPECT_EQ(verify.status, 0) << verify.out << verify.err;
    }
    // The next writer appends; then all is there in order.
    void expect_writer_goes_on(int first, int last) const
    {
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_writer_open(&writer, config(1 << 20)), 0);
        EXPECT_TRUE(append_transaction(writer, last + 1, 2));
        EXPECT_EQ(fwu_writer_close(writer), 0);
        EXPECT_EQ(all_records(), numbers(first, last + 2));
        expect_sound();
    }
    void expect_acknowledged_is_there(const struck_call &struck, const traced_run &run,
                                      bool may_begin_later)
    {
        expect_told(struck, run, world);
        const std::vector<int> records = all_records();
        const int first = may_begin_later && !records.empty() ? records.front() : 1;
        const int last = records.empty() ? 0 : records.back();
        EXPECT_EQ(records, numbers(first, last));
        EXPECT_GE(last, notes->acknowledged);
        EXPECT_LE(last, notes->attempted);
        EXPECT_EQ((last - written) % 3, 0) << "a part of a transaction";
        if (run.status == 0) {
            EXPECT_EQ(notes->acknowledged, written + 6);
        }
        expect_writer_goes_on(first, last);
    }
    void strike_writer(const std::string &name, int64_t file_size, const char *keep = nullptr)
    {
        world.keep();
        const auto run = [&](size_t number, blow what) {
            world.renew();
            new (&*notes) log_notes{};
            notes->attempted = notes->acknowledged = written;
            return run_traced({.directory = world.path(),
                               .body =
                                   [&] {
                                       world.redirect();
                                       return append_two(file_size, keep);
                                   },
                               .struck = number,
                               .what = what});
        };
        if (can_trace()) {
            EXPECT_EQ(run(0, {}).status, 0) << world.err();
            EXPECT_EQ(notes->acknowledged, written + 6);
        }
        expect_survives_blows({.name = name, .run = run, .look = [&](const auto &s, const auto &r) {
                                   expect_acknowledged_is_there(s, r, keep != nullptr);
                               }});
    }

    // ---- reading

    static inline log_notes *noted;
    static int note(uint32_t, const char *, const char *, int32_t, int32_t, int32_t, int32_t,
                    const void *, const void *after)
    {
        int32_t number = 0;
        memcpy(&number, after, sizeof number);
        noted->records[noted->delivered++] = number;
        return 0;
    }
    int read_log() const
    {
        noted = &*notes;
        Fwu_synconly(1);
        return Fwu_process(note, cfg().c_str(), status().c_str(), nullptr) == 0 ? 0 : 1;
    }
    // Reads from one record on (the status file says where) to the end.
    void strike_reader(const std::string &name, int first)
    {
        world.keep();
        const auto run = [&](size_t number, blow what) {
            world.renew();
            new (&*notes) log_notes{};
            return run_traced({.directory = world.path(),
                               .body =
                                   [&] {
                                       world.redirect();
                                       return read_log();
                                   },
                               .struck = number,
                               .what = what});
        };
        const auto look = [&](const struck_call &struck, const traced_run &run_made) {
            expect_told(struck, run_made, world);
            const std::vector<int> got(notes->records, notes->records + notes->delivered);
            EXPECT_EQ(got, numbers(first, first + notes->delivered - 1));
            if (run_made.status == 0) {
                EXPECT_EQ(notes->delivered, written - first + 1);
            }
            // The next run goes on behind it; the record in hand may come again, and what a
            // run that could not bring its position to disk has told of does.
            const int next = first + notes->delivered;
            new (&*notes) log_notes{};
            testing::internal::CaptureStderr();
            EXPECT_EQ(read_log(), 0);
            const std::string told = testing::internal::GetCapturedStderr();
            const bool goes_back = told.find("could not bring to disk all") != std::string::npos;
            const int from = notes->delivered == 0 ? next : notes->records[0];
            EXPECT_LE(from, next);
            EXPECT_GE(from, goes_back ? first : std::max(next - 1, first)) << told;
            EXPECT_FALSE(goes_back && run_made.status == 0) << told;
            const std::vector<int> more(notes->records, notes->records + notes->delivered);
            EXPECT_EQ(more, numbers(from, written));
        };
        if (can_trace()) {
            EXPECT_EQ(run(0, {}).status, 0) << world.err();
            EXPECT_EQ(notes->delivered, written - first + 1);
        }
        expect_survives_blows({.name = name, .run = run, .look = look});
    }

    // ---- tools

    traced_run run_tool(const std::vector<std::string> &words, size_t number, blow what) const
    {
        world.renew();
        return run_traced({.directory = world.path(),
                           .body = [&]() -> int { world.become(words, {}); },
                           .struck = number,
                           .what = what});
    }
    // A tool that only looks: what it says is right, or it says why it cannot.
    void strike_looker(const std::string &name, const std::vector<std::string> &words)
    {
        world.keep();
        std::string right;
        if (can_trace()) {
            EXPECT_EQ(run_tool(words, 0, {}).status, 0) << world.err();
            right = world.out();
        }
        expect_survives_blows(
            {.name = name,
             .run = [&](size_t number, blow what) { return run_tool(words, number, what); },
             .look =
                 [&](const struck_call &struck, const traced_run &run) {
                     expect_told(struck, run, world);
                     if (run.status == 0) {
                         EXPECT_EQ(world.out(), right);
                     }
                     expect_writer_goes_on(1, written);
                 }});
    }
};

TEST_F(LogCalls, WriterMakesTheLog)
{
    strike_writer("log WriterMakesTheLog", 1 << 20);
}

TEST_F(LogCalls, WriterAppends)
{
    make_log(2, 1 << 20);
    strike_writer("log WriterAppends", 1 << 20);
}

TEST_F(LogCalls, WriterBeginsFiles)
{
    make_log(3, 300);
    strike_writer("log WriterBeginsFiles", 300);
}

TEST_F(LogCalls, WriterRemovesOldFiles)
{
    make_log(4, 300);
    strike_writer("log WriterRemovesOldFiles", 300, "1");
}

TEST_F(LogCalls, WriterCutsATornEndOff)
{
    make_log(2, 1 << 20);
    std::string file = read_file(log_file(1));
    make_log(1, 1 << 20);
    const std::string longer = read_file(log_file(1));
    written -= 3;
    // Nothing of it was acknowledged: the directory says so much of two transactions only.
    std::filesystem::remove(world.file("log/acknowledged"));
    write_file(log_file(1), longer.substr(0, longer.size() - 20));
    strike_writer("log WriterCutsATornEndOff", 1 << 20);
}

TEST_F(LogCalls, WriterWritesAgainWhatDidNotReachTheDisk)
{
    make_log(2, 1 << 20);
    write_file(world.file("log/sync-failed"), "");
    strike_writer("log WriterWritesAgain", 1 << 20);
}

TEST_F(LogCalls, ReaderBegins)
{
    make_log(4, 300);
    strike_reader("log ReaderBegins", 1);
}

TEST_F(LogCalls, ReaderGoesOn)
{
    make_log(2, 300);
    ASSERT_EQ(read_log(), 0);
    make_log(2, 300);
    strike_reader("log ReaderGoesOn", 7);
}

TEST_F(LogCalls, ReaderHasNothingToRead)
{
    make_log(2, 300);
    ASSERT_EQ(read_log(), 0);
    strike_reader("log ReaderHasNothingToRead", 7);
}

TEST_F(LogCalls, Verify)
{
    make_log(3, 300);
    strike_looker("fwlog verify", {fwlog, "verify"});
}

TEST_F(LogCalls, Dump)
{
    make_log(3, 300);
    strike_looker("fwlog dump", {fwlog, "dump"});
}

TEST_F(LogCalls, Tail)
{
    make_log(3, 300);
    strike_looker("fwlog tail", {fwlog, "tail", "--json"});
}

TEST_F(LogCalls, Info)
{
    make_log(3, 300);
    strike_looker("fwlog info", {fwlog, "info"});
}

TEST_F(LogCalls, Prune)
{
    make_log(4, 300);
    ASSERT_EQ(read_log(), 0);
    world.keep();
    const std::vector<std::string> words = {fwlog, "prune", "--keep", "1", "--status", status()};
    expect_survives_blows(
        {.name = "fwlog prune",
         .run = [&](size_t number, blow what) { return run_tool(words, number, what); },
         .look =
             [&](const struck_call &struck, const traced_run &run) {
                 expect_told(struck, run, world);
                 const std::vector<int> left = all_records();
                 ASSERT_FALSE(left.empty());
                 expect_writer_goes_on(left.front(), written);
                 new (&*notes) log_notes{};
                 EXPECT_EQ(read_log(), 0);
                 EXPECT_EQ(notes->delivered, 2) << "the reader goes on";
             }});
}

TEST_F(LogCalls, Repair)
{
    make_log(4, 300);
    // A byte in the file before the last one is another one; all was acknowledged.
    std::string file = read_file(log_file(2));
    file[file.size() - 30] = static_cast<char>(file[file.size() - 30] ^ 1);
    write_file(log_file(2), file);
    world.keep();
    const std::vector<std::string> words = {fwlog, "repair", "--accept-loss"};
    int last = 0;
    if (can_trace()) {
        EXPECT_EQ(run_tool(words, 0, {}).status, 0) << world.err();
        last = static_cast<int>(all_records().size());
        EXPECT_LT(last, written);
    }
    expect_survives_blows(
        {.name = "fwlog repair",
         .run = [&](size_t number, blow what) { return run_tool(words, number, what); },
         .look =
             [&](const struck_call &struck, const traced_run &run) {
                 expect_told(struck, run, world);
                 const run_result again = run_in_world(words);
                 EXPECT_EQ(again.status, 0) << again.out << again.err;
                 expect_writer_goes_on(1, last);
             }});
}
