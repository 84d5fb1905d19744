// Records per second and hand-over latency of the message-file library, beside
// two bare loops that do the protocol's file work and nothing else, and beside
// SQLite and LMDB used as queues.  Everything is measured in every round, one after
// the other; what to quote are the ratios.
#include "bench/message_measure.h"
#include "bench/message_report.h"
#include "bench/message_run.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sys/vfs.h>
#include <unistd.h>

static constexpr char usage[] =
    "usage: message_bench [RECORDS [ROUNDS]] [--dir DIRECTORY] [--json]\n"
    "\n"
    "  RECORDS   records a measurement (20000); of long records fewer, 256 MiB at most\n"
    "  ROUNDS    how often everything is measured (15)\n"
    "  --dir     where the files are made (TMPDIR, else /tmp)\n"
    "  --json    print JSON\n"
    "\n"
    "append, take   one process on a file; \"take\" is the destructive read\n"
    "both           a writer and a reader at once\n"
    "latency        from the writer's call to the return of a reader that waited\n"
    "buffer         takes with a buffer of 32,761 bytes, which no record fills\n"
    "batch ...      the same in batches of 64: one call, or one transaction, for all\n"
    "\n"
    "library        the message-file library\n"
    "literal        its file work, ten system calls an operation\n"
    "least          the same with five: calls that name their place in the file\n"
    "SQLite, LMDB   one transaction a record, no syncs\n"
    "datagram       latency only: a datagram alone, which nothing keeps\n"
    "\n"
    "The library's writer wakes its reader; readers of the others look every 100\n"
    "microseconds while there is no record.\n";

static constexpr int sizes[] = {100, 1000, 8000};
static constexpr int long_buffer = 32761;
static constexpr int batch = 64; // records of a call

struct bench_options {
    int records = 20000;
    int rounds = 15;
    std::string directory;
    bool json = false;
};

// ---- what is measured

// A figure's kind and how to get its value for a round.
struct task {
    std::string name;
    std::function<void(figure &)> run;
};

struct plan {
    measurement result;
    std::vector<task> tasks; // one for each figure
};

static std::vector<const queue_kind *> compared_kinds()
{
    return {
        &library_queue, &literal_queue, &least_queue,
#ifdef MESSAGE_BENCH_SQLITE
        &sqlite_queue,
#endif
#ifdef MESSAGE_BENCH_LMDB
        &lmdb_queue,
#endif
    };
}

static void add_task(plan &p, const std::string &name, std::function<void(figure &)> run)
{
    p.result.figures.push_back({name, {}, {}});
    p.tasks.push_back({name, std::move(run)});
}

// A plan in which each compared kind gives the seconds that the load takes.
static plan plan_rates(const char *what, const queue_load &load,
                       double (*measure)(const queue_kind &, const queue_load &))
{
    plan p = {{what, load.size, load.records, {}}, {}};
    for (const queue_kind *kind : compared_kinds())
        add_task(p, kind->name,
                 [=](figure &f) { f.values.push_back(load.records / measure(*kind, load)); });
    return p;
}

// What the bare loops write, the library reads, and there is no quicker way to fill
// a message file.
static const queue_kind &filler_for(const queue_kind &kind)
{
    const bool message_file = kind.open == library_queue.open || kind.open == least_queue.open;
    return message_file ? least_queue : kind;
}

static double measure_own_take(const queue_kind &kind, const queue_load &load)
{
    return measure_take(kind, filler_for(kind), load);
}

static plan plan_latency(int size, int handovers)
{
    plan p = {{"latency", size, handovers, {}}, {}};
    const auto add = [&](const queue_kind *kind) {
        add_task(p, kind->name, [=](figure &f) {
            const latency l = measure_latency(*kind, size, handovers);
            f.values.push_back(l.median);
            f.p99.push_back(l.p99);
        });
    };
    for (const queue_kind *kind : compared_kinds()) {
        // The loops would show the interval of their polls and nothing else.
        if (kind != &literal_queue && kind != &least_queue)
            add(kind);
    }
    add(&datagram_queue);
    return p;
}

static plan plan_buffer(const queue_load &fitting)
{
    queue_load roomy = fitting;
    roomy.buffer = long_buffer;
    plan p = {{"buffer", fitting.size, fitting.records, {}}, {}};
    const auto add = [&](const char *name, const queue_kind *kind, const queue_load &load) {
        add_task(p, name, [=](figure &f) {
            f.values.push_back(load.records / measure_take(*kind, least_queue, load));
        });
    };
    add("library", &library_queue, roomy);
    add("library, fitting buffer", &library_queue, fitting);
    add("least", &least_queue, roomy);
    add("least, 4 KiB at first", &least_short_queue, roomy);
    add("least, fitting buffer", &least_queue, fitting);
    return p;
}

