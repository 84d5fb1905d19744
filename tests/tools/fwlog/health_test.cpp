// fwlog health over runs of the built program that rest, go on, stand still and are gone, and
// over files written by hand.
#include "fwutil/fwu_clock.h"
#include "tests/procs/growing_log.h"
#include "util/process_word.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

using nlohmann::json;
using testing::HasSubstr;
using words = std::vector<std::string>;

class FwlogHealth : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64M");
        options.directory = dir.path();
        options.env = {{"TZ", "UTC"}, {"KESTRO_STATUS", "state.json"}};
        options.unset = {"KESTRO_SYNC", "KESTRO_TEXT", "LD_LIBRARY_PATH", "NOTIFY_SOCKET"};
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        EXPECT_TRUE(append_transaction(writer, 1, 3));
    }
    void TearDown() override
    {
        if (pid > 0) {
            (void)kill(pid, SIGKILL);
            wait_program(pid);
        }
        fwu_writer_close(writer);
    }

    run_result health(words args)
    {
        args.insert(args.begin(), {KESTRO_BUILD_DIR "/bin/fwlog", "health"});
        return run_program(args, options);
    }
    // The one line of all items, and the status.
    void expect(const words &args, int status, const std::string &text)
    {
        SCOPED_TRACE(testing::PrintToString(args));
        const run_result result = health(args);
        EXPECT_EQ(result.status, status) << result.err;
        EXPECT_THAT(result.out, HasSubstr(text));
        EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1);
        EXPECT_EQ(result.err, "");
    }
    void start(words args)
    {
        args.insert(args.begin(), KESTRO_BUILD_DIR "/bin/Kestro");
        pid = start_program(args, options, "", "");
    }
    void start_and_rest()
    {
        start({"-ascii", "cap"});
        ASSERT_TRUE(poll_until([&] { return told("state") == "waiting"; }));
    }
    std::string told(const char *name) const
    {
        const std::string text = read_file(dir.file("state.json"));
        return text.empty() ? "" : json::parse(text).at(name).get<std::string>();
    }
    void end(int signal)
    {
        EXPECT_EQ(kill(pid, signal), 0);
        wait_program(pid);
        pid = 0;
    }

    tempdir dir;
    run_setup options;
    fwu_writer *writer = nullptr;
    pid_t pid = 0;
};

TEST_F(FwlogHealth, ARunThatRestsIsWell)
{
    ASSERT_NO_FATAL_FAILURE(start_and_rest());
    const std::string number = std::to_string(pid);
    expect({"--state", "state.json", "--state", "fwutil.status"}, 0,
           "OK: state.json: idle at 1-1.4; fwutil.status: idle at 1-1.4\n");
    const json found =
        json::parse(health({"--state", "state.json", "--json", "--max-lag", "0"}).out);
    EXPECT_EQ(found.at("verdict"), "OK");
    const json &item = found.at("items").at(0);
    EXPECT_EQ(item.at("kind"), "run");
    EXPECT_EQ(item.at("state"), "idle");
    EXPECT_EQ(item.at("pid"), pid);
    EXPECT_EQ(item.at("position"), "1-1.4");
    EXPECT_EQ(item.at("records"), 0);
    EXPECT_EQ(item.at("bytes"), 0);
    EXPECT_EQ(item.at("seconds"), 0);
    EXPECT_EQ(json::parse(health({"--state", "fwutil.status", "--json"}).out).at("items")[0]["pid"],
              pid);
    end(SIGTERM);
    expect({"--state", "state.json"}, 0, "OK: state.json: stopped at 1-1.4: nothing waits\n");
    EXPECT_TRUE(append_transaction(writer, 4, 2));
    expect({"--state", "state.json"}, 2, "CRITICAL: state.json: stopped at 1-1.4, 2 records, ");
    expect({"--state", "fwutil.status"}, 2, "seconds behind: nobody reads what waits\n");
}

