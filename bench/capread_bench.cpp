// Capture records per second that capread prints as data from a message file and from a text
// file, and its peak memory, beside a bare loop that reads the same file.  All run in turn and
// write to /dev/null; the ratios of the same round's times are what to quote.
//
// usage: capread_bench [RECORDS [ROUNDS]]
#include "bench/log_bench.h"
#include "msgfile/tmf.h"

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
    std::vector<const char *> words; // of capread's command line; none: the bare loop
    const char *file;
    std::vector<double> seconds = {};
    std::vector<double> ratios = {}; // of the loop's time on this file to this one's
    long peak_kib = 0;
};

static std::string program(const char *name)
{
    return fs::read_symlink("/proc/self/exe").parent_path() / name;
}

[[noreturn]] static void execute(const std::string &path, std::vector<const char *> words)
{
    words.insert(words.begin(), path.c_str());
    std::vector<char *> argv;
    for (const char *word : words)
        argv.push_back(const_cast<char *>(word));
    argv.push_back(nullptr);
    execv(path.c_str(), argv.data());
    _exit(127);
}

// Reads all of the file: the records of a message file, one of which a call gives, or pieces.
[[noreturn]] static void run_loop(const char *file)
{
    std::string buffer(65536, '\0');
    const std::string name = file;
    if (name == "m") {
        tmf_handle *h = tmf_fopen(file, TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
        while (tmf_fread(h, buffer.data(), TMF_MAX_DATA, 0) > 0) {
        }
        _exit(tmf_fclose(h) == 0 ? 0 : 1);
    }
    const int fd = open(file, O_RDONLY);
    while (read(fd, buffer.data(), buffer.size()) > 0) {
    }
    _exit(0);
}

static bench_measure run(const contender &of, const std::string &directory)
{
    return bench_run([&] {
        const int out = open("/dev/null", O_WRONLY);
        if (out < 0 || dup2(out, STDOUT_FILENO) < 0 || dup2(out, STDERR_FILENO) < 0 ||
            chdir(directory.c_str()) != 0)
            _exit(1);
        if (of.words.empty())
            run_loop(of.file);
        execute(program("capread"), of.words);
    });
}

static void prepare(const std::string &directory, int records)
{
    fs::create_directory(directory);
    bench_run([&] {
        bench_make_log(directory, records);
        _exit(0);
    });
    bench_run([&] {
        if (chdir(directory.c_str()) != 0 || freopen("/dev/null", "w", stdout) == nullptr)
            _exit(1);
        execute(program("Kestro"), {"-synconly", "-exthdr", "-yyyy", "-recnum", "m", "-exthdr",
                                    "-yyyy", "-recnum", "-ascii", "t"});
    });
    bench_run([&] {
        if (chdir(directory.c_str()) != 0 || freopen("layouts", "w", stdout) == nullptr)
            _exit(1);
        execute(program("fwlog"), {"layout", "--json"});
    });
}

static void bench(std::vector<contender> contenders, const std::string &directory, int records,
                  int rounds)
{
    for (int round = 0; round <= rounds; round++) {
        double loop = 0; // stands in front of those that read the same file
        for (contender &of : contenders) {
            const bench_measure measure = run(of, directory);
            if (of.words.empty())
                loop = measure.seconds;
            if (round == 0)
                continue; // the files come into the page cache
            of.seconds.push_back(measure.seconds);
            of.ratios.push_back(loop / measure.seconds);
            of.peak_kib = std::max(of.peak_kib, measure.peak_kib);
        }
    }
    for (const contender &of : contenders)
        printf("%-22s %9d records: %9.0f records/s, %.2f of the bare loop, peak %ld KiB\n", of.name,
               records, records / bench_median(of.seconds), bench_median(of.ratios), of.peak_kib);
    fflush(stdout);
}

int main(int argc, char **argv)
{
    const int records = argc > 1 ? atoi(argv[1]) : 500000;
    const int rounds = argc > 2 ? atoi(argv[2]) : 5;
    if (records < 10 || rounds < 1) {
        fprintf(stderr, "usage: capread_bench [RECORDS [ROUNDS]]\n");
        return 2;
    }
    const auto words = [](std::vector<const char *> more) {
        more.insert(more.begin(), {"-exthdr", "-yyyy", "-recnum"});
        return more;
    };
    const std::vector<contender> contenders = {
        {"message: bare loop", {}, "m"},
        {"message: JSON", words({"--layout", "layouts", "m"}), "m"},
        {"message: CSV", words({"--layout", "layouts", "--csv", "m"}), "m"},
        {"message: JSON, by log", words({"-cfg", "fwutil.cfg", "m"}), "m"},
        {"text: bare loop", {}, "t"},
        {"text: JSON", words({"--layout", "layouts", "-ascii", "t"}), "t"},
        {"text: CSV", words({"--layout", "layouts", "-ascii", "--csv", "t"}), "t"},
    };
    std::string directory = fs::temp_directory_path() / "capread_bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr)
        bench_fail("cannot make a temporary directory");
    // A tenth first: peak memory must not depend on the file's length.
    for (const int n : {records / 10, records}) {
        const std::string part = directory + "/" + std::to_string(n);
        prepare(part, n);
        bench(contenders, part, n, rounds);
    }
    fs::remove_all(directory);
    return 0;
}
