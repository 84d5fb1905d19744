// The bridge from a live PostgreSQL server, measured on a temporary one.
// A backlog of updates through "fwlog postgresql --once", beside pg_recvlogical that
// only writes the server's text to a file (test_decoding) and one that writes the bytes
// that the bridge gets (pgoutput); each on a copy of its slot, in turn.  Then the delay
// of single changes at a steady pace, from the client that sends the statement to the
// reader that takes the record out of Kestro's message file.  Then how long the bridge
// takes where the publication has many tables.  Then how long the last record of a large
// transaction takes from its commit to the reader, and how long a table takes that --resume
// brings in, beside a COPY of it.  OTHER is another build's fwlog, which takes its turns with
// this one's.
//
// usage: postgresql_bench [UPDATES [ROUNDS [SECONDS [RATE [TABLES [OTHER]]]]]]
#include "msgfile/tmf.h"
#include "tests/postgresql/background.h"
#include "tests/postgresql/pg_client.h"
#include "tests/postgresql/pg_server.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/mman.h>
#include <unistd.h>

namespace fs = std::filesystem;
using steady = std::chrono::steady_clock;

constexpr int ROWS = 5000;       // that the updates go round
constexpr int A_TRANSACTION = 5; // updates
constexpr int LARGE = 200'000;   // rows of a large transaction, and of a table that is taken in

static const char schema[] =
    "CREATE SCHEMA sales;"
    "CREATE TABLE sales.order_lines (order_no integer PRIMARY KEY, line_no smallint NOT NULL,"
    " item_no char(8) NOT NULL, qty smallint NOT NULL, price numeric(9,2) NOT NULL,"
    " disc_pct real NOT NULL, amount numeric(11,2) NOT NULL);"
    "CREATE TABLE sales.stamps (sent bigint NOT NULL);"
    "ALTER TABLE sales.order_lines REPLICA IDENTITY FULL;"
    "ALTER TABLE sales.stamps REPLICA IDENTITY FULL;"
    "CREATE PROCEDURE sales.work(updates integer) LANGUAGE plpgsql AS $$"
    " BEGIN"
    "  FOR i IN 1 .. updates LOOP"
    "   UPDATE sales.order_lines SET qty = i % 50, price = price + 0.01, amount = qty * price"
    "    WHERE order_no = i % ROWS;"
    "   IF i % A_TRANSACTION = 0 THEN COMMIT; END IF;"
    "  END LOOP;"
    " END $$;";

[[noreturn]] static void fail(const std::string &what)
{
    throw std::runtime_error(what);
}

static std::string with(std::string text, const std::string &name, int value)
{
    for (size_t at = 0; (at = text.find(name, at)) != std::string::npos;)
        text.replace(at, name.size(), std::to_string(value));
    return text;
}

