// The built capship with a server of the test's own: a log goes to another host and is the same
// there, whatever is killed on the way.
#include "fwutil/fwutil.h"
#include "ship/log_source.h"
#include "ship/server.h"
#include "tests/changes/written_log.h"
#include "tests/tools/capship/nats_server.h"

#include <gmock/gmock.h>
#include <optional>
#include <random>

using ::testing::HasSubstr;

static const std::string BIN = KESTRO_BUILD_DIR "/bin/";
static const std::string ORDERS = KESTRO_SOURCE_DIR "/examples/orders/";

namespace {
class Capship : public ::testing::Test {
  protected:
    void SetUp() override
    {
        if (nats_server::missing())
            GTEST_SKIP() << "nats-server is missing: Debian package nats-server";
        server.emplace();
        url = server->url();
        far = dir.file("far");
        write_file(dir.file("far.cfg"), "log-directory " + far + "\n");
        setup.directory = dir.path();
    }

    std::vector<std::string> push_words(const std::string &cfg,
                                        const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> words = {BIN + "capship", "push", "--log",   cfg, "--server", url,
                                          "--stream",      "S",    "--create"};
        words.insert(words.end(), more.begin(), more.end());
        words.insert(words.end(), more_words.begin(), more_words.end());
        return words;
    }
    std::vector<std::string> pull_words(const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> words = {BIN + "capship", "pull", "--server",  url,
                                          "--stream",      "S",    "--durable", "far"};
        words.insert(words.end(), more.begin(), more.end());
        words.insert(words.end(), more_words.begin(), more_words.end());
        words.push_back(dir.file("far.cfg"));
        return words;
    }
    run_result push_once(const std::string &cfg)
    {
        return run_program(push_words(cfg, {"--once", "-v"}), setup);
    }
    run_result pull_once()
    {
        return run_program(pull_words({"--once", "-v"}), setup);
    }

    // The recorded stream of orders as a log.
    std::string load_orders()
    {
        std::string text = read_file(ORDERS + "fwutil.cfg");
        const size_t at = text.find("log-directory");
        text.replace(at, text.find('\n', at) - at, "log-directory " + dir.file("orders"));
        write_file(dir.file("orders.cfg"), text);
        const run_result loaded =
            run_program({BIN + "fwlog", "load", "-cfg", dir.file("orders.cfg"),
                         ORDERS + "orders-changes.jsonl"},
                        setup);
        EXPECT_EQ(loaded.status, 0) << loaded.err;
        return dir.file("orders.cfg");
    }

    std::string changes(const std::string &cfg) const
    {
        const run_result result =
            run_program({BIN + "fwlog", "tail", "--json", "-n", "1000000", "-cfg", cfg}, setup);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }

    // The log files of two logs are equal, byte for byte.
    static void expect_same(const std::string &near, const std::string &far)
    {
        size_t files = 0;
        for (const auto &file : std::filesystem::directory_iterator(near)) {
            const std::string name = file.path().filename();
            if (!name.starts_with("fw"))
                continue;
            files++;
            EXPECT_TRUE(read_file(file.path()) == read_file(far + "/" + name)) << name;
        }
        EXPECT_GT(files, 0U);
    }

    // Messages that a log is sent as.
    static size_t count_messages(const std::string &log)
    {
        ship_log_source source;
        EXPECT_TRUE(ship_log_open(source, log, {}, 512 * 1024));
        size_t count = 0;
        for (bool found = true; found;) {
            ship_message message;
            const outcome next = ship_log_next(source, message, found);
            EXPECT_TRUE(next) << next.text();
            found = found && next;
            count += found ? 1 : 0;
        }
        ship_log_close(source);
        return count;
    }
    uint64_t stream_messages() const
    {
        const ship_server_options options = {.url = url.c_str(), .stream = "S"};
        ship_server connected;
        ship_stream stream;
        outcome done = ship_connect(connected, options, "test", nullptr);
        if (done)
            done = ship_look(stream, connected, options);
        EXPECT_TRUE(done || done.kind() == OUTCOME_BAD) << done.text(); // not there yet
        return stream.messages;
    }

