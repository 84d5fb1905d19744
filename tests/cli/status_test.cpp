// KESTRO_STATUS: what a run tells of itself while it goes on and how it ended, with its own
// forward-log library and with another one.
#include "tests/cli/cli_fixture.h"
#include "tests/procs/growing_log.h"
#include "tests/support/notified.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/inotify.h>
#include <sys/stat.h>

using nlohmann::json;
using testing::HasSubstr;

// The file, or null while it is not there.
static json told(const std::string &path)
{
    const std::string text = read_file(path);
    return text.empty() ? json() : json::parse(text);
}

static std::string word(const json &state, const char *name)
{
    return state.is_object() && state.at(name).is_string() ? state.at(name).get<std::string>() : "";
}

class RunStatus : public testing::Test {
  protected:
    void SetUp() override
    {
        write_config(dir, "64M");
        options.directory = dir.path();
        options.env = {{"TZ", "UTC"}, {"KESTRO_STATUS", "state.json"}};
        options.unset = {"KESTRO_SYNC", "KESTRO_TEXT", "LD_LIBRARY_PATH"};
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        EXPECT_TRUE(append_transaction(writer, 1, 3));
    }
    void TearDown() override
    {
        fwu_writer_close(writer);
    }

    run_result run(words args)
    {
        args.insert(args.begin(), program);
        return run_program(args, options);
    }
    pid_t start(words args)
    {
        args.insert(args.begin(), program);
        return start_program(args, options, "", "");
    }
    json state() const
    {
        return told(dir.file("state.json"));
    }
    bool comes(const std::function<bool(const json &)> &what) const
    {
        const bool came = poll_until([&] { return what(state()); }, 20);
        EXPECT_TRUE(came) << state();
        return came;
    }

    tempdir dir;
    run_setup options;
    fwu_writer *writer = nullptr;
};