template <typename Number> static Number median(std::vector<Number> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct bench {
    tempdir dir;
    pg_server server{{"wal_sender_timeout = 60s", "max_locks_per_transaction = 1000"}};
    std::string bin = fs::read_symlink("/proc/self/exe").parent_path();
    std::string fwlog = bin + "/fwlog";
    std::string other; // fwlog of another build; empty: none

    pg_client connect() const
    {
        return pg_client(server.conninfo());
    }

    // Arguments of the bridge with a log of its own.
    std::vector<std::string> bridge(const std::string &slot, const std::string &log) const
    {
        write_file(dir.file(log + ".cfg"), "log-directory " + log + "\n");
        return {bin + "/fwlog",    "postgresql", "-cfg", dir.file(log + ".cfg"), "--conninfo",
                server.conninfo(), "--slot",     slot,   "--publication",        "bench"};
    }

    // The same of one build, as far as the server is now, into a new log.
    std::vector<std::string> once(const std::string &slot, const std::string &program) const
    {
        std::vector<std::string> argv = bridge(slot, "log");
        argv[0] = program;
        argv.insert(argv.end(), {"--once", "--accept-gap"}); // the slot is there already
        return argv;
    }

    std::vector<std::string> receiver(const std::string &slot, const std::string &file,
                                      const std::string &end) const
    {
        return {pg_server::client_program("pg_recvlogical"),
                "-d",
                server.conninfo(),
                "--slot",
                slot,
                "--start",
                "-n",
                "--endpos",
                end,
                "-f",
                dir.file(file)};
    }

    double seconds_of(const std::vector<std::string> &argv) const
    {
        fs::remove_all(dir.file("log"));
        const auto begin = steady::now();
        run_setup options;
        options.directory = dir.path();
        const run_result result = run_program(argv, options);
        const std::chrono::duration<double> taken = steady::now() - begin;
        if (result.status != 0)
            fail(argv[0] + ": " + result.err);
        return taken.count();
    }
};

// ---- a backlog

// Slots at the same place, then the updates; the position behind them.
static std::string make_backlog(const bench &b, int updates)
{
    pg_client client = b.connect();
    client.run(with(with(schema, "ROWS", ROWS), "A_TRANSACTION", A_TRANSACTION));
    client.run(with("INSERT INTO sales.order_lines SELECT g, g % 4 + 1, 'BR-00017', 1, 12.34, 2.5,"
                    " 12.34 FROM generate_series(0, ROWS - 1) g",
                    "ROWS", ROWS));
    client.run("CREATE PUBLICATION bench FOR ALL TABLES");
    client.run("SELECT pg_create_logical_replication_slot('text', 'test_decoding');"
               "SELECT pg_create_logical_replication_slot('binary', 'pgoutput')");
    client.run("CALL sales.work(" + std::to_string(updates) + ")");
    return client.value("SELECT pg_current_wal_insert_lsn()");
}

static void print_rate(const char *what, const std::vector<double> &seconds, int updates,
                       double beside)
{
    printf("%-44s %8.1f %12.0f %8.2f\n", what, median(seconds), updates / median(seconds),
           beside / median(seconds));
}

static void bench_backlog(const bench &b, int updates, int rounds)
{
    const std::string end = make_backlog(b, updates);
    std::vector<double> bridge;
    std::vector<double> other;
    std::vector<double> text;
    std::vector<double> bytes;
    for (int round = 0; round < rounds; round++) {
        pg_client client = b.connect();
        const std::string n = std::to_string(round);
        client.run("SELECT pg_copy_logical_replication_slot('binary', 'bridge" + n +
                   "'), pg_copy_logical_replication_slot('binary', 'other" + n +
                   "'), pg_copy_logical_replication_slot('text', 'text" + n +
                   "'), pg_copy_logical_replication_slot('binary', 'bytes" + n + "')");
        bridge.push_back(b.seconds_of(b.once("bridge" + n, b.fwlog)));
        if (!b.other.empty())
            other.push_back(b.seconds_of(b.once("other" + n, b.other)));
        text.push_back(b.seconds_of(b.receiver("text" + n, "text", end)));
        std::vector<std::string> argv = b.receiver("bytes" + n, "bytes", end);
        argv.insert(argv.end(), {"-o", "proto_version=1", "-o", "publication_names=bench"});
        bytes.push_back(b.seconds_of(argv));
        client.run("SELECT pg_drop_replication_slot(slot_name) FROM pg_replication_slots "
                   "WHERE slot_name ~ '[0-9]'");
        fs::remove(b.dir.file("text"));
        fs::remove(b.dir.file("bytes"));
    }
    pg_client(b.server.conninfo())
        .run("SELECT pg_drop_replication_slot(slot_name) FROM pg_replication_slots");
    printf("backlog of %d updates, %d a transaction; medians of %d rounds\n", updates,
           A_TRANSACTION, rounds);
    printf("%-44s %8s %12s %8s\n", "", "seconds", "changes/s", "ratio");
    print_rate("fwlog postgresql, into the forward log", bridge, updates, median(text));
    if (!b.other.empty())
        print_rate("the other fwlog postgresql, the same", other, updates, median(text));
    print_rate("pg_recvlogical, test_decoding, into a file", text, updates, median(text));
    print_rate("pg_recvlogical, pgoutput, into a file", bytes, updates, median(text));
}

// The bridge in the background, once it follows the server.
static void follow_in(background &bridge, const bench &b, const std::string &name)
{
    run_setup options;
    options.directory = b.dir.path();
    std::vector<std::string> argv = b.bridge(name, name);
    argv.emplace_back("--create");
    bridge.start(argv, options, b.dir.file(name + "-bridge"));
    const auto streams = [&] {
        return read_file(b.dir.file(name + "/postgresql.json")).find("\"streaming\"") !=
               std::string::npos;
    };
    if (!poll_until(streams))
        fail("the bridge does not follow: " + bridge.err());
}

// ---- delays at a steady pace

static int64_t now_us()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * int64_t{1'000'000} + now.tv_nsec / 1000;
}

