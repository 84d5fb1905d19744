// The recorded stream as CSV, read by another program, beside the same as JSON.
#include "tests/orders/orders_fixture.h"

#include <filesystem>

TEST_F(OrdersTest, CsvHoldsWhatJsonDoes)
{
    std::filesystem::create_directory(dir.file("csv"));
    const run_result csv = run({fwlog, "csv", "--dir", "csv", "--before"});
    ASSERT_EQ(csv.status, 0) << csv.err;
    const run_result json = run({fwlog, "dump", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    run_setup lines;
    lines.directory = dir.path();
    lines.input = json.out;
    const run_result compared = run_program(
        {"python3", KESTRO_SOURCE_DIR "/tests/orders/csv_against_json.py", "csv"}, lines);
    EXPECT_EQ(compared.status, 0) << compared.err;
    EXPECT_EQ(compared.out, std::to_string(CHANGES) + "\n");
}