    void put(written_log &log, uint32_t number, uint64_t changes = 3)
    {
        log.begin();
        for (uint64_t i = 0; i < changes; i++)
            log.insert(layout, le(number, 4) + "12345678");
        log.commit();
    }

    fwu_layout layout = {.dbname = "SALES",
                         .dsetname = "ORDERS",
                         .items = {{"NO", 'I', 4, 1, 0}, {"TEXT", 'X', 8, 1, 0}}};
    tempdir dir;
    run_setup setup;
    std::string url;
    std::string far;
    std::vector<std::string> more_words; // of both commands
    std::optional<nats_server> server;
};
} // namespace

TEST_F(Capship, ALogIsTheSameOnTheOtherSide)
{
    const std::string cfg = load_orders();
    const run_result pushed = push_once(cfg);
    ASSERT_EQ(pushed.status, 0) << pushed.err;
    const run_result pulled = pull_once();
    ASSERT_EQ(pulled.status, 0) << pulled.err;
    expect_same(dir.file("orders"), far);
    const std::string there = changes(cfg);
    EXPECT_FALSE(there.empty());
    EXPECT_TRUE(there == changes(dir.file("far.cfg")));
    EXPECT_EQ(stream_messages(), count_messages(dir.file("orders")));
    // Both again: there is nothing to do.
    EXPECT_THAT(push_once(cfg).err, HasSubstr("stream S ends with message"));
    EXPECT_EQ(pull_once().status, 0);
    EXPECT_EQ(stream_messages(), count_messages(dir.file("orders")));
    expect_same(dir.file("orders"), far);
}

TEST_F(Capship, FollowsTheLogAndStopsCleanly)
{
    written_log log;
    background push;
    background pull;
    setup.directory = log.dir.path();
    push.start(push_words(log.cfg), setup, dir.file("push"));
    pull.start(pull_words(), setup, dir.file("pull"));
    const std::string file = "/fw0001-00000001.log";
    for (uint32_t i = 1; i <= 5; i++) {
        put(log, i);
        ASSERT_TRUE(poll_until([&] {
            const std::string bytes = read_file(far + file);
            return !bytes.empty() && bytes == read_file(log.log + file);
        })) << push.err()
            << pull.err();
    }
    EXPECT_EQ(push.end(SIGTERM), 128 + SIGTERM) << push.err();
    EXPECT_EQ(pull.end(SIGINT), 128 + SIGINT) << pull.err();
}

TEST_F(Capship, LargeTransactionsAndValuesArriveWhole)
{
    written_log log;
    put(log, 1, 5000); // more messages than one request
    log.begin();
    const std::string text(3'000'000, 'v'); // more than one message, more than one entry
    const fwu_value value = {.item = 1, .image = FWU_IMAGE_AFTER, .text = text};
    log.change(FWU_OP_INSERT, layout, "", le(2, 4) + "vvvvvvvv", {&value, 1});
    log.commit();
    log.new_file();
    put(log, 3);
    setup.directory = log.dir.path();
    ASSERT_EQ(push_once(log.cfg).status, 0);
    const run_result pulled = pull_once();
    ASSERT_EQ(pulled.status, 0) << pulled.err;
    expect_same(log.log, far);
}