// What the reader's process leaves for the bench's.
struct arrivals {
    volatile int count;
    int64_t delays_us[1];
};

// Takes n records; the image of each begins with the time at which its statement was sent.
static int take_stamps(const std::string &path, int n, arrivals &seen)
{
    constexpr int HEADER_SIZE = 62;
    tmf_handle *reader = tmf_fopen(path.c_str(), TMF_MODE_READ);
    char record[1024];
    while (seen.count < n) {
        const int length = tmf_fread(reader, record, sizeof record, TMF_READ_WAIT);
        const int64_t now = now_us();
        if (length < HEADER_SIZE + 8)
            return 1;
        int64_t sent = 0;
        memcpy(&sent, record + HEADER_SIZE, sizeof sent);
        seen.delays_us[seen.count] = now - sent;
        seen.count = seen.count + 1;
    }
    return tmf_fclose(reader);
}

// Sends a statement at each tick; what is late is sent at once.  Changes a second.
static double send_stamps(const bench &b, int n, int rate)
{
    pg_client client = b.connect();
    const auto begin = steady::now();
    for (int i = 0; i < n; i++) {
        const auto due = begin + std::chrono::microseconds(int64_t{1'000'000} * i / rate);
        std::this_thread::sleep_until(due);
        client.run("INSERT INTO sales.stamps VALUES (" + std::to_string(now_us()) + ")");
    }
    const std::chrono::duration<double> taken = steady::now() - begin;
    return n / taken.count();
}

static void bench_delay(const bench &b, int seconds, int rate)
{
    const int n = seconds * rate;
    const size_t size = sizeof(arrivals) + static_cast<size_t>(n) * sizeof(int64_t);
    void *shared = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        fail("no memory");
    auto &seen = *static_cast<arrivals *>(shared);
    run_setup options;
    options.directory = b.dir.path();
    background bridge;
    follow_in(bridge, b, "follow");
    background capture;
    capture.start({b.bin + "/Kestro", "-cfg", b.dir.file("follow.cfg"), "-stat",
                   b.dir.file("status"), b.dir.file("stamps.msg")},
                  options, b.dir.file("kestro"));
    // The first change makes the message file; the reader begins with it.
    send_stamps(b, 1, rate);
    if (!poll_until([&] { return fs::exists(b.dir.file("stamps.msg")); }))
        fail("Kestro captures nothing: " + capture.err());
    const pid_t reader = fork();
    if (reader == 0)
        _exit(take_stamps(b.dir.file("stamps.msg"), n, seen));
    const double reached = send_stamps(b, n - 1, rate);
    if (wait_program(reader) != 0)
        fail("the reader failed");
    capture.end(SIGTERM);
    bridge.end(SIGTERM);
    std::vector<int64_t> delays(seen.delays_us + 1, seen.delays_us + n);
    std::sort(delays.begin(), delays.end());
    const auto part = [&](double share) {
        const auto at = static_cast<size_t>(share * static_cast<double>(delays.size() - 1));
        return static_cast<double>(delays[at]) / 1000;
    };
    printf("\n%d changes, %.0f a second, each its own transaction; from statement to message\n", n,
           reached);
    printf("milliseconds: median %.2f, 99 %% %.2f, 99.9 %% %.2f, most %.2f\n", part(0.5),
           part(0.99), part(0.999), part(1));
    munmap(shared, size);
}

