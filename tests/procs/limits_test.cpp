// The limits that a process may be given: descriptors, the size of a file, memory, a directory
// that it may not write to; and those of a message file's users.  What is met is told, and the
// next run, without the limit, has everything once.
#include "tests/msgfile/other_process.h"
#include "tests/procs/small_run.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::AnyOf;
using testing::HasSubstr;

class Limits : public small_run, public testing::Test {
  protected:
    void SetUp() override
    {
        if (run_program({"/usr/bin/env", "prlimit", "--version"}).status != 0)
            GTEST_SKIP() << "no prlimit";
        make_log();
    }

    // The numbers of the records in a message file, in order.
    std::vector<int32_t> captured() const
    {
        const std::string framed = run({"tmf", "read", "--raw", "out"}).out;
        const size_t length = framed.size() / RECORDS;
        std::vector<int32_t> numbers;
        for (size_t end = length; length > 24 && end <= framed.size(); end += length) {
            int32_t number;
            memcpy(&number, framed.data() + end - 24, sizeof number);
            numbers.push_back(number);
        }
        return numbers;
    }

    static std::vector<int32_t> all_numbers()
    {
        std::vector<int32_t> numbers;
        for (int32_t i = 1; i <= RECORDS; i++)
            numbers.push_back(i);
        return numbers;
    }

    // What the runs did before, then one without a limit: each record is there once.
    void expect_each_once() const
    {
        const run_result last = run(with(RUN, {"out"}));
        EXPECT_EQ(last.status, 0) << last.err;
        EXPECT_EQ(captured(), all_numbers());
    }
};

TEST_F(Limits, TooFewDescriptorsAreToldAndCostNothing)
{
    // What the tests were started with is not handed on: the programs would have fewer.
    ASSERT_EQ(close_range(3, ~0U, CLOSE_RANGE_CLOEXEC), 0);
    int refused = 0;
    int allowed = 4; // with less the programs are not loaded
    for (int status = 1; status != 0 && allowed < 40; allowed++) {
        const run_result result =
            run(with(RUN, {"out"}), {"prlimit", "--nofile=" + std::to_string(allowed)});
        status = result.status;
        if (status == 0)
            continue;
        refused++;
        EXPECT_EQ(status, 1) << allowed;
        EXPECT_THAT(result.err, HasSubstr("Too many open files\n")) << allowed;
        EXPECT_THAT(result.err, HasSubstr("Fwu_process() failed.\n")) << allowed;
    }
    EXPECT_GT(refused, 0);
    EXPECT_LT(allowed, 40);
    expect_each_once();
}

TEST_F(Limits, FilesThatMayNotGrowAreToldAndCostNothing)
{
    const struct {
        int bytes;
        const char *text;
    } rows[] = {
        {100, "fwutil: s: cannot write to the status file: no space left\n"},
        {4000, "CAPERR: Error writing data.\nError writing to capture file: out\n"},
        {4352, "CAPERR: Error writing data.\nError writing to capture file: out\n"},
        {4400, "CAPERR: EOF writing data.\nError writing to capture file: out\n"},
        {5000, "CAPERR: EOF writing data.\nError writing to capture file: out\n"},
    };
    for (const auto &row : rows) {
        const run_result result =
            run(with(RUN, {"out"}), {"prlimit", "--fsize=" + std::to_string(row.bytes)});
        EXPECT_EQ(result.status, 1) << row.bytes;
        EXPECT_THAT(result.err, HasSubstr(row.text)) << row.bytes;
    }
    expect_each_once();
}

// Text files are appended to: what a run without the limit adds is the rest.
TEST_F(Limits, TextFilesThatMayNotGrowEndWithAWholeRecord)
{
    here.env["KESTRO_TEXT"] = "append";
    for (const int bytes : {1200, 1400, 1600}) {
        const run_result result =
            run(with(RUN, {"-ascii", "out"}), {"prlimit", "--fsize=" + std::to_string(bytes)});
        EXPECT_EQ(result.status, 1) << bytes;
        EXPECT_THAT(result.err, HasSubstr("Error writing to capture file: out\n")) << bytes;
        const std::string text = read_file(dir.file("out"));
        EXPECT_EQ(text.back(), '\n') << bytes;
    }
    const run_result last = run(with(RUN, {"-ascii", "out"}));
    EXPECT_EQ(last.status, 0) << last.err;
    const std::string text = read_file(dir.file("out"));
    int lines = 0;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
        lines++;
        const std::string line = text.substr(at, text.find('\n', at) - at);
        EXPECT_THAT(line, HasSubstr(std::to_string(lines) + "abcdefghijklmnopqrst"));
    }
    EXPECT_EQ(lines, RECORDS);
}

