// Starts behind a power cut: another boot of the system, told by a file of the test.
#include "fwutil/fwu_status_text.h"
#include "tests/fwutil/log_fixture.h"
#include "tests/support/run.h"

#include <csignal>
#include <gmock/gmock.h>
#include <map>
#include <random>
#include <sstream>

using testing::HasSubstr;
using testing::Not;

static const char NOT_ON_DISK[] = "the last run could not bring to disk all that it had written";

class ResumeTest : public log_test {
  protected:
    ResumeTest()
    {
        boot("1\n");
    }
    void boot(const std::string &name) const
    {
        write_file(dir.file("boot_id"), name);
    }
    // stop: the record in hand when the program is killed; answers: of
    // Fwu_hook_sync_due at start, record, rest and end.
    run_result program(const std::string &mark, int stop = 0,
                       const std::vector<std::string> &answers = {"1", "0", "1", "1"}) const
    {
        std::vector<std::string> words = {HOOK_PROGRAMS "boot", cfg, status};
        words.insert(words.end(), answers.begin(), answers.end());
        words.push_back(mark);
        run_setup setup;
        setup.env = more;
        setup.env["HOOK_PROGRAM_BOOT"] = dir.file("boot_id");
        setup.env["HOOK_PROGRAM_STOP"] = std::to_string(stop);
        return run_program(words, setup);
    }
    fwu_status_text read() const
    {
        fwu_status_text text;
        EXPECT_EQ(fwu_status_get(text, read_file(status)), 0);
        return text;
    }
    // The lines of a program's output that tell what is delivered and taken away.
    static std::string essence(const std::string &out)
    {
        std::string kept;
        size_t at = 0;
        for (size_t end; (end = out.find('\n', at)) != out.npos; at = end + 1) {
            const std::string line = out.substr(at, end - at);
            if (line.substr(0, 3) != "due" && line != "sync")
                kept += line + " ";
        }
        return kept;
    }
    std::string told(const std::string &behind, const std::string &last,
                     const std::string &why = "the system was started anew since") const
    {
        return "fwutil: " + status + ": " + why + ": going on behind " + behind +
               ", the last position whose output is known to be on disk; the last one of " +
               "all was " + last + "\n";
    }
    std::map<std::string, std::string> more; // environment of the program
};

TEST_F(ResumeTest, OnTheSameBootTheLastPositionCounts)
{
    two_files();
    EXPECT_EQ(essence(program("a\n", 4).out), "record 1 record 2 record 3 record 4 ");
    const run_result again = program("b\n");
    EXPECT_EQ(essence(again.out), "keep [a ] record 4 record 5 ") << "the one in hand comes again";
    EXPECT_EQ(again.err, "");
    EXPECT_EQ(essence(program("c\n").out), "") << "the last run brought all to disk";
}

// A run that was killed has not brought to disk what the next one builds on.
TEST_F(ResumeTest, WhatAKilledRunWroteAndCannotBeKeptComesAgain)
{
    two_files();
    ASSERT_EQ(program("first\n", 4).status, 9);
    const run_result failed = program("no keep");
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(essence(failed.out), "keep [first ] ");
    EXPECT_EQ(failed.err,
              "fwutil: the program could not bring to disk what a run that was killed has written; "
              "the position on disk stays as it was\n");
    const run_result again = program("second\n");
    EXPECT_EQ(essence(again.out), "resume [first ] record 1 record 2 record 3 record 4 record 5 ");
    EXPECT_EQ(again.err, told("none", "not kept", NOT_ON_DISK));
}

// What the system could not write it forgets: a later sync that succeeds tells nothing.
TEST_F(ResumeTest, WhatCouldNotBeBroughtToDiskComesAgainOnTheSameBoot)
{
    two_files();
    for (const char *due : {"0", "1"}) {
        std::filesystem::remove(status);
        more["HOOK_PROGRAM_FAIL"] = "2"; // at the end, or behind the first record
        const run_result failed = program("first\n", 0, {"1", due, "1", "1"});
        EXPECT_EQ(failed.status, 1);
        EXPECT_EQ(failed.err, "fwutil: the program could not bring to disk what it has written; "
                              "the position on disk stays as it was\n");
        EXPECT_EQ(failed.out.substr(failed.out.rfind("record")),
                  due[0] == '1' ? "record 1\ndue 1\nsync\n" : "record 5\ndue 1\ndue 3\nsync\n")
            << "once is enough";
        more.clear();
        run_result again = program("second\n");
        EXPECT_EQ(essence(again.out),
                  "resume [first ] record 1 record 2 record 3 record 4 record 5 ");
        EXPECT_EQ(again.err, told("none", "not kept", NOT_ON_DISK));
        again = program("third\n");
        EXPECT_EQ(essence(again.out), "");
        EXPECT_EQ(again.err, "");
    }
}

