// Which policy counts: the column's, the table's, the one for all, or none of them.
#include "feed/policy.h"
#include "tests/feed/rows.h"

#include <gtest/gtest.h>

constexpr fwu_policy UNSAID = FWU_POLICY_UNSAID;
constexpr fwu_policy ERROR = FWU_POLICY_ERROR;
constexpr fwu_policy MARK = FWU_POLICY_MARK;

TEST(FeedPolicy, NarrowestStatementCounts)
{
    const struct {
        fwu_policy column, table, all, otherwise, of_column, of_table;
    } rows[] = {
        {UNSAID, UNSAID, UNSAID, ERROR, ERROR, ERROR}, {UNSAID, UNSAID, UNSAID, MARK, MARK, MARK},
        {UNSAID, UNSAID, MARK, ERROR, MARK, MARK},     {UNSAID, UNSAID, ERROR, MARK, ERROR, ERROR},
        {UNSAID, ERROR, MARK, MARK, ERROR, ERROR},     {UNSAID, MARK, ERROR, ERROR, MARK, MARK},
        {MARK, ERROR, ERROR, ERROR, MARK, ERROR},      {ERROR, MARK, MARK, MARK, ERROR, MARK},
    };
    for (const auto &row : rows) {
        fwu_config config;
        config.policy = row.all;
        // Another table and another column say the contrary.
        const fwu_policy contrary = row.of_column == MARK ? ERROR : MARK;
        config.table_rules = {{"sales.others", contrary}, {"sales.orders", row.table}};
        config.columns = {policy_line("sales.orders", "text", contrary),
                          policy_line("sales.orders", "note", row.column),
                          policy_line("sales.others", "note", contrary)};
        EXPECT_EQ(feed_policy_of(config, "sales.orders", "note", row.otherwise), row.of_column);
        EXPECT_EQ(feed_policy_of(config, "sales.orders", row.otherwise), row.of_table);
    }
}

TEST(FeedPolicy, ServersTablesAreMarkedWhereNobodyDescribesThem)
{
    fwu_config config;
    EXPECT_EQ(feed_server_policy(config), MARK);
    config.columns.push_back(policy_line("sales.orders", "note", UNSAID));
    EXPECT_EQ(feed_server_policy(config), ERROR);
}
