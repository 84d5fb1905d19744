// Times are taken inside the child that does the work, around the work alone:
// opening and closing do not count.  CLOCK_MONOTONIC is the same in all processes.
#include "bench/message_measure.h"

#include "bench/message_run.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <sys/prctl.h>
#include <vector>

static constexpr int64_t microsecond = 1000;
static constexpr int max_handovers = 1000;

// The first hand-overs of a pair of processes are not typical.
static constexpr int first_handovers = 20;

// A reader that called less than this before the writer may not wait yet: its
// sample is left out.
static constexpr int64_t surely_waiting = 50 * microsecond;

// What parent, writer and reader of a measurement share.
struct shared_state {
    std::atomic<int> reader_open;
    std::atomic<int> taken;
    int64_t begin;
    int64_t end;
    int samples;
    double sample[max_handovers]; // microseconds
};
static_assert(std::atomic<int>::is_always_lock_free);

static shared_state *new_measurement()
{
    static shared_state *const shared =
        static_cast<shared_state *>(run_shared(sizeof(shared_state)));
    shared->reader_open = 0;
    shared->taken = 0;
    shared->begin = 0;
    shared->end = 0;
    shared->samples = 0;
    return shared;
}

static double seconds(const shared_state *shared)
{
    return static_cast<double>(shared->end - shared->begin) / 1e9;
}

static int64_t now()
{
    timespec t = {};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * int64_t{1000000000} + t.tv_nsec;
}

static void pause_for(int64_t nanoseconds)
{
    const timespec pause = {0, static_cast<long>(nanoseconds)};
    nanosleep(&pause, nullptr);
}

static std::string queue_file()
{
    return run_file("queue");
}

// ---- the work

static void append_many(const queue_kind &kind, void *queue, int64_t first, int records, int size)
{
    std::vector<unsigned char> record(static_cast<size_t>(size), 'r');
    for (int64_t number = first; number < first + records; number++) {
        memcpy(record.data(), &number, sizeof(number));
        kind.append(queue, record.data(), size);
    }
}

static void append_batches(const queue_kind &kind, void *queue, const queue_load &load)
{
    const auto size = static_cast<size_t>(load.size);
    std::vector<unsigned char> records(size * static_cast<size_t>(load.batch), 'r');
    for (int64_t number = 0; number < load.records;) {
        for (size_t at = 0; at < records.size(); at += size, number++)
            memcpy(records.data() + at, &number, sizeof(number));
        kind.append_batch(queue, records.data(), load.size, load.batch);
    }
}

static void take_batches(const queue_kind &kind, void *queue, const queue_load &load)
{
    const auto size = static_cast<size_t>(load.size);
    std::vector<unsigned char> records(size * static_cast<size_t>(load.batch));
    for (int64_t number = 0; number < load.records;) {
        if (kind.take_batch(queue, records.data(), load.size, load.batch) != load.batch)
            run_fail("a record was lost");
        for (size_t at = 0; at < records.size(); at += size, number++)
            if (memcmp(records.data() + at, &number, sizeof(number)) != 0)
                run_fail("a record was changed");
    }
}

// Waits for a record where the kind itself does not.
static int take_next(const queue_kind &kind, void *queue, std::vector<unsigned char> &buf)
{
    int taken = 0;
    while ((taken = kind.take(queue, buf.data(), static_cast<int>(buf.size()))) == 0)
        pause_for(POLL_MICROSECONDS * microsecond);
    return taken;
}

static void take_many(const queue_kind &kind, void *queue, int64_t first, const queue_load &load)
{
    std::vector<unsigned char> buf(static_cast<size_t>(load.buffer));
    for (int64_t number = first; number < first + load.records; number++) {
        const int taken = take_next(kind, queue, buf);
        if (taken != load.size || memcmp(buf.data(), &number, sizeof(number)) != 0)
            run_fail("a record was lost or changed");
    }
}

static void *open_as_reader(const queue_kind &kind, const std::string &path, shared_state *shared)
{
    prctl(PR_SET_TIMERSLACK, 1000); // the default would add 50 microseconds to a pause
    void *queue = kind.open(path.c_str(), true);
    shared->reader_open = 1;
    return queue;
}

static void *open_behind_reader(const queue_kind &kind, const std::string &path,
                                const shared_state *shared)
{
    prctl(PR_SET_TIMERSLACK, 1000);
    while (shared->reader_open == 0)
        pause_for(POLL_MICROSECONDS * microsecond);
    return kind.open(path.c_str(), false);
}

// ---- records per second

double measure_append(const queue_kind &kind, const queue_load &load)
{
    shared_state *shared = new_measurement();
    const std::string path = queue_file();
    run_start([&] {
        void *queue = kind.open(path.c_str(), false);
        shared->begin = now();
        if (load.batch > 1)
            append_batches(kind, queue, load);
        else
            append_many(kind, queue, 0, load.records, load.size);
        shared->end = now();
        kind.close(queue);
    });
    run_wait();
    run_clear();
    return seconds(shared);
}