TEST_F(ResumeTest, AStartPositionKeepsWhatAKilledRunWrote)
{
    two_files();
    ASSERT_EQ(program("first\n", 4).status, 9);
    const std::string killed = read_file(status);
    more["HOOK_PROGRAM_START"] = "1-2.1"; // behind the layout
    EXPECT_EQ(essence(program("second\n").out), "keep [first ] record 4 record 5 ");
    EXPECT_EQ(essence(program("third\n").out), "record 4 record 5 ") << "all was on disk";
    for (const std::string &bytes : {std::string("nonsense"), killed.substr(0, 200)}) {
        write_file(status, bytes);
        EXPECT_EQ(essence(program("fourth\n").out), "keep [] record 4 record 5 ");
    }
    write_file(status, killed);
    boot("2\n");
    EXPECT_EQ(essence(program("fifth\n").out), "record 4 record 5 ") << "nothing is in memory";
    boot("1\n");
    write_file(status, killed);
    EXPECT_EQ(program("no keep").status, 1);
    more.clear();
    EXPECT_EQ(essence(program("sixth\n").out),
              "resume [first ] record 1 record 2 record 3 record 4 record 5 ");
}

TEST_F(ResumeTest, AStatusFileRemovedUnderARunThatForcesNothingIsToldAtItsEnd)
{
    two_files();
    more["HOOK_PROGRAM_REMOVE"] = "5";
    const run_result result = program("first\n", 0, {"-1", "1", "1", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "fwutil: " + status +
                  ": the status file was removed or replaced while in use; the "
                  "position is 1-2.3, give it as start position;"
                  " a start may empty the program's text files: keep them aside first\n");
}

TEST_F(ResumeTest, OnAnotherBootTheForcedPositionCountsAndItsMarkComesBack)
{
    two_files();
    ASSERT_EQ(program("first\n", 4).status, 9);
    boot("2\n");
    run_result again = program("second\n", 3);
    EXPECT_EQ(essence(again.out), "resume [first ] record 1 record 2 record 3 ");
    EXPECT_EQ(again.err, told("none", "1-1.5"));

    boot("3\n");
    again = program("third\n", 5, {"1", "1", "1", "1"});
    EXPECT_EQ(essence(again.out), "resume [second ] record 1 record 2 record 3 record 4 record 5 ");
    boot("4\n");
    again = program("fourth\n");
    EXPECT_EQ(essence(again.out), "resume [third ] record 5 ") << "each record was forced";
    EXPECT_EQ(again.err, told("1-2.2", "1-2.2"));
    EXPECT_EQ(essence(program("fifth\n").out), "") << "all was forced at the end";
}

TEST_F(ResumeTest, WhatIsKilledBehindTheResumeResumesAgainOnTheSameBoot)
{
    two_files();
    ASSERT_EQ(program("first\n", 4).status, 9);
    boot("2\n");
    // The program cannot bring its files to disk: the run ends with the mark as it was.
    EXPECT_EQ(program("-").status, 1);
    EXPECT_EQ(program("no resume").status, 1);
    EXPECT_EQ(read().synced.mark, "first\n");
    const run_result again = program("second\n", 2);
    EXPECT_EQ(essence(again.out), "resume [first ] record 1 record 2 ");
    EXPECT_EQ(essence(program("third\n").out),
              "keep [second ] record 2 record 3 record 4 record 5 ")
        << "the positions before the cut count no more";
}

TEST_F(ResumeTest, AResumeThatFailsLeavesThePositionAsItWas)
{
    two_files();
    ASSERT_EQ(program("first\n", 4).status, 9);
    boot("2\n");
    const std::string before = read_file(status);
    const run_result failed = program("no resume");
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.out, "resume [first\n]\n");
    EXPECT_EQ(failed.err, told("none", "1-1.5") +
                              "fwutil: the program could not take away what it had written behind "
                              "the position on disk; the position stays as it was\n");
    EXPECT_EQ(read_file(status), before);
}

TEST_F(ResumeTest, NeverForcedMeansTheLastPositionOnAnyBoot)
{
    two_files();
    ASSERT_EQ(program("first\n", 4, {"-1", "1", "1", "1"}).status, 9);
    EXPECT_EQ(read().synced.boot, "any");
    boot("2\n");
    run_result again = program("second\n", 5, {"-1", "1", "1", "1"});
    EXPECT_EQ(again.out, "keep []\ndue 0\nrecord 4\nrecord 5\n");
    EXPECT_EQ(again.err, "");
    boot("3\n");
    again = program("third\n", 5);
    EXPECT_EQ(essence(again.out), "keep [] record 5 ")
        << "what was never forced is taken over as it is";
    boot("4\n");
    EXPECT_EQ(essence(program("fourth\n").out), "resume [third ] record 5 ");
}

TEST_F(ResumeTest, ABootThatCannotBeToldIsNeverTheSame)
{
    two_files();
    boot("");
    ASSERT_EQ(program("first\n", 4).status, 9);
    const run_result again = program("second\n");
    EXPECT_EQ(essence(again.out), "resume [first ] record 1 record 2 record 3 record 4 record 5 ");
    EXPECT_EQ(again.err,
              told("none", "1-1.5", "it cannot be told whether the system was started anew since"));
}

