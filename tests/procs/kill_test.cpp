// Kestro killed at random moments while it follows a growing log, and started
// again: nothing is lost, and at most the record in hand is written twice.  The same
// while old log files are removed.
#include "msgfile/tmf.h"
#include "tests/procs/growing_log.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <sys/wait.h>

static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";
static const std::string fwlog = KESTRO_BUILD_DIR "/bin/fwlog";

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

// A growing log, and Kestro killed at random moments while it follows it.
class KillTest : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64K"); // many small files, so that kills meet crossings too
        ASSERT_EQ(pipe2(stop, O_NONBLOCK | O_CLOEXEC), 0);
        writer = start_writer(dir, stop);
        ASSERT_TRUE(poll_until([&] { return access(dir.file("log").c_str(), F_OK) == 0; }));
        options.directory = dir.path();
    }

    // Starts a capture and kills it: half of the times at any moment of its start, the
    // others when it has captured something.
    void run_and_kill(int round, const std::vector<std::string> &argv,
                      const std::function<bool()> &begun)
    {
        const pid_t pid = start_program(argv, options, "", dir.file("err"));
        if (round % 2 == 0) {
            ASSERT_TRUE(poll_until(begun)) << read_file(dir.file("err"));
        }
        usleep(static_cast<useconds_t>(random() % 20000));
        kill(pid, SIGKILL);
        ASSERT_EQ(wait_program(pid), 128 + SIGKILL) << read_file(dir.file("err"));
    }

    // Stops the writer and captures the rest of the log.
    void finish(const std::vector<std::string> &argv)
    {
        close(stop[1]);
        ASSERT_EQ(wait_program(writer), 0);
        close(stop[0]);
        const run_result last = run_program(argv, options);
        ASSERT_EQ(last.status, 0) << last.err;
    }

    // Every record of the log is in the capture files, once, but for the ones in hand
    // at the kills.
    void expect_all_captured() const
    {
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

    tempdir dir;
    run_setup options;
    std::vector<std::string> files;
    unsigned seed = std::random_device{}();
    std::mt19937 random{seed};

  private:
    int stop[2] = {-1, -1};
    pid_t writer = -1;
};

TEST_F(KillTest, NothingIsLostAndOnlyTheRecordInHandIsRepeated)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (int round = 0; round < ROUNDS; round++) {
        files.push_back(dir.file("cap" + std::to_string(round) + ".txt"));
        ASSERT_NO_FATAL_FAILURE(
            run_and_kill(round, {kestro, "-ascii", "-recnum", files.back()},
                         [&] { return !record_numbers(files.back()).empty(); }));
    }
    files.push_back(dir.file("last.txt"));
    ASSERT_NO_FATAL_FAILURE(finish({kestro, "-synconly", "-ascii", "-recnum", files.back()}));

    expect_all_captured();
}

TEST_F(KillTest, OldLogFilesAreRemovedBesideTheWriterAndItsReader)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    options.env = {{"KESTRO_SYNC", "interval 5"}}; // prune goes by what is on disk
    const std::vector<std::string> prune = {fwlog, "prune",    "--keep",
                                            "1",   "--status", "fwutil.status"};
    int pruned = 0;
    for (int round = 0; round < ROUNDS / 5; round++) {
        files.push_back(dir.file("cap" + std::to_string(round) + ".txt"));
        const pid_t pid = start_program({kestro, "-ascii", "-recnum", files.back()}, options, "",
                                        dir.file("err"));
        ASSERT_TRUE(poll_until([&] { return !record_numbers(files.back()).empty(); }))
            << read_file(dir.file("err"));
        for (int i = 0; i < 5; i++) {
            const run_result verify = run_program({fwlog, "verify"}, options);
            EXPECT_EQ(verify.status, 0) << verify.out << verify.err;
            // It is refused while the reader is inside an older file.
            pruned += run_program(prune, options).status == 0 ? 1 : 0;
        }
        kill(pid, SIGKILL);
        ASSERT_EQ(wait_program(pid), 128 + SIGKILL) << read_file(dir.file("err"));
    }
    files.push_back(dir.file("last.txt"));
    ASSERT_NO_FATAL_FAILURE(finish({kestro, "-synconly", "-ascii", "-recnum", files.back()}));
    EXPECT_EQ(run_program(prune, options).status, 0);
    EXPECT_GT(pruned, 0);
    EXPECT_FALSE(std::filesystem::exists(dir.file("log/fw0001-00000001.log")));
    expect_all_captured();
}

// Appends until it is killed.
static pid_t start_endless_writer(const tempdir &dir)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    fwu_config config;
    fwu_writer *writer = nullptr;
    if (fwu_config_read(config, dir.file("fwutil.cfg").c_str()) != 0 ||
        fwu_writer_open(&writer, config) != 0)
        _exit(1);
    for (auto next = static_cast<int>(fwu_writer_last_lsn(writer)) + 1;; next += 5)
        if (!append_transaction(writer, next, 5))
            _exit(1);
}

