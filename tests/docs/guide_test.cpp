// docs/guide.md: its commands print what stands there.  Only what a test cannot do to the machine
// it runs on has a stand-in: installing packages and the build, another user (sudo), and the
// restart of the machine's server, which is a temporary one's here.
#include "tests/docs/changes_page.h"
#include "tests/postgresql/pg_server.h"

#include <algorithm>
#include <cstring>
#include <regex>
#include <sys/prctl.h>

static const char GUIDE[] = "docs/guide.md";

static const std::pair<const char *, const char *> STAND_INS[] = {
    {"apt-get", ""},   {"cmake", ""},
    {"ldconfig", ""},  {"sudo", "[ \"$1\" = -u ] && shift 2\nexec \"$@\"\n"},
    {"systemctl", ""}, // the test restarts its server
};

// Commands that look at what runs, and so show in the end what stands in the page.
static const char *const LOOKS[] = {"cat kestro.out", "jq -r .state ", "jq -c '[.state",
                                    "Kestro -showstat", "fwlog health"};

static bool begins_with(const std::string &text, const std::string &begins)
{
    return text.rfind(begins, 0) == 0;
}

// Times, transaction numbers and the server's positions are others each time.
static std::string without_times(const std::string &text)
{
    static const std::regex other(
        R"x(("(xid|commit_us|ts_ms)": )\d+|("lsn": )"[0-9A-F/]+"|(json: idle at )[0-9A-F/]+)x");
    return std::regex_replace(text, other, "$1$3$4...");
}

class guide {
  public:
    guide() : port(pg_server::free_port()), server({"wal_level = replica"}, port)
    {
        namespace fs = std::filesystem;
        fs::copy(KESTRO_SOURCE_DIR "/examples/guide", dir.path());
        fs::create_directory(dir.file("bin"));
        for (const auto &[name, text] : STAND_INS) {
            write_file(dir.file("bin/") + name, std::string("#!/bin/sh\n") + text);
            fs::permissions(dir.file("bin/") + name, fs::perms::owner_all);
        }
        setup.directory = dir.path();
        setup.env = {
            {"PATH", dir.file("bin") + ":" KESTRO_BUILD_DIR "/bin:" + std::string(getenv("PATH"))},
            {"HOME", dir.path()},
            {"PGHOST", fs::path(server.socket()).parent_path()},
            {"PGPORT", std::to_string(port)},
            {"PGUSER", "postgres"},
            {"TZ", "UTC"},
            {"LC_ALL", "C.UTF-8"}};
        setup.unset = {"FWUTIL_CFG", "KESTRO_TEXT", "KESTRO_SYNC"};
        prctl(PR_SET_CHILD_SUBREAPER, 1); // what a command leaves running is waited for here
    }

    ~guide()
    {
        (void)output("kill -KILL $(cat kestro.pid) $(jq .pid log/postgresql.json)");
    }

    void run(const page_command &command);

  private:
    std::string output(const std::string &command) const
    {
        return page_output({command, "", false}, setup);
    }

    // As somebody does who waits for the shell to say that it is done.
    void kill_and_wait(const page_command &command)
    {
        const std::string pid = output("echo" + command.command.substr(strlen("kill")));
        EXPECT_EQ(output(command.command), command.output);
        EXPECT_GT(atoi(pid.c_str()), 0) << pid;
        (void)wait_program(atoi(pid.c_str()));
    }

    int port;
    pg_server server;
    tempdir dir;
    run_setup setup;
};

void guide::run(const page_command &command)
{
    SCOPED_TRACE("$ " + command.command);
    if (begins_with(command.command, "kill ")) {
        kill_and_wait(command);
        return;
    }
    std::string printed = page_output(command, setup);
    if (std::any_of(std::begin(LOOKS), std::end(LOOKS),
                    [&](const char *look) { return begins_with(command.command, look); }))
        (void)poll_until([&] {
            printed = output(command.command);
            return without_times(printed) == without_times(command.output);
        });
    EXPECT_EQ(without_times(printed), without_times(command.output));
    if (command.command == "sudo systemctl restart postgresql") {
        server.stop();
        server.start();
    }
}

TEST(GuidePage, CommandsPrintWhatStandsThere)
{
    if (const std::string why = pg_server::missing(); !why.empty())
        GTEST_SKIP() << why;
    if (pg_server::programs() != "/usr/lib/postgresql/15/bin")
        GTEST_SKIP() << "the page shows PostgreSQL 15 (Debian package postgresql-15)";
    if (const std::string why = missing_program({{"psql", "postgresql-client-15"},
                                                 {"jq", "jq"},
                                                 {"ssconvert", "gnumeric"},
                                                 {"cobc", "gnucobol3"}});
        !why.empty())
        GTEST_SKIP() << why;
    guide session;
    for (const std::string &block : md_blocks(md_page(GUIDE)))
        for (const page_command &command : page_commands(block))
            session.run(command);
}

TEST(GuidePage, EveryBlockIsRun)
{
    const std::vector<std::string> blocks = md_blocks(md_page(GUIDE));
    EXPECT_GT(blocks.size(), 15U);
    for (const std::string &block : blocks)
        EXPECT_FALSE(page_commands(block).empty()) << block;
}