// ---- many tables

static void make_tables(const bench &b, int tables)
{
    pg_client client = b.connect();
    client.run("CREATE SCHEMA many");
    client.run("DO $$ BEGIN FOR i IN 1 .. " + std::to_string(tables) +
               " LOOP"
               "  EXECUTE format('CREATE TABLE many.table_%s (id integer PRIMARY KEY,"
               "   name varchar(60), note varchar(200), price numeric(9,2), at timestamp(3),"
               "   day date, flag boolean, qty smallint, share real, total bigint)', i);"
               "  EXECUTE format('ALTER TABLE many.table_%s REPLICA IDENTITY FULL', i);"
               "  IF i % 100 = 0 THEN COMMIT; END IF;"
               " END LOOP; END $$");
}

static void print_start(const bench &b, const char *what, const std::string &insert, int rounds)
{
    std::vector<double> seconds[2];
    for (int round = 0; round < rounds; round++) {
        pg_client client = b.connect();
        client.run("SELECT pg_create_logical_replication_slot('start0', 'pgoutput'),"
                   " pg_create_logical_replication_slot('start1', 'pgoutput')");
        client.run(insert);
        seconds[0].push_back(b.seconds_of(b.once("start0", b.fwlog)));
        if (!b.other.empty())
            seconds[1].push_back(b.seconds_of(b.once("start1", b.other)));
        client.run("DELETE FROM many.table_1; SELECT pg_drop_replication_slot(slot_name)"
                   " FROM pg_replication_slots");
    }
    printf("%-44s %8.2f", what, median(seconds[0]));
    if (!b.other.empty())
        printf(" %12.2f", median(seconds[1]));
    printf("\n");
}

static void bench_start(const bench &b, int tables, int rounds)
{
    make_tables(b, tables);
    b.connect().run("SELECT pg_drop_replication_slot(slot_name) FROM pg_replication_slots");
    printf("\n%d tables in the publication; seconds of a start with --once%s\n", tables,
           b.other.empty() ? "" : ", this fwlog and the other");
    print_start(b, "one of them was changed", "INSERT INTO many.table_1 (id) VALUES (1)", rounds);
    print_start(
        b, "each of them was changed",
        "DO $$ BEGIN FOR i IN 1 .. " + std::to_string(tables) +
            " LOOP EXECUTE format('INSERT INTO many.table_%s (id) SELECT coalesce(max(id), 0) + 1"
            " FROM many.table_%s', i, i); END LOOP; END $$",
        rounds);
}

// ---- large transactions, and tables that are taken in

// Takes n records and notes when the last one came.
static int take_records(const std::string &path, int n, arrivals &seen)
{
    tmf_handle *reader = tmf_fopen(path.c_str(), TMF_MODE_READ);
    char record[1024];
    for (int i = 0; i < n; i++)
        if (tmf_fread(reader, record, sizeof record, TMF_READ_WAIT) <= 0)
            return 1;
    seen.delays_us[0] = now_us();
    return tmf_fclose(reader);
}

