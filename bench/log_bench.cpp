// The log of an order entry's lines, and child processes with their time and memory.
#include "bench/log_bench.h"

#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

void bench_fail(const char *what)
{
    fprintf(stderr, "%s: %s\n", program_invocation_short_name, what);
    exit(1);
}

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

static constexpr unsigned char PRICE[] = {0x00, 0x00, 0x12, 0x34, 0x5C};
static constexpr unsigned char AMOUNT[] = {0x00, 0x00, 0x00, 0x98, 0x76, 0x5D};

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
    put(PRICE, sizeof PRICE);
    put(&disc, 4);
    put(AMOUNT, sizeof AMOUNT);
    put(".......", 7);
}

fwu_writer *bench_open_log(const std::string &directory)
{
    std::ofstream(directory + "/fwutil.cfg") << "log-directory log\n";
    fwu_config config;
    fwu_writer *writer = nullptr;
    if (fwu_config_read(config, (directory + "/fwutil.cfg").c_str()) != 0 ||
        fwu_writer_open(&writer, config) != 0)
        bench_fail("cannot make the log");
    return writer;
}

void bench_make_log(const std::string &directory, int changes)
{
    fwu_writer *const writer = bench_open_log(directory);
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
            bench_fail("cannot write the log");
    }
    if (fwu_writer_close(writer) != 0)
        bench_fail("cannot close the log");
}

double bench_since(bench_clock::time_point begin)
{
    return std::chrono::duration<double>(bench_clock::now() - begin).count();
}

bench_measure bench_run(const std::function<void()> &body)
{
    fflush(stdout);
    const auto begin = bench_clock::now();
    const pid_t pid = fork();
    if (pid == 0)
        body();
    int status = 0;
    struct rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid || status != 0)
        bench_fail("a run failed");
    const auto seconds = [](const struct timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return {bench_since(begin), seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss};
}

double bench_median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}