double measure_take(const queue_kind &kind, const queue_kind &filler, const queue_load &load)
{
    shared_state *shared = new_measurement();
    const std::string path = queue_file();
    run_start([&] {
        void *queue = filler.open(path.c_str(), false);
        append_many(filler, queue, 0, load.records + 1, load.size);
        filler.close(queue);
    });
    run_wait();
    run_start([&] {
        void *queue = kind.open(path.c_str(), true);
        shared->begin = now();
        if (load.batch > 1)
            take_batches(kind, queue, load);
        else
            take_many(kind, queue, 0, load);
        shared->end = now();
        take_many(kind, queue, load.records, {1, load.size, load.buffer});
        kind.close(queue);
    });
    run_wait();
    run_clear();
    return seconds(shared);
}

double measure_both(const queue_kind &kind, const queue_load &load)
{
    shared_state *shared = new_measurement();
    const std::string path = queue_file();
    run_start([&] {
        void *queue = open_as_reader(kind, path, shared);
        take_many(kind, queue, 0, load);
        shared->end = now();
        kind.close(queue);
    });
    run_start([&] {
        void *queue = open_behind_reader(kind, path, shared);
        shared->begin = now();
        append_many(kind, queue, 0, load.records, load.size);
        kind.close(queue);
    });
    run_wait();
    run_clear();
    return seconds(shared);
}

// ---- latency

// The record's number is the time of the writer's call.
static void hand_over(const queue_kind &kind, void *queue, int size, int handovers,
                      const shared_state *shared)
{
    std::vector<unsigned char> record(static_cast<size_t>(size), 'r');
    std::minstd_rand random(1);
    // Pauses of different lengths, so that no poll falls in step with them.
    std::uniform_int_distribution<int64_t> pause(100 * microsecond, 500 * microsecond);
    for (int i = 0; i < handovers; i++) {
        while (shared->taken < i)
            pause_for(POLL_MICROSECONDS * microsecond);
        pause_for(pause(random));
        const int64_t called = now();
        memcpy(record.data(), &called, sizeof(called));
        kind.append(queue, record.data(), size);
    }
}

static void receive(const queue_kind &kind, void *queue, int size, int handovers,
                    shared_state *shared)
{
    std::vector<unsigned char> buf(static_cast<size_t>(size));
    for (int i = 0; i < handovers; i++) {
        const int64_t waits_since = now();
        const int taken = take_next(kind, queue, buf);
        const int64_t returned = now();
        int64_t called = 0;
        memcpy(&called, buf.data(), sizeof(called));
        if (taken != size || called > returned)
            run_fail("a record was lost or changed");
        if (i >= first_handovers && called - waits_since >= surely_waiting)
            shared->sample[shared->samples++] = static_cast<double>(returned - called) / 1e3;
        shared->taken = i + 1;
    }
}

latency measure_latency(const queue_kind &kind, int size, int handovers)
{
    shared_state *shared = new_measurement();
    const std::string path = queue_file();
    handovers = std::min(handovers, max_handovers) + first_handovers;
    run_start([&] {
        void *queue = open_as_reader(kind, path, shared);
        receive(kind, queue, size, handovers, shared);
        kind.close(queue);
    });
    run_start([&] {
        void *queue = open_behind_reader(kind, path, shared);
        hand_over(kind, queue, size, handovers, shared);
        kind.close(queue);
    });
    run_wait();
    run_clear();
    const int n = shared->samples;
    if (n == 0)
        run_fail("no reader waited for its record");
    std::sort(shared->sample, shared->sample + n);
    return {median(shared->sample, n), shared->sample[(n * 99) / 100]};
}

// ---- what the kinds leave in a file

static void check_taken(const queue_kind &kind, void *queue, int64_t first, int records, int size)
{
    std::vector<unsigned char> expected(static_cast<size_t>(size), 'r');
    std::vector<unsigned char> buf(static_cast<size_t>(size));
    for (int64_t number = first; number < first + records; number++) {
        memcpy(expected.data(), &number, sizeof(number));
        if (kind.take(queue, buf.data(), size) != size || buf != expected)
            run_fail("a record does not come back as it was written");
    }
}

void check_exchange(const queue_kind &writer, const queue_kind &reader, int size)
{
    const std::string path = queue_file();
    const auto append = [&](int64_t first, int records) {
        void *queue = writer.open(path.c_str(), false);
        append_many(writer, queue, first, records, size);
        writer.close(queue);
    };
    const auto take = [&](int64_t first, int records) {
        void *queue = reader.open(path.c_str(), true);
        check_taken(reader, queue, first, records, size);
        reader.close(queue);
    };
    // Empties the file in between, once shorter and once longer than what an empty
    // file keeps.
    run_start([&] {
        append(0, 10);
        take(0, 10);
        append(10, 1000);
        take(10, 999);
        append(1010, 10);
        take(1009, 11);
        append(1020, 1);
        take(1020, 1);
    });
    run_wait();
    run_clear();
}

double median(const double *values, int n)
{
    std::vector<double> sorted(values, values + n);
    std::sort(sorted.begin(), sorted.end());
    const auto middle = static_cast<size_t>(n / 2);
    return n % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}
