// Each error that docs/postgresql.md lists is provoked, what stands there is done, and the feed
// runs afterwards.
#ifndef TESTS_POSTGRESQL_REMEDY_H
#define TESTS_POSTGRESQL_REMEDY_H

#include "tests/postgresql/bridge_fixture.h"

#include <regex>

class RemedyTest : public LedgerTest {
  protected:
    using words = std::vector<std::string>;

    // The first run, which ends with this error; what it said.
    std::string refused(const words &more, const std::string &text) const
    {
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_THAT(result.err, testing::HasSubstr(text));
        return result.err;
    }

    // The feed runs: what is changed from now on comes to the log.
    void expect_runs(const words &more) const
    {
        const run_result begun = catch_up(more);
        EXPECT_EQ(begun.status, 0) << begun.err;
        insert(next);
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_TRUE(logged("after ID=" + std::to_string(next) + " "));
        next++;
    }

    // The same on a server of its own, which has the table, too.
    void expect_runs_on(const pg_server &own, words more) const
    {
        more.insert(more.end(), {"--conninfo", own.conninfo()});
        const run_result begun = catch_up(more);
        EXPECT_EQ(begun.status, 0) << begun.err;
        pg_client(own.conninfo())
            .run("INSERT INTO load.ledger VALUES (" + std::to_string(next) +
                 ", 0, 1, 'row', NULL)");
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_TRUE(logged("after ID=" + std::to_string(next) + " "));
        next++;
    }

    static std::string found_in(const std::string &text, const char *pattern)
    {
        std::smatch found;
        EXPECT_TRUE(std::regex_search(text, found, std::regex(pattern))) << text;
        return found.size() > 1 ? found.str(1) : "";
    }

    mutable int next = 1; // the next row
};

#endif
