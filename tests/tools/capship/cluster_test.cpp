// A log through a cluster of three servers, each of which is killed now and then, and so are push
// and pull: nothing is lost, nothing comes twice, the order is kept.
//
// KESTRO_CLUSTER_ROUNDS: how many kills; few when it is not set.
#include "fwutil/fwutil.h"
#include "ship/log_source.h"
#include "ship/server.h"
#include "tests/changes/written_log.h"
#include "tests/tools/capship/nats_server.h"

#include <gtest/gtest.h>
#include <memory>
#include <random>

static const std::string CAPSHIP = KESTRO_BUILD_DIR "/bin/capship";

static std::string log_bytes(const std::string &directory)
{
    std::vector<std::string> names;
    std::error_code gone;
    for (const auto &file : std::filesystem::directory_iterator(directory, gone))
        if (file.path().filename().string().starts_with("fw"))
            names.push_back(file.path());
    std::sort(names.begin(), names.end());
    std::string bytes;
    for (const std::string &name : names)
        bytes += read_file(name);
    return bytes;
}

static std::vector<std::unique_ptr<nats_server>> make_cluster()
{
    std::vector<int> ports;
    std::string routes;
    for (int i = 0; i < 3; i++) {
        ports.push_back(nats_server::free_port());
        routes += (routes.empty() ? "" : ", ") +
                  ("nats-route://127.0.0.1:" + std::to_string(ports.back()));
    }
    std::vector<std::unique_ptr<nats_server>> servers;
    for (size_t i = 0; i < ports.size(); i++)
        servers.push_back(std::make_unique<nats_server>(
            "server_name: n" + std::to_string(i) + "\ncluster { name: c, listen: \"127.0.0.1:" +
            std::to_string(ports[i]) + "\", routes: [" + routes + " ] }\n"));
    return servers;
}

TEST(CapshipCluster, KillsOfServersPushAndPullLoseAndDoubleNothing)
{
    if (nats_server::missing())
        GTEST_SKIP() << "nats-server is missing: Debian package nats-server";
    const char *const asked = getenv("KESTRO_CLUSTER_ROUNDS");
    const int rounds = asked == nullptr ? 3 : atoi(asked);
    const uint32_t seed = std::random_device{}();
    std::cout << "seed " << seed << std::endl;
    std::mt19937 random(seed);
    const auto servers = make_cluster();
    std::string url;
    for (const auto &server : servers)
        url += (url.empty() ? "" : ",") + server->url();
    const fwu_layout layout = {.dbname = "SALES",
                               .dsetname = "ORDERS",
                               .items = {{"NO", 'I', 4, 1, 0}, {"TEXT", 'X', 8, 1, 0}}};
    written_log log;
    const tempdir dir;
    const std::string far = dir.file("far");
    write_file(dir.file("far.cfg"), "log-directory " + far + "\n");
    run_setup setup;
    setup.directory = log.dir.path();
    background push;
    background pull;
    int starts = 0; // each run says what it has to say in a file of its own
    const auto start_push = [&] {
        push.start({CAPSHIP, "push", "--log", log.cfg, "--server", url, "--stream", "S", "--create",
                    "--replicas", "3", "--pending", std::to_string(1 + random() % 500)},
                   setup, dir.file("push" + std::to_string(++starts)));
    };
    const auto start_pull = [&] {
        pull.start({CAPSHIP, "pull", "--server", url, "--stream", "S", "--durable", "far",
                    dir.file("far.cfg")},
                   setup, dir.file("pull" + std::to_string(++starts)));
    };
    const auto running = [&] { return push.running() && pull.running(); };
    start_push();
    start_pull();
    uint32_t number = 0;
    for (int round = 0; round < rounds; round++) {
        if (random() % 3 == 0)
            log.new_file();
        for (int i = 0; i < 100; i++) {
            log.begin();
            for (uint64_t n = random() % 30; n < 30; n++)
                log.insert(layout, le(++number, 4) + "12345678");
            log.commit();
        }
        // Somewhere on the way.
        const size_t wanted = log_bytes(far).size() +
                              random() % (log_bytes(log.log).size() - log_bytes(far).size() + 1);
        ASSERT_TRUE(poll_until([&] { return !running() || log_bytes(far).size() >= wanted; }, 180))
            << push.err() << pull.err();
        ASSERT_TRUE(running()) << push.err() << pull.err();
        nats_server &struck = *servers[random() % servers.size()];
        struck.crash();
        if (random() % 2 == 0) {
            push.end(SIGKILL);
            start_push();
        }
        if (random() % 2 == 0) {
            pull.end(SIGKILL);
            start_pull();
        }
        struck.start();
    }
    const std::string near = log_bytes(log.log);
    ASSERT_TRUE(poll_until([&] { return !running() || log_bytes(far) == near; }, 180))
        << push.err() << pull.err();
    EXPECT_EQ(push.end(SIGTERM), 128 + SIGTERM) << push.err();
    EXPECT_EQ(pull.end(SIGTERM), 128 + SIGTERM) << pull.err();
    EXPECT_TRUE(log_bytes(far) == near);

    // The stream holds each message once.
    uint64_t count = 0;
    ship_log_source source;
    ASSERT_TRUE(ship_log_open(source, log.log, {}, 512 * 1024));
    for (bool found = true; found; count += found ? 1 : 0) {
        ship_message message;
        ASSERT_TRUE(ship_log_next(source, message, found));
    }
    ship_log_close(source);
    const ship_server_options options = {.url = url.c_str(), .stream = "S"};
    ship_stream stream;
    ASSERT_TRUE(poll_until([&] {
        ship_server server;
        return ship_connect(server, options, "test", nullptr) && ship_look(stream, server, options);
    }));
    EXPECT_EQ(stream.messages, count);
    EXPECT_EQ(stream.last, count);
}
