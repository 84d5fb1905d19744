// The dump command on logs put together entry by entry.
#include "tests/support/golden.h"
#include "tests/tools/fwlog/built_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::StartsWith;

TEST(FwlogDump, PrintsEveryEntryWithItsPosition)
{
    place here;
    here.add(25, whole_file(25).bytes);
    const run_result result = here.dump();
    EXPECT_THAT(result.err,
                HasSubstr("/log: beginning with fw0001-00000025.log, the log's oldest "
                          "file: older ones were removed, and what they held is missing "
                          "here\n"));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              R"(1-25 file fw0001-00000025.log, little-endian, created 1970-01-02 00:00:01.500000
1-25.1 @64 session
    user "Jürg"
    info ""
    data "xid=7"
1-25.2 @120 layout SALES.ORDERS: 3 items, 8 bytes
    NO I 2
    NET P 2 scale=1
    TAG X 2 x2
1-25.3 @224 insert SALES.ORDERS 1970-01-02 00:01:01 record 12, 8 bytes
    after NO=5 NET=12.3 TAG={"a","b"}
1-25.4 @296 update SALES.ORDERS 1970-01-02 00:01:01 record 12, 8 bytes
    before NO=-1 NET=-0.5 TAG={"",""}
    after NO=5 NET=12.3 TAG={"a","b"}
1-25.5 @376 delete SALES.ORDERS 1970-01-02 00:01:01 record 12, 8 bytes
    before NO=-1 NET=-0.5 TAG={"",""}
1-25.6 @448 commit 1970-01-02 00:01:01.000250 xid 7 lsn 1A/2B, 5 entries
)");
}

TEST(FwlogDump, PrintsSourcesAndMarks)
{
    place here;
    const std::string bytes = golden_bytes("forward_log_source.hex");
    here.add(1, {bytes.begin(), bytes.end()});
    const run_result result = here.dump();
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              R"(1-1 file fw0001-00000001.log, little-endian, created 2023-11-14 22:13:20.000000
1-1.1 @64 layout SALES.ORDERS: 3 items, 11 bytes
    NO I 4
    PRICE P 5 scale=2
    NULLS X 2
1-1.2 @176 source SALES.ORDERS: table sales.orders, 3 columns, nulls in NULLS
    order_no integer -> NO, key 1
    price numeric(9,2) -> PRICE
    größe text, left out
1-1.3 @328 insert SALES.ORDERS 2023-11-14 22:13:21 record 1, 11 bytes
    after NO=1 PRICE=1.25 NULLS=".."
1-1.4 @400 mark truncate SALES.ORDERS table sales.orders: TRUNCATE
1-1.5 @480 commit 2023-11-14 22:13:24.000005 xid 7 lsn 0/100, 4 entries
)");
}

// A file of version 2 with one transaction.
static std::vector<unsigned char> salted_file(const std::vector<unsigned char> &entries,
                                              uint32_t count)
{
    const fwu_file_header header{
        .version = FWU_VERSION_SALTED, .identity = {{1}}, .generation = 1, .sequence = 1};
    std::vector<unsigned char> bytes(FWU_FILE_HEADER_SIZE);
    fwu_file_header_put(bytes.data(), header);
    fwu_commit_entry commit;
    commit.entries = count;
    for (size_t at = 0; at < entries.size();) {
        fwu_entry entry;
        fwu_entry_fields(entry, entries.data() + at);
        commit.chain =
            fwu_crc32c(commit.chain, entries.data() + at + FWU_ENTRY_CRC_AT, FWU_ENTRY_CRC_SIZE);
        at += fwu_entry_padded(entry.length);
    }
    bytes.insert(bytes.end(), entries.begin(), entries.end());
    fwu_entry_put_commit(bytes, static_cast<int32_t>(count) + 1, commit, header,
                         static_cast<int64_t>(bytes.size()));
    return bytes;
}