TEST_F(Capship, KillsLoseNothingAndDoubleNothing)
{
    const uint32_t seed = std::random_device{}();
    std::cout << "seed " << seed << std::endl;
    std::mt19937 random(seed);
    written_log log;
    setup.directory = log.dir.path();
    background push;
    background pull;
    uint32_t number = 0;
    for (int round = 0; round < 12; round++) {
        push.start(push_words(log.cfg, {"--pending", std::to_string(1 + random() % 300)}), setup,
                   dir.file("push"));
        pull.start(pull_words(), setup, dir.file("pull"));
        for (uint64_t i = 0, most = random() % 60; i < most; i++) {
            if (random() % 20 == 0)
                log.new_file();
            put(log, ++number, 1 + random() % 40);
        }
        // Somewhere on the way: behind so many bytes on the other side.
        const auto bytes = [](const std::string &directory) {
            uintmax_t size = 0;
            std::error_code gone;
            for (const auto &file : std::filesystem::directory_iterator(directory, gone))
                if (file.path().filename().string().starts_with("fw"))
                    size += file.file_size(gone);
            return size;
        };
        const uintmax_t wanted = bytes(far) + random() % (bytes(log.log) - bytes(far) + 1);
        ASSERT_TRUE(poll_until([&] {
            return bytes(far) >= wanted || !push.running() || !pull.running();
        })) << push.err()
            << pull.err();
        ASSERT_TRUE(push.running()) << push.err();
        ASSERT_TRUE(pull.running()) << pull.err();
        switch (random() % 4) {
        case 0:
            push.end(SIGKILL);
            break;
        case 1:
            pull.end(SIGKILL);
            break;
        case 2:
            push.end(SIGKILL);
            pull.end(SIGKILL);
            break;
        default:
            server->crash();
            server->start();
            break;
        }
    }
    push.end(SIGKILL);
    pull.end(SIGKILL);
    put(log, ++number);
    const run_result pushed = push_once(log.cfg);
    ASSERT_EQ(pushed.status, 0) << pushed.err;
    const run_result pulled = pull_once();
    ASSERT_EQ(pulled.status, 0) << pulled.err;
    expect_same(log.log, far);
    EXPECT_EQ(stream_messages(), count_messages(log.log));
}

