// dump --json: which changes of a log are printed, what their lines tell of transactions and
// sessions, and its options.
#include "tests/changes/written_log.h"
#include "tests/support/golden.h"
#include "tests/support/run.h"
#include "tests/tools/fwlog/built_log.h"
#include "tests/tools/fwlog/json_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

TEST(FwlogJson, PrintsLayoutsChangesAndMarks)
{
    place here;
    const std::string bytes = golden_bytes("forward_log_source.hex");
    here.add(1, {bytes.begin(), bytes.end()});
    const std::string source = R"("source":{"database":"SALES","dataset":"ORDERS",)"
                               R"("table":"sales.orders","position":"1-1.)";
    const std::string commit =
        R"("xid":7,"lsn":"0/100","commit_us":1700000004000005,)"
        R"("program":null,"user":null,"login":null,"pid":null},"transaction":{"id":"1-1.5",)";
    const std::string expected =
        R"({"schema":{"database":"SALES","dataset":"ORDERS","table":"sales.orders",)"
        R"("position":"1-1.1","items":[{"name":"NO","type":"I","size":4,"count":1,"scale":0,)"
        R"("column":"order_no","source_type":"integer","key":1,"nullable":true},)"
        R"({"name":"PRICE","type":"P","size":5,"count":1,"scale":2,"column":"price",)"
        R"-("source_type":"numeric(9,2)","key":null,"nullable":true}],"key":["NO"],)-"
        R"("null_map":"NULLS"}})"
        "\n"
        R"({"op":"c","before":null,"after":{"NO":1,"PRICE":1.25},)" +
        source + R"(3","record":1,)" + commit +
        R"("n":1,"last":false},"ts_ms":1700000004000})"
        "\n"
        R"({"op":"t","before":null,"after":null,"truncate":{"reason":"TRUNCATE"},)" +
        source + R"(4","record":null,)" + commit +
        R"("n":2,"last":true},"ts_ms":1700000004000})"
        "\n";
    run_result result = here.dump({"--json"});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, expected);
    EXPECT_EQ(here.dump({"--json", "--numbers", "json"}).out, expected);
    EXPECT_THAT(here.dump({"--json", "--numbers=text"}).out,
                HasSubstr(R"("after":{"NO":"1","PRICE":"1.25"})"));
    EXPECT_THAT(here.dump({"--json", "--source-names"}).out,
                HasSubstr(R"("after":{"order_no":1,"price":1.25})"));
}

// ORDERS and LINES in two files: transactions of 2, 1, 3 and 1 changes.
static void write_some(written_log &log)
{
    const fwu_layout orders{.dbname = "SALES", .dsetname = "ORDERS", .items = {{"NO", 'I', 2}}};
    const fwu_layout lines{.dbname = "SALES", .dsetname = "LINES", .items = {{"NO", 'I', 2}}};
    log.begin(); // 1-1.1 and 1-1.3 are layouts
    log.insert(orders, le(1, 2));
    log.insert(lines, le(2, 2));
    log.commit(); // 1-1.5
    log.begin();
    log.insert(lines, le(3, 2));
    log.commit(); // 1-1.7
    log.new_file();
    log.begin(); // 1-2.1 and 1-2.3 are layouts
    log.insert(orders, le(4, 2));
    log.insert(lines, le(5, 2));
    log.insert(orders, le(6, 2));
    log.commit(); // 1-2.6
    log.begin();
    log.insert(orders, le(7, 2));
    log.commit(); // 1-2.8
}

static std::string dumped(const written_log &log, std::vector<std::string> words = {})
{
    words.insert(words.begin(), {FWLOG, "dump", "-cfg", log.cfg, "--json"});
    const run_result result = run_program(words);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
    return json_lines_summary(result.out);
}

TEST(FwlogJson, ALayoutStandsOnceThoughEachFileHasIt)
{
    written_log log;
    write_some(log);
    EXPECT_EQ(dumped(log), "S:ORDERS c1-1.2#1 S:LINES c1-1.4#2! c1-1.6#1! "
                           "c1-2.2#1 c1-2.4#2 c1-2.5#3! c1-2.7#1! ");
}

