// Power cuts under a running capture, its log and its writer: the next run, on another
// boot, goes on behind the last record that was on the disk.  With every setting but
// "off" each record of the log is captured, once.
#include "tests/powercut/numbered.h"
#include "tests/powercut/numbered_log.h"
#include "tests/powercut/numbered_messages.h"
#include "tests/powercut/power_disk.h"
#include "tests/support/run.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";

constexpr int UNTIL_REST = 60;         // transactions
constexpr uint32_t MOST = 4000;        // records in a log; then all is made anew
constexpr size_t FIRST_RECORDS = 5000; // bytes: more than a message file has without any
constexpr size_t MESSAGE_END = 44;     // in a message file: where its last message ends

enum target { TEXT_APPEND, TEXT_NEW, MESSAGE };

struct capture_case {
    const char *name;
    target to;
    const char *sync; // KESTRO_SYNC; null: not set
    bool at_rest;
    bool killed_before = false; // the run whose power goes follows one that was killed
    bool rotated = false;       // its file is moved away, and it is told so
};

static void PrintTo(const capture_case &c, std::ostream *out)
{
    *out << c.name;
}

// ---- the source

static void append_on(const std::string &config_file, bool to_rest, progress &told)
{
    fwu_writer *writer = open_numbered_log(config_file);
    if (writer == nullptr)
        _exit(1);
    uint32_t last = static_cast<uint32_t>(fwu_writer_last_lsn(writer));
    for (int i = 1;; i++) {
        const uint32_t n = 1 + last % 7;
        if (!append_numbered(writer, last, n) || fwu_writer_settle(writer, false) != 0)
            _exit(1);
        last += n;
        told.made = last;
        told.rests = to_rest && i == UNTIL_REST;
        while (told.rests)
            pause();
        usleep(300); // a pace that a capture follows
    }
}

// ---- what was captured

// Adds the lines of a text file.  The last one may be cut off while it is being written.
static void add_lines(std::vector<std::string> &lines, const std::string &path, bool resting)
{
    const std::string file = read_file(path);
    std::istringstream whole(file.substr(0, file.rfind('\n') + 1));
    for (std::string line; std::getline(whole, line);)
        lines.push_back(line);
    if (resting && !file.empty() && file.back() != '\n')
        throw std::runtime_error("the last line is cut off");
}

static std::vector<uint32_t> numbers_of(const std::vector<std::string> &records)
{
    std::vector<uint32_t> numbers;
    for (const std::string &record : records) {
        numbers.push_back(number_in(record, LOG_TEXT_SIZE));
        if (numbers.back() == 0)
            throw std::runtime_error("record of other bytes, the " +
                                     std::to_string(numbers.size()) + "th");
    }
    return numbers;
}

class CapturePowerCut : public ::testing::TestWithParam<capture_case> {
  protected:
    power_disk disk;
    std::mt19937 random{23};
    shared_progress told;
    std::vector<std::string> files; // in the order in which they were begun
    std::vector<uint32_t> known;    // captured by runs that came to their end