TEST_F(FwlogHealth, AStoppedProcessIsStalledThoughNothingWaits)
{
    ASSERT_NO_FATAL_FAILURE(start_and_rest());
    EXPECT_EQ(kill(pid, SIGSTOP), 0);
    ASSERT_TRUE(poll_until([&] { return process_letter(pid) == 'T'; }));
    expect({"--state", "state.json"}, 2,
           "CRITICAL: state.json: stalled at 1-1.4: process " + std::to_string(pid) +
               " was stopped (SIGCONT)\n");
    expect({"--state", "fwutil.status"}, 2, "stalled");
    EXPECT_EQ(kill(pid, SIGCONT), 0);
    ASSERT_TRUE(poll_until([&] { return process_letter(pid) != 'T'; }));
    expect({"--state", "state.json"}, 0, "OK");
}

TEST_F(FwlogHealth, APipeThatNobodyReadsIsAStall)
{
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    start({"-ascii", "fifo"});
    ASSERT_TRUE(poll_until([&] { return told("state") == "running"; }));
    expect({"--state", "state.json"}, 2,
           "stalled, 3 records, "); // no position yet
    expect({"--state", "fwutil.status"}, 2,
           "behind: process " + std::to_string(pid) + " does not go on\n");
}

TEST_F(FwlogHealth, OneThatGoesOnIsWellUnlessItIsLate)
{
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    EXPECT_TRUE(append_transaction(writer, 4, 20000)); // more than the pipe and a while hold
    const pid_t reader = start_program(
        {"sh", "-c", "while read -r line; do sleep 0.003; done <fifo"}, options, "", "");
    start({"-ascii", "fifo"});
    ASSERT_TRUE(poll_until([&] { return told("state") == "running"; }));
    expect({"--state", "state.json"}, 0, "OK: state.json: progressing at 1-1.");
    expect({"--state", "fwutil.status", "--max-lag", "60"}, 1, "WARNING: fwutil.status: progress");
    end(SIGKILL);
    EXPECT_EQ(kill(reader, SIGKILL), 0);
    wait_program(reader);
}

TEST_F(FwlogHealth, AFullDiskIsAFailureThatSaysWhy)
{
    start({"-ascii", "/dev/full"});
    EXPECT_EQ(wait_program(pid), 1);
    pid = 0;
    expect({"--state", "state.json"}, 2, "failed, 3 records, ");
    expect({"--state", "state.json"}, 2,
           ": Error writing to capture file: /dev/full: No space left on device\n");
}

TEST_F(FwlogHealth, AProcessThatIsGoneIsDeadAndSoIsItsNumbersNextOwner)
{
    ASSERT_NO_FATAL_FAILURE(start_and_rest());
    end(SIGKILL);
    expect({"--state", "state.json"}, 2, " is gone and has not said why; it said last: waiting\n");
    json state = json::parse(read_file(dir.file("state.json")));
    std::string earlier = process_word(getpid()); // of one that began at another time
    earlier.back() = earlier.back() == '0' ? '1' : '0';
    state["pid"] = getpid();
    state["process"] = earlier;
    write_file(dir.file("state.json"), state.dump());
    expect({"--state", "state.json"}, 2, "dead");
    state["process"] = process_word(getpid());
    write_file(dir.file("state.json"), state.dump());
    expect({"--state", "state.json"}, 0, "OK: state.json: idle");
    std::string other = process_word(getpid());
    other[0] = other[0] == '0' ? '1' : '0'; // of another start of the system
    state["process"] = other;
    write_file(dir.file("state.json"), state.dump());
    expect({"--state", "state.json"}, 2, "dead");
}

TEST_F(FwlogHealth, OneThatHasToldNothingForAWhileIsStalled)
{
    ASSERT_NO_FATAL_FAILURE(start_and_rest());
    json state = json::parse(read_file(dir.file("state.json")));
    state["updated"] = "2023-11-14T22:13:20.000000Z";
    write_file(dir.file("old.json"), state.dump());
    expect({"--state", "old.json"}, 2, " has told nothing for ");
    state["status"] = dir.file("none"); // another library's position is not known
    state["state"] = "running";
    write_file(dir.file("old.json"), state.dump());
    expect({"--state", "old.json"}, 0, "OK: old.json: running at 1-1.4: how far it is behind is ");
    state["state"] = "stopped";
    write_file(dir.file("old.json"), state.dump());
    expect({"--state", "old.json"}, 3, "UNKNOWN: old.json: stopped at 1-1.4: how far it is ");
}

