// The configuration file: everything it may say, and every error.
#include "fwutil/fwu_config.h"

#include "tests/fwutil/log_fixture.h"

#include <bit>
#include <cstdlib>
#include <gmock/gmock.h>

struct config_row {
    const char *text;
    const char *error; // behind "fwutil: FILE:"
};

class ConfigTest : public ::testing::Test {
  protected:
    int read(const std::string &text)
    {
        write_file(path, text);
        int result = 0;
        err = stderr_of([&] { result = fwu_config_read(config, path.c_str()); });
        return result;
    }
    tempdir dir;
    std::string path = dir.file("x.cfg");
    std::string err;
    fwu_config config;
};

TEST_F(ConfigTest, ReadsEveryStatement)
{
    ASSERT_EQ(read("# comment\n"
                   "log-directory  log   # relative\r\n"
                   "log-file-size  2M\n"
                   "byte-order     big\n"
                   "\n"
                   "skip-table     audit.journal\n"
                   "database SALES\n"
                   "dataset ORDER-LINES\n"
                   "dataset A+*/?'#%&-9 table=sales.a_very_long_table_name\n"
                   "item ORDER-NO   I 4\n"
                   "item WEEK-QTY   I 2 x4\n"
                   "item PRICE      P 5 scale=9\n"
                   "item SEVENTEEN-BYTES-X Z 28 x2 scale=28\n"
                   "item NULL-MAP   X 4 null-map"),
              0)
        << err;
    EXPECT_EQ(config.log_directory, dir.file("log"));
    EXPECT_EQ(config.log_file_size, 2 * 1024 * 1024);
    EXPECT_TRUE(config.big_endian);
    EXPECT_EQ(config.skip_tables, std::vector<std::string>{"audit.journal"});
    ASSERT_EQ(config.datasets.size(), 2U);
    EXPECT_EQ(config.datasets[0].layout, (fwu_layout{"SALES", "ORDER-LINES", {}}));
    EXPECT_EQ(config.datasets[0].line, 8);
    EXPECT_EQ(config.datasets[0].null_map, -1);
    EXPECT_EQ(config.datasets[1].table, "sales.a_very_long_table_name");
    EXPECT_EQ(config.datasets[1].null_map, 4);
    EXPECT_EQ(config.datasets[1].layout, (fwu_layout{"SALES",
                                                     "A+*/?'#%&-9",
                                                     {{"ORDER-NO", 'I', 4, 1, 0},
                                                      {"WEEK-QTY", 'I', 2, 4, 0},
                                                      {"PRICE", 'P', 5, 1, 9},
                                                      {"SEVENTEEN-BYTES-X", 'Z', 28, 2, 28},
                                                      {"NULL-MAP", 'X', 4, 1, 0}}}));
}

TEST_F(ConfigTest, AReaderGetsTheDirectoryOfAFileThatIsGoodThroughout)
{
    fwu_reader_config reader;
    write_file(path, "log-directory log\ndatabase D\ndataset S\nitem A I 4\n");
    ASSERT_EQ(fwu_config_read(reader, path.c_str()), 0);
    EXPECT_EQ(reader.path, path);
    EXPECT_EQ(reader.log_directory, dir.file("log"));
    write_file(path, "log-directory log\ndatabase D\ndataset S\nitem A I 3\n");
    err = stderr_of([&] { EXPECT_EQ(fwu_config_read(reader, path.c_str()), -1); });
    EXPECT_EQ(err,
              "fwutil: " + path + ":4: an item of type I has a size of 2, 4 or 8 bytes, not 3\n");
}

TEST_F(ConfigTest, DefaultsAreTheMachinesByteOrderAnd64M)
{
    ASSERT_EQ(read("log-directory \"/a b/c # d\"\n"), 0) << err;
    EXPECT_EQ(config.log_directory, "/a b/c # d");
    EXPECT_EQ(config.log_file_size, 64 * 1024 * 1024);
    EXPECT_EQ(config.big_endian, std::endian::native == std::endian::big);
}

TEST_F(ConfigTest, SyncIsForEveryCommitUnlessSaidOtherwise)
{
    const struct {
        const char *text;
        fwu_sync_mode sync;
        int64_t interval_ms;
    } rows[] = {
        {"", FWU_SYNC_COMMIT, 0},
        {"sync commit\n", FWU_SYNC_COMMIT, 0},
        {"sync interval 250\n", FWU_SYNC_INTERVAL, 250},
        {"sync interval 3600000\n", FWU_SYNC_INTERVAL, 3600000},
        {"sync none\n", FWU_SYNC_NONE, 0},
    };
    for (const auto &row : rows) {
        config = {};
        ASSERT_EQ(read(std::string("log-directory l\n") + row.text), 0) << err;
        EXPECT_EQ(config.sync, row.sync) << row.text;
        EXPECT_EQ(config.sync_interval_ms, row.interval_ms) << row.text;
    }
}

