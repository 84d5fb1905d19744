// Changes per second that fwlog writes as data from a forward log, and its peak memory,
// beside cat of the log's files and a bare walk through its entries.  All run in turn and
// write to /dev/null; the ratios of the same round's times are what to quote.
//
// usage: changes_bench [CHANGES [ROUNDS]]
#include "bench/log_bench.h"
#include "fwutil/fwu_log.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

struct contender {
    const char *name;
    std::vector<const char *> words; // of fwlog's command line; none: what follows
    void (*body)(const std::string &directory) = nullptr;
    std::vector<double> seconds = {};
    std::vector<double> ratios = {}; // of the walk's time to this one's
    long peak_kib = 0;
};

[[noreturn]] static void run_cat(const std::string &directory)
{
    const std::string command = "cat " + directory + "/log/*.log";
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
}

[[noreturn]] static void run_walk(const std::string &directory)
{
    _exit(fwu_log_walk(directory + "/log", [](const fwu_walk_item &) { return 0; }) == 0 ? 0 : 1);
}

static bench_measure run(const contender &of, const std::string &fwlog,
                         const std::string &directory)
{
    return bench_run([&] {
        const int out = open("/dev/null", O_WRONLY);
        if (out < 0 || dup2(out, STDOUT_FILENO) < 0 || chdir(directory.c_str()) != 0)
            _exit(1);
        if (of.body != nullptr)
            of.body(directory);
        std::vector<char *> argv = {const_cast<char *>("fwlog")};
        for (const char *word : of.words)
            argv.push_back(const_cast<char *>(word));
        argv.push_back(nullptr);
        execv(fwlog.c_str(), argv.data());
        _exit(127);
    });
}

static void bench(std::vector<contender> contenders, const std::string &directory, int changes,
                  int rounds)
{
    const std::string fwlog = fs::read_symlink("/proc/self/exe").parent_path() / "fwlog";
    for (int round = 0; round <= rounds; round++) {
        double walk = 0; // the first contender
        for (contender &of : contenders) {
            const bench_measure measure = run(of, fwlog, directory);
            if (&of == &contenders.front())
                walk = measure.seconds;
            if (round == 0)
                continue; // the log comes into the page cache
            of.seconds.push_back(measure.seconds);
            of.ratios.push_back(walk / measure.seconds);
            of.peak_kib = std::max(of.peak_kib, measure.peak_kib);
        }
    }
    for (const contender &of : contenders)
        printf("%-24s %9d changes: %9.0f changes/s, %.2f of the bare walk, peak %ld KiB\n", of.name,
               changes, changes / bench_median(of.seconds), bench_median(of.ratios), of.peak_kib);
    fflush(stdout);
}

int main(int argc, char **argv)
{
    const int changes = argc > 1 ? atoi(argv[1]) : 500000;
    const int rounds = argc > 2 ? atoi(argv[2]) : 5;
    if (changes < 10 || rounds < 1) {
        fprintf(stderr, "usage: changes_bench [CHANGES [ROUNDS]]\n");
        return 2;
    }
    const std::vector<contender> contenders = {
        {"bare walk", {}, run_walk},
        {"cat", {}, run_cat},
        {"dump --json", {"dump", "--json"}},
        {"dump", {"dump"}},
        {"csv", {"csv", "--dset", "order-lines"}},
        {"sql", {"sql", "--dialect", "postgresql", "--key", "SALES.ORDER-LINES=ORDER-NO,LINE-NO"}},
    };
    std::string directory = fs::temp_directory_path() / "changes_bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr)
        bench_fail("cannot make a temporary directory");
    // A tenth first: peak memory must not depend on the log's length.
    for (const int n : {changes / 10, changes}) {
        const std::string part = directory + "/" + std::to_string(n);
        fs::create_directory(part);
        bench_run([&] {
            bench_make_log(part, n);
            _exit(0);
        });
        bench(contenders, part, n, rounds);
    }
    fs::remove_all(directory);
    return 0;
}
