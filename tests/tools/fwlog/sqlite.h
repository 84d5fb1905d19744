// A SQLite database of a test's own, through the program sqlite3.
#ifndef TESTS_TOOLS_FWLOG_SQLITE_H
#define TESTS_TOOLS_FWLOG_SQLITE_H

#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

class sqlite {
  public:
    explicit sqlite(std::string database) : path(std::move(database))
    {
    }

    // Whether the program is there.
    static bool missing()
    {
        static const int status = run_program({"sh", "-c", "command -v sqlite3"}).status;
        return status != 0;
    }

    // Runs statements; bail: up to the first that fails.
    run_result run(const std::string &text, bool bail = true) const
    {
        run_setup setup;
        setup.input = text;
        std::vector<std::string> argv = {"sqlite3"};
        if (bail)
            argv.emplace_back("-bail");
        argv.push_back(path);
        return run_program(argv, setup);
    }

    // The rows of a query, null as \N.
    std::multiset<std::vector<std::string>> rows(const std::string &query) const
    {
        const run_result result =
            run_program({"sqlite3", "-readonly", "-list", "-separator", "\x1F", "-newline", "\x1E",
                         "-nullvalue", "\\N", path, query});
        EXPECT_EQ(result.err, "");
        std::multiset<std::vector<std::string>> rows;
        std::vector<std::string> row = {""};
        for (const char c : result.out)
            if (c == '\x1F') {
                row.emplace_back();
            } else if (c == '\x1E') {
                rows.insert(row);
                row = {""};
            } else {
                row.back().push_back(c);
            }
        return rows;
    }

    std::string value(const std::string &query) const
    {
        const auto all = rows(query);
        return all.size() == 1 && all.begin()->size() == 1 ? all.begin()->front() : "?";
    }

    std::string path;
};

#endif