// Who may not read what the run's position lies in cannot say that it goes on.
TEST_F(FwlogHealth, WhatAMonitorMayNotReadIsNotWell)
{
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    start({"-ascii", "fifo"});
    ASSERT_TRUE(poll_until([&] { return told("state") == "running"; }));
    EXPECT_EQ(chmod(dir.file("fwutil.status").c_str(), 0), 0);
    EXPECT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const std::string nobody =
        geteuid() == 0 ? "setpriv --reuid 65534 --regid 65534 --clear-groups " : "";
    const auto look = [&](const char *file) {
        return run_program(
            {"sh", "-c", nobody + KESTRO_BUILD_DIR "/bin/fwlog health --state " + file}, options);
    };
    const run_result hidden = look("state.json");
    EXPECT_EQ(hidden.status, 3) << hidden.out << hidden.err;
    EXPECT_THAT(hidden.out, HasSubstr("UNKNOWN: state.json: running: how far it is behind is not "
                                      "known: "));
    EXPECT_THAT(hidden.out, HasSubstr("Permission denied\n"));
    json state = json::parse(read_file(dir.file("state.json")));
    state["updated"] = "2023-11-14T22:13:20.000000Z";
    write_file(dir.file("old.json"), state.dump());
    const run_result old = look("old.json");
    EXPECT_EQ(old.status, 2) << old.out << old.err;
    EXPECT_THAT(old.out,
                HasSubstr("stalled: process " + std::to_string(pid) + " has told nothing"));
}

TEST_F(FwlogHealth, ARunWhoseLogIsGoneIsNotKnown)
{
    ASSERT_NO_FATAL_FAILURE(start_and_rest());
    json state = json::parse(read_file(dir.file("state.json")));
    end(SIGTERM);
    std::filesystem::rename(dir.file("log"), dir.file("away"));
    state["pid"] = getpid();
    state["process"] = process_word(getpid());
    write_file(dir.file("state.json"), state.dump());
    expect({"--state", "state.json"}, 3, "UNKNOWN: state.json: running at 1-1.4: how far it is ");
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    state["status"] = dir.file("fifo");
    write_file(dir.file("state.json"), state.dump());
    expect({"--state", "state.json"}, 0, "fifo: it is no regular file\n");
}

TEST_F(FwlogHealth, NamesAndMessagesMakeNoSecondLine)
{
    write_file(dir.file("a\nb"),
               R"({"state":"failed","error":"1\n\tUTF-8 \u00e4 \u001b[31m\u007f"})");
    EXPECT_EQ(health({"--state", "a\nb"}).out, "CRITICAL: a b: failed: 1  UTF-8 \xC3\xA4  [31m \n");
    const json found = json::parse(health({"--state", "a\nb", "--json"}).out);
    EXPECT_EQ(found.at("items")[0].at("file"), "a\nb");
    EXPECT_EQ(found.at("items")[0].at("detail"), "failed: 1\n\tUTF-8 \xC3\xA4 \x1B[31m\x7F");
}

TEST_F(FwlogHealth, NumbersOfABridgeThatNobodyWroteAreNumbers)
{
    const struct {
        const char *bytes;
        const char *seconds;
        double expected;
    } rows[] = {{"5", "1e999", 1e10}, {"5", "1e300", 1e10}, {"5", "-1", 0},   {"-5", "2", 2},
                {"5", "\"nan\"", 0},  {"5", "null", 0},     {"5", "1.5", 1.5}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.seconds);
        write_file(dir.file("b.json"),
                   "{\"state\":\"failed\",\"lag_bytes\":" + std::string(row.bytes) +
                       ",\"lag_seconds\":" + row.seconds + "}");
        const json item =
            json::parse(health({"--state", "b.json", "--json"}).out).at("items").at(0);
        EXPECT_EQ(item.at("seconds"), row.expected);
        EXPECT_EQ(item.at("bytes"), row.bytes[0] == '-' ? 0 : 5);
    }
}