    bool is_text() const
    {
        return GetParam().to != MESSAGE;
    }
    bool is_off() const
    {
        return GetParam().sync != nullptr && std::string(GetParam().sync) == "off";
    }
    bool syncs_each_record() const
    {
        return GetParam().sync != nullptr && std::string(GetParam().sync) == "record";
    }
    run_setup setup() const
    {
        const capture_case &c = GetParam();
        run_setup options;
        options.directory = disk.file(".");
        if (c.sync != nullptr)
            options.env["KESTRO_SYNC"] = c.sync;
        if (is_text())
            options.env["KESTRO_TEXT"] = c.to == TEXT_APPEND ? "append" : "new";
        return options;
    }
    // The arguments of a run, and the file that it is to write.
    std::vector<std::string> arguments(bool to_the_end)
    {
        std::vector<std::string> argv = {kestro};
        if (to_the_end)
            argv.emplace_back("-synconly");
        if (is_text())
            argv.emplace_back("-ascii");
        if (files.empty() || GetParam().to == TEXT_NEW)
            files.push_back(disk.file("capture" + std::to_string(files.size())));
        argv.push_back(files.back());
        return argv;
    }
    static bool catches_hangups(pid_t pid)
    {
        const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
        const size_t at = status.find("SigCgt:");
        return at != std::string::npos &&
               (strtoull(status.c_str() + at + strlen("SigCgt:"), nullptr, 16) &
                1ULL << (SIGHUP - 1)) != 0;
    }
    // Whether it is at rest: neither runs, nor waits for the disk.
    static bool waits_for_more(pid_t pid)
    {
        return read_file("/proc/" + std::to_string(pid) + "/status").find("State:\tS") !=
               std::string::npos;
    }
    // What the status file says about a file: the line of the position on disk that both pointers
    // lead to, up to the file's name; empty: nothing.
    std::string line_on_disk(const std::string &file) const
    {
        const std::string status = read_file(disk.file("fwutil.status"));
        static const std::string words = "synced at ";
        const size_t one = status.find(words);
        const size_t other = status.find(words, one + 1);
        struct stat about = {};
        if (one == std::string::npos || other == std::string::npos ||
            stat(file.c_str(), &about) != 0)
            return "";
        const size_t at = strtoul(status.c_str() + one + words.size(), nullptr, 10);
        const size_t inode = status.find(" " + std::to_string(about.st_ino) + " ", at);
        const size_t name = std::min(status.find(file, inode), status.size());
        if (at != strtoul(status.c_str() + other + words.size(), nullptr, 10) ||
            inode == std::string::npos)
            return "";
        return status.substr(inode, name - inode);
    }
    // Whether the position on disk names the file that has the name.  A file whose first record was
    // written this moment, and which is moved before that is brought to disk, would not be found.
    bool is_on_disk(const std::string &file) const
    {
        return !line_on_disk(file).empty();
    }
    // Moves the file to another name, with the next free number, and asks for a new one.
    void rotate(pid_t capture)
    {
        const std::string moved = files.back() + "." + std::to_string(files.size());
        if (!is_on_disk(files.back()))
            return; // perhaps not begun yet
        // Before it is as far as that, the signal ends a program.
        if (!poll_until([&] { return catches_hangups(capture); }))
            return;
        std::filesystem::rename(files.back(), moved);
        files.insert(files.end() - 1, moved);
        kill(capture, SIGHUP);
    }
    void add_records(std::vector<std::string> &records, const std::string &file, bool resting) const
    {
        if (is_text())
            add_lines(records, file, resting);
        else
            add_messages(records, file);
    }
    // All that was captured, every byte of it looked at.
    std::vector<uint32_t> captured() const
    {
        std::vector<std::string> records;
        for (const std::string &file : files)
            add_records(records, file, true);
        return numbers_of(records);
    }
    // What is wrong with the records behind those that an earlier run had brought to
    // disk: none may be missing; of a message file, whose end a run does not know until
    // it opens it, one may come again that was behind the position on disk; and one that
    // a killed run had in hand.
    std::string fault_in(const std::vector<uint32_t> &numbers, uint32_t last) const
    {
        if (numbers.size() < known.size() ||
            !std::equal(known.begin(), known.end(), numbers.begin()))
            return "records of before the last boot are missing";
        uint32_t newest = known.empty() ? 0 : known.back();
        size_t twice = (is_text() ? 0U : 1U) + (GetParam().killed_before ? 1U : 0U);
        for (size_t i = known.size(); i < numbers.size(); i++) {
            if (numbers[i] == newest && i > known.size() && twice > 0)
                twice--;
            else if (numbers[i] == newest + 1)
                newest++;
            else
                return "behind " + std::to_string(newest) + " stands " + std::to_string(numbers[i]);
        }
        return newest == last ? "" : "the last one is " + std::to_string(newest);
    }
    // What each file has, for whoever looks for the reason of a fault.
    std::string files_in_words() const
    {
        std::string words;
        for (const std::string &file : files) {
            std::vector<std::string> records;
            add_records(records, file, false);
            const std::vector<uint32_t> numbers = numbers_of(records);
            if (!numbers.empty())
                words += file.substr(file.rfind('/') + 1) + ": " + std::to_string(numbers.front()) +
                         " to " + std::to_string(numbers.back()) + "\n";
        }
        return words + std::to_string(known.size()) + " of them before this boot\n";
    }
    static size_t different_in(const std::vector<uint32_t> &numbers)
    {
        return std::set<uint32_t>(numbers.begin(), numbers.end()).size();
    }
    // How many records are there, up to what is none.
    size_t captured_so_far() const
    {
        std::vector<std::string> records;
        try {
            for (const std::string &file : files)
                add_records(records, file, false);
        } catch (const std::runtime_error &) { // others are writing, or the power went
        }
        size_t good = 0;
        while (good < records.size() && number_in(records[good], LOG_TEXT_SIZE) != 0)
            good++;
        return good;
    }
    // Where the file ends.  A message file is longer than what it has.
    size_t end_of(const std::string &file) const
    {
        std::error_code error;
        const uintmax_t size = std::filesystem::file_size(file, error);
        if (error)
            return 0; // not begun yet
        if (is_text())
            return size;
        uint32_t end = 0;
        std::ifstream in(file, std::ios::binary);
        in.seekg(MESSAGE_END).read(reinterpret_cast<char *>(&end), sizeof end);
        return end;
    }
    // How much the files have together.
    size_t bytes_so_far() const
    {
        size_t bytes = 0;
        for (const std::string &file : files)
            bytes += end_of(file);
        return bytes;
    }
    // Whether the position on disk has the end of the newest file, and so all that is before it.
    bool status_has_the_end() const
    {
        const std::string end = " " + std::to_string(end_of(files.back())) + " ";
        return line_on_disk(files.back()).find(end) != std::string::npos;
    }
    void begin_anew()
    {
        for (const auto &entry : std::filesystem::directory_iterator(disk.file(".")))
            if (entry.path().filename() != "fwutil.cfg")
                std::filesystem::remove_all(entry.path());
        files.clear();
        known.clear();
        told->made = 0;
        disk.write_back_all();
    }
};