TEST(FwlogDump, TextsOfSourcesAndMarksCannotForgeLines)
{
    std::vector<unsigned char> entries;
    fwu_entry_put_source(
        entries, 1,
        {.dbname = "S",
         .dsetname = "O",
         .items = {},
         .source = std::make_shared<const fwu_source>(
             fwu_source{.schema = "",
                        .table = "or\nders\xFF",
                        .columns = {{"a\x1B\\", "", 7, 0}, {"\xC2\x85\xC3\xA9", "t\ny", -1, 2}}})});
    fwu_entry_put_mark(entries, 2, {.kind = FWU_MARK_GAP, .reason = "lost\n1-1.9 \xE2\x82\xAC"});
    fwu_entry_put_mark(entries, 3, {.kind = FWU_MARK_GAP});
    fwu_entry_put_mark(entries, 4, {.kind = FWU_MARK_TRUNCATE, .schema = "s", .table = "t"});
    place here;
    here.add(1, salted_file(entries, 4));
    const run_result result = here.dump();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr(" source S.O: table U&\"or\\000Aders\\xFF\", 2 columns\n"
                                      "    a\\x1B\\\\ -> item 7\n"
                                      "    \\xC2\\x85\u00E9 t\\x0Ay, left out, key 2\n"));
    EXPECT_THAT(result.out, HasSubstr(" mark gap: lost\\x0A1-1.9 \u20AC\n"));
    EXPECT_THAT(result.out, HasSubstr(" mark gap\n"));
    EXPECT_THAT(result.out, HasSubstr(" mark truncate table s.t\n"));
}

// As --resume and the configuration take them.
TEST(FwlogDump, NamesOfTablesAreQuotedWhereTheyHaveToBe)
{
    const struct {
        const char *schema, *table, *text;
    } rows[] = {
        {"sales", "orders", "sales.orders"},
        {"a.b", "c", "\"a.b\".c"},
        {"a", "b.c", "a.\"b.c\""},
        {"s", "say \"hi\"", "s.\"say \"\"hi\"\"\""},
        {"s", "back\\slash", "s.back\\slash"},
        {"s", "tab\there", "s.U&\"tab\\0009here\""},
        {"s",
         "gr\xC3\xB6\xC3\x9F"
         "e",
         "s.gr\u00F6\u00DFe"},
        {"", "no schema", "\"no schema\""},
    };
    int32_t tag = 0;
    std::vector<unsigned char> entries;
    std::string expected;
    for (const auto &row : rows) {
        fwu_entry_put_mark(entries, ++tag,
                           {.kind = FWU_MARK_GAP, .schema = row.schema, .table = row.table});
        expected += std::string("mark gap table ") + row.text + "\n";
    }
    place here;
    here.add(1, salted_file(entries, static_cast<uint32_t>(tag)));
    const run_result result = here.dump();
    EXPECT_EQ(result.status, 0) << result.err;
    std::string marks;
    for (size_t at = 0; (at = result.out.find("mark gap", at)) != result.out.npos;) {
        const size_t end = result.out.find('\n', at) + 1;
        marks += result.out.substr(at, end - at);
        at = end;
    }
    EXPECT_EQ(marks, expected);
}

TEST(FwlogDump, WholeValuesStandBeforeTheirRecord)
{
    place here;
    const std::string bytes = golden_bytes("forward_log_values.hex");
    here.add(1, {bytes.begin(), bytes.end()});
    const run_result result = here.dump();
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out,
                StartsWith("1-1 file fw0001-00000001.log, little-endian, UTF-8, created "
                           "2023-11-14 22:13:20.000000\n"));
    EXPECT_THAT(result.out, HasSubstr("\n1-1.2 @176 value of item 1 after, 8 bytes\n"
                                      "    \"größer\"\n"
                                      "1-1.3 @216 insert SALES.ORDERS 2023-11-14 22:13:21 "
                                      "record 1, 10 bytes\n"
                                      "    after NO=1 NOTE=\"grö\" NULLS=\".C\"\n"));
    EXPECT_THAT(here.dump({"--hex"}).out, HasSubstr(" value of item 1 after, 8 bytes\n"
                                                    "    6772C3B6C39F6572\n"));
}