// Batches, beside the library's own calls for one record.
static plan plan_batches(const char *what, queue_load load,
                         double (*measure)(const queue_kind &, const queue_load &))
{
    load.records = std::max(load.records / batch, 1) * batch;
    queue_load batches = load;
    batches.batch = batch;
    plan p = {{what, load.size, load.records, {}}, {}};
    for (const queue_kind *kind : compared_kinds())
        if (kind->append_batch != nullptr)
            add_task(p, kind->name, [=](figure &f) {
                f.values.push_back(load.records / measure(*kind, batches));
            });
    add_task(p, "library, one by one",
             [=](figure &f) { f.values.push_back(load.records / measure(library_queue, load)); });
    return p;
}

static std::vector<plan> make_plans(const bench_options &options)
{
    const auto load_of = [&](int size) {
        return queue_load{std::min(options.records, MAX_BACKLOG / size), size, size};
    };
    std::vector<plan> plans;
    for (const int size : sizes)
        plans.push_back(plan_rates("append", load_of(size), measure_append));
    for (const int size : sizes)
        plans.push_back(plan_rates("take", load_of(size), measure_own_take));
    for (const int size : sizes)
        plans.push_back(plan_rates("both", load_of(size), measure_both));
    for (const int size : sizes)
        plans.push_back(plan_batches("batch append", load_of(size), measure_append));
    for (const int size : sizes)
        plans.push_back(plan_batches("batch take", load_of(size), measure_own_take));
    for (const int size : sizes)
        plans.push_back(plan_latency(size, std::clamp(options.records / 100, 20, 500)));
    for (const int size : sizes)
        plans.push_back(plan_buffer(load_of(size)));
    return plans;
}

// ---- the run

// The files of the loops and of the library are the same to each other.
static void check_kinds()
{
    for (const int size : sizes) {
        for (const queue_kind *loop : {&literal_queue, &least_queue, &least_short_queue}) {
            check_exchange(*loop, library_queue, size);
            check_exchange(library_queue, *loop, size);
        }
        for (const queue_kind *kind : compared_kinds())
            check_exchange(*kind, *kind, size);
    }
}

static void run_round(std::vector<plan> &plans, int round)
{
    for (plan &p : plans) {
        // Another one begins each round, so that none always follows the same.
        const size_t n = p.tasks.size();
        for (size_t i = 0; i < n; i++) {
            const size_t turn = (i + static_cast<size_t>(round)) % n;
            p.tasks[turn].run(p.result.figures[turn]);
        }
    }
}

static std::string file_system_name(const std::string &directory)
{
    struct statfs information = {};
    if (statfs(directory.c_str(), &information) != 0)
        return "unknown";
    static constexpr struct {
        unsigned long magic;
        const char *name;
    } known[] = {{0xEF53, "ext4"},
                 {0x01021994, "tmpfs"},
                 {0x58465342, "xfs"},
                 {0x9123683E, "btrfs"},
                 {0x794C7630, "overlay"}};
    for (const auto &row : known) {
        if (static_cast<unsigned long>(information.f_type) == row.magic)
            return row.name;
    }
    return "another file system";
}

static report run_bench(const bench_options &options)
{
    run_begin(options.directory);
    check_kinds();
    std::vector<plan> plans = make_plans(options);
    for (int round = 0; round < options.rounds; round++) {
        if (isatty(STDERR_FILENO) != 0)
            fprintf(stderr, "round %d of %d\n", round + 1, options.rounds);
        run_round(plans, round);
    }
    run_end();
    report result = {file_system_name(options.directory), options.rounds, {}};
    for (plan &p : plans)
        result.measurements.push_back(std::move(p.result));
    return result;
}

// ---- the command line

[[noreturn]] static void refuse()
{
    fputs(usage, stderr);
    exit(2);
}

static int number_at_least(int least, const char *word)
{
    char *end = nullptr;
    const long value = strtol(word, &end, 10);
    if (end == word || *end != '\0' || value < least || value > 10000000)
        refuse();
    return static_cast<int>(value);
}

static bench_options scan_options(int argc, char **argv)
{
    bench_options options;
    const char *temporary = getenv("TMPDIR");
    options.directory = temporary != nullptr && *temporary != '\0' ? temporary : "/tmp";
    int numbers = 0;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--help") == 0) {
            fputs(usage, stdout);
            exit(0);
        }
        if (strcmp(argv[i], "--json") == 0) {
            options.json = true;
        } else if (strcmp(argv[i], "--dir") == 0) {
            if (++i == argc)
                refuse();
            options.directory = argv[i];
        } else if (numbers == 0) {
            options.records = number_at_least(10, argv[i]);
            numbers++;
        } else if (numbers == 1) {
            options.rounds = number_at_least(1, argv[i]);
            numbers++;
        } else {
            refuse();
        }
    }
    return options;
}

int main(int argc, char **argv)
{
    const bench_options options = scan_options(argc, argv);
    const report result = run_bench(options);
    if (options.json)
        report_json(stdout, result);
    else
        report_table(stdout, result);
    return 0;
}
