// Changes per second from a forward log into a stream (capship push) and out of it into a log
// (capship pull), beside the NATS library's own asynchronous publisher with the same messages and
// headers.  All run in turn, on a server of its own; the ratios of the same round's rates are what
// to quote.
//
// usage: ship_bench [CHANGES [ROUNDS]]
#include "bench/log_bench.h"
#include "ship/log_source.h"
#include "ship/server.h"
#include "ship/subject.h"
#include "tests/tools/capship/nats_server.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

struct bench_message {
    std::string subject, id, place, data;
};

static std::vector<bench_message> messages_of(const std::string &log)
{
    std::vector<bench_message> all;
    ship_log_source source;
    outcome done = ship_log_open(source, log, {}, 512 * 1024);
    for (bool found = true; done && found;) {
        ship_message message;
        done = ship_log_next(source, message, found);
        if (!done || !found)
            break;
        bench_message &one = all.emplace_back();
        one.subject = "OWN";
        ship_subject_put(one.subject, message.dbname, message.dsetname);
        ship_id_put(one.id, message.place);
        ship_place_put(one.place, message.place);
        one.data.assign(reinterpret_cast<const char *>(message.data), message.length);
    }
    ship_log_close(source);
    return all;
}

// Publishes them as push does, from memory.
static double publish(const std::string &url, const std::vector<bench_message> &messages)
{
    const ship_server_options options = {.url = url.c_str(), .stream = "OWN"};
    jsOptions how;
    jsOptions_Init(&how);
    how.PublishAsync.MaxPending = 4096;
    how.PublishAsync.StallWait = 60'000;
    ship_server server;
    if (!ship_connect(server, options, "ship_bench", &how) || !ship_create(server, options, 1))
        exit(1);
    const bench_clock::time_point begin = bench_clock::now();
    uint64_t expected = 0;
    for (const bench_message &one : messages) {
        natsMsg *message = nullptr;
        if (natsMsg_Create(&message, one.subject.c_str(), nullptr, one.data.data(),
                           static_cast<int>(one.data.size())) != NATS_OK ||
            natsMsgHeader_Set(message, SHIP_ID_HEADER, one.id.c_str()) != NATS_OK ||
            natsMsgHeader_Set(message, SHIP_EXPECTED_HEADER, std::to_string(expected++).c_str()) !=
                NATS_OK ||
            natsMsgHeader_Set(message, SHIP_PLACE_HEADER, one.place.c_str()) != NATS_OK ||
            js_PublishMsgAsync(server.js, &message, nullptr) != NATS_OK)
            exit(1);
    }
    if (js_PublishAsyncComplete(server.js, nullptr) != NATS_OK)
        exit(1);
    const double seconds = bench_since(begin);
    js_DeleteStream(server.js, "OWN", nullptr, nullptr);
    return seconds;
}

static double timed(const std::vector<std::string> &words)
{
    const bench_clock::time_point begin = bench_clock::now();
    const run_result run = run_program(words);
    if (run.status != 0) {
        fputs(run.err.c_str(), stderr);
        exit(1);
    }
    return bench_since(begin);
}

int main(int argc, char **argv)
{
    const int changes = argc > 1 ? atoi(argv[1]) : 200'000;
    const int rounds = argc > 2 ? atoi(argv[2]) : 5;
    const std::string capship = fs::read_symlink("/proc/self/exe").parent_path() / "capship";
    tempdir dir;
    const std::string cfg = dir.file("fwutil.cfg");
    const std::string far_cfg = dir.file("far.cfg");
    write_file(far_cfg, "log-directory " + dir.file("far") + "\n");
    fs::current_path(dir.path());
    bench_make_log(dir.path(), changes);
    const std::vector<bench_message> messages = messages_of(dir.file("log"));
    std::vector<double> own, push, pull, ratio, pull_ratio;
    for (int round = 0; round < rounds; round++) {
        nats_server server;
        const std::string url = server.url();
        own.push_back(publish(url, messages));
        push.push_back(timed({capship, "push", "--log", cfg, "--server", url, "--stream", "S",
                              "--create", "--once"}));
        fs::remove_all(dir.file("far"));
        pull.push_back(timed({capship, "pull", "--server", url, "--stream", "S", "--durable", "far",
                              "--once", far_cfg}));
        ratio.push_back(own.back() / push.back());
        pull_ratio.push_back(own.back() / pull.back());
    }
    const auto rate = [&](const std::vector<double> &seconds) {
        return static_cast<double>(messages.size()) / bench_median(seconds);
    };
    printf("%zu messages, the middle of %d rounds\n", messages.size(), rounds);
    printf("%-24s %10s %8s\n", "", "messages/s", "ratio");
    printf("%-24s %10.0f %8s\n", "publisher of the library", rate(own), "1");
    printf("%-24s %10.0f %8.2f\n", "capship push", rate(push), bench_median(ratio));
    printf("%-24s %10.0f %8.2f\n", "capship pull", rate(pull), bench_median(pull_ratio));
    return 0;
}
