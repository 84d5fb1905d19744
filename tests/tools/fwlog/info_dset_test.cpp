// What a -dset pattern takes of a log, as fwlog info tells it and as Kestro takes it.
#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <gmock/gmock.h>

class InfoDset : public testing::Test {
  protected:
    void SetUp() override
    {
        write_file(dir.file("fwutil.cfg"), "log-directory log\n");
        options.directory = dir.path();
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        insert(writer, "SALES", "ORDERS", 3);
        insert(writer, "SALES", "ORDER-LINES", 2);
        insert(writer, "SHOP", "CUST", 1);
        ASSERT_EQ(fwu_writer_commit(writer, {.time_us = 1, .lsn = 1}), 0);
        ASSERT_EQ(fwu_writer_close(writer), 0);
    }
    static void insert(fwu_writer *writer, const char *dbname, const char *dsetname, int n)
    {
        fwu_layout layout;
        layout.dbname = dbname;
        layout.dsetname = dsetname;
        layout.items = {{"T", 'X', 2, 1, 0}};
        for (int i = 0; i < n; i++)
            ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, layout, 1, 2, nullptr, "ab"), 0);
    }
    run_result info(std::vector<std::string> words)
    {
        words.insert(words.begin(), {KESTRO_BUILD_DIR "/bin/fwlog", "info"});
        return run_program(words, options);
    }
    // What is said behind the first line.
    std::string told(const std::string &pattern, int status)
    {
        const run_result result = info({"--dset", pattern});
        EXPECT_EQ(result.status, status) << pattern;
        EXPECT_EQ(result.err, "");
        return result.out.substr(result.out.find('\n') + 1);
    }

    const tempdir dir;
    run_setup options;
};

TEST_F(InfoDset, WhatAPatternTakesIsListed)
{
    EXPECT_EQ(info({"--dset", "sales:"}).out,
              "-dset sales: is taken as SALES:@\n"
              "    dataset                              inserts    updates    deletes\n"
              "    SALES.ORDER-LINES                          2          0          0\n"
              "    SALES.ORDERS                               3          0          0\n"
              "    2 datasets, 5 records\n");
    EXPECT_EQ(info({"--dset=cust", "--dset", "sales.orders"}).out,
              "-dset cust is taken as @:CUST\n"
              "    dataset                              inserts    updates    deletes\n"
              "    SHOP.CUST                                  1          0          0\n"
              "    1 dataset, 1 record\n"
              "-dset sales.orders is taken as @:SALES.ORDERS\n"
              "    takes nothing of this log; perhaps meant: -dset sales:orders\n");
}

TEST_F(InfoDset, WhatWasMeantByAPatternThatTakesNothing)
{
    const struct {
        const char *pattern, *said;
    } cases[] = {
        {"sales.orders", "; perhaps meant: -dset sales:orders"},
        {"Sales.@", "; perhaps meant: -dset Sales:@"},
        {"sales", "; perhaps meant: -dset SALES:"},
        {"public.orders", "; perhaps meant: -dset SALES:ORDERS"},
        {"public:cust", "; perhaps meant: -dset SHOP:CUST"},
        {"sales:orderlines", "; perhaps meant: -dset SALES:ORDER-LINES"},
        {"sales:nothing", "; it has SALES:ORDER-LINES, SALES:ORDERS, SHOP:CUST"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(told(c.pattern, 1), "    takes nothing of this log" + std::string(c.said) + "\n")
            << c.pattern;
}

TEST_F(InfoDset, JsonHasTheSame)
{
    const run_result result = info({"--json", "--dset", "cust", "--dset", "sales.orders"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(
        result.out,
        "{\"patterns\":[{\"pattern\":\"cust\",\"taken_as\":\"@:CUST\",\"datasets\":["
        "{\"database\":\"SHOP\",\"dataset\":\"CUST\",\"inserts\":1,\"updates\":0,\"deletes\":0}"
        "],\"records\":1,\"meant\":[]},{\"pattern\":\"sales.orders\",\"taken_as\":"
        "\"@:SALES.ORDERS\",\"datasets\":[],\"records\":0,\"meant\":[\"sales:orders\"]}]}\n");
}

TEST_F(InfoDset, KestroTakesWhatIsTold)
{
    for (const char *pattern : {"sales.orders", "sales:orders", "sales:", ":orders", "ORDERS", "@",
                                "@-@", "s@:@s@", "@:@", "cust", "sh@.cust", "x:", "a:b", ":"}) {
        SCOPED_TRACE(pattern);
        for (const char *name : {"out", "fwutil.status"})
            std::filesystem::remove(dir.file(name));
        const run_result run = run_program(
            {KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-dset", pattern, "-ascii", "out"},
            options);
        EXPECT_EQ(run.status, 0) << run.err;
        const std::string text = read_file(dir.file("out"));
        const auto taken = std::count(text.begin(), text.end(), '\n');
        const run_result told = info({"--json", "--dset", pattern});
        EXPECT_THAT(told.out, testing::HasSubstr("\"records\":" + std::to_string(taken) + ","));
        EXPECT_EQ(told.status, taken == 0 ? 1 : 0);
    }
}

TEST_F(InfoDset, APatternThatIsNoneIsRefusedAsByKestro)
{
    const run_result result = info({"--dset", "sales:order_lines"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err,
                testing::HasSubstr("Invalid character in dataset name in -dset parameter.\n"));
}
