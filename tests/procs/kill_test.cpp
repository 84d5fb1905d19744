// Kestro killed at random moments while it follows a growing log, and started
// again: nothing is lost, and at most the record in hand is written twice.
#include "tests/procs/growing_log.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/wait.h>

static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";

constexpr int ROUNDS = 50;

// Appends transactions of one to nine records until told to stop by the end of
// its pipe; then writes how many records there are to the file.
static pid_t start_writer(const tempdir &dir, const int (&stop)[2])
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    close(stop[1]);
    fwu_config config;
    fwu_writer *writer = nullptr;
    if (fwu_config_read(config, dir.file("fwutil.cfg").c_str()) != 0 ||
        fwu_writer_open(&writer, config) != 0)
        _exit(1);
    std::mt19937 random(7);
    int next = 1;
    char byte = 0;
    for (;;) {
        const int n = 1 + static_cast<int>(random() % 9);
        if (!append_transaction(writer, next, n))
            _exit(1);
        next += n;
        if (read(stop[0], &byte, 1) == 0)
            break;
        usleep(200); // a pace that Kestro follows, so that it waits as well as reads
    }
    const int rc = fwu_writer_close(writer);
    write_file(dir.file("written"), std::to_string(next - 1));
    _exit(rc == 0 ? 0 : 1);
}

// Record numbers of the whole lines of a capture file with -recnum.
static std::vector<int> record_numbers(const std::string &path)
{
    std::vector<int> numbers;
    const std::string text = read_file(path);
    size_t at = 0;
    for (size_t end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        numbers.push_back(atoi(text.substr(at + 62, 15).c_str()));
    return numbers;
}

TEST(KillTest, NothingIsLostAndOnlyTheRecordInHandIsRepeated)
{
    const tempdir dir;
    write_config(dir, "64K"); // many small files, so that kills meet crossings too
    int stop[2];
    ASSERT_EQ(pipe2(stop, O_NONBLOCK | O_CLOEXEC), 0);
    const pid_t writer = start_writer(dir, stop);
    ASSERT_TRUE(poll_until([&] { return access(dir.file("log").c_str(), F_OK) == 0; }));

    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    run_setup options;
    options.directory = dir.path();

    std::vector<std::string> files;
    for (int round = 0; round < ROUNDS; round++) {
        files.push_back(dir.file("cap" + std::to_string(round) + ".txt"));
        const std::vector<std::string> argv = {kestro, "-ascii", "-recnum", files.back()};
        const pid_t pid = start_program(argv, options, "", dir.file("err"));
        // Half of the kills come at any moment of the start, the others when
        // records are being written.
        if (round % 2 == 0) {
            ASSERT_TRUE(poll_until([&] { return !record_numbers(files.back()).empty(); }))
                << read_file(dir.file("err"));
        }
        usleep(static_cast<useconds_t>(random() % 20000));
        kill(pid, SIGKILL);
        ASSERT_EQ(wait_program(pid), 128 + SIGKILL) << read_file(dir.file("err"));
    }

    close(stop[1]);
    ASSERT_EQ(wait_program(writer), 0);
    close(stop[0]);
    files.push_back(dir.file("last.txt"));
    const run_result last =
        run_program({kestro, "-synconly", "-ascii", "-recnum", files.back()}, options);
    ASSERT_EQ(last.status, 0) << last.err;

    int newest = 0;
    for (const std::string &file : files) {
        bool first = true;
        for (const int number : record_numbers(file)) {
            if (first && number == newest)
                continue; // the record in hand at the kill, written again
            first = false;
            ASSERT_EQ(number, newest + 1) << file;
            newest = number;
        }
    }
    EXPECT_EQ(std::to_string(newest), read_file(dir.file("written")));
}
