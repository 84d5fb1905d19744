// What docs/operations.md says of texts that mislead, of the totals and of a position's
// spellings, as the programs have it.
#include "tests/docs/changes_page.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::StartsWith;

static const char OPERATIONS[] = "docs/operations.md";

static run_result kestro(const changes_page &example, std::vector<std::string> words)
{
    words.insert(words.begin(), {KESTRO_BUILD_DIR "/bin/Kestro", "-synconly"});
    return run_program(words, example.setup);
}

TEST(OperationsPage, FullDiskSaysSuccess)
{
    ASSERT_EQ(md_find_table(md_section(md_page(OPERATIONS), "Messages and what to do"), "message")
                  .rows.at(1)
                  .at(0),
              "`CAPERR: Success`");
    const changes_page example;
    const run_result result = kestro(example, {"-ascii", "/dev/full"});
    EXPECT_THAT(result.err,
                StartsWith("CAPERR: Success\nError writing to capture file: /dev/full\n"));
    EXPECT_EQ(result.status, 1);
}

TEST(OperationsPage, ThreeSpellingsOfAPositionAreTaken)
{
    const std::vector<std::vector<std::string>> rows =
        md_find_table(md_page(OPERATIONS), "spelled").rows;
    ASSERT_EQ(rows.size(), 3U);
    EXPECT_EQ(md_code(rows[0][0]), std::vector<std::string>{"1-25.340"});
    EXPECT_EQ(md_code(rows[1][0]), std::vector<std::string>{"0001-00000025.0000000340"});
    const changes_page example;
    const struct {
        const char *start;
        const char *said;
    } cases[] = {
        {"1-1.10830", "4 Vostrel forward log file records processed.\n"},
        {"0001-00000001.0000010830", "4 Vostrel forward log file records processed.\n"},
        {"1-1", "8431 Vostrel forward log file records processed.\n"},
        {"1", "8431 Vostrel forward log file records processed.\n"},
    };
    for (const auto &row : cases)
        EXPECT_THAT(kestro(example, {"-start", row.start, "-ascii", "x"}).out,
                    StartsWith(row.said));
    EXPECT_THAT(kestro(example, {"-start", "0/1BC8080", "-ascii", "x"}).err,
                HasSubstr("give a log file number"));
    EXPECT_THAT(read_file(example.dir.file("fwutil.status")),
                HasSubstr(" 0001-00000001.0000010836 "));
    EXPECT_THAT(kestro(example, {"-showstat"}).out, StartsWith("Position: 1-1.10836\n"));
}

TEST(OperationsPage, RecordsProcessedAreThoseOfAllDatasets)
{
    const changes_page example;
    EXPECT_EQ(kestro(example, {"-ascii", "-dset", "sales:orders", "a", "-ascii", "-dset",
                               "sales:orders", "b"})
                  .out,
              "8431 Vostrel forward log file records processed.\n"
              "1536 records written to capture file a\n"
              "1536 records written to capture file b\n");
    EXPECT_THAT(kestro(example, {"-stat", "other", "-ascii", "/dev/full"}).out,
                HasSubstr("1 records written to capture file /dev/full\n"));
}
