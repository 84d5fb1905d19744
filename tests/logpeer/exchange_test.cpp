// One forward log on machines of different kinds in turn: what one writes the other reads, goes on
// with, and puts right.
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <sstream>

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::HasSubstr;

struct machine {
    const char *name;
    std::vector<std::string> command; // that runs the worker; empty: it was not built
    const char *missing;              // what it takes
};

static machine native()
{
    return {"Native", {LOGPEER_WORKER}, ""};
}

static machine words_of_32()
{
    const std::string worker = LOGPEER_WORKER_32;
    return {"Words32", worker.empty() ? std::vector<std::string>{} : std::vector{worker},
            "no 32-bit compiler: Debian package g++-12-multilib"};
}

static machine big_endian()
{
    const std::string worker = LOGPEER_WORKER_S390X;
    return {"S390x",
            worker.empty() ? std::vector<std::string>{}
                           : std::vector<std::string>{LOGPEER_QEMU_S390X, worker},
            "no s390x compiler or emulator: Debian packages g++-s390x-linux-gnu and qemu-user"};
}

struct pair_of {
    machine a;
    machine b;
};

static std::string name_of(const pair_of &pair)
{
    return std::string(pair.a.name) + "And" + pair.b.name;
}

void PrintTo(const pair_of &pair, std::ostream *out)
{
    *out << name_of(pair);
}

class LogExchange : public testing::TestWithParam<pair_of> {
  protected:
    void SetUp() override
    {
        for (const machine &m : {a, b}) {
            if (m.command.empty())
                GTEST_SKIP() << m.missing;
        }
        configure("little");
    }
    // Begins anew, without a log and without positions.
    void configure(const std::string &order)
    {
        for (const auto &entry : fs::directory_iterator(dir.path()))
            fs::remove_all(entry.path());
        write_file(dir.file("cfg"), "log-directory log\n"
                                    "log-file-size 4K\n"
                                    "sync none\n"
                                    "byte-order " +
                                        order +
                                        "\n"
                                        "database SALES\n"
                                        "dataset ORDERS\n"
                                        "item NUMBER J 8\n"
                                        "item TEXT X 12\n"
                                        "item PRICES P 5 x3 scale=2\n"
                                        "dataset PARTS\n"
                                        "item ID J 8\n"
                                        "item NAME U 9\n");
    }
    run_result run(const machine &m, std::vector<std::string> words)
    {
        words.insert(words.begin(), m.command.begin(), m.command.end());
        run_setup setup;
        setup.directory = dir.path();
        return run_program(words, setup);
    }
    void write(const machine &m, int first, int count)
    {
        const run_result result =
            run(m, {"write", "cfg", std::to_string(first), std::to_string(count)});
        ASSERT_EQ(result.status, 0) << m.name << result.err;
        EXPECT_EQ(result.out, behind(first - 1));
    }
    // The last commit that a writer finds.
    static std::string behind(int n)
    {
        return "behind " + std::to_string(static_cast<uint64_t>(n) << 33) + "\n";
    }
    // The next records behind a position of this name, all for 0.
    std::string read(const machine &m, const std::string &status, int count = 0)
    {
        const run_result result = run(m, {"read", "cfg", status, std::to_string(count)});
        EXPECT_EQ(result.status, 0) << m.name << result.err;
        return result.out;
    }
    std::string last_file() const
    {
        std::string last;
        for (const auto &entry : fs::directory_iterator(dir.file("log"))) {
            const std::string name = entry.path().filename();
            if (name.starts_with("fw0001-"))
                last = std::max(last, entry.path().string());
        }
        return last;
    }

    const machine a = GetParam().a;
    const machine b = GetParam().b;
    tempdir dir;
};

static void shorten(const std::string &file, size_t by)
{
    fs::resize_file(file, fs::file_size(file) - by);
}

static long lines(const std::string &text)
{
    return std::count(text.begin(), text.end(), '\n');
}

// Printed records less the first word of each, its position.
static std::string without_places(const std::string &records)
{
    std::istringstream in(records);
    std::string rest;
    for (std::string place, record; in >> place && std::getline(in, record);)
        rest += record + "\n";
    return rest;
}

constexpr int PER_TRANSACTION = 6; // records, three of each dataset

