// Changes per second through Kestro for a backlog of 1 to 1,000 datasets into 1 to 1,000 text
// capture files, each of which takes the datasets that its pattern names, beside one file that
// takes all.  All run in turn; the ratio of the medians is what to quote.
//
// usage: files_bench [CHANGES [ROUNDS]]
#include "bench/log_bench.h"
#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

static constexpr int AMOUNTS[] = {1, 10, 100, 1000};

static std::string digits(int number, int width)
{
    char text[16];
    snprintf(text, sizeof text, "%0*d", width, number);
    return text;
}

// A log of inserts into the datasets SALES:S-000, SALES:S-001, ... in turn, five to a transaction.
static void make_log(const std::string &directory, int changes, int datasets)
{
    fwu_writer *const writer = bench_open_log(directory);
    fwu_session session;
    fwu_layout layout;
    layout.dbname = "SALES";
    layout.items = {{"TEXT", 'X', 40, 1, 0}};
    const std::string image(40, 'x');
    int rc = 0;
    for (int n = 0; n < changes;) {
        rc |= fwu_writer_begin(writer, &session);
        for (int i = 0; i < 5 && n < changes; i++, n++) {
            layout.dsetname = "S-" + digits(n % datasets, 3);
            rc |= fwu_writer_record(writer, FWU_OP_INSERT, layout, 1763676518 + n / 100, 40,
                                    nullptr, image.data());
        }
        fwu_commit commit;
        commit.lsn = static_cast<uint64_t>(n);
        rc |= fwu_writer_commit(writer, commit);
    }
    if (rc != 0 || fwu_writer_close(writer) != 0)
        bench_fail("cannot write the log");
}

// Kestro's command line: files by the last digits of the datasets' numbers; 0: one that takes all.
static std::vector<std::string> command_line(int files)
{
    std::vector<std::string> words = {"Kestro", "-synconly", "-ascii"};
    const int width = files == 1000 ? 3 : files == 100 ? 2 : files == 10 ? 1 : 0;
    for (int i = 0; i < files; i++) {
        words.emplace_back("-dset");
        words.push_back("SALES:S-@" + (width == 0 ? "" : digits(i, width)));
        words.push_back("capture" + std::to_string(i));
        if (i + 1 < files)
            words.emplace_back("-ascii"); // options hold for one file
    }
    if (files == 0)
        words.emplace_back("capture");
    return words;
}

static bench_measure run_kestro(const std::string &kestro, const std::string &directory, int files)
{
    for (const fs::directory_entry &entry : fs::directory_iterator(directory))
        if (entry.path().filename() != "log" && entry.path().filename() != "fwutil.cfg")
            fs::remove(entry.path());
    const std::vector<std::string> words = command_line(files);
    return bench_run([&] {
        rlimit limit = {};
        if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
            limit.rlim_cur = limit.rlim_max;
            (void)setrlimit(RLIMIT_NOFILE, &limit); // too few are an error of Kestro's
        }
        std::vector<char *> argv;
        argv.reserve(words.size() + 1);
        for (const std::string &word : words)
            argv.push_back(const_cast<char *>(word.c_str())); // execv changes none
        argv.push_back(nullptr);
        if (chdir(directory.c_str()) != 0 || freopen("/dev/null", "w", stdout) == nullptr)
            _exit(1);
        execv(kestro.c_str(), argv.data());
        _exit(127);
    });
}

static void bench(const std::string &kestro, const std::string &directory, int changes, int rounds,
                  int datasets)
{
    std::vector<double> alone;
    std::vector<double> times[std::size(AMOUNTS)];
    long peaks[std::size(AMOUNTS)] = {};
    for (int round = 0; round < rounds; round++) {
        alone.push_back(run_kestro(kestro, directory, 0).seconds);
        for (size_t i = 0; i < std::size(AMOUNTS); i++) {
            const bench_measure run = run_kestro(kestro, directory, AMOUNTS[i]);
            times[i].push_back(run.seconds);
            peaks[i] = std::max(peaks[i], run.peak_kib);
        }
    }
    printf("%4d datasets, one file without a pattern: %9.0f changes/s\n", datasets,
           changes / bench_median(alone));
    for (size_t i = 0; i < std::size(AMOUNTS); i++)
        printf(
            "%4d datasets, %4d files with a pattern:  %9.0f changes/s, %.2f of one, peak %ld KiB\n",
            datasets, AMOUNTS[i], changes / bench_median(times[i]),
            bench_median(alone) / bench_median(times[i]), peaks[i]);
    fflush(stdout);
}

int main(int argc, char **argv)
{
    const int changes = argc > 1 ? atoi(argv[1]) : 500000;
    const int rounds = argc > 2 ? atoi(argv[2]) : 5;
    if (changes < 1000 || rounds < 1) {
        fprintf(stderr, "usage: files_bench [CHANGES [ROUNDS]]\n");
        return 2;
    }
    const std::string kestro = fs::read_symlink("/proc/self/exe").parent_path() / "Kestro";
    std::string directory = fs::temp_directory_path() / "files_bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr)
        bench_fail("cannot make a temporary directory");
    for (const int datasets : AMOUNTS) {
        const std::string part = directory + "/" + std::to_string(datasets);
        fs::create_directory(part);
        bench_run([&] {
            make_log(part, changes, datasets);
            _exit(0);
        });
        bench(kestro, part, changes, rounds, datasets);
    }
    fs::remove_all(directory);
    return 0;
}
