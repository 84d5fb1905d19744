// Changes per second that fwlog load takes from the recorded stream, repeated with later commits,
// with the parser that is made for streams and without it; programs of other builds take their
// turns when they are named.  Beside the time that passed, that of one processor at work is told,
// which other programs on the machine disturb less.
//
// usage: load_bench [COPIES [ROUNDS [FWLOG ...]]]
#include "bench/log_bench.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

struct contender {
    std::string name;
    std::string program;
    bool plain = false; // without the parser made for streams
    std::vector<double> seconds = {};
    std::vector<double> cpu_seconds = {};
    std::vector<double> ratios = {}; // of the first one's time at work to this one's
    long peak_kib = 0;
};

static std::string read_whole(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The stream with its positions, "lsn":"HI/LO", so much further on.
static std::string moved_on(const std::string &stream, uint64_t by)
{
    static const std::string word = "lsn\":\"";
    std::string moved;
    size_t taken = 0;
    for (size_t at = stream.find(word); at != std::string::npos; at = stream.find(word, taken)) {
        const char *const from = stream.data() + at + word.size();
        const char *const end = stream.data() + stream.size();
        uint64_t high = 0;
        uint64_t low = 0;
        const char *const slash = std::from_chars(from, end, high, 16).ptr;
        const char *const behind = std::from_chars(slash + 1, end, low, 16).ptr;
        const uint64_t lsn = (high << 32 | low) + by;
        char text[32];
        (void)snprintf(text, sizeof text, "%X/%X", static_cast<unsigned>(lsn >> 32),
                       static_cast<unsigned>(lsn));
        moved.append(stream, taken, at + word.size() - taken).append(text);
        taken = static_cast<size_t>(behind - stream.data());
    }
    return moved.append(stream, taken);
}

static long make_stream(const std::string &path, int copies)
{
    static constexpr uint64_t BETWEEN = 0x8000000; // more than the recording covers
    const std::string recorded = read_whole(EXAMPLE "/orders-changes.jsonl");
    std::ofstream out(path, std::ios::binary);
    for (int n = 0; n < copies; n++)
        out << moved_on(recorded, BETWEEN * static_cast<uint64_t>(n));
    if (!out.flush())
        bench_fail("cannot write the stream");
    long changes = 0;
    std::istringstream lines(recorded);
    for (std::string line; std::getline(lines, line);)
        changes += line.starts_with("{\"action\":\"I\"") || line.starts_with("{\"action\":\"U\"") ||
                           line.starts_with("{\"action\":\"D\"")
                       ? 1
                       : 0;
    return changes * copies;
}

static bench_measure run(const contender &of, const std::string &directory)
{
    fs::remove_all(directory + "/log");
    return bench_run([&] {
        const int out = open("/dev/null", O_WRONLY);
        if (out < 0 || dup2(out, STDOUT_FILENO) < 0 || chdir(directory.c_str()) != 0 ||
            (of.plain && setenv("SIMDJSON_FORCE_IMPLEMENTATION", "none", 1) != 0))
            _exit(1);
        execl(of.program.c_str(), "fwlog", "load", "-cfg", "fwutil.cfg", "stream.jsonl", nullptr);
        _exit(127);
    });
}

int main(int argc, char **argv)
{
    const int copies = argc > 1 ? atoi(argv[1]) : 50;
    const int rounds = argc > 2 ? atoi(argv[2]) : 5;
    if (copies < 1 || rounds < 1) {
        fprintf(stderr, "usage: load_bench [COPIES [ROUNDS [FWLOG ...]]]\n");
        return 2;
    }
    const std::string own = fs::read_symlink("/proc/self/exe").parent_path() / "fwlog";
    std::vector<contender> contenders = {{"fwlog load", own},
                                         {"fwlog load, without simdjson", own, true}};
    for (int i = 3; i < argc; i++)
        contenders.push_back({argv[i], fs::absolute(argv[i])});

    std::string directory = fs::temp_directory_path() / "load_bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr)
        bench_fail("cannot make a temporary directory");
    fs::copy_file(EXAMPLE "/fwutil.cfg", directory + "/fwutil.cfg");
    const long changes = make_stream(directory + "/stream.jsonl", copies);
    for (int round = 0; round < rounds; round++) {
        double first = 0;
        for (contender &of : contenders) {
            const bench_measure measure = run(of, directory);
            if (&of == &contenders.front())
                first = measure.cpu_seconds;
            of.seconds.push_back(measure.seconds);
            of.cpu_seconds.push_back(measure.cpu_seconds);
            of.ratios.push_back(first / measure.cpu_seconds);
            of.peak_kib = std::max(of.peak_kib, measure.peak_kib);
        }
    }
    const auto rate = [&](const std::vector<double> &seconds) {
        return static_cast<double>(changes) / bench_median(seconds);
    };
    for (const contender &of : contenders)
        printf("%-30s %ld changes: %7.0f changes/s, %7.0f by the processor's time (best %7.0f), "
               "%.2f of the first, peak %ld KiB\n",
               of.name.c_str(), changes, rate(of.seconds), rate(of.cpu_seconds),
               rate({*std::min_element(of.cpu_seconds.begin(), of.cpu_seconds.end())}),
               bench_median(of.ratios), of.peak_kib);
    fs::remove_all(directory);
    return 0;
}
