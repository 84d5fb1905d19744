// "fwlog postgresql --check" for a case's database, and what it prints taken apart.
#ifndef TESTS_POSTGRESQL_CHECK_FIXTURE_H
#define TESTS_POSTGRESQL_CHECK_FIXTURE_H

#include "tests/postgresql/bridge_fixture.h"

#include <sstream>

class BridgeCheckTest : public BridgeTest {
  protected:
    run_result check(std::vector<std::string> more = {}) const
    {
        more.insert(more.begin(), "--check");
        return run_bridge(more);
    }

    run_result check_as(const std::string &role, std::vector<std::string> more) const
    {
        more.insert(more.begin(), {"--check", "--conninfo", conninfo(role)});
        return run_bridge(more);
    }

    // The statements that are to be pasted into a session; a function has several lines.
    static std::vector<std::string> sql_of(const std::string &text)
    {
        std::vector<std::string> found;
        std::istringstream lines(text);
        std::string statement;
        for (std::string line; std::getline(lines, line);) {
            if (!line.starts_with("     ") || (statement.empty() && line[5] == ' '))
                continue;
            statement += (statement.empty() ? "" : "\n") + line.substr(5);
            const bool whole = occurrences(statement, "$$") != 1;
            if (whole && statement.ends_with(";"))
                found.push_back(statement);
            if (whole)
                statement.clear();
        }
        return found;
    }

    // All in one session.
    void paste(const std::vector<std::string> &commands) const
    {
        pg_client session = connect();
        for (const std::string &command : commands)
            session.run(command);
    }

    // The lines below a table's, up to the next empty one, with one blank between words.
    static std::vector<std::string> below(const std::string &text, const std::string &first)
    {
        std::vector<std::string> found;
        std::istringstream lines(text);
        bool inside = false;
        for (std::string line; std::getline(lines, line);) {
            if (inside && line.empty())
                break;
            if (inside) {
                std::istringstream words(line);
                std::string joined;
                for (std::string word; words >> word;)
                    joined += (joined.empty() ? "" : " ") + word;
                found.push_back(joined);
            }
            inside = inside || line.starts_with(first);
        }
        return found;
    }

    std::string layouts(const std::string &cfg) const
    {
        const run_result result = run_program(
            {KESTRO_BUILD_DIR "/bin/fwlog", "layout", "--columns", "-cfg", cfg}, options);
        EXPECT_EQ(result.status, 0) << result.err;
        // Where a layout stands differs from log to log.
        std::istringstream lines(result.out);
        std::string text;
        for (std::string line; std::getline(lines, line);)
            text += line.substr(0, line.find(" at ")) + "\n";
        return text;
    }
};

#endif