TEST_F(Capship, ASecondPushIsHarmless)
{
    written_log log;
    setup.directory = log.dir.path();
    background first;
    background second;
    first.start(push_words(log.cfg, {"--pending", "20"}), setup, dir.file("first"));
    second.start(push_words(log.cfg, {"--pending", "50"}), setup, dir.file("second"));
    for (uint32_t i = 1; i <= 300; i++)
        put(log, i);
    const size_t count = count_messages(log.log);
    ASSERT_TRUE(poll_until(
        [&] { return !first.running() || !second.running() || stream_messages() >= count; }));
    EXPECT_TRUE(first.running()) << first.err();
    EXPECT_TRUE(second.running()) << second.err();
    EXPECT_EQ(first.end(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(second.end(SIGTERM), 128 + SIGTERM);
    EXPECT_EQ(stream_messages(), count);
    ASSERT_EQ(pull_once().status, 0);
    expect_same(log.log, far);
}

// A stream that forgets at once which messages it has.
TEST_F(Capship, APauseLongerThanTheWindowDoublesNothing)
{
    const ship_server_options options = {.url = url.c_str(), .stream = "S"};
    {
        ship_server connected;
        ASSERT_TRUE(ship_connect(connected, options, "test", nullptr));
        const char *subjects[] = {"S.>"};
        jsStreamConfig config;
        jsStreamConfig_Init(&config);
        config.Name = "S";
        config.Subjects = subjects;
        config.SubjectsLen = 1;
        config.Duplicates = 100'000'000; // nanoseconds, the shortest
        jsErrCode code = jsErrCode(0);
        ASSERT_EQ(js_AddStream(nullptr, connected.js, &config, nullptr, &code), NATS_OK) << code;
    }
    written_log log;
    setup.directory = log.dir.path();
    put(log, 1);
    ASSERT_EQ(push_once(log.cfg).status, 0);
    background push;
    push.start(push_words(log.cfg), setup, dir.file("push"));
    put(log, 2);
    ASSERT_TRUE(poll_until([&] { return stream_messages() == 6; }));
    push.signal(SIGSTOP);
    put(log, 3);
    const run_result other = push_once(log.cfg); // while the first one sleeps
    ASSERT_EQ(other.status, 0) << other.err;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    push.signal(SIGCONT);
    put(log, 4);
    ASSERT_TRUE(poll_until([&] { return stream_messages() >= 12 || !push.running(); }));
    EXPECT_EQ(push.end(SIGTERM), 128 + SIGTERM) << push.err();
    EXPECT_EQ(stream_messages(), 12U);
    ASSERT_EQ(pull_once().status, 0);
    expect_same(log.log, far);
}

TEST_F(Capship, AStreamIsOfOneLog)
{
    written_log log;
    written_log other;
    put(log, 1);
    put(other, 1);
    setup.directory = log.dir.path();
    ASSERT_EQ(push_once(log.cfg).status, 0);
    ASSERT_EQ(pull_once().status, 0);
    setup.directory = other.dir.path();
    const run_result refused = push_once(other.cfg);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("which the log here does not have: it is another one"));
    EXPECT_EQ(stream_messages(), 3U);
    std::vector<std::string> words = push_words(other.cfg, {"--once"});
    *std::find(words.begin(), words.end(), "S") = "OTHER";
    const run_result taken = run_program(words, setup);
    EXPECT_EQ(taken.status, 0) << taken.err;
}

TEST_F(Capship, WhatTheServerLosesIsToldAndPushedAgain)
{
    written_log log;
    setup.directory = log.dir.path();
    put(log, 1);
    ASSERT_EQ(push_once(log.cfg).status, 0);
    server->stop();
    server->save();
    server->start();
    background push;
    push.start(push_words(log.cfg), setup, dir.file("push"));
    put(log, 2);
    ASSERT_TRUE(poll_until([&] { return stream_messages() == 6; }));
    ASSERT_EQ(pull_once().status, 0); // it has what the server will have lost
    server->crash();
    server->set_back();
    server->start();
    put(log, 3);
    ASSERT_TRUE(poll_until([&] { return stream_messages() == 9 || !push.running(); }));
    EXPECT_EQ(push.end(SIGTERM), 128 + SIGTERM) << push.err();
    EXPECT_THAT(push.err(), HasSubstr("the server has lost messages 4 to 6"));
    const run_result pulled = pull_once();
    ASSERT_EQ(pulled.status, 0) << pulled.err;
    expect_same(log.log, far);
}

TEST_F(Capship, ALogThatSomethingElseWroteToIsLeftAlone)
{
    written_log log;
    setup.directory = log.dir.path();
    put(log, 1);
    ASSERT_EQ(push_once(log.cfg).status, 0);
    ASSERT_EQ(pull_once().status, 0);
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, dir.file("far.cfg").c_str()), 0);
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    const std::string image = le(9, 4) + "abcdefgh";
    ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, layout, 1, 12, nullptr, image.data()), 0);
    ASSERT_EQ(fwu_writer_commit(writer, {5, 6, 100}), 0);
    ASSERT_EQ(fwu_writer_close(writer), 0);
    put(log, 2);
    ASSERT_EQ(push_once(log.cfg).status, 0);
    const run_result pulled = pull_once();
    EXPECT_EQ(pulled.status, 1);
    EXPECT_THAT(pulled.err, HasSubstr("has something else at"));
    write_file(dir.file("far.cfg"), "log-directory " + dir.file("new") + "\n");
    std::vector<std::string> words = pull_words({"--once"});
    *std::find(words.begin(), words.end(), "far") = "new";
    const run_result anew = run_program(words, setup);
    EXPECT_EQ(anew.status, 0) << anew.err;
    expect_same(log.log, dir.file("new"));
}

TEST_F(Capship, AServerThatIsAwayIsWaitedFor)
{
    written_log log;
    setup.directory = log.dir.path();
    put(log, 1);
    server->stop();
    background push;
    background pull;
    push.start(push_words(log.cfg, {"--once"}), setup, dir.file("push"));
    pull.start(pull_words(), setup, dir.file("pull"));
    ASSERT_TRUE(poll_until([&] {
        return push.err().find("trying again") != std::string::npos &&
               pull.err().find("trying again") != std::string::npos;
    }));
    server->start();
    EXPECT_EQ(push.wait(), 0) << push.err();
    pull.end(SIGTERM); // the stream was not there, perhaps
    ASSERT_EQ(pull_once().status, 0);
    expect_same(log.log, far);
}