// The writer removes what its reader has behind it, and either of them is killed at any moment.
TEST(RetentionKillTest, ARegisteredReaderGetsEveryRecordWhoeverIsKilled)
{
    const tempdir dir;
    run_setup options;
    options.directory = dir.path();
    options.env = {{"KESTRO_SYNC", "interval 5"}, {"KESTRO_TEXT", "append"}};
    unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    write_file(dir.file("fwutil.cfg"),
               "log-directory log\nlog-file-size 16K\nsync none\nlog-keep acknowledged\n");
    std::filesystem::create_directory(dir.file("log"));
    ASSERT_EQ(run_program({fwlog, "readers", "--add", "fwutil.status"}, options).status, 0);
    const std::vector<std::string> capture = {kestro, "-ascii", "-recnum", "cap.txt"};
    pid_t writer = start_endless_writer(dir);
    pid_t reader = -1;
    const std::string captured = dir.file("cap.txt");
    for (int round = 0; round < ROUNDS / 2; round++) {
        if (reader < 0)
            reader = start_program(capture, options, "", dir.file("err"));
        std::error_code none_yet;
        const auto before = std::filesystem::file_size(captured, none_yet);
        ASSERT_TRUE(poll_until([&] {
            std::error_code code;
            const auto size = std::filesystem::file_size(captured, code);
            return !code && (none_yet || size > before);
        })) << read_file(dir.file("err"));
        usleep(static_cast<useconds_t>(random() % 20000));
        pid_t &killed = round % 2 == 0 ? writer : reader;
        kill(killed, SIGKILL);
        ASSERT_EQ(wait_program(killed), 128 + SIGKILL);
        if (round % 2 == 0)
            writer = start_endless_writer(dir);
        else
            reader = -1;
    }
    // Until something was removed: the reader has to come along.
    if (reader < 0)
        reader = start_program(capture, options, "", dir.file("err"));
    EXPECT_TRUE(
        poll_until([&] { return !std::filesystem::exists(dir.file("log/fw0001-00000001.log")); }));
    for (const pid_t pid : {writer, reader}) {
        kill(pid, SIGKILL);
        ASSERT_EQ(wait_program(pid), 128 + SIGKILL);
    }
    const run_result last =
        run_program({kestro, "-synconly", "-ascii", "-recnum", "cap.txt"}, options);
    ASSERT_EQ(last.status, 0) << last.err;
    EXPECT_EQ(run_program({fwlog, "verify"}, options).status, 0);
    int newest = 0;
    int repeated = 0;
    for (const int number : record_numbers(captured)) {
        if (number == newest) { // in hand at a kill
            repeated++;
            continue;
        }
        ASSERT_EQ(number, newest + 1);
        newest = number;
    }
    EXPECT_LE(repeated, ROUNDS);
    const std::string shown =
        run_program({kestro, "-stat", "fwutil.status", "-showstat"}, options).out;
    EXPECT_NE(shown.find("Behind: 0 records, 0 bytes\n"), std::string::npos) << shown;
}

// Record numbers in a message file with -recnum; all of them stay in it.
static std::vector<int> message_numbers(const std::string &path)
{
    std::vector<int> numbers;
    tmf_handle *reader =
        tmf_fopen(path.c_str(), TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
    std::string buffer(TMF_MAX_DATA, '\0');
    int n = 0;
    while ((n = tmf_fread(reader, buffer.data(), TMF_MAX_DATA, 0)) > 0)
        numbers.push_back(atoi(buffer.substr(62, 15).c_str()));
    EXPECT_EQ(n, 0);
    EXPECT_EQ(tmf_fclose(reader), 0);
    return numbers;
}

TEST_F(KillTest, OneMessageFileOutlivesAllKills)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    files = {dir.file("cap.msg")};
    const std::vector<std::string> argv = {kestro, "-recnum", files[0]};
    for (int round = 0; round < ROUNDS; round++) {
        // Its size only: reading a file that grows all the while takes ever longer.
        const auto size = [&] {
            std::error_code none_yet;
            const auto bytes = std::filesystem::file_size(files[0], none_yet);
            return none_yet ? 0 : bytes;
        };
        const auto before = size();
        ASSERT_NO_FATAL_FAILURE(run_and_kill(round, argv, [&] { return size() > before + 5000; }));
    }
    ASSERT_NO_FATAL_FAILURE(finish({kestro, "-synconly", "-recnum", files[0]}));

    int newest = 0;
    int repeated = 0;
    for (const int number : message_numbers(files[0])) {
        if (number == newest) {
            repeated++;
            continue;
        }
        ASSERT_EQ(number, newest + 1);
        newest = number;
    }
    EXPECT_EQ(std::to_string(newest), read_file(dir.file("written")));
    EXPECT_LE(repeated, ROUNDS) << "at most the record in hand at each kill";
}