TEST_F(ConfigTest, WhatOfTheLogIsKeptIsSaidInOneLineOrSeveral)
{
    const struct {
        const char *text;
        int64_t seconds;
        int64_t bytes;
        bool acknowledged;
        const char *kept;
    } rows[] = {
        {"", 0, 0, false, ""},
        {"log-keep 12h\n", 43'200, 0, false, "12h"},
        {"log-keep 7d\n", 604'800, 0, false, "7d"},
        {"log-keep 4w\n", 2'419'200, 0, false, "4w"},
        {"log-keep 500M\n", 0, 524'288'000, false, "500M"},
        {"log-keep 20G\n", 0, 21'474'836'480, false, "20G"},
        {"log-keep 100000T\n", 0, 109'951'162'777'600'000, false, "100000T"},
        {"log-keep acknowledged\n", 0, 0, true, "acknowledged"},
        {"log-keep 1T 1w acknowledged\n", 604'800, 1'099'511'627'776, true, "1T 1w acknowledged"},
        {"log-keep acknowledged\nlog-keep 1h\nlog-keep 1M\n", 3600, 1'048'576, true,
         "acknowledged 1h 1M"},
    };
    for (const auto &row : rows) {
        config = {};
        ASSERT_EQ(read(std::string("log-directory l\n") + row.text), 0) << err;
        EXPECT_EQ(config.keep.seconds, row.seconds) << row.text;
        EXPECT_EQ(config.keep.bytes, row.bytes) << row.text;
        EXPECT_EQ(config.keep.acknowledged, row.acknowledged) << row.text;
        EXPECT_EQ(config.keep.text, row.kept);
    }
}

TEST_F(ConfigTest, ColumnsOfTablesGetNamesAndWidths)
{
    ASSERT_EQ(read("log-directory l\n"
                   "column sales.customers.remarks width=32767\n"
                   "column sales.customers.telephone_extension width=6 item=PHONE-EXT\n"
                   "column sales.orders.note item=SEVENTEEN-BYTES-X\n"),
              0)
        << err;
    ASSERT_EQ(config.columns.size(), 3U);
    const struct {
        const char *table, *column, *item;
        int32_t width;
    } rows[] = {{"sales.customers", "remarks", "", 32767},
                {"sales.customers", "telephone_extension", "PHONE-EXT", 6},
                {"sales.orders", "note", "SEVENTEEN-BYTES-X", 0}};
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(config.columns[i].table, rows[i].table);
        EXPECT_EQ(config.columns[i].column, rows[i].column);
        EXPECT_EQ(config.columns[i].item, rows[i].item);
        EXPECT_EQ(config.columns[i].width, rows[i].width);
    }
}

TEST_F(ConfigTest, ColumnsAreFoundByTheirTable)
{
    ASSERT_EQ(read("log-directory l\n"
                   "column s.b.z key\n"
                   "column s.c.y key\n"
                   "column s.b.x key\n"
                   "column s.a.w key\n"
                   "column s.b.a key\n"),
              0)
        << err;
    const struct {
        const char *table, *columns;
    } rows[] = {{"s.a", "w "}, {"s.b", "z x a "}, {"s.c", "y "},
                {"s.", ""},    {"s.bb", ""},      {"t", ""}};
    for (const auto &row : rows) {
        std::string found;
        for (const fwu_column &column : fwu_columns_of(config, row.table))
            found += column.column + " ";
        EXPECT_EQ(found, row.columns) << row.table;
    }
    EXPECT_TRUE(fwu_columns_of(fwu_writing(), "s.a").empty());
}

TEST_F(ConfigTest, EncodingIsOnlySaidByItsLine)
{
    ASSERT_EQ(read("log-directory l\n"), 0) << err;
    EXPECT_FALSE(config.encoding.has_value());
    EXPECT_EQ(config.new_log_encoding, FWU_LATIN1);
    ASSERT_EQ(read("log-directory l\ntext-encoding utf-8\n"), 0) << err;
    EXPECT_EQ(config.encoding, FWU_UTF8);
    ASSERT_EQ(read("log-directory l\ntext-encoding iso-8859-1\n"), 0) << err;
    EXPECT_EQ(config.encoding, FWU_LATIN1);
}

TEST_F(ConfigTest, PoliciesAreForAllForATableAndForAColumn)
{
    ASSERT_EQ(read("log-directory l\n"), 0) << err;
    EXPECT_EQ(config.policy, FWU_POLICY_UNSAID);
    ASSERT_EQ(read("log-directory l\n"
                   "values mark\n"
                   "table sales.orders values=error\n"
                   "table sales.lines values=mark\n"
                   "column sales.orders.note values=mark width=9\n"
                   "column sales.orders.sum key values=error\n"
                   "column sales.orders.no key\n"),
              0)
        << err;
    EXPECT_EQ(config.policy, FWU_POLICY_MARK);
    ASSERT_EQ(config.table_rules.size(), 2U);
    EXPECT_EQ(config.table_rules[0].table, "sales.orders");
    EXPECT_EQ(config.table_rules[0].policy, FWU_POLICY_ERROR);
    EXPECT_EQ(config.table_rules[1].table, "sales.lines");
    EXPECT_EQ(config.table_rules[1].policy, FWU_POLICY_MARK);
    ASSERT_EQ(config.columns.size(), 3U);
    EXPECT_EQ(config.columns[0].policy, FWU_POLICY_MARK);
    EXPECT_EQ(config.columns[0].width, 9);
    EXPECT_EQ(config.columns[1].policy, FWU_POLICY_ERROR);
    EXPECT_TRUE(config.columns[1].key);
    EXPECT_EQ(config.columns[2].policy, FWU_POLICY_UNSAID);
}

TEST_F(ConfigTest, DefaultWidthsAreForAllTypesAndForSome)
{
    ASSERT_EQ(read("log-directory l\n"
                   "default-width jsonb 1000\n"
                   "default-width 32767\n"
                   "default-width \"character varying\" 1 # counted ones have their own\n"
                   "default-width public.\"Mood of day\" 9\n"
                   "default-width \"public.\"\"Mood\"\"[]\" 10\n"
                   "default-width \"Up\".\"Down\" 11\n"),
              0)
        << err;
    const struct {
        const char *type;
        int32_t width;
    } rows[] = {{"jsonb", 1000},           {"", 32767},
                {"character varying", 1},  {"public.\"Mood of day\"", 9},
                {"public.\"Mood\"[]", 10}, {"\"Up\".\"Down\"", 11}};
    ASSERT_EQ(config.default_widths.size(), std::size(rows));
    for (size_t i = 0; i < std::size(rows); i++) {
        EXPECT_EQ(config.default_widths[i].type, rows[i].type);
        EXPECT_EQ(config.default_widths[i].width, rows[i].width);
    }
}

TEST_F(ConfigTest, NamesMayHaveQuotedParts)
{
    ASSERT_EQ(read("log-directory l\n"
                   "skip-table \"sales\".\"Order Lines\"\r\n"
                   "skip-table a.\"b#c\"# a word, and no comment\n"),
              -1);
    EXPECT_EQ(err, "fwutil: " + path + ":3: skip-table takes one name of the form schema.table\n");
    ASSERT_EQ(read("log-directory l\n"
                   "skip-table \"sales\".\"Order Lines\"\r\n"
                   "skip-table a.\" # \" # a comment\n"
                   "table a.\"b\"\"c\" values=mark\n"
                   "column \"a\".\"b\".\"c\" width=3\n"
                   "column sales.\"Order Lines\".\"price \"\"net\"\"\" key\n"
                   "column a.b=c.U&\"d\\000Ae\" key\n"
                   "database D\n"
                   "dataset S table=\"x.y\".\"z \"\n"
                   "dataset T table=\"x\".y\n"),
              0)
        << err;
    EXPECT_THAT(config.skip_tables, testing::ElementsAre("sales.\"Order Lines\"", "a.\" # \""));
    ASSERT_EQ(config.table_rules.size(), 1U);
    EXPECT_EQ(config.table_rules[0].table, "a.\"b\"\"c\"");
    ASSERT_EQ(config.columns.size(), 3U);
    EXPECT_EQ(config.columns[0].table, "a.\"b=c\"");
    EXPECT_EQ(config.columns[0].column, "d\ne");
    EXPECT_EQ(config.columns[1].table, "a.b");
    EXPECT_EQ(config.columns[1].column, "c");
    EXPECT_EQ(config.columns[2].table, "sales.\"Order Lines\"");
    EXPECT_EQ(config.columns[2].column, "price \"net\"");
    ASSERT_EQ(config.datasets.size(), 2U);
    EXPECT_EQ(config.datasets[0].table, "\"x.y\".\"z \"");
    EXPECT_EQ(config.datasets[1].table, "x.y");
}

TEST_F(ConfigTest, DescribesOnlyWithADatabaseOrAColumn)
{
    ASSERT_EQ(read("log-directory l\nskip-table a.b\nvalues mark\ntable a.c values=error\n"
                   "default-width 9\ntext-encoding utf-8\n"),
              0)
        << err;
    EXPECT_FALSE(fwu_writing_describes(config));
    ASSERT_EQ(read("log-directory l\ndatabase D\n"), 0) << err;
    EXPECT_TRUE(fwu_writing_describes(config));
    ASSERT_EQ(read("log-directory l\ncolumn a.b.c values=mark\n"), 0) << err;
    EXPECT_TRUE(fwu_writing_describes(config));
}

TEST_F(ConfigTest, StopsAtATruncateWhereItSaysSoOrDescribesTables)
{
    const struct {
        const char *lines;
        fwu_at_truncate said;
        bool stops;
    } rows[] = {
        {"", FWU_TRUNCATE_UNSAID, false},
        {"values error\n", FWU_TRUNCATE_UNSAID, false},
        {"database D\n", FWU_TRUNCATE_UNSAID, true},
        {"column a.b.c key\n", FWU_TRUNCATE_UNSAID, true},
        {"truncate stop\n", FWU_TRUNCATE_STOP, true},
        {"truncate mark\ndatabase D\n", FWU_TRUNCATE_MARK, false},
    };
    for (const auto &row : rows) {
        ASSERT_EQ(read(std::string("log-directory l\n") + row.lines), 0) << err;
        EXPECT_EQ(config.truncate, row.said) << row.lines;
        EXPECT_EQ(config.stops_at_truncate, row.stops) << row.lines;
        fwu_reader_config reader;
        ASSERT_EQ(fwu_config_read(reader, path.c_str()), 0);
        EXPECT_EQ(reader.stops_at_truncate, row.stops) << row.lines;
    }
}

TEST_F(ConfigTest, KeysAreInTheOrderOfTheirLines)
{
    ASSERT_EQ(read("log-directory l\n"
                   "column a.b.second key\n"
                   "column a.b.other width=3\n"
                   "column a.b.first item=FIRST key width=9\n"
                   "database D\n"
                   "dataset NONE\n"
                   "item A I 4\n"
                   "dataset SOME\n"
                   "item A I 4\n"
                   "item B P 5 key scale=2\n"
                   "item C X 3 x2 key\n"
                   "item D X 3 null-map\n"),
              0)
        << err;
    ASSERT_EQ(config.columns.size(), 3U);
    EXPECT_TRUE(config.columns[0].key);
    EXPECT_EQ(config.columns[0].width, 0);
    EXPECT_FALSE(config.columns[1].key);
    EXPECT_TRUE(config.columns[2].key);
    EXPECT_EQ(config.columns[2].item, "FIRST");
    EXPECT_EQ(config.columns[2].width, 9);
    ASSERT_EQ(config.datasets.size(), 2U);
    EXPECT_THAT(config.datasets[0].key, testing::IsEmpty());
    EXPECT_THAT(config.datasets[1].key, testing::ElementsAre(1, 2));
    EXPECT_EQ(config.datasets[1].layout.items[1].item_aux, 2);
    EXPECT_EQ(config.datasets[1].layout.items[2].count, 2);
}

#define LOGDIR "log-directory l\n"
#define SET LOGDIR "database D\ndataset S\n"
#define WIDTH                                                                                 \
    "default-width takes a width from 1 to 32767 bytes; in front of it may stand a type (in " \
    "double quotes when it holds blanks)"

// clang-format off
static const config_row ERRORS[] = {
    {"", "0: the log-directory line is missing"},
    {"log-directory\n", "1: log-directory takes one path (in double quotes when it holds blanks)"},
    {"log-directory a b\n", "1: log-directory takes one path (in double quotes when it holds blanks)"},
    {"log-directory \"\"\n", "1: log-directory takes one path (in double quotes when it holds blanks)"},
    {LOGDIR LOGDIR, "2: log-directory is given twice"},
    {"log-directory \"a\n", "1: the closing quote is missing"},
    {"log-directory \"a\"b\n", "1: text follows directly behind the closing quote"},
    {"log-directory a\"b\n", "1: a quote stands inside the word a\"b"},
    {"\nlog-directory a\x01\n", "2: the line holds a control character"},
    {LOGDIR "LOG-DIRECTORY x\n", "2: LOG-DIRECTORY is not known here; a line begins with log-directory, log-file-size, byte-order, text-encoding, sync, log-mode, log-keep, values, truncate, default-width, skip-table, table, column, database, dataset or item"},
    {LOGDIR "log-keep\n", "2: log-keep takes a time (12h, 7d, 4w), a size (500M, 20G, 1T), the word acknowledged, or several of them"},
    {LOGDIR "log-keep 7\n", "2: log-keep takes a time (12h, 7d, 4w), a size (500M, 20G, 1T), the word acknowledged, or several of them"},
    {LOGDIR "log-keep d\n", "2: log-keep takes a time (12h, 7d, 4w), a size (500M, 20G, 1T), the word acknowledged, or several of them"},
    {LOGDIR "log-keep 0d\n", "2: log-keep takes a time (12h, 7d, 4w), a size (500M, 20G, 1T), the word acknowledged, or several of them"},
    {LOGDIR "log-keep -1d\n", "2: log-keep takes a time (12h, 7d, 4w), a size (500M, 20G, 1T), the word acknowledged, or several of them"},
    {LOGDIR "log-keep 100001T\n", "2: log-keep takes a time (12h, 7d, 4w), a size (500M, 20G, 1T), the word acknowledged, or several of them"},
    {LOGDIR "log-keep 7d 5K\n", "2: log-keep takes a time (12h, 7d, 4w), a size (500M, 20G, 1T), the word acknowledged, or several of them"},
    {LOGDIR "log-keep 7d\nlog-keep 12h\n", "3: log-keep is given twice for a time, for a size, or for what is acknowledged"},
    {LOGDIR "log-keep 1G 2M\n", "2: log-keep is given twice for a time, for a size, or for what is acknowledged"},
    {LOGDIR "log-keep acknowledged acknowledged\n", "2: log-keep is given twice for a time, for a size, or for what is acknowledged"},
    {LOGDIR "log-file-size 4095\n", "2: log-file-size takes a number of bytes from 4K to 64G, with K, M or G"},
    {LOGDIR "log-file-size 65G\n", "2: log-file-size takes a number of bytes from 4K to 64G, with K, M or G"},
    {LOGDIR "log-file-size 99999999999999999999\n", "2: log-file-size takes a number of bytes from 4K to 64G, with K, M or G"},
    {LOGDIR "log-file-size M\n", "2: log-file-size takes a number of bytes from 4K to 64G, with K, M or G"},
    {LOGDIR "log-file-size -8K\n", "2: log-file-size takes a number of bytes from 4K to 64G, with K, M or G"},
    {LOGDIR "log-file-size\n", "2: log-file-size takes a number of bytes from 4K to 64G, with K, M or G"},
    {LOGDIR "log-file-size 8K\nlog-file-size 8K\n", "3: log-file-size is given twice"},
    {LOGDIR "byte-order middle\n", "2: byte-order takes the word little or big"},
    {LOGDIR "byte-order\n", "2: byte-order takes the word little or big"},
    {LOGDIR "byte-order big\nbyte-order big\n", "3: byte-order is given twice"},
    {LOGDIR "text-encoding\n", "2: text-encoding takes the word utf-8 or iso-8859-1"},
    {LOGDIR "text-encoding latin1\n", "2: text-encoding takes the word utf-8 or iso-8859-1"},
    {LOGDIR "text-encoding utf-8 utf-8\n", "2: text-encoding takes the word utf-8 or iso-8859-1"},
    {LOGDIR "text-encoding utf-8\ntext-encoding utf-8\n", "3: text-encoding is given twice"},
    {LOGDIR "values\n", "2: values takes the word error or mark"},
    {LOGDIR "values cut\n", "2: values takes the word error or mark"},
    {LOGDIR "values mark error\n", "2: values takes the word error or mark"},
    {LOGDIR "values mark\nvalues mark\n", "3: values is given twice"},
    {LOGDIR "truncate\n", "2: truncate takes the word stop or mark"},
    {LOGDIR "truncate go\n", "2: truncate takes the word stop or mark"},
    {LOGDIR "truncate mark stop\n", "2: truncate takes the word stop or mark"},
    {LOGDIR "truncate mark\ntruncate stop\n", "3: truncate is given twice"},
    {LOGDIR "table a.b\n", "2: table takes one name of the form schema.table, then values=error or values=mark"},
    {LOGDIR "table a values=mark\n", "2: table takes one name of the form schema.table, then values=error or values=mark"},
    {LOGDIR "table a.b values=\n", "2: table takes one name of the form schema.table, then values=error or values=mark"},
    {LOGDIR "table a.b mark\n", "2: table takes one name of the form schema.table, then values=error or values=mark"},
    {LOGDIR "table a.b values=mark values=mark\n", "2: table takes one name of the form schema.table, then values=error or values=mark"},
    {LOGDIR "table a.b values=mark\ntable \"a\".b values=error\n", "3: table a.b is given twice"},
    {LOGDIR "default-width\n", "2: " WIDTH},
    {LOGDIR "default-width 0\n", "2: " WIDTH},
    {LOGDIR "default-width 32768\n", "2: " WIDTH},
    {LOGDIR "default-width jsonb\n", "2: " WIDTH},
    {LOGDIR "default-width \"\" 3\n", "2: " WIDTH},
    {LOGDIR "default-width character varying 3\n", "2: " WIDTH},
    {LOGDIR "default-width 3\ndefault-width 4\n", "3: the default width is given twice"},
    {LOGDIR "default-width json 3\ndefault-width \"json\" 4\n", "3: the default width of type json is given twice"},
    {LOGDIR "sync\n", "2: sync takes the word commit, none, or interval and 1 to 3600000 milliseconds"},
    {LOGDIR "sync interval\n", "2: sync takes the word commit, none, or interval and 1 to 3600000 milliseconds"},
    {LOGDIR "sync interval 0\n", "2: sync takes the word commit, none, or interval and 1 to 3600000 milliseconds"},
    {LOGDIR "sync interval 3600001\n", "2: sync takes the word commit, none, or interval and 1 to 3600000 milliseconds"},
    {LOGDIR "sync commit 5\n", "2: sync takes the word commit, none, or interval and 1 to 3600000 milliseconds"},
    {LOGDIR "sync none\nsync none\n", "3: sync is given twice"},
    {LOGDIR "byte-order \"big\"\n", "2: only a path, a type and parts of a table's or column's name are written in quotes"},
    {LOGDIR "skip-table journal\n", "2: skip-table takes one name of the form schema.table"},
    {LOGDIR "skip-table a.b.c\n", "2: skip-table takes one name of the form schema.table"},
    {LOGDIR "skip-table \"a.b\"\n", "2: skip-table takes one name of the form schema.table"},
    {LOGDIR "skip-table a\"b\".c\n", "2: skip-table takes one name of the form schema.table"},
    {LOGDIR "skip-table a.\"b\n", "2: the closing quote is missing"},
    {LOGDIR "skip-table a.b\nskip-table a.\"b\"\n", "3: table a.b is skipped twice"},
    {LOGDIR "skip-table .b\n", "2: skip-table takes one name of the form schema.table"},
    {LOGDIR "skip-table a.b\nskip-table a.b\n", "3: table a.b is skipped twice"},
    {LOGDIR "skip-table a.b\ndatabase D\ndataset S table=a.b\n", "4: table a.b is also named by a skip-table line"},
    {LOGDIR "database D\ndataset S table=a.b\nskip-table a.b\n", "4: table a.b is skipped here, but feeds the dataset of line 3"},
    {LOGDIR "column\n", "2: column takes one name of the form schema.table.column, then item=NAME, width=N, key, values=error or values=mark, or several of them"},
    {LOGDIR "column a.b.c\n", "2: column takes one name of the form schema.table.column, then item=NAME, width=N, key, values=error or values=mark, or several of them"},
    {LOGDIR "column b.c width=3\n", "2: column takes one name of the form schema.table.column, then item=NAME, width=N, key, values=error or values=mark, or several of them"},
    {LOGDIR "column a.b. width=3\n", "2: column takes one name of the form schema.table.column, then item=NAME, width=N, key, values=error or values=mark, or several of them"},
    {LOGDIR "column a..c width=3\n", "2: column takes one name of the form schema.table.column, then item=NAME, width=N, key, values=error or values=mark, or several of them"},
    {LOGDIR "column a.b.c item=\n", "2: item=: an item name has 1 to 17 bytes"},
    {LOGDIR "column a.b.c item=Gr\xC3\xB6SSE\n", "2: item=Gr\xC3\xB6SSE: an item name has no characters outside ASCII"},
    {LOGDIR "column a.b.c item=EIGHTEEN-BYTES-XYZ\n", "2: item=EIGHTEEN-BYTES-XYZ: an item name has 1 to 17 bytes"},
    {LOGDIR "column a.b.c width=0\n", "2: width=0 is not a width from 1 to 32767 bytes"},
    {LOGDIR "column a.b.c width=32768\n", "2: width=32768 is not a width from 1 to 32767 bytes"},
    {LOGDIR "column a.b.c width=3 width=4\n", "2: width=4 is not known or given twice; behind the column's name stand item=NAME, width=N, key and values=error or values=mark"},
    {LOGDIR "column a.b.c key key\n", "2: key is not known or given twice; behind the column's name stand item=NAME, width=N, key and values=error or values=mark"},
    {LOGDIR "column a.b.c key\ncolumn a.b.c key\n", "3: column a.b.c is given twice"},
    {LOGDIR "column a.b.c item=\"C\"\n", "2: a quote stands inside the word item=\"C\""},
    {LOGDIR "column a.b.c values=cut\n", "2: values=cut is not known or given twice; behind the column's name stand item=NAME, width=N, key and values=error or values=mark"},
    {LOGDIR "column a.b.c values=mark values=error\n", "2: values=error is not known or given twice; behind the column's name stand item=NAME, width=N, key and values=error or values=mark"},
    {LOGDIR "column a.b.c wide\n", "2: wide is not known or given twice; behind the column's name stand item=NAME, width=N, key and values=error or values=mark"},
    {LOGDIR "column a.b.c width=3\ncolumn a.b.c item=C\n", "3: column a.b.c is given twice"},
    {LOGDIR "database\n", "2: database takes one name of at most 16 characters: a letter, then letters, digits and \"-\""},
    {LOGDIR "database 1D\n", "2: database takes one name of at most 16 characters: a letter, then letters, digits and \"-\""},
    {LOGDIR "database D+\n", "2: database takes one name of at most 16 characters: a letter, then letters, digits and \"-\""},
    {LOGDIR "database SEVENTEEN-LETTERS\n", "2: database takes one name of at most 16 characters: a letter, then letters, digits and \"-\""},
    {LOGDIR "database D\ndatabase D\n", "3: database D is given twice"},
    {LOGDIR "dataset S\n", "2: dataset S stands before the first database line"},
    {LOGDIR "database D\ndataset\n", "3: dataset takes one name of at most 16 characters: a letter, then letters, digits and - + * / ? ' # % &; table=schema.table may follow"},
    {LOGDIR "database D\ndataset A_B\n", "3: dataset takes one name of at most 16 characters: a letter, then letters, digits and - + * / ? ' # % &; table=schema.table may follow"},
    {LOGDIR "database D\ndataset S b.c\n", "3: b.c is not of the form table=schema.table"},
    {LOGDIR "database D\ndataset \"S\"\n", "3: dataset takes one name of at most 16 characters: a letter, then letters, digits and - + * / ? ' # % &; table=schema.table may follow"},
    {LOGDIR "database D\ndataset S table=\"b.c\"\n", "3: table=\"b.c\" is not of the form table=schema.table"},
    {LOGDIR "database D\ndataset S table=c\n", "3: table=c is not of the form table=schema.table"},
    {SET "dataset S\n", "4: dataset S is given twice, first in line 3"},
    {LOGDIR "database D\ndataset S table=a.b\ndataset T table=a.b\n", "4: table a.b feeds the dataset of line 3 already"},
    {LOGDIR "item A I 4\n", "2: item stands before the first dataset line of its database"},
    {SET "database E\nitem A I 4\n", "5: item stands before the first dataset line of its database"},
    {SET "item A I\n", "4: item takes name, type and size"},
    {SET "item EIGHTEEN-BYTES-XXX I 4\n", "4: the item name EIGHTEEN-BYTES-XXX has more than 17 bytes"},
    {SET "item A I 4\nitem A I 4\n", "5: item A is given twice"},
    {SET "item A Q 4\n", "4: Q is not an item type: E R I J K P Z X U"},
    {SET "item A II 4\n", "4: II is not an item type: E R I J K P Z X U"},
    {SET "item A i 4\n", "4: i is not an item type: E R I J K P Z X U"},
    {SET "item A E 2\n", "4: an item of type E has a size of 4 or 8 bytes, not 2"},
    {SET "item A R 6\n", "4: an item of type R has a size of 4 or 8 bytes, not 6"},
    {SET "item A I 3\n", "4: an item of type I has a size of 2, 4 or 8 bytes, not 3"},
    {SET "item A J 16\n", "4: an item of type J has a size of 2, 4 or 8 bytes, not 16"},
    {SET "item A K x\n", "4: an item of type K has a size of 2, 4 or 8 bytes, not x"},
    {SET "item A P 15\n", "4: an item of type P has a size of 1 to 14 bytes, not 15"},
    {SET "item A Z 29\n", "4: an item of type Z has a size of 1 to 28 bytes, not 29"},
    {SET "item A X 0\n", "4: an item of type X has a size of 1 to 32767 bytes, not 0"},
    {SET "item A U 32768\n", "4: an item of type U has a size of 1 to 32767 bytes, not 32768"},
    {SET "item A I 4 x0\n", "4: x0 is not a count from x1 to x32767"},
    {SET "item A I 4 x32768\n", "4: x32768 is not a count from x1 to x32767"},
    {SET "item A I 4 x\n", "4: x is not a count from x1 to x32767"},
    {SET "item A I 4 x2 x2\n", "4: x2 is not known or given twice; behind name, type and size stand xCOUNT, scale=N, key and null-map"},
    {SET "item A I 4 scale=1\n", "4: scale is for items of type P and Z only"},
    {SET "item A P 5 scale=10\n", "4: scale=10 is not a scale from 0 to the item's 9 digits"},
    {SET "item A Z 5 scale=6\n", "4: scale=6 is not a scale from 0 to the item's 5 digits"},
    {SET "item A Z 5 scale=\n", "4: scale= is not a scale from 0 to the item's 5 digits"},
    {SET "item A Z 5 keys\n", "4: keys is not known or given twice; behind name, type and size stand xCOUNT, scale=N, key and null-map"},
    {SET "item A Z 5 key key\n", "4: key is not known or given twice; behind name, type and size stand xCOUNT, scale=N, key and null-map"},
    {SET "item A I 4\nitem N X 1 null-map key\n", "5: the null-map item cannot be part of the key"},
    {SET "item A I 4\nitem N X 1 key null-map\n", "5: the null-map item cannot be part of the key"},
    {SET "item A X 32767 x512\nitem B X 513\n", "5: the record of dataset S is longer than 16777216 bytes"},
    {SET "item A I 4\nitem N U 1 null-map\n", "5: the null-map item must have type X"},
    {SET "item A X 1 null-map\nitem N X 1 null-map\n", "5: dataset S has two null-map items"},
    {SET "item A I 4\nitem N X 2 null-map\n", "3: the null-map item N must have one byte for each other item: type X, size 1, no count"},
    {SET "item A I 4\nitem N X 1 x2 null-map\n", "3: the null-map item N must have one byte for each other item: type X, size 1, no count"},
};
// clang-format on

TEST_F(ConfigTest, ErrorsNameFileAndLine)
{
    for (const config_row &row : ERRORS) {
        EXPECT_EQ(read(row.text), -1) << row.text;
        EXPECT_EQ(err, "fwutil: " + path + ":" + row.error + "\n") << row.text;
    }
}

TEST_F(ConfigTest, AMissingFileIsNamed)
{
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_config_read(config, path.c_str()), -1); }),
              "fwutil: " + path +
                  ": cannot open the configuration file: No such file or directory; name it with "
                  "the cfg argument or in FWUTIL_CFG\n");
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_config_read(config, dir.path().c_str()), -1); }),
              "fwutil: " + dir.path() + ": cannot read the configuration file: Is a directory\n");
}

TEST_F(ConfigTest, AnOverlongFileIsRefused)
{
    EXPECT_EQ(read(std::string(17 * 1024 * 1024, '\n')), -1);
    EXPECT_EQ(err, "fwutil: " + path + ": the configuration file is larger than 16 MiB\n");
}

TEST_F(ConfigTest, TheEnvironmentNamesTheFile)
{
    write_file(path, LOGDIR);
    setenv("FWUTIL_CFG", path.c_str(), 1);
    EXPECT_EQ(fwu_config_read(config, nullptr), 0);
    EXPECT_EQ(config.path, path);
    unsetenv("FWUTIL_CFG");
    EXPECT_THAT(stderr_of([&] { EXPECT_EQ(fwu_config_read(config, nullptr), -1); }),
                testing::StartsWith("fwutil: fwutil.cfg: cannot open"));
}
