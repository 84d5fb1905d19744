// The recorded order-entry stream as JSON: every line keeps to the schema, and played into
// empty tables they give the database's final contents.
#include "tests/orders/orders_fixture.h"
#include "tests/support/schema_check.h"

#include <gtest/gtest.h>

TEST_F(OrdersTest, ChangesAsJsonPlayedIntoEmptyTablesGiveTheFinalState)
{
    if (run({"/usr/bin/env", "python3", "--version"}).status != 0)
        GTEST_SKIP() << "no python3";
    for (const std::vector<std::string> &words :
         {std::vector<std::string>{"dump"}, {"tail", "-n", "1000000"}}) {
        std::vector<std::string> argv = {fwlog};
        argv.insert(argv.end(), words.begin(), words.end());
        argv.insert(argv.end(), {"-cfg", dir.file("fwutil.cfg"), "--json", "--source-names"});
        const run_result result = run(argv);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        write_file(dir.file("lines"), result.out);
        const run_result played =
            run({"/usr/bin/env", "python3", KESTRO_SOURCE_DIR "/tests/orders/replay_json.py",
                 dir.file("lines"), example + "/orders-final.csv"});
        EXPECT_EQ(played.err, "");
        EXPECT_EQ(played.out, "1195 transactions, 8431 changes\n");
        EXPECT_EQ(played.status, 0);
    }
}

TEST_F(OrdersTest, ChangesAsJsonKeepToTheSchema)
{
    const run_result lines =
        run({fwlog, "dump", "-cfg", dir.file("fwutil.cfg"), "--json", "--source-names"});
    const run_result checked = schema_check(lines.out);
    if (checked.status == SCHEMA_CHECK_ABSENT)
        GTEST_SKIP() << SCHEMA_CHECK_SKIPPED;
    EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
}