TEST_P(CapturePowerCut, NextRunGoesOnBehindTheLastRecordOnTheDisk)
{
    const capture_case &c = GetParam();
    if (!disk.problem().empty())
        GTEST_SKIP() << disk.problem();
    const std::string config_file = disk.file("fwutil.cfg");
    write_file(config_file, "log-directory log\nlog-file-size 64K\n");
    begin_anew();
    size_t in_all = 0;
    size_t lost = 0;
    size_t missing = 0;
    size_t repeated = 0;
    const auto telling = [&] {
        return (c.at_rest || syncs_each_record() || lost > 0) && (!is_off() || missing > 0);
    };
    for (int cut = 1; another_cut(cut, telling()); cut++) {
        SCOPED_TRACE("cut " + std::to_string(cut));
        told->rests = false;
        const pid_t writer = fork();
        if (writer == 0)
            append_on(config_file, c.at_rest, *told);
        ASSERT_TRUE(poll_until([&] { return told->made != 0; }));
        if (c.killed_before) {
            const pid_t killed =
                start_program(arguments(false), setup(), disk.file("out"), disk.file("err"));
            usleep(30000 + static_cast<useconds_t>(random() % 30000));
            kill(killed, SIGKILL);
            waitpid(killed, nullptr, 0);
        }
        const size_t before = bytes_so_far();
        const pid_t capture =
            start_program(arguments(false), setup(), disk.file("out"), disk.file("err"));
        // Half of the cuts come anywhere, the others once the run has captured something, however
        // long that takes here.
        if (cut % 2 == 0) {
            EXPECT_TRUE(poll_until([&] { return bytes_so_far() > before + FIRST_RECORDS; }));
        }
        for (auto times = 1 + random() % 10; times > 0; times--) {
            usleep(static_cast<useconds_t>(random() % 12000));
            disk.write_back_some(random);
            if (c.rotated)
                rotate(capture);
        }
        if (c.at_rest) {
            ASSERT_TRUE(poll_until([&] { return told->rests && captured_so_far() == told->made; }))
                << read_file(disk.file("err")) << captured_so_far() << " of " << told->made;
            ASSERT_TRUE(poll_until([&] { return status_has_the_end(); }));
            usleep(200000); // what it says goes to disk with the position
            ASSERT_TRUE(poll_until([&] { return waits_for_more(capture); }));
        }
        const uint32_t made = told->made;
        const size_t there = bytes_so_far();
        disk.cut();
        for (const pid_t pid : {writer, capture}) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        disk.boot();

        lost += there - std::min(there, bytes_so_far());
        if (c.at_rest && !is_off()) {
            EXPECT_EQ(captured_so_far(), made);
        }
        fwu_writer *next = open_numbered_log(config_file);
        ASSERT_NE(next, nullptr);
        const auto last = static_cast<uint32_t>(fwu_writer_last_lsn(next));
        ASSERT_EQ(fwu_writer_close(next), 0);
        ASSERT_GE(last, c.at_rest ? made : 0);
        told->made = last;
        const std::string status = read_file(disk.file("fwutil.status"));
        const run_result rest = run_program(arguments(true), setup());
        if (!is_off()) {
            ASSERT_EQ(rest.status, 0) << rest.out << rest.err;
        }
        std::vector<uint32_t> numbers;
        try {
            numbers = captured();
        } catch (const std::runtime_error &error) {
            ASSERT_TRUE(is_off()) << error.what();
        }
        missing += last - std::min<size_t>(last, different_in(numbers));
        repeated += numbers.size() - different_in(numbers);
        if (!is_off()) {
            EXPECT_EQ(fault_in(numbers, last), "")
                << status << rest.out << rest.err << files_in_words();
        }
        ASSERT_FALSE(HasFailure());
        known = numbers;
        disk.write_back_all();
        if (last > MOST || is_off()) {
            in_all += last;
            begin_anew();
        }
    }
    in_all += told->made;
    printf("%s: %d cuts: %zu records; %zu captured bytes not on the disk, %zu missing in the end, "
           "%zu twice\n",
           c.name, power_cuts(), in_all, lost, missing, repeated);
    EXPECT_GT(in_all, 0U);
    EXPECT_TRUE(c.at_rest || syncs_each_record() || lost > 0) << "the cuts take nothing away";
    EXPECT_TRUE(!is_off() || missing > 0) << "the cuts take nothing away for good";
}

