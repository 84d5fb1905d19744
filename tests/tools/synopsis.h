// Compares the rows of a program's subcommands with their help, with the synopses in docs/ and
// with the manual pages.
#ifndef TESTS_TOOLS_SYNOPSIS_H
#define TESTS_TOOLS_SYNOPSIS_H

#include "tests/support/man_page.h"
#include "tests/support/markdown.h"
#include "util/cli.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>
#include <string>

// Words with one blank between them.
inline std::string one_line(const std::string &text)
{
    std::istringstream in(text);
    std::string line;
    for (std::string word; in >> word;)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

// The synopsis that a page shows: "    fwlog dump ..." and the lines that stand deeper
// below it; empty when it has none.
inline std::string page_synopsis(const std::string &page, const std::string &command)
{
    std::istringstream in(md_page(page));
    std::string found;
    for (std::string line; std::getline(in, line);) {
        if (!found.empty() && line.starts_with("     "))
            found += line;
        else if (!found.empty())
            break;
        else if (line.starts_with("    " + command + " "))
            found = line;
    }
    return one_line(found);
}

// "Usage: fwlog dump ..." without its first word.
inline std::string help_synopsis(const cli_command &command)
{
    const std::string help = command.help;
    EXPECT_TRUE(help.starts_with("Usage: "));
    return one_line(help.substr(7, help.find("\n\n") - 7));
}

// As help and synopsis write it: "--from POSITION", "--create[=minimal]".
inline std::string written(const cli_option &row)
{
    const std::string name = row.name;
    if (row.kind.may_be_left_out)
        return name + "[=" + row.kind.word + "]";
    return row.kind.word != nullptr && name != row.kind.word ? name + " " + row.kind.word : name;
}

// The options that a text shows, in its order: the words with a hyphen in front.
inline std::string options_of(std::string text)
{
    for (char &c : text) {
        if (c == '[' || c == ']' || c == '(' || c == ')' || c == '|')
            c = ' ';
    }
    std::istringstream in(text);
    std::string names;
    for (std::string word; in >> word;) {
        if (word.size() > 1 && word[0] == '-')
            names += word + "\n";
    }
    return names;
}

// The same of the rows.
inline std::string options_of(const cli_command &command)
{
    std::string names;
    for (const cli_option &row : command.options)
        names += row.name[0] == '-' ? std::string(row.name) + "\n" : "";
    return names;
}

inline bool has_line(const std::string &lines, const std::string &line)
{
    return ("\n" + lines).find("\n" + line + "\n") != std::string::npos;
}

// What the lines of help describe: each row with its value, and --help.
inline void expect_described(const cli_command &command)
{
    std::istringstream help(command.help);
    std::string described;
    for (std::string line; std::getline(help, line);) {
        if (!line.starts_with("  -"))
            continue;
        const std::string option = line.substr(2, line.find("  ", 2) - 2);
        const std::string name = option.substr(0, option.find_first_of(" ["));
        described += option + "\n";
        EXPECT_TRUE(name == "--help" || has_line(options_of(command), name))
            << command.name << " has no row " << name;
    }
    for (const cli_option &row : command.options) {
        EXPECT_TRUE(row.name[0] != '-' || has_line(described, written(row)))
            << command.name << " does not describe " << written(row);
    }
}

// The statuses that a help explains: "0", "1", "128 + n".
inline std::set<std::string> help_statuses(const cli_command &command)
{
    const std::string help = command.help;
    const std::string text = one_line(help.substr(help.find("Exit status: ")));
    static const std::regex status(R"([:;] (\d+( \+ n| \+ signal number)?) )");
    std::set<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), status), end; at != end; ++at)
        found.insert(std::regex_replace(at->str(1), std::regex("signal number"), "n"));
    return found;
}

// The manual page has the synopsis, the options and the statuses of the help.
inline void expect_in_manual(const cli_command &command, const std::string &name)
{
    static const std::regex choice(R"( ?\| ?)");
    const std::string page = man_page(name + ".1");
    EXPECT_EQ(man_synopsis(page), std::regex_replace(help_synopsis(command), choice, "|"));
    const bool brief = std::string(command.help).find("(also -h)") != std::string::npos;
    std::set<std::string> rows = {brief ? "-h, --help" : "--help"};
    for (const cli_option &row : command.options) {
        if (row.name[0] == '-')
            rows.insert(std::regex_replace(written(row), choice, "|"));
    }
    EXPECT_EQ(man_items(page, "Fl"), rows) << name;
    EXPECT_EQ(man_items(man_section(page, "EXIT STATUS"), ""), help_statuses(command)) << name;
}

// The manual page of a program has its subcommands and what it takes itself.
inline void expect_in_manual(const cli_program &program)
{
    const std::string page = man_page(std::string(program.name) + ".1");
    std::set<std::string> commands;
    for (const cli_command *command : program.commands) {
        const std::string name = std::string(program.name) + "-" + command->name;
        commands.insert("Xr " + name + " 1");
        expect_in_manual(*command, name);
    }
    EXPECT_EQ(man_items(page, "Xr"), commands);
    const std::string help = cli_help(program);
    for (const std::string &option : man_options(page))
        EXPECT_NE(help.find(" " + option), std::string::npos) << program.name << ": " << option;
    EXPECT_GE(man_options(page).size(), 2U);
}

inline void expect_told(const cli_program &program, const cli_command &command,
                        const std::string &page)
{
    const std::string synopsis = help_synopsis(command);
    EXPECT_EQ(page_synopsis(page, std::string(program.name) + " " + command.name), synopsis);
    EXPECT_TRUE(synopsis.starts_with(std::string(program.name) + " " + command.name + " "));
    EXPECT_EQ(options_of(synopsis), options_of(command)) << command.name;
    for (const cli_option &row : command.options)
        EXPECT_NE(synopsis.find(written(row)), std::string::npos)
            << command.name << " does not show " << written(row);
    expect_described(command);
}

#endif