TEST(FwlogJson, ASelectionHasTheLastOfWhatItPrints)
{
    written_log log;
    write_some(log);
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--dset", "LINES"}, "S:LINES c1-1.4#2! c1-1.6#1! c1-2.4#2! "},
        {{"--dset", "sales:or@"}, "S:ORDERS c1-1.2#1! c1-2.2#1 c1-2.5#3! c1-2.7#1! "},
        {{"--dset", "LINES", "--dset", "other:", "--from", "2"}, "S:LINES c1-2.4#2! "},
        {{"--dset", "OTHER"}, ""},
        {{"--from", "1-2"}, "S:ORDERS c1-2.2#1 S:LINES c1-2.4#2 c1-2.5#3! c1-2.7#1! "},
        {{"--from", "1-2.5"}, "S:ORDERS c1-2.5#3! c1-2.7#1! "},
        {{"--from", "1-2.6"}, "S:ORDERS c1-2.7#1! "},
        {{"--to", "1-1"}, "S:ORDERS c1-1.2#1 S:LINES c1-1.4#2! c1-1.6#1! "},
        {{"--to", "1-1.2"}, "S:ORDERS c1-1.2#1 "},
        {{"--to", "1-1.5"}, "S:ORDERS c1-1.2#1 S:LINES c1-1.4#2! "},
        {{"--after", "1-1.7", "--to", "1-2.4"}, "S:ORDERS c1-2.2#1 S:LINES c1-2.4#2 "},
        {{"--after", "1-1.4"}, "S:LINES c1-1.6#1! S:ORDERS c1-2.2#1 c1-2.4#2 c1-2.5#3! c1-2.7#1! "},
        {{"--after", "1-2.2"}, "S:LINES c1-2.4#2 S:ORDERS c1-2.5#3! c1-2.7#1! "},
        {{"--after", "1-2.8"}, ""},
    };
    for (const auto &[words, expected] : cases)
        EXPECT_EQ(dumped(log, words), expected) << testing::PrintToString(words);
}

TEST(FwlogJson, ALayoutThatChangesIsGivenAgain)
{
    written_log log;
    fwu_layout layout{.dbname = "SALES", .dsetname = "ORDERS", .items = {{"NO", 'I', 2}}};
    log.begin();
    log.insert(layout, le(1, 2));
    layout.items.push_back({"TAG", 'X', 1});
    log.insert(layout, le(2, 2) + "a");
    log.commit();
    EXPECT_EQ(dumped(log), "S:ORDERS c1-1.2#1 S:ORDERS c1-1.4#2! ");
}

TEST(FwlogJson, ASessionHoldsFromWhereItStands)
{
    written_log log;
    const fwu_layout layout{.dbname = "SALES", .dsetname = "ORDERS", .items = {{"NO", 'I', 2}}};
    fwu_session session;
    session.user = "ANN";
    log.begin(&session);
    log.insert(layout, le(1, 2));
    session.user = "J\xFCrg";
    session.pid = "17";
    ASSERT_EQ(fwu_writer_session(log.writer, session), 0);
    log.insert(layout, le(2, 2));
    log.commit();
    log.begin();
    log.insert(layout, le(3, 2));
    log.commit();
    std::string sessions;
    std::istringstream out(run_program({FWLOG, "dump", "-cfg", log.cfg, "--json"}).out);
    for (std::string line; std::getline(out, line);)
        sessions += text_between(line, "\"program\":null,", "},\"transaction\"") + "\n";
    EXPECT_EQ(sessions, "\n" // the layout
                        "\"user\":\"ANN\",\"login\":null,\"pid\":null\n"
                        "\"user\":\"J\xC3\xBCrg\",\"login\":null,\"pid\":17\n"
                        "\"user\":null,\"login\":null,\"pid\":null\n");
}

TEST(FwlogJson, RowsOfASnapshotAreReads)
{
    written_log log;
    const fwu_layout layout{.dbname = "SALES", .dsetname = "ORDERS", .items = {{"NO", 'I', 2}}};
    fwu_session session;
    session.data = {"xid=0", "lsn=0/10", "snapshot=orders"};
    log.begin(&session);
    log.insert(layout, le(1, 2));
    log.commit();
    EXPECT_EQ(dumped(log), "S:ORDERS r1-1.3#1! ");
}