#ifndef KESTRO_SANITIZED // sanitizers reserve more than there is
// From what the loader cannot work with to what is enough: never a crash, never half a result.
TEST_F(Limits, TooLittleMemoryEndsARunAndCostsNothing)
{
    int whole = 0;
    for (int mebibytes = 2; mebibytes <= 64 && whole < 3; mebibytes++) {
        const run_result result =
            run(with(RUN, {"out"}), {"prlimit", "--as=" + std::to_string(mebibytes * (1 << 20))});
        whole += result.status == 0;
        EXPECT_THAT(result.status, AnyOf(0, 1, 126, 127)) << mebibytes << result.err;
        if (result.status == 1) {
            EXPECT_NE(result.err, "") << mebibytes;
        }
    }
    EXPECT_EQ(whole, 3);
    expect_each_once();
}
#endif

TEST_F(Limits, DirectoriesThatMayNotBeWrittenToAreTold)
{
    const bool root = geteuid() == 0;
    const words nobody = {"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"};
    const words under = root ? nobody : words{};
    std::filesystem::create_directory(dir.file("ro"));
    ASSERT_EQ(chmod(dir.file("ro").c_str(), 0555), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
    if (run({"Kestro", "-version"}, under).status != 0)
        GTEST_SKIP() << "another user cannot reach the program";
    const struct {
        words command;
        std::string text;
    } rows[] = {
        {{"Kestro", "-synconly", "-cfg", "fwutil.cfg", "-stat", "ro/s", "out"},
         "fwutil: ro/s: cannot open the status file: Permission denied\n"},
        {with(RUN, {"ro/out"}), "CAPERR: Error opening file: Permission denied\n"
                                "Error opening message capture file: ro/out\n"},
        {with(RUN, {"-ascii", "ro/out"}), "CAPERR: Permission denied\n"
                                          "Error opening ASCII capture file: ro/out\n"},
        {with(RUN, {"-pidfile", "ro/pid", "out"}),
         "Error opening pidfile ro/pid: Permission denied\n"},
        {{"tmf", "write", "ro/m"}, "tmf: ro/m: Error opening file: Permission denied\n"},
        {{"fwlog", "csv", "-cfg", "fwutil.cfg", "--dir", "ro"},
         "fwlog: ro/TESTDB.COUNTER.csv: cannot create the file: Permission denied\n"},
    };
    for (const auto &row : rows) {
        const run_result result = run(row.command, under);
        EXPECT_EQ(result.status, 1) << row.text;
        EXPECT_THAT(result.err, HasSubstr(row.text));
        std::filesystem::remove(dir.file("s"));
        std::filesystem::remove(dir.file("out"));
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir.file("ro")));
    expect_each_once();
}

// A file whose slots are all taken by a process that lives.
TEST_F(Limits, NoMoreUsersThanAMessageFileHasSlotsFor)
{
    ASSERT_EQ(run({"tmf", "write", "out"}).status, 0);
    std::string file = read_file(dir.file("out"));
    const int16_t readers = 16;
    const int16_t writers = 1008;
    memcpy(file.data() + 68, &readers, sizeof readers);
    memcpy(file.data() + 70, &writers, sizeof writers);
    file.replace(126, 128, 128, '\xFF');
    write_file(dir.file("out"), file);
    other_process users({[this] {
        const int fd = open(dir.file("out").c_str(), O_RDWR | O_CLOEXEC);
        return lseek(fd, 256, SEEK_SET) == 256 ? lockf(fd, F_LOCK, 4096) : -1;
    }});
    ASSERT_EQ(users.run(), 0);
    const run_result reader = run({"tmf", "read", "--shared", "out"});
    EXPECT_EQ(reader.status, 1);
    EXPECT_EQ(reader.err, "tmf: out: Maximum number of readers exceeded.\n");
    const run_result writer = run({"tmf", "write", "out"});
    EXPECT_EQ(writer.status, 1);
    EXPECT_EQ(writer.err, "tmf: out: Maximum number of writers exceeded.\n");
    const run_result capture = run(with(RUN, {"out"}));
    EXPECT_EQ(capture.status, 1);
    EXPECT_EQ(capture.err, "CAPERR: Maximum number of writers exceeded.\n"
                           "Error opening message capture file: out\nFwu_process() failed.\n");
    users.kill(); // and all its slots are free
    expect_each_once();
}