TEST(FwlogDump, WholeValuesCannotForgeLines)
{
    std::vector<unsigned char> entries;
    fwu_entry_put_value(entries, 1, {7, FWU_IMAGE_BEFORE, true, "a\n1-1.9 \"\\\xC3"});
    fwu_entry_put_value(entries, 2, {7, FWU_IMAGE_BEFORE, false, "\xB6\xC2\x85"});
    fwu_entry_put_value(entries, 3, {0, FWU_IMAGE_AFTER, false, ""});
    place here;
    here.add(1, salted_file(entries, 3));
    const run_result result = here.dump();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr(" value of item 7 before, 11 bytes, more follows\n"
                                      "    \"a\\x0A1-1.9 \\\"\\\\\\xC3\"\n"));
    EXPECT_THAT(result.out, HasSubstr(" value of item 7 before, 3 bytes\n"
                                      "    \"\\xB6\\xC2\\x85\"\n"));
    EXPECT_THAT(result.out, HasSubstr(" value of item 0 after, 0 bytes\n    \"\"\n"));
}

TEST(FwlogDump, NamesCannotForgeLines)
{
    log_file file(1, false);
    fwu_layout odd{.dbname = "S\x1B[2J", .dsetname = "O\n1-1.9", .items = {}};
    odd.items.push_back({.name = "N\nO", .type = 'I', .size = 2});
    odd.items.push_back({.name = "BACK\\SLASH", .type = '\n', .size = 6});
    fwu_entry_put_layout(file.bytes, ++file.tag, odd);
    file.added();
    file.change(FWU_OP_DELETE, OLD_IMAGE, nullptr, "O\n1-1.9");
    file.commit();
    place here;
    here.add(1, file.bytes);
    const run_result result = here.dump();
    EXPECT_THAT(result.out, HasSubstr(" layout S\\x1B[2J.O\\x0A1-1.9: 2 items, 8 bytes\n"
                                      "    N\\x0AO I 2\n"
                                      "    BACK\\\\SLASH \\x0A 6\n"));
    EXPECT_THAT(result.out, HasSubstr(" delete SALES.O\\x0A1-1.9 1970-01-02 "));
    EXPECT_EQ(result.out.find("\n1-1.9"), std::string::npos);
}

TEST(FwlogDump, HexShowsTheBytesOfImages)
{
    place here;
    here.add(25, whole_file(25).bytes);
    const run_result result = here.dump({"--hex", "--from", "1-25.4", "--to", "1-25.4"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              R"(1-25 file fw0001-00000025.log, little-endian, created 1970-01-02 00:00:01.500000
1-25.4 @296 update SALES.ORDERS 1970-01-02 00:01:01 record 12, 8 bytes
    before FFFF005D20202020
    after 0500123C61206220
)");
}

TEST(FwlogDump, NumbersAreReadInTheByteOrderOfTheFile)
{
    log_file file(1, true);
    file.layout();
    file.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    file.commit();
    place here;
    here.add(1, file.bytes);
    const run_result result = here.dump();
    EXPECT_THAT(result.out, StartsWith("1-1 file fw0001-00000001.log, big-endian, created "));
    EXPECT_THAT(result.out, HasSubstr("    after NO=1280 NET=12.3 TAG={\"a\",\"b\"}\n"));
}

TEST(FwlogDump, ImageWithoutItsLayoutInTheFileIsShownAsBytes)
{
    log_file file(1, false);
    file.layout();
    file.change(FWU_OP_DELETE, OLD_IMAGE, nullptr, "OTHER");
    file.commit();
    place here;
    here.add(1, file.bytes);
    const run_result result = here.dump();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr(" delete SALES.OTHER 1970-01-02 00:01:01 record 12, 8 bytes\n"
                                      "    before FFFF005D20202020\n"));
}

