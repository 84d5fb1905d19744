// Kestro with each of its system calls failing, doing half, and being the last one of its
// process, and then run again: every record is in the capture files, in order, once but for
// the one in hand; message files are sound and have no user left; what went wrong was told.
#include "msgfile/tmf.h"
#include "tests/calls/program_calls.h"
#include "tests/procs/growing_log.h"

#include <algorithm>
#include <gmock/gmock.h>

static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";

constexpr int RECORDS = 6;
constexpr size_t RECNUM_AT = 62; // behind the header's fixed part
constexpr size_t LINE = 62 + 15 + 14 + 20 + 1;

struct capture_case {
    const char *name;
    std::vector<std::string> words; // Kestro's
    std::map<std::string, std::string> env = {};
    int before = 0;    // records that an undisturbed run has captured before
    bool text = false; // the capture file is one of text
};

static void PrintTo(const capture_case &c, std::ostream *out)
{
    *out << c.name;
}

class CaptureCalls : public ::testing::TestWithParam<capture_case> {
  protected:
    program_world world;

    run_setup setup() const
    {
        run_setup setup;
        setup.directory = world.path();
        setup.env = GetParam().env;
        setup.env["TZ"] = "UTC";
        setup.unset = {"KESTRO_SYNC", "KESTRO_TEXT", "KESTRO_STATUS", "KESTRO_MAXCAP",
                       "NOTIFY_SOCKET"};
        for (const auto &[name, value] : GetParam().env)
            std::erase(setup.unset, name);
        return setup;
    }
    std::vector<std::string> words() const
    {
        std::vector<std::string> all = {kestro, "-synconly"};
        all.insert(all.end(), GetParam().words.begin(), GetParam().words.end());
        return all;
    }
    void append(int first, int n) const
    {
        fwu_config config;
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_config_read(config, world.file("fwutil.cfg").c_str()), 0);
        config.log_directory = world.file("log");
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        EXPECT_TRUE(append_transaction(writer, first, n));
        EXPECT_EQ(fwu_writer_close(writer), 0);
    }
    void SetUp() override
    {
        write_file(world.file("fwutil.cfg"), "log-directory log\n");
        const int before = GetParam().before;
        if (before > 0) {
            append(1, before);
            ASSERT_EQ(run_program(words(), setup()).status, 0);
        }
        append(before + 1, RECORDS - before);
        world.keep();
    }
    traced_run run(size_t number, blow what) const
    {
        world.renew();
        return run_traced({.directory = world.path(),
                           .body = [&]() -> int { world.become(words(), setup()); },
                           .struck = number,
                           .what = what});
    }

    // ---- what is in the capture files

    // The files in the order in which they were written: rollover counts up behind the name.
    std::vector<std::string> capture_files() const
    {
        std::vector<std::string> files;
        for (const auto &entry : std::filesystem::directory_iterator(world.path()))
            if (entry.path().filename().string().starts_with("cap") &&
                entry.path().extension() != ".cut") // a copy of what was cut off
                files.push_back(entry.path());
        std::sort(files.begin(), files.end(), [](const auto &a, const auto &b) {
            return std::pair(a.size(), a) < std::pair(b.size(), b);
        });
        return files;
    }
    static void add_lines(const std::string &path, std::vector<int> &numbers)
    {
        const std::string text = read_file(path);
        EXPECT_EQ(text.size() % LINE, 0U) << "a part of a line";
        for (size_t at = 0; at + LINE <= text.size(); at += LINE) {
            EXPECT_EQ(text[at + LINE - 1], '\n');
            numbers.push_back(atoi(text.substr(at + RECNUM_AT, 15).c_str()));
        }
    }
    static void add_messages(const std::string &path, std::vector<int> &numbers)
    {
        tmf_check_result result;
        ASSERT_EQ(tmf_check(path.c_str(), &result), 0);
        EXPECT_EQ(result.found, 0) << path;
        tmf_handle *h = tmf_fopen(path.c_str(), TMF_MODE_READ);
        ASSERT_NE(h, nullptr);
        int32_t records = 0;
        int32_t writers = -1;
        EXPECT_EQ(tmf_getinfo(h, TMF_INFO_RECORDS, &records, TMF_INFO_WRITERS, &writers, 0), 0);
        EXPECT_EQ(writers, 0) << "a writer's slot stays taken";
        std::string buffer(500, '\0');
        for (; records > 0; records--) {
            const int n = tmf_fread(h, buffer.data(), 500, 0);
            EXPECT_EQ(n, static_cast<int>(RECNUM_AT) + 15 + 24);
            numbers.push_back(atoi(buffer.substr(RECNUM_AT, 15).c_str()));
        }
        EXPECT_EQ(tmf_fclose(h), 0);
    }
    std::vector<int> captured() const
    {
        std::vector<int> numbers;
        for (const std::string &file : capture_files())
            GetParam().text ? add_lines(file, numbers) : add_messages(file, numbers);
        return numbers;
    }
    // All there, in order; how many came again: the one in hand, but for a run that told that
    // its position did not come to disk.
    void expect_all(bool goes_back) const
    {
        const std::vector<int> numbers = captured();
        int newest = 0;
        int repeats = 0;
        for (const int number : numbers) {
            const bool again = number <= newest;
            repeats += again && (goes_back || number == newest);
            EXPECT_TRUE(number == newest + 1 || (again && (goes_back || number == newest)))
                << testing::PrintToString(numbers);
            newest = number;
        }
        EXPECT_EQ(newest, RECORDS) << testing::PrintToString(numbers);
        EXPECT_LE(repeats, goes_back ? RECORDS : 1) << testing::PrintToString(numbers);
    }
    // The library of message files has texts of its own, without the system's.  A text file's
    // stream keeps no reason.  A close that fails is told on standard output alone.
    bool told_in_own_way() const
    {
        const std::string err = world.err();
        if (err.empty())
            return world.out().find("ERROR encountered during processing.") != std::string::npos;
        if (GetParam().text)
            return err.find("CAPERR: Success\nError writing to capture file") != std::string::npos;
        return err.find("CAPERR: ") != std::string::npos ||
               err.find("Error 0 checking capture file EOF") != std::string::npos;
    }
    void look(const struck_call &struck, const traced_run &traced) const
    {
        if (!struck.call().file.starts_with("cap") || !told_in_own_way())
            expect_told(struck, traced, world);
        // The handle that a rollover closes has no code to tell.
        EXPECT_TRUE(world.err().find("Message file error #0") == std::string::npos ||
                    world.err().find("for rollover") != std::string::npos)
            << world.err();
        const run_result next = run_program(words(), setup());
        EXPECT_EQ(next.status, 0) << next.out << next.err;
        const bool goes_back = next.err.find("could not bring to disk all") != std::string::npos;
        EXPECT_FALSE(goes_back && traced.status == 0) << next.err;
        expect_all(goes_back);
    }
};