TEST(FwlogJson, MarksOfAllDatasetsPassEverySelection)
{
    written_log log;
    const fwu_layout layout{.dbname = "SALES", .dsetname = "ORDERS", .items = {{"NO", 'I', 2}}};
    log.begin();
    log.mark({FWU_MARK_GAP, "", "", "", "", "the server gave its log up"});
    log.mark({FWU_MARK_TRUNCATE, "SALES", "ORDERS", "sales", "orders", ""});
    log.insert(layout, le(1, 2));
    log.commit();
    EXPECT_EQ(dumped(log), "g1-1.1#1 t1-1.2#2 S:ORDERS c1-1.4#3! ");
    EXPECT_EQ(dumped(log, {"--dset", "LINES"}), "g1-1.1#1! ");
}

TEST(FwlogJson, WhatStandsBeforeDamageIsPrinted)
{
    written_log log;
    write_some(log);
    const std::string path = log.log + "/fw0001-00000001.log";
    std::string bytes = read_file(path);
    bytes[bytes.size() - 56 - 8] ^= 1; // in the last insert
    write_file(path, bytes);
    const run_result result = run_program({FWLOG, "dump", "-cfg", log.cfg, "--json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("/fw0001-00000001.log: damaged at offset "));
    EXPECT_EQ(json_lines_summary(result.out), "S:ORDERS c1-1.2#1 S:LINES c1-1.4#2! ");
}

TEST(FwlogJson, ATransactionThatBreaksOffHasNoLastChange)
{
    place here;
    log_file file(1, false);
    file.layout();
    file.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    file.change(FWU_OP_INSERT, nullptr, NEW_IMAGE, "OTHER", 13); // without a layout
    file.commit();
    here.add(1, file.bytes);
    const run_result result = here.dump({"--json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(json_lines_summary(result.out), "S:ORDERS c1-1.2#1 ");
    EXPECT_EQ(result.out.back(), '\n');
    EXPECT_THAT(result.err, HasSubstr("/fw0001-00000001.log: damaged at offset "));
}

TEST(FwlogJson, WrongCommandLinesAreRefusedWithStatusTwo)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--source-names"}, "option needs --json: --source-names"},
        {{"--numbers", "json"}, "option needs --json: --numbers"},
        {{"--dset", "SALES:"}, "option needs --json: --dset"},
        {{"--after", "1-1.1"}, "option needs --json: --after"},
        {{"--json", "--hex"}, "option does not go with --json: --hex"},
        {{"--json", "--numbers", "hex"}, "neither text nor json: hex"},
        {{"--json", "--numbers"}, "option lacks its form: --numbers"},
        {{"--json", "--after", "1-1.1", "--from", "1"},
         "give only one of --after and --from: --after"},
    };
    place here;
    for (const auto &[words, message] : cases) {
        const run_result result = here.dump(words);
        EXPECT_EQ(result.status, 2) << message;
        EXPECT_EQ(result.err, "fwlog: " + message + "\nTry \"fwlog --help\".\n");
        EXPECT_EQ(result.out, "");
    }
}

TEST(FwlogJson, OutputThatCannotBeWrittenIsAFailure)
{
    written_log log;
    write_some(log);
    const run_result result = run_program(
        {"sh", "-c",
         "exec " + std::string(FWLOG) + " dump --json -cfg " + log.cfg + " >/dev/full"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "fwlog: writing standard output: No space left on device\n");
}

// A process that may have so much memory cannot hold the transaction's text, nor its images.
TEST(FwlogJson, ALargeTransactionNeedsLittleMemory)
{
#ifdef KESTRO_SANITIZED
    GTEST_SKIP() << "sanitizers need more memory than the test allows";
#endif
    written_log log("log-file-size 1G\n");
    const fwu_layout layout{
        .dbname = "SALES", .dsetname = "ORDERS", .items = {{"NO", 'I', 4}, {"TEXT", 'X', 100}}};
    log.begin();
    constexpr int changes = 300'000;
    const std::string text(100, 'x');
    for (int i = 0; i < changes; i++)
        log.insert(layout, le(static_cast<uint64_t>(i), 4) + text);
    log.commit();
    const run_result result =
        run_program({"sh", "-c",
                     "ulimit -v 100000; " + std::string(FWLOG) + " dump --json -cfg " + log.cfg +
                         " | grep -c '\"last\":'"});
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, std::to_string(changes) + "\n");
}