TEST(FwlogDump, LayoutOfAnotherFileIsNotUsed)
{
    log_file second(2, false);
    second.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    second.commit();
    place here;
    here.add(1, whole_file(1).bytes);
    here.add(2, second.bytes);
    const run_result result = here.dump({"--from", "2"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("\n    after 0500123C61206220\n"));
}

// First words of the lines that are not indented: the positions printed.
static std::string positions(const std::string &out)
{
    std::string found;
    size_t at = 0;
    while (at < out.size()) {
        const size_t end = out.find('\n', at);
        if (out[at] != ' ')
            found += out.substr(at, out.find(' ', at) - at) + " ";
        at = end + 1;
    }
    return found;
}

TEST(FwlogDump, RangeChoosesFilesAndEntries)
{
    place here;
    for (const int32_t sequence : {1, 2, 3}) {
        log_file file(sequence, false);
        file.layout();
        file.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
        file.commit();
        here.add(sequence, file.bytes);
    }
    const auto chosen = [&here](const std::vector<std::string> &words) {
        const run_result result = here.dump(words);
        EXPECT_EQ(result.status, 0);
        return positions(result.out);
    };
    EXPECT_EQ(chosen({"--from", "2", "--to", "2"}), "1-2 1-2.1 1-2.2 1-2.3 ");
    EXPECT_EQ(chosen({"--from", "1-3"}), "1-3 1-3.1 1-3.2 1-3.3 ");
    EXPECT_EQ(chosen({"--from", "1-3.0"}), "1-3 1-3.1 1-3.2 1-3.3 ");
    EXPECT_EQ(chosen({"--to", "1-1.2"}), "1-1 1-1.1 1-1.2 ");
    EXPECT_EQ(chosen({"--from", "1-1.3", "--to", "1-2.1"}), "1-1 1-1.3 1-2 1-2.1 ");
    EXPECT_EQ(chosen({"--from", "2-1"}), "");
    EXPECT_EQ(chosen({"--to", "3"}),
              "1-1 1-1.1 1-1.2 1-1.3 1-2 1-2.1 1-2.2 1-2.3 1-3 1-3.1 1-3.2 1-3.3 ");
    // The layout stands before the range and is used all the same.
    EXPECT_THAT(here.dump({"--from", "1-2.2", "--to", "1-2.2"}).out, HasSubstr("NO=5"));
}

TEST(FwlogDump, WhatNoCommitFollowsIsSaidToBeATail)
{
    log_file file = whole_file(1);
    const size_t whole = file.bytes.size();
    file.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    place here;
    here.add(1, file.bytes);
    const run_result result = here.dump();
    EXPECT_EQ(whole, 504U);
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.ends_with("1-1 @504 tail: 72 bytes behind the last commit\n"))
        << result.out;
}

TEST(FwlogDump, DamageIsShownAndIsAFailure)
{
    log_file file = whole_file(1);
    file.bytes[224 + 40] ^= 1; // inside the insert entry
    place here;
    here.add(1, file.bytes);
    const run_result result = here.dump();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("1-1 @224 damage: "));
    EXPECT_THAT(result.err, StartsWith("fwlog: "));
}

TEST(FwlogDump, EmptyLogPrintsNothing)
{
    place here;
    const run_result result = here.dump();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
}

TEST(FwlogDump, MissingLogDirectoryIsAFailure)
{
    place here;
    std::filesystem::remove(here.dir.file("log"));
    const run_result result = here.dump();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("No such file or directory"));
}

TEST(FwlogDump, WrongCommandLinesAreRefusedWithStatusTwo)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--bogus"}, "fwlog: unknown option: --bogus\n"},
        {{"word"}, "fwlog: unexpected word: word\n"},
        {{"--from"}, "fwlog: option lacks its position: --from\n"},
        {{"--to"}, "fwlog: option lacks its position: --to\n"},
        {{"-cfg"}, "fwlog: option lacks its file name: -cfg\n"},
    };
    place here;
    for (const auto &[words, error] : cases) {
        const run_result result = here.dump(words);
        EXPECT_EQ(result.status, 2) << error;
        EXPECT_EQ(result.err, error + "Try \"fwlog --help\".\n");
    }
    for (const char *position :
         {"", "x", "0", "-1", "1-", "1-0", "1.5", "1-2.", "1-2.-3", "1-2.3x", "99999999999"}) {
        const run_result result = here.dump({"--from", position});
        EXPECT_EQ(result.status, 2) << position;
        EXPECT_EQ(result.err, std::string("fwlog: not a position (25, 1-25 or 1-25.340): ") +
                                  position + "\nTry \"fwlog --help\".\n");
    }
}