TEST_F(RunStatus, ARunThatEndedAsAsked)
{
    const run_result result = run({"-synconly", "-ascii", "cap", "msg"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const json found = state();
    EXPECT_EQ(found.at("program"), "Kestro");
    EXPECT_EQ(found.at("state"), "stopped");
    EXPECT_TRUE(found.at("error").is_null());
    EXPECT_EQ(found.at("records"), 3);
    EXPECT_EQ(found.at("position"), "1-1.4");
    EXPECT_EQ(found.at("status"), dir.file("fwutil.status"));
    EXPECT_EQ(found.at("config"), dir.file("fwutil.cfg"));
    EXPECT_LE(word(found, "started"), word(found, "updated"));
    const json &text = found.at("files").at(0);
    EXPECT_EQ(text.at("name"), "cap");
    EXPECT_EQ(text.at("format"), "text");
    EXPECT_EQ(text.at("records"), 3);
    EXPECT_EQ(text.at("bytes"), 3 * (62 + 14 + 20)); // growing_log.h; without line ends
    EXPECT_EQ(text.at("failures"), 0);
    EXPECT_EQ(text.at("last_change"), "2023-11-14T22:13:20.000000Z");
    EXPECT_LE(word(found, "started"), word(text, "last_record"));
    const json &message = found.at("files").at(1);
    EXPECT_EQ(message.at("format"), "message");
    EXPECT_EQ(message.at("bytes"), 3 * (62 + 24));
    EXPECT_FALSE(std::filesystem::exists(dir.file("state.json.new")));
}

TEST_F(RunStatus, WithoutItNothingIsWritten)
{
    options.env["KESTRO_STATUS"] = "";
    EXPECT_EQ(run({"-synconly", "-ascii", "cap"}).status, 0);
    EXPECT_FALSE(std::filesystem::exists(dir.file("state.json")));
}

TEST_F(RunStatus, ARestIsToldAndTheFileKeptFresh)
{
    const pid_t pid = start({"-ascii", "cap"});
    ASSERT_TRUE(comes([](const json &s) { return word(s, "state") == "waiting"; }));
    const json first = state();
    EXPECT_EQ(first.at("pid"), pid);
    ASSERT_TRUE(comes([&](const json &s) { return word(s, "updated") > word(first, "updated"); }));
    EXPECT_EQ(state().at("records"), 3);
    EXPECT_TRUE(append_transaction(writer, 4, 2));
    ASSERT_TRUE(comes([](const json &s) { return s.is_object() && s.at("records") == 5; }));
    EXPECT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(wait_program(pid), 0);
    EXPECT_EQ(word(state(), "state"), "stopped");
}

// What a killed run told stays, and the next one takes the file over.
TEST_F(RunStatus, AKillLeavesTheFileToTheNextRun)
{
    const pid_t pid = start({"-ascii", "cap"});
    ASSERT_TRUE(comes([](const json &s) { return word(s, "state") == "waiting"; }));
    EXPECT_EQ(kill(pid, SIGKILL), 0);
    wait_program(pid);
    EXPECT_EQ(word(state(), "state"), "waiting");
    const std::string process = word(state(), "process");
    write_file(dir.file("state.json.new"), read_file(dir.file("state.json")).substr(0, 40));
    EXPECT_EQ(run({"-synconly", "-ascii", "next"}).status, 0);
    EXPECT_EQ(word(state(), "state"), "stopped");
    EXPECT_NE(word(state(), "process"), process);
}

TEST_F(RunStatus, InTheBackgroundItIsTheChildThatIsTold)
{
    const run_result result = run({"-bg", "-pidfile", "pid", "-ascii", "cap"});
    ASSERT_EQ(result.status, 0) << result.err;
    ASSERT_TRUE(comes([](const json &s) { return word(s, "state") == "waiting"; }));
    const pid_t pid = std::stoi(read_file(dir.file("pid")));
    EXPECT_EQ(state().at("pid"), pid);
    EXPECT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(comes([](const json &s) { return word(s, "state") == "stopped"; }));
}

TEST_F(RunStatus, AFullDiskIsToldWithItsCauseAndPlace)
{
    const run_result result = run({"-synconly", "-ascii", "cap", "-ascii", "/dev/full"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("CAPERR: Success\n")) << "as ever";
    const json found = state();
    EXPECT_EQ(found.at("state"), "failed");
    EXPECT_EQ(found.at("error"),
              "Error writing to capture file: /dev/full: No space left on device");
    EXPECT_EQ(found.at("errors"), 1);
    EXPECT_EQ(found.at("error_position"), "1-1.2");
    EXPECT_TRUE(found.at("position").is_null()) << "no record is in all files";
    EXPECT_EQ(found.at("files").at(0).at("records"), 1);
    EXPECT_EQ(found.at("files").at(1).at("records"), 0);
    EXPECT_EQ(found.at("files").at(1).at("failures"), 1);
}

TEST_F(RunStatus, AnErrorOfTheLibraryIsToldInItsWords)
{
    write_file(dir.file("fwutil.cfg"), "log-directory nowhere\n");
    EXPECT_EQ(run({"-synconly", "-ascii", "cap"}).status, 1);
    EXPECT_EQ(word(state(), "state"), "failed");
    EXPECT_THAT(word(state(), "error"), HasSubstr("cannot find the log directory"));
    options.env["KESTRO_SYNC"] = "never";
    EXPECT_EQ(run({"-synconly", "-ascii", "cap"}).status, 1);
    EXPECT_THAT(word(state(), "error"), HasSubstr("KESTRO_SYNC"));
    EXPECT_EQ(word(state(), "state"), "failed");
}

TEST_F(RunStatus, OutputThatIsLostBehindTheEndIsToldToo)
{
    const run_result result = run_program(
        {"sh", "-c", std::string(program) + " -synconly -ascii cap >/dev/full"}, options);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(word(state(), "state"), "failed");
    EXPECT_EQ(word(state(), "error"), "Error writing to standard output.");
}

TEST_F(RunStatus, ForPrometheusWhenTheNameSaysSo)
{
    options.env["KESTRO_STATUS"] = "state.prom";
    EXPECT_EQ(run({"-synconly", "-ascii", "cap"}).status, 0);
    const std::string text = read_file(dir.file("state.prom"));
    const std::string run_label = "{status=\"" + dir.file("fwutil.status") + '"';
    EXPECT_THAT(text, HasSubstr("\nkestro_state" + run_label + ",state=\"stopped\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("\nkestro_records_total" + run_label + "} 3\n"));
    EXPECT_EQ(run({"-synconly", "-ascii", "cap"}).status, 0) << "its own file is replaced";
    EXPECT_THAT(read_file(dir.file("state.prom")),
                HasSubstr("\nkestro_records_total" + run_label + "} 0\n"));
}

TEST_F(RunStatus, AFileThatCannotBeWrittenIsToldOnceAndTheRunGoesOn)
{
    options.env["KESTRO_STATUS"] = "gone/state.json";
    const run_result result = run({"-synconly", "-ascii", "cap"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "KESTRO_STATUS: " + dir.file("gone/state.json") +
                              " cannot be written: No such file or directory; the run goes on\n");
    EXPECT_EQ(read_file(dir.file("cap")).size(), 3U * (62 + 14 + 20 + 1));
}

TEST_F(RunStatus, ALinkStaysOne)
{
    std::filesystem::create_directory(dir.file("there"));
    std::filesystem::create_symlink("there/state", dir.file("state.json"));
    write_file(dir.file("there/state"), "");
    EXPECT_EQ(run({"-synconly", "-ascii", "cap"}).status, 0);
    EXPECT_TRUE(std::filesystem::is_symlink(dir.file("state.json")));
    EXPECT_EQ(word(told(dir.file("there/state")), "state"), "stopped");
}

TEST_F(RunStatus, AFileOfSomebodyElseIsRefusedBeforeAnythingIsOpened)
{
    write_file(dir.file("text"), "mine\n");
    write_file(dir.file("x.new"), "mine too\n");
    write_file(dir.file("bridge.json"), "{\"state\":\"streaming\"}\n");
    std::filesystem::create_directory(dir.file("folder"));
    std::filesystem::create_symlink("cap", dir.file("link"));
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    const struct {
        const char *path;
        const char *said;
    } rows[] = {{"cap", "which this run uses"},
                {"./folder/../cap", "which this run uses"},
                {"link", "which this run uses"},
                {"cap.cut", "which this run uses"},
                {"fwutil.cfg", "which this run uses"},
                {"s", "which this run uses"},
                {"pid", "which this run uses"},
                {"log/fw0001-00000001.log", "a log directory is no place"},
                {"log/state.json", "a log directory is no place"},
                {"fw0001-00000002.log", "a log directory is no place"},
                {"folder", "is no regular file"},
                {"folder/", "is no regular file"},
                {"fifo", "is no regular file"},
                {"/dev/null", "is no regular file"},
                {"text", "is no status file of a run"},
                {"bridge.json", "is no status file of a run"},
                {"x", "is no status file of a run"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.path);
        options.env["KESTRO_STATUS"] = row.path;
        const run_result result =
            run({"-synconly", "-stat", "s", "-pidfile", "pid", "-ascii", "cap"});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, testing::StartsWith("KESTRO_STATUS: "));
        EXPECT_THAT(result.err, HasSubstr(row.said));
        for (const char *name : {"cap", "s", "pid", "log/state.json"})
            EXPECT_FALSE(std::filesystem::exists(dir.file(name))) << name;
    }
    EXPECT_EQ(read_file(dir.file("text")), "mine\n");
    EXPECT_EQ(read_file(dir.file("x.new")), "mine too\n");
}

TEST_F(RunStatus, AFileThatAnotherRunWritesIsRefusedWhileItGoesOn)
{
    const pid_t pid = start({"-bg", "-pidfile", "pid", "-ascii", "cap"});
    EXPECT_EQ(wait_program(pid), 0);
    ASSERT_TRUE(comes([](const json &s) { return word(s, "state") == "waiting"; }));
    const json first = state();
    ASSERT_TRUE(comes([&](const json &s) { return word(s, "updated") > word(first, "updated"); }));
    const words other = {"-synconly", "-stat", "other", "-ascii", "another"};
    const run_result refused = run(other);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err,
              "KESTRO_STATUS: " + dir.file("state.json") +
                  " is the file of another run that has not ended: name another file\n");
    EXPECT_FALSE(std::filesystem::exists(dir.file("another")));
    EXPECT_EQ(word(state(), "process"), word(first, "process"));
    EXPECT_EQ(kill(first.at("pid"), SIGTERM), 0);
    ASSERT_TRUE(comes([](const json &s) { return word(s, "state") == "stopped"; }));
    EXPECT_TRUE(poll_until([&] { return run(other).status == 0; })) << "at once or in a moment";
}

// The start, the open log, the end, and no more: all within a second, or as many more as it took.
TEST_F(RunStatus, AnImpatientServiceManagerMakesNoMoreFiles)
{
    const notified manager(dir.file("socket"));
    EXPECT_TRUE(append_transaction(writer, 4, 5000));
    options.env["NOTIFY_SOCKET"] = dir.file("socket");
    options.env["WATCHDOG_USEC"] = "1";
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(watch, dir.path().c_str(), IN_MOVED_TO), 0);
    const time_t begun = time(nullptr);
    EXPECT_EQ(run({"-synconly", "-ascii", "cap"}).status, 0);
    const auto seconds = static_cast<size_t>(time(nullptr) - begun);
    size_t renames = 0;
    alignas(inotify_event) char events[4096];
    for (ssize_t n = 0; (n = read(watch, events, sizeof events)) > 0;)
        for (ssize_t at = 0; at < n; renames++) {
            inotify_event event;
            memcpy(&event, events + at, sizeof event);
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    close(watch);
    EXPECT_GE(renames, 3U);
    EXPECT_LE(renames, 3U + seconds + 1);
}

// ---- a service manager

// What a run has told the manager so far.
struct heard {
    const notified &manager;
    std::string text;

    size_t count(const std::string &line)
    {
        for (std::string more; !(more = manager.next()).empty();)
            text += more + "\n";
        size_t n = 0;
        for (size_t at = 0; (at = text.find(line, at)) != text.npos; at++)
            n++;
        return n;
    }
};

TEST_F(RunStatus, AServiceManagerHearsOfReadinessProgressAndTheEnd)
{
    const notified manager(dir.file("socket"));
    options.env.erase("KESTRO_STATUS");
    options.env["NOTIFY_SOCKET"] = dir.file("socket");
    options.env["WATCHDOG_USEC"] = "20000000";
    const pid_t pid = start({"-ascii", "cap"});
    heard said{manager, ""};
    EXPECT_TRUE(poll_until([&] { return said.count("STATUS=waiting at 1-1.4, 3 records") > 1; }));
    EXPECT_EQ(said.count("READY=1"), 1U);
    EXPECT_GE(said.count("WATCHDOG=1"), 2U);
    EXPECT_EQ(said.count("STOPPING=1"), 0U);
    EXPECT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(wait_program(pid), 0);
    EXPECT_EQ(said.count("STOPPING=1"), 1U);
    EXPECT_EQ(said.count("STATUS=stopped"), 1U);
    EXPECT_FALSE(std::filesystem::exists(dir.file("state.json")));
}

TEST_F(RunStatus, TheWatchdogIsForARestAndNotForARunThatIsBlocked)
{
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    const notified of_blocked(dir.file("blocked"));
    const notified of_idle(dir.file("idle"));
    options.env["WATCHDOG_USEC"] = "200000";
    options.env["NOTIFY_SOCKET"] = dir.file("blocked");
    const pid_t blocked = start({"-ascii", "fifo"});
    heard said{of_blocked, ""};
    ASSERT_TRUE(poll_until([&] { return said.count("READY=1") == 1; }));
    const size_t before = said.count("WATCHDOG=1");
    options.env["KESTRO_STATUS"] = "idle.json";
    options.env["NOTIFY_SOCKET"] = dir.file("idle");
    const pid_t idle = start({"-stat", "idle.status", "-ascii", "cap"});
    heard rests{of_idle, ""};
    EXPECT_TRUE(poll_until([&] { return rests.count("WATCHDOG=1") >= 3; }));
    EXPECT_EQ(said.count("WATCHDOG=1"), before);
    EXPECT_EQ(word(state(), "state"), "running") << "it has something to do";
    for (const pid_t pid : {blocked, idle}) {
        EXPECT_EQ(kill(pid, SIGKILL), 0);
        wait_program(pid);
    }
}

TEST_F(RunStatus, AFailureIsNoReadinessForAServiceManager)
{
    const notified manager(dir.file("socket"));
    options.env["NOTIFY_SOCKET"] = dir.file("socket");
    EXPECT_EQ(run({"-synconly", "-start", "9", "-ascii", "cap"}).status, 1);
    heard said{manager, ""};
    EXPECT_EQ(said.count("READY=1"), 0U);
    EXPECT_EQ(said.count("STATUS=failed, 0 records; "), 1U) << said.text;
    EXPECT_THAT(said.text, HasSubstr("start position"));
}

// ---- another library, which has no look to tell

class OtherLibraryStatus : public Cli {};

TEST_F(OtherLibraryStatus, TheFileChangesWithTheRecordsOnly)
{
    script("position 1 7 42\n"
           "record ORDERS CUST 1704067200 3 7 - 41424344\n");
    options.env["KESTRO_STATUS"] = "state.json";
    options.env["KESTRO_TEST_WAIT"] = dir.file("go");
    const std::string path = dir.file("state.json");
    const pid_t pid = start_program(command({"msg"}), options, "", "");
    ASSERT_TRUE(poll_until([&] { return std::filesystem::exists(dir.file("calls.pid")); }, 20));
    EXPECT_EQ(word(told(path), "state"), "starting");
    struct stat before = {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    write_file(dir.file("go"), "");
    EXPECT_EQ(wait_program(pid), 0);
    const json found = told(path);
    EXPECT_EQ(found.at("state"), "stopped");
    EXPECT_EQ(found.at("records"), 1);
    EXPECT_EQ(found.at("position"), "1-7.42");
}