TEST_F(FwlogHealth, WithoutFilesItLooksAtWhatTheLogKnows)
{
    const run_result none = health({});
    EXPECT_EQ(none.status, 3);
    EXPECT_EQ(none.out, "");
    EXPECT_THAT(none.err, HasSubstr("nothing is registered with the log in "));
    ASSERT_NO_FATAL_FAILURE(start_and_rest());
    const run_result added =
        run_program({KESTRO_BUILD_DIR "/bin/fwlog", "readers", "--add", "fwutil.status"}, options);
    EXPECT_EQ(added.status, 0) << added.err;
    expect({}, 0, "fwutil.status: idle at 1-1.4\n");
    write_file(dir.file("log/postgresql.json"), "{\"state\":\"failed\",\"error\":\"no\\nslot\"}");
    expect({"--json"}, 2, "failed: no\\u000aslot");
}

TEST_F(FwlogHealth, ABridgeIsJudgedByWhatItTells)
{
    const std::string now = fwu_time_word(fwu_now_us());
    const json well = {{"state", "streaming"},  {"error", nullptr},
                       {"pid", getpid()},       {"process", process_word(getpid())},
                       {"updated", now},        {"logged_lsn", "0/28"},
                       {"lag_bytes", 0},        {"lag_seconds", 0.0},
                       {"aside", json::array()}};
    const struct {
        json change;
        int status;
        const char *text;
    } rows[] = {
        {json::object(), 0, "OK: b.json: idle at 0/28\n"},
        {{{"lag_bytes", 7}, {"lag_seconds", 2.5}}, 0, "progressing at 0/28, 7 bytes, 2.5 seconds"},
        {{{"lag_bytes", 7}, {"lag_seconds", 9.5}}, 1, "WARNING"},
        {{{"state", "starting"}}, 0, "starting"},
        {{{"state", "waiting"}, {"error", "no server"}}, 2, "waiting at 0/28: no server"},
        {{{"state", "failed"}, {"error", "no slot"}}, 2, "failed at 0/28: no slot"},
        {{{"state", "stopped"}}, 1, "stopped"},
        {{{"updated", "2023-11-14T22:13:20.000000Z"}}, 2, "has told nothing"},
        {{{"aside", {{{"table", "a.b"}}}}}, 1, "1 tables are set aside"},
        {{{"pid", 1}}, 2, "dead"},
        {{{"pid", -1}}, 2, "dead"},
        {{{"pid", 4294967297}}, 2, "dead"},
        {{{"pid", "x"}}, 2, "dead"},
        {{{"process", ""}}, 0, "idle"}, // of an older version
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.change.dump());
        json state = well;
        state.update(row.change);
        write_file(dir.file("b.json"), state.dump());
        expect({"--state", "b.json", "--max-lag", "5"}, row.status, row.text);
    }
}

TEST_F(FwlogHealth, WhatTellsNothingIsUnknown)
{
    std::filesystem::create_directory(dir.file("folder"));
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    const struct {
        const char *name;
        std::string bytes;
    } rows[] = {{"a", "{"},
                {"b", "{}"},
                {"c", "{\"state\":7}"},
                {"d", "[1]"},
                {"e", std::string(100'000, '{')},
                {"f", "some text"},
                {"g", "# HELP kestro_info x\n"},
                {"h", std::string("{\"state\":\"x\0", 12)},
                {"i", "{\"state\":\"streaming\"} and more"}};
    for (const auto &row : rows) {
        write_file(dir.file(row.name), row.bytes);
        expect({"--state", row.name}, 3, "UNKNOWN: ");
    }
    for (const char *name : {"folder", "fifo", "none", "log"})
        expect({"--state", name}, 3, "UNKNOWN: ");
    write_file(dir.file("bad"), "{\"state\":\"failed\",\"error\":\"x\"}");
    expect({"--state", "none", "--state", "bad"}, 2, "CRITICAL: none: unknown: ");
}

TEST_F(FwlogHealth, AWrongCommandLineIsUnknownToAMonitor)
{
    for (const words &args : {words{"--stat", "x"}, words{"--max-lag", "x"}, words{"x"},
                              words{"-cfg", "none"}, words{"--max-lag"}}) {
        const run_result result = health(args);
        EXPECT_EQ(result.status, 3);
        EXPECT_NE(result.err, "");
    }
    const run_result full = run_program(
        {"sh", "-c", KESTRO_BUILD_DIR "/bin/fwlog health --state none >/dev/full"}, options);
    EXPECT_EQ(full.status, 3);
    EXPECT_EQ(health({"--help"}).status, 0);
}
