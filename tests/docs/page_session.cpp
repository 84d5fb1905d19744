// A command is the shell's to run, in a process group of its own where it is interrupted.
#include "tests/docs/page_session.h"

#include "tests/support/tempdir.h"

#include <csignal>
#include <sstream>

static bool begins_with(const std::string &line, const char *text)
{
    return line.rfind(text, 0) == 0;
}

std::vector<page_command> page_commands(const std::string &block)
{
    std::vector<page_command> commands;
    if (!begins_with(block, "$ "))
        return commands;
    std::istringstream lines(block);
    for (std::string line; std::getline(lines, line);) {
        if (begins_with(line, "$ "))
            commands.push_back({line.substr(2), "", false});
        else if (begins_with(line, "> ") && commands.back().output.empty())
            commands.back().command += "\n" + line.substr(2);
        else if (line == "^C")
            commands.back().interrupted = true;
        else
            commands.back().output += line + "\n";
    }
    return commands;
}

static std::string output_of_interrupted(const page_command &command, const run_setup &setup)
{
    const tempdir dir;
    const std::string out = dir.file("out");
    const pid_t pid =
        start_program({"setsid", "sh", "-c", "exec 2>&1\n" + command.command}, setup, out, "");
    (void)poll_until([&] { return read_file(out) == command.output; });
    const std::string printed = read_file(out);
    kill(-pid, SIGTERM);     // whoever runs the tests may have SIGINT ignored
    (void)wait_program(pid); // how an interrupted shell ends is its own affair
    return printed;
}

std::string page_output(const page_command &command, const run_setup &setup)
{
    if (command.interrupted)
        return output_of_interrupted(command, setup);
    const run_result result = run_program({"sh", "-c", "exec 2>&1\n" + command.command}, setup);
    return result.out +
           (result.status == 0 ? "" : "status " + std::to_string(result.status) + "\n");
}
