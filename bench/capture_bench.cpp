// Changes per second through Kestro for a backlog in the forward log into one
// capture file, text or message file, and its peak memory, beside a loop that does
// nothing but the file's own work for the same records: one write a line, or the
// five system calls of a message file's append.  The two run in turn; the ratio of
// the medians is what to quote.
//
// usage: capture_bench [CHANGES [ROUNDS]]
#include "bench/log_bench.h"
#include "bench/message_queue.h"
#include "msgfile/tmf.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

static bench_measure run_kestro(const std::string &kestro, const std::string &directory, bool text)
{
    fs::remove(directory + "/fwutil.status");
    fs::remove(directory + "/capture");
    return bench_run([&] {
        if (chdir(directory.c_str()) != 0 || freopen("/dev/null", "w", stdout) == nullptr)
            _exit(1);
        if (text)
            execl(kestro.c_str(), "Kestro", "-synconly", "-ascii", "capture", nullptr);
        execl(kestro.c_str(), "Kestro", "-synconly", "capture", nullptr);
        _exit(127);
    });
}

// The records of a capture file, lines with their ends.
static std::vector<std::string> records_of(const std::string &file, bool text)
{
    std::vector<std::string> records;
    if (text) {
        std::ifstream in(file, std::ios::binary);
        for (std::string line; std::getline(in, line);)
            records.push_back(line + '\n');
        return records;
    }
    tmf_handle *reader =
        tmf_fopen(file.c_str(), TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
    std::string buffer(TMF_MAX_DATA, '\0');
    for (int n = 0; (n = tmf_fread(reader, buffer.data(), TMF_MAX_DATA, 0)) > 0;)
        records.push_back(buffer.substr(0, static_cast<size_t>(n)));
    (void)tmf_fclose(reader); // nothing was changed
    return records;
}

static bool write_lines(const std::vector<std::string> &lines, const std::string &file)
{
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    for (const std::string &line : lines)
        if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
            return false;
    return close(fd) == 0;
}

static bool append_messages(const std::vector<std::string> &records, const std::string &file)
{
    void *queue = least_queue.open(file.c_str(), false);
    for (const std::string &record : records)
        least_queue.append(queue, record.data(), static_cast<int>(record.size()));
    least_queue.close(queue);
    return true;
}

// The bare loop: the same records, nothing else.  Only the writing counts; the child
// has read them before and tells how long it took.
static bench_measure run_loop(const std::string &captured, const std::string &file, bool text)
{
    fs::remove(file);
    int fds[2];
    if (pipe(fds) != 0)
        bench_fail("cannot make a pipe");
    bench_measure result = bench_run([&] {
        const std::vector<std::string> records = records_of(captured, text);
        const bench_clock::time_point begin = bench_clock::now();
        const bool done = text ? write_lines(records, file) : append_messages(records, file);
        const double seconds = bench_since(begin);
        _exit(done && write(fds[1], &seconds, sizeof seconds) == sizeof seconds ? 0 : 1);
    });
    if (read(fds[0], &result.seconds, sizeof result.seconds) != sizeof result.seconds)
        bench_fail("the loop did not tell its time");
    close(fds[0]);
    close(fds[1]);
    return result;
}

static void bench(const std::string &kestro, const std::string &directory, int changes, int rounds,
                  bool text)
{
    const std::string sample = directory + "/captured";
    run_kestro(kestro, directory, text);
    fs::rename(directory + "/capture", sample);
    bench_run(
        [&] { _exit(records_of(sample, text).size() == static_cast<size_t>(changes) ? 0 : 1); });

    std::vector<double> captures;
    std::vector<double> loops;
    std::vector<double> ratios; // of the two in the same round: the machine's speed changes
    long peak = 0;
    for (int round = 0; round < rounds; round++) {
        const bench_measure capture = run_kestro(kestro, directory, text);
        const bench_measure loop = run_loop(sample, directory + "/loop", text);
        captures.push_back(capture.seconds);
        loops.push_back(loop.seconds);
        ratios.push_back(loop.seconds / capture.seconds);
        peak = std::max(peak, capture.peak_kib);
    }
    printf("%-7s %9d changes, %5.1f bytes a record: Kestro %9.0f changes/s, loop %9.0f records/s, "
           "ratio %.2f, peak %ld KiB\n",
           text ? "text" : "message", changes, static_cast<double>(fs::file_size(sample)) / changes,
           changes / bench_median(captures), changes / bench_median(loops), bench_median(ratios),
           peak);
    fflush(stdout);
}

int main(int argc, char **argv)
{
    const int changes = argc > 1 ? atoi(argv[1]) : 500000;
    const int rounds = argc > 2 ? atoi(argv[2]) : 5;
    if (changes < 10 || rounds < 1) {
        fprintf(stderr, "usage: capture_bench [CHANGES [ROUNDS]]\n");
        return 2;
    }
    const std::string kestro = fs::read_symlink("/proc/self/exe").parent_path() / "Kestro";
    std::string directory = fs::temp_directory_path() / "capture_bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr)
        bench_fail("cannot make a temporary directory");
    // A tenth first: peak memory must not depend on the backlog.
    for (const int n : {changes / 10, changes}) {
        const std::string part = directory + "/" + std::to_string(n);
        fs::create_directory(part);
        bench_run([&] {
            bench_make_log(part, n);
            _exit(0);
        });
        for (const bool text : {true, false})
            bench(kestro, part, n, rounds, text);
    }
    fs::remove_all(directory);
    return 0;
}