// Seconds from the commit of LARGE rows, and from the first of them, to the last record.
static void bench_commit(const bench &b, int rounds)
{
    void *shared =
        mmap(nullptr, sizeof(arrivals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        fail("no memory");
    auto &seen = *static_cast<arrivals *>(shared);
    background bridge;
    follow_in(bridge, b, "large");
    run_setup options;
    options.directory = b.dir.path();
    background capture;
    capture.start({b.bin + "/Kestro", "-cfg", b.dir.file("large.cfg"), "-stat",
                   b.dir.file("large-status"), b.dir.file("large.msg")},
                  options, b.dir.file("large-kestro"));
    send_stamps(b, 1, 1); // the first change makes the message file
    if (!poll_until([&] { return fs::exists(b.dir.file("large.msg")); }))
        fail("Kestro captures nothing: " + capture.err());
    std::vector<double> from_commit;
    std::vector<double> from_begin;
    int before = 1;
    for (int round = 0; round < rounds; round++) {
        const pid_t reader = fork();
        if (reader == 0)
            _exit(take_records(b.dir.file("large.msg"), before + LARGE, seen));
        const int64_t begin = now_us();
        b.connect().run(with("INSERT INTO sales.stamps SELECT g FROM generate_series(1, LARGE) g",
                             "LARGE", LARGE));
        const int64_t commit = now_us();
        if (wait_program(reader) != 0)
            fail("the reader failed");
        from_commit.push_back(static_cast<double>(seen.delays_us[0] - commit) / 1e6);
        from_begin.push_back(static_cast<double>(seen.delays_us[0] - begin) / 1e6);
        before = 0; // what was read is gone from the message file
    }
    capture.end(SIGTERM);
    bridge.end(SIGTERM);
    munmap(shared, sizeof(arrivals));
    printf("\n%d rows in one transaction; medians of %d rounds\n", LARGE, rounds);
    printf("seconds from the commit to the last capture record, read: %.2f; from the statement: "
           "%.2f\n",
           median(from_commit), median(from_begin));
}

static void bench_resume(const bench &b, int rounds)
{
    pg_client client = b.connect();
    client.run(with("CREATE TABLE sales.taken (LIKE sales.order_lines INCLUDING ALL);"
                    "ALTER TABLE sales.taken REPLICA IDENTITY FULL;"
                    "INSERT INTO sales.taken SELECT g, g % 4 + 1, 'BR-00017', 1, 12.34, 2.5, 12.34"
                    " FROM generate_series(1, LARGE) g; ANALYZE sales.taken",
                    "LARGE", LARGE));
    background bridge;
    follow_in(bridge, b, "resume");
    const auto is_quiet = [&] {
        return read_file(b.dir.file("resume/postgresql.json")).find("\"lag_bytes\":0,") !=
               std::string::npos;
    };
    if (!poll_until(is_quiet))
        fail("the bridge is behind: " + bridge.err());
    std::vector<double> resume;
    std::vector<double> copy;
    for (int round = 0; round < rounds; round++) {
        resume.push_back(b.seconds_of(
            {b.fwlog, "postgresql", "-cfg", b.dir.file("resume.cfg"), "--resume", "sales.taken"}));
        const auto begin = steady::now();
        write_file(b.dir.file("copied"), client.copy("COPY sales.taken TO STDOUT"));
        const std::chrono::duration<double> taken = steady::now() - begin;
        copy.push_back(taken.count());
    }
    bridge.end(SIGTERM);
    printf("\n--resume of a table of %d rows, medians of %d rounds: %.2f seconds; COPY of it into "
           "a file: %.2f\n",
           LARGE, rounds, median(resume), median(copy));
}

static int number(char **argv, int argc, int at, int usual)
{
    return at < argc ? atoi(argv[at]) : usual;
}

int main(int argc, char **argv)
{
    const int updates = number(argv, argc, 1, 500'000);
    const int rounds = number(argv, argc, 2, 3);
    const int seconds = number(argv, argc, 3, 20);
    const int rate = number(argv, argc, 4, 1000);
    const int tables = number(argv, argc, 5, 10'000);
    if (argc > 7 || updates < A_TRANSACTION || rounds < 1 || seconds < 1 || rate < 1 ||
        tables < 1) {
        fprintf(stderr, "usage: postgresql_bench [UPDATES [ROUNDS [SECONDS [RATE [TABLES "
                        "[OTHER]]]]]]\n");
        return 2;
    }
    const std::string missing = pg_server::missing();
    if (!missing.empty()) {
        fprintf(stderr, "postgresql_bench: %s\n", missing.c_str());
        return 1;
    }
    try {
        bench b;
        b.other = argc > 6 ? fs::absolute(argv[6]) : "";
        bench_backlog(b, updates, rounds);
        bench_delay(b, seconds, rate);
        bench_commit(b, rounds);
        bench_resume(b, rounds);
        bench_start(b, tables, rounds);
    } catch (const std::exception &error) {
        fprintf(stderr, "postgresql_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