TEST_P(LogExchange, EachReadsWhatTheOtherWrote)
{
    for (const char *order : {"little", "big"}) {
        configure(order);
        write(a, 1, 30);
        const std::string found = read(b, "of b");
        EXPECT_EQ(found, read(a, "of a")) << order;
        EXPECT_EQ(lines(found), 30 * PER_TRANSACTION) << order;
        // Number 1 times 102030405 (hexadecimal) in the configuration's byte order, a byte, and
        // the letter of its rest by 26, which is 9.
        const std::string number =
            std::string(order) == "little" ? "0504030201000000" : "0000000102030405";
        EXPECT_THAT(found, ContainsRegex("^1-1\\.[0-9]+ SALES\\.ORDERS time 1700000001 op 3 record "
                                         "1 before= after=" +
                                         number + "fe6a6a6a6a"))
            << order;
        EXPECT_THAT(found, HasSubstr(" NUMBER/J/8/1/0 TEXT/X/12/1/0 PRICES/P/5/3/2 pname=(none)"));
        EXPECT_THAT(found, HasSubstr(" pname=order entry user=ANNA login=(none) pid=4000000003 "));
        EXPECT_NE(last_file(), dir.file("log/fw0001-00000001.log")) << "several files";
        run_setup setup;
        setup.directory = dir.path();
        const run_result verified =
            run_program({KESTRO_BUILD_DIR "/bin/fwlog", "verify", "-cfg", "cfg"}, setup);
        EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
    }
}

TEST_P(LogExchange, WritersTakeTurns)
{
    write(a, 1, 4);
    write(b, 5, 9);
    write(a, 14, 2);
    const std::string found = read(b, "status");
    EXPECT_EQ(lines(found), 15 * PER_TRANSACTION);
    // The same transactions by one writer, in whichever files they stand.
    configure("little");
    ASSERT_NO_FATAL_FAILURE(write(a, 1, 15));
    EXPECT_EQ(without_places(read(b, "status")), without_places(found));
}

TEST_P(LogExchange, ReadersGoOnInEachOthersPlace)
{
    write(a, 1, 12);
    const std::string all = read(a, "whole");
    std::string parts = read(a, "status", 7);
    parts += read(b, "status", 20);
    parts += read(a, "status", 1);
    write(b, 13, 1);
    parts += read(b, "status");
    EXPECT_EQ(lines(parts), 13 * PER_TRANSACTION);
    EXPECT_EQ(parts.substr(0, all.size()), all);
    EXPECT_EQ(parts, read(a, "another"));
}

TEST_P(LogExchange, TornEndOfTheOthersLogIsCut)
{
    for (const size_t cut : {1U, 24U, 57U, 200U}) {
        SCOPED_TRACE("cut " + std::to_string(cut));
        configure("little");
        ASSERT_NO_FATAL_FAILURE(write(a, 1, 3));
        const run_result left = run(a, {"leave", "cfg", "4", "1"});
        ASSERT_EQ(left.status, 128 + SIGKILL) << left.err;
        EXPECT_EQ(left.out, behind(3));
        shorten(last_file(), cut);
        ASSERT_NO_FATAL_FAILURE(write(b, 4, 2));
        EXPECT_EQ(lines(read(a, "status")), 5 * PER_TRANSACTION);
        // What was acknowledged on one machine is not given up on the other.
        shorten(last_file(), 1);
        const run_result of_a = run(a, {"write", "cfg", "6", "1"});
        const run_result of_b = run(b, {"write", "cfg", "6", "1"});
        EXPECT_EQ(of_a.status, 1);
        EXPECT_EQ(of_b.status, 1);
        EXPECT_THAT(of_b.err, HasSubstr("acknowledged"));
        EXPECT_EQ(of_a.err, of_b.err);
    }
}

static std::string pair_name(const testing::TestParamInfo<pair_of> &pair)
{
    return name_of(pair.param);
}

INSTANTIATE_TEST_SUITE_P(
    Machines, LogExchange,
    testing::Values(pair_of{native(), native()}, pair_of{native(), words_of_32()},
                    pair_of{words_of_32(), native()}, pair_of{native(), big_endian()},
                    pair_of{big_endian(), native()}, pair_of{words_of_32(), big_endian()},
                    pair_of{big_endian(), words_of_32()}),
    pair_name);