TEST_F(Capship, AStreamThatIsMissingIsAnError)
{
    written_log log;
    put(log, 1);
    std::vector<std::string> words = push_words(log.cfg, {"--once"});
    std::erase(words, "--create");
    setup.directory = log.dir.path();
    const run_result pushed = run_program(words, setup);
    EXPECT_EQ(pushed.status, 1);
    EXPECT_EQ(pushed.err, "capship: there is no stream S; capship push --create makes it\n");
    EXPECT_EQ(pull_once().status, 1);
    ASSERT_EQ(push_once(log.cfg).status, 0);
    ASSERT_EQ(pull_once().status, 0);
    expect_same(log.log, far);
}

TEST_F(Capship, TlsNeedsTheNameOfTheServer)
{
    NEED_PROGRAM("openssl", "openssl");
    const auto openssl = [&](std::vector<std::string> words) {
        words.insert(words.begin(), "openssl");
        const run_result run = run_program(words, setup);
        ASSERT_EQ(run.status, 0) << run.err;
    };
    for (const char *name : {"localhost", "elsewhere"})
        openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                 "-nodes", "-days", "2", "-subj", std::string("/CN=") + name, "-addext",
                 std::string("subjectAltName=DNS:") + name, "-keyout",
                 dir.file(std::string(name) + ".key"), "-out",
                 dir.file(std::string(name) + ".pem")});
    written_log log;
    put(log, 1);
    for (const char *name : {"localhost", "elsewhere"}) {
        const std::string certificate = dir.file(std::string(name) + ".pem");
        server.emplace("authorization { user: ship, password: secret }\ntls { cert_file: \"" +
                       certificate + "\"\nkey_file: \"" + dir.file(std::string(name) + ".key") +
                       "\" }\n");
        url = server->url("ship:secret@");
        url.replace(url.find("127.0.0.1"), 9, "localhost");
        more_words = {"--ca", certificate};
        setup.directory = log.dir.path();
        if (name == std::string("localhost")) {
            const run_result pushed = push_once(log.cfg);
            ASSERT_EQ(pushed.status, 0) << pushed.err;
            ASSERT_EQ(pull_once().status, 0);
            expect_same(log.log, far);
            continue;
        }
        background push;
        push.start(push_words(log.cfg, {"--once"}), setup, dir.file("push"));
        ASSERT_TRUE(poll_until([&] {
            return push.err().find("trying again") != std::string::npos || !push.running();
        }));
        EXPECT_EQ(push.end(SIGTERM), 128 + SIGTERM);
        EXPECT_THAT(push.err(), HasSubstr("cannot connect to the server: SSL Error"));
        EXPECT_EQ(push.err().find("secret"), std::string::npos);
    }
}

TEST_F(Capship, TheFirstServerThatAnswersIsTaken)
{
    written_log log;
    put(log, 1);
    nats_server away;
    away.stop();
    url = away.url() + "," + server->url();
    setup.directory = log.dir.path();
    const run_result pushed = push_once(log.cfg);
    ASSERT_EQ(pushed.status, 0) << pushed.err;
    EXPECT_EQ(stream_messages(), 3U);
}

TEST_F(Capship, AConsumerThatIsTakenAwayIsMadeAnew)
{
    written_log log;
    put(log, 1);
    setup.directory = log.dir.path();
    ASSERT_EQ(push_once(log.cfg).status, 0);
    background pull;
    pull.start(pull_words(), setup, dir.file("pull"));
    const std::string file = "/fw0001-00000001.log";
    const auto same = [&] { return read_file(far + file) == read_file(log.log + file); };
    ASSERT_TRUE(poll_until(same)) << pull.err();
    {
        const ship_server_options options = {.url = url.c_str(), .stream = "S"};
        ship_server connected;
        ASSERT_TRUE(ship_connect(connected, options, "test", nullptr));
        ASSERT_EQ(js_DeleteConsumer(connected.js, "S", "far", nullptr, nullptr), NATS_OK);
    }
    put(log, 2);
    ASSERT_EQ(push_once(log.cfg).status, 0);
    ASSERT_TRUE(poll_until(same)) << pull.err();
    EXPECT_EQ(pull.end(SIGTERM), 128 + SIGTERM);
}
