// docs/debugging.md: its commands are run in the states that the page tells of, and print what
// stands there, but for times, process numbers, identities and where the files are.
#include "tests/docs/changes_page.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <regex>
#include <sstream>
#include <sys/wait.h>

using testing::HasSubstr;

static const char DEBUGGING_PAGE[] = "docs/debugging.md";

// The one command of the page that begins so.
static page_command command_of(const std::string &beginning)
{
    for (const std::string &block : md_blocks(md_page(DEBUGGING_PAGE)))
        for (const page_command &command : page_commands(block))
            if (command.command.starts_with(beginning))
                return command;
    ADD_FAILURE() << "no command begins with " << beginning;
    return {};
}

// Lines without what differs from run to run, in one order: standard output and error mix as they
// come.
static std::vector<std::string> lines_of(const std::string &text, const std::string &directory)
{
    static const struct {
        std::regex what;
        const char *by;
    } rows[] = {
        {std::regex("\\d\\d-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d \\d+ "), "STAMP "},
        {std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d(\\.\\d+)?"), "TIME"},
        {std::regex("identity: [0-9a-f]{32}"), "identity"},
        {std::regex("stamp    [0-9a-f]{8}"), "stamp"},
        {std::regex("Lag: \\d+ seconds?"), "Lag"},
        {std::regex("process \\d+"), "process N"},
        {std::regex("pid=\\d+,fd=\\d+"), "pid"},
        {std::regex("^(tmf|Kestro) +\\d+ "), "$1 N "},
        {std::regex("file (.*), #\\d+"), "file $1"},
        {std::regex(":53\\d{3}\\b"), ":PORT"},
        {std::regex(" +"), " "},
    };
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        for (size_t at; (at = line.find(directory)) != std::string::npos;)
            line.replace(at, directory.size(), "/var/lib/orders");
        for (const auto &row : rows)
            line = std::regex_replace(line, row.what, row.by);
        while (line.ends_with(' '))
            line.pop_back();
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// An example with a log in it.
class DebuggingPage : public testing::Test {
  protected:
    void run(const std::string &beginning, const std::string &from = "", const std::string &to = "")
    {
        page_command command = command_of(beginning);
        if (!from.empty())
            command.command.replace(command.command.find(from), from.size(), to);
        EXPECT_EQ(lines_of(page_output(command, page.setup), page.dir.path()),
                  lines_of(command.output, page.dir.path()))
            << "$ " << command.command;
    }
    std::string shell(const std::string &line) const
    {
        return run_program({"/bin/sh", "-c", line}, page.setup).out;
    }
    pid_t start(const std::string &line) const
    {
        return start_program({"/bin/sh", "-c", "exec " + line}, page.setup, "", "");
    }

    changes_page page;
};

TEST_F(DebuggingPage, WhatARunTells)
{
    run("Kestro -cfg fwutil.cfg -stat fwutil.status -verbose");
    run("Kestro -cfg fwutil.cfg -stat fwutil.status -showstat");
    // As the page has it, from one position on beside the other status file.
    EXPECT_THAT(
        shell("Kestro -cfg fwutil.cfg -start 1-1.10826 -synconly -stat other.status -ascii other"),
        HasSubstr("\n8 records written to capture file other\n"));
    run("Kestro -cfg fwutil.cfg -stat fwutil.status -showstat");
}

TEST_F(DebuggingPage, TheForwardLog)
{
    run("fwlog dump -cfg fwutil.cfg --from");
    EXPECT_THAT(md_page(DEBUGGING_PAGE), HasSubstr("`" + shell("fwlog verify | tr -d '\n'") + "`"));
    const std::string name = page.dir.file("log/fw0001-00000001.log");
    std::string bytes = read_file(name);
    bytes[900'000] = static_cast<char>(bytes[900'000] + 1);
    write_file(name, bytes);
    page_command verify = command_of("fwlog verify");
    verify.output += "status 1\n"; // told behind the block
    EXPECT_EQ(page_output(verify, page.setup), verify.output);
}

// A reader that waits beside a writer, which is killed then.
TEST_F(DebuggingPage, AMessageFileAndItsLocks)
{
    EXPECT_EQ(shell("tmf write queue < /dev/null"), "");
    const pid_t reader = start("tmf read --follow queue");
    const auto info = [this](const std::string &text) {
        return shell("tmf info queue").find(text) != std::string::npos;
    };
    ASSERT_TRUE(poll_until([&] { return info("in the wait list"); }));
    kill(reader, SIGSTOP); // until all are there, so that the file is as long as on the page
    const pid_t writer = start("Kestro -cfg fwutil.cfg -stat fwutil.status -start 1-1.10826 queue");
    ASSERT_TRUE(poll_until([&] { return info("records  8"); })) << shell("tmf info queue");
    kill(reader, SIGCONT);
    ASSERT_TRUE(poll_until([&] {
        return info("writers  1") && info("records  0") && info("in the wait list");
    })) << shell("tmf info queue");
    if (missing_program({{"lslocks", "util-linux"}}).empty())
        run("lslocks", "orders", page.dir.path());
    if (missing_program({{"ss", "iproute2"}}).empty()) {
        const std::string told = shell("tmf info queue");
        const size_t port = told.find("127.0.0.1:") + strlen("127.0.0.1:");
        run("ss -ulnp", "53248", told.substr(port, 5));
    }
    kill(reader, SIGSTOP); // so that it does not look who is gone
    kill(writer, SIGKILL);
    EXPECT_EQ(wait_program(writer), 128 + SIGKILL);
    run("tmf info queue");
    EXPECT_THAT(shell("tmf repair --dry-run queue"), HasSubstr("queue: sound"));
    kill(reader, SIGKILL);
    (void)wait_program(reader);
    EXPECT_EQ(shell("tmf read --keep --hex queue"), ""); // it frees the slots
    EXPECT_TRUE(info("writers  0"));
}

// Frames of a debugger: "#1 0x... in NAME (...) at ../../FILE:LINE".
TEST(DebuggingPageSources, FramesAreOfFunctionsThatAreThere)
{
    const std::string text = md_page(DEBUGGING_PAGE);
    static const std::regex frame(
        "#\\d+ +(?:0x[0-9a-f]+ in )?(\\w+) \\(.*\\) at \\.\\./\\.\\./(\\S+):\\d+");
    int frames = 0;
    for (std::sregex_iterator at(text.begin(), text.end(), frame), end; at != end; ++at, frames++)
        EXPECT_THAT(read_file(KESTRO_SOURCE_DIR "/" + (*at)[2].str()),
                    HasSubstr((*at)[1].str() + "("));
    EXPECT_EQ(frames, 4);
    EXPECT_THAT(read_file(KESTRO_SOURCE_DIR "/tests/msgfile/tmf_record_test.cpp"),
                HasSubstr("TEST_F(TmfRecord, FailedWriteChangesNothing)"));
}

TEST(DebuggingPageSources, EachCommandOfABlockIsRunOrNeedsADebugger)
{
    int commands = 0;
    for (const std::string &block : md_blocks(md_page(DEBUGGING_PAGE)))
        commands += static_cast<int>(page_commands(block).size());
    EXPECT_EQ(commands, 8) << "7 of them are run here, and gdb's is not";
}