TEST_P(CaptureCalls, NothingIsLostAndTheRecordInHandComesTwiceAtMost)
{
    if (can_trace()) {
        EXPECT_EQ(run(0, {}).status, 0) << world.out() << world.err();
        expect_all(false);
    }
    expect_survives_blows(
        {.name = std::string("Kestro ") + GetParam().name,
         .run = [this](size_t number, blow what) { return run(number, what); },
         .look = [this](const struck_call &s, const traced_run &r) { look(s, r); }});
}

// clang-format off
static const capture_case cases[] = {
    {.name = "NewMessageFile", .words = {"-recnum", "cap"}},
    {.name = "MessageFileWithRecords", .words = {"-recnum", "cap"}, .before = 2},
    {.name = "MessageFileOnDiskBehindEachRecord", .words = {"-recnum", "cap"}, .env = {{"KESTRO_SYNC", "record"}}, .before = 2},
    {.name = "MessageFilesThatRollOver", .words = {"-recnum", "-rollover", "cap"}, .env = {{"KESTRO_MAXCAP", "4560"}}},
    {.name = "AppendedTextFile", .words = {"-ascii", "-recnum", "cap"}, .env = {{"KESTRO_TEXT", "append"}}, .before = 2, .text = true},
    {.name = "AppendedTextFileOnDiskBehindEachRecord", .words = {"-ascii", "-recnum", "cap"}, .env = {{"KESTRO_TEXT", "append"}, {"KESTRO_SYNC", "record"}}, .text = true},
    {.name = "StatusForMonitors", .words = {"-recnum", "cap"}, .env = {{"KESTRO_STATUS", "run.json"}}, .before = 2},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Runs, CaptureCalls, ::testing::ValuesIn(cases),
                         [](const auto &c) { return std::string(c.param.name); });
