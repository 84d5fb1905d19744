// Changes per second through Kestro for a backlog in the forward log into one
// capture file, text or message file, and its peak memory, beside a loop that does
// nothing but the file's own work for the same records: one write a line, or the
// five system calls of a message file's append.  The two run in turn; the ratio of
// the medians is what to quote.
//
// usage: capture_bench [CHANGES [ROUNDS]]
#include "bench/message_queue.h"
#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"
#include "msgfile/tmf.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

// An order line as in examples/orders: seven items and a null map.
static fwu_layout order_lines()
{
    fwu_layout layout;
    layout.dbname = "SALES";
    layout.dsetname = "ORDER-LINES";
    layout.items = {{"ORDER-NO", 'I', 4, 1, 0}, {"LINE-NO", 'I', 2, 1, 0},
                    {"ITEM-NO", 'X', 8, 1, 0},  {"QTY", 'I', 2, 1, 0},
                    {"PRICE", 'P', 5, 1, 2},    {"DISC-PCT", 'E', 4, 1, 0},
                    {"AMOUNT", 'P', 6, 1, 2},   {"NULL-MAP", 'X', 7, 1, 0}};
    return layout;
}

static void make_image(char *image, int n)
{
    const int32_t order_no = 700000 + n / 4;
    const auto line_no = static_cast<int16_t>(n % 4 + 1);
    const auto qty = static_cast<int16_t>(n % 50);
    const float disc = static_cast<float>(n % 20) * 0.5F;
    char *at = image;
    const auto put = [&](const void *bytes, size_t size) {
        memcpy(at, bytes, size);
        at += size;
    };
    put(&order_no, 4);
    put(&line_no, 2);
    put("BR-00017", 8);
    put(&qty, 2);
    put("\x00\x00\x12\x34\x5C", 5);
    put(&disc, 4);
    put("\x00\x00\x00\x98\x76\x5D", 6);
    put(".......", 7);
}

[[noreturn]] static void fail(const char *what)
{
    fprintf(stderr, "capture_bench: %s\n", what);
    exit(1);
}

// A log of inserts and updates in turn, five to a transaction.
static void make_log(const std::string &directory, int changes)
{
    std::ofstream(directory + "/fwutil.cfg") << "log-directory log\n";
    fwu_config config;
    fwu_writer *writer = nullptr;
    if (fwu_config_read(config, (directory + "/fwutil.cfg").c_str()) != 0 ||
        fwu_writer_open(&writer, config) != 0)
        fail("cannot make the log");
    const fwu_layout layout = order_lines();
    const auto length = static_cast<int32_t>(fwu_layout_image_length(layout));
    fwu_session session;
    session.pname = "custserv";
    session.user = "SERVICEDESK";
    session.login = "service";
    session.pid = "24141";
    for (int n = 0; n < changes;) {
        int rc = fwu_writer_begin(writer, &session);
        for (int i = 0; i < 5 && n < changes; i++, n++) {
            char before[64];
            char after[64];
            make_image(before, n);
            make_image(after, n + 1);
            rc |= n % 2 == 0 ? fwu_writer_record(writer, FWU_OP_INSERT, layout,
                                                 1763676518 + n / 100, length, nullptr, after)
                             : fwu_writer_record(writer, FWU_OP_UPDATE, layout,
                                                 1763676518 + n / 100, length, before, after);
        }
        fwu_commit commit;
        commit.lsn = static_cast<uint64_t>(n);
        if (rc != 0 || fwu_writer_commit(writer, commit) != 0)
            fail("cannot write the log");
    }
    if (fwu_writer_close(writer) != 0)
        fail("cannot close the log");
}

struct measure {
    double seconds = 0;
    long peak_kib = 0;
};

using bench_clock = std::chrono::steady_clock;

static double since(bench_clock::time_point begin)
{
    return std::chrono::duration<double>(bench_clock::now() - begin).count();
}

// Runs body in a child process.  This process stays small, since a child's peak
// memory begins with what it was forked from.
template <typename F> static measure run_child(F body)
{
    fflush(stdout);
    const auto begin = bench_clock::now();
    const pid_t pid = fork();
    if (pid == 0)
        body();
    int status = 0;
    struct rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid || status != 0)
        fail("a run failed");
    return {since(begin), usage.ru_maxrss};
}

static measure run_kestro(const std::string &kestro, const std::string &directory, bool text)
{
    fs::remove(directory + "/fwutil.status");
    fs::remove(directory + "/capture");
    return run_child([&] {
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
static measure run_loop(const std::string &captured, const std::string &file, bool text)
{
    fs::remove(file);
    int fds[2];
    if (pipe(fds) != 0)
        fail("cannot make a pipe");
    measure result = run_child([&] {
        const std::vector<std::string> records = records_of(captured, text);
        const auto begin = bench_clock::now();
        const bool done = text ? write_lines(records, file) : append_messages(records, file);
        const double seconds = since(begin);
        _exit(done && write(fds[1], &seconds, sizeof seconds) == sizeof seconds ? 0 : 1);
    });
    if (read(fds[0], &result.seconds, sizeof result.seconds) != sizeof result.seconds)
        fail("the loop did not tell its time");
    close(fds[0]);
    close(fds[1]);
    return result;
}

static double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

static void bench(const std::string &kestro, const std::string &directory, int changes, int rounds,
                  bool text)
{
    const std::string sample = directory + "/captured";
    run_kestro(kestro, directory, text);
    fs::rename(directory + "/capture", sample);
    run_child(
        [&] { _exit(records_of(sample, text).size() == static_cast<size_t>(changes) ? 0 : 1); });

    std::vector<double> captures;
    std::vector<double> loops;
    std::vector<double> ratios; // of the two in the same round: the machine's speed changes
    long peak = 0;
    for (int round = 0; round < rounds; round++) {
        const measure capture = run_kestro(kestro, directory, text);
        const measure loop = run_loop(sample, directory + "/loop", text);
        captures.push_back(capture.seconds);
        loops.push_back(loop.seconds);
        ratios.push_back(loop.seconds / capture.seconds);
        peak = std::max(peak, capture.peak_kib);
    }
    printf("%-7s %9d changes, %5.1f bytes a record: Kestro %9.0f changes/s, loop %9.0f records/s, "
           "ratio %.2f, peak %ld KiB\n",
           text ? "text" : "message", changes, static_cast<double>(fs::file_size(sample)) / changes,
           changes / median(captures), changes / median(loops), median(ratios), peak);
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
        fail("cannot make a temporary directory");
    // A tenth first: peak memory must not depend on the backlog.
    for (const int n : {changes / 10, changes}) {
        const std::string part = directory + "/" + std::to_string(n);
        fs::create_directory(part);
        run_child([&] {
            make_log(part, n);
            _exit(0);
        });
        for (const bool text : {true, false})
            bench(kestro, part, n, rounds, text);
    }
    fs::remove_all(directory);
    return 0;
}