// clang-format off
static const capture_case capture_cases[] = {
    {"AppendUnderLoad", TEXT_APPEND, nullptr, false},
    {"AppendAtRest", TEXT_APPEND, nullptr, true},
    {"NewNamesUnderLoad", TEXT_NEW, nullptr, false},
    {"NewNamesAtRest", TEXT_NEW, nullptr, true},
    {"MessageFileUnderLoad", MESSAGE, nullptr, false},
    {"MessageFileAtRest", MESSAGE, nullptr, true},
    {"AppendEachInterval", TEXT_APPEND, "interval 10", false},
    {"MessageFileEachInterval", MESSAGE, "interval 10", false},
    {"AppendEachRecord", TEXT_APPEND, "record", false},
    {"MessageFileEachRecord", MESSAGE, "record", false},
    {"AppendAfterAKill", TEXT_APPEND, nullptr, false, true},
    {"NewNamesAfterAKill", TEXT_NEW, nullptr, false, true},
    {"MessageFileAfterAKill", MESSAGE, nullptr, false, true},
    {"AppendRotatedUnderLoad", TEXT_APPEND, nullptr, false, false, true},
    {"AppendRotatedAtRest", TEXT_APPEND, nullptr, true, false, true},
    {"AppendRotatedEachInterval", TEXT_APPEND, "interval 10", false, false, true},
    {"AppendNeverSynced", TEXT_APPEND, "off", false},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Each, CapturePowerCut, ::testing::ValuesIn(capture_cases),
                         [](const auto &c) { return std::string(c.param.name); });