TEST_F(ResumeTest, TheForcedPositionIsLookedUpBeforeAnythingIsTakenAway)
{
    two_files();
    ASSERT_EQ(program("first\n", 5, {"1", "1", "1", "1"}).status, 9);
    std::filesystem::remove_all(log);
    two_files();
    boot("2\n");
    const run_result refused = program("second\n");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "") << "no resume";
    EXPECT_THAT(refused.err, HasSubstr(": position 1-2.2: the log has another record there"));
}

TEST_F(ResumeTest, AVersionOneStatusCountsOnAnyBootWhenItsTimeFits)
{
    two_files();
    ASSERT_EQ(program("first\n", 4).status, 9);
    const auto old = [&](const std::string &time) {
        // Its lines with checksums of their own, worked out by the library's older form.
        const std::string head =
            "fwutil status 1\nlog " + std::filesystem::canonical(log).string() + "\n";
        std::string bytes = head;
        for (const char number : {'0', '1'}) {
            std::string line =
                std::string(1, number) + " position 0001-00000001.0000000004 time " + time + " UTC";
            uint32_t crc = ~0U; // bit by bit
            for (const char c : head + line) {
                crc ^= static_cast<unsigned char>(c);
                for (int bit = 0; bit < 8; bit++)
                    crc = (crc & 1) != 0 ? crc >> 1 ^ 0x82F63B78 : crc >> 1;
            }
            char text[16];
            (void)snprintf(text, sizeof text, " crc %08x\n", ~crc);
            bytes += line + text;
        }
        write_file(status, bytes);
    };
    boot("2\n");
    old("2023-11-14 22:13:21.000000");
    run_result result = program("second\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err,
                HasSubstr(": position 1-1.4: the log has another record there: this one was "
                          "committed 2023-11-14 22:13:21.000000 UTC, that one committed "
                          "2023-11-14 22:13:22.000000 UTC; to go on with this log, give 1-1.0 as "
                          "start position (-start 1-1.0), its oldest record; or restore"));
    old("2023-11-14 22:13:22.000000");
    result = program("second\n");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(essence(result.out), "keep [] record 3 record 4 record 5 ");
    EXPECT_EQ(read().version, 2);
}

TEST_F(ResumeTest, WhenBothLinesAreLostTheForcedPositionCounts)
{
    two_files();
    ASSERT_EQ(program("first\n", 5, {"1", "1", "1", "1"}).status, 9);
    std::string bytes = read_file(status);
    const size_t lines = bytes.find("\n", 16) + 1;
    bytes[lines + 20] ^= 1;
    bytes[lines + FWU_STATUS_LINE_SIZE + 20] ^= 1;
    write_file(status, bytes);
    const run_result again = program("second\n");
    EXPECT_EQ(essence(again.out), "resume [first ] record 5 ");
    EXPECT_THAT(again.err, HasSubstr(": its last position is damaged: going on behind 1-2.2, "));
}

TEST_F(ResumeTest, KilledAtAnyMomentOfASyncItsFileIsWholeAndLosesNothing)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    config.log_file_size = 20000;
    open_writer();
    for (int32_t n = 0; n < 4000; n += 4)
        add({insert(n), update(n), erase(n), insert(n)});
    close_writer();
    run_setup setup;
    // A sanitizer that is killed while it looks for leaks at the end says so.
    setup.env = {{"HOOK_PROGRAM_BOOT", dir.file("boot_id")}, {"ASAN_OPTIONS", "detect_leaks=0"}};
    int last = 0;
    for (int round = 0; round < 40 && last < 4000; round++) {
        std::filesystem::remove(dir.file("out")); // one killed at once does not make it anew
        // Each record is forced, with a text whose length changes from run to run.
        const pid_t pid = start_program({HOOK_PROGRAMS "boot", cfg, status, "1", "1", "1", "1",
                                         std::string(random() % 3000, 'm')},
                                        setup, dir.file("out"), dir.file("err"));
        if (random() % 4 != 0) {
            ASSERT_TRUE(poll_until([&] {
                return read_file(dir.file("out")).find("record") != std::string::npos;
            })) << read_file(dir.file("err"));
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        kill(pid, SIGKILL);
        const int ended = wait_program(pid);
        ASSERT_TRUE(ended == 128 + SIGKILL || ended == 0) << read_file(dir.file("err"));
        EXPECT_EQ(read_file(dir.file("err")), "");
        std::istringstream in(read_file(dir.file("out")));
        bool first = true;
        for (std::string line; std::getline(in, line);) {
            if (line.substr(0, 7) != "record ")
                continue;
            const int number = std::stoi(line.substr(7));
            ASSERT_TRUE(number == last + 1 || (first && number == last))
                << number << " behind " << last;
            first = false;
            last = number;
        }
        if (!std::filesystem::exists(status))
            continue; // killed before there was one
        const fwu_status_text text = read();
        EXPECT_FALSE(text.torn);
        EXPECT_LE(text.on_disk.position, text.synced.place.position);
        EXPECT_LE(text.synced.place.position, text.live.position);
    }
    EXPECT_GT(last, 0);
}
