// Names of datasets and items that nobody chose.  The checksums in expected names were worked out
// by a program of their own.
#include "feed/names.h"

#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"
#include "tests/support/tempdir.h"

#include <cstdio>
#include <functional>
#include <gmock/gmock.h>
#include <random>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;

class Names : public testing::Test {
  protected:
    Names()
    {
        config.path = "test.cfg";
    }

    // "SALES.ORDERS"
    std::string table(const std::string &name, const std::string &schema = "sales")
    {
        std::string dbname;
        std::string dsetname;
        feed_names_table(dbname, dsetname, names, config, schema, name, notes);
        return dbname + "." + dsetname;
    }

    std::string item(const std::string &column, std::vector<std::string> so_far = {},
                     const std::string &in = "orders")
    {
        fwu_layout layout;
        for (const std::string &name : so_far)
            layout.items.push_back({.name = name});
        std::string made;
        feed_names_item(made, names, layout, "sales", in, column, notes);
        return made;
    }

    outcome reopen()
    {
        notes.clear();
        return feed_names_open(names, dir.path(), 0640);
    }

    void keep(bool all = false)
    {
        const outcome kept = feed_names_keep(names, all);
        ASSERT_TRUE(kept) << kept.text();
    }

    // What it tells.
    static std::string told(const std::function<outcome_kind()> &step)
    {
        testing::internal::CaptureStderr();
        EXPECT_EQ(step(), OUTCOME_FAILED);
        return testing::internal::GetCapturedStderr();
    }

    tempdir dir;
    std::string path = dir.file("names");
    feed_names names;
    fwu_config config;
    std::vector<std::string> notes;
};

static const char *const LONG = "a name has at most 16 characters";
static const char *const OTHERS =
    "a name begins with a letter and cannot have all these characters";

TEST_F(Names, TablesFollowTheRule)
{
    const struct {
        const char *schema, *table, *name, *why; // null: it is the source's
    } rows[] = {
        {"sales", "order_lines", "SALES.ORDER-LINES", nullptr},
        {"sales", "Sixteen_Letters2", "SALES.SIXTEEN-LETTERS2", nullptr},
        {"sales", "a+b*/?'#%&", "SALES.A+B*/?'#%&", nullptr},
        {"sales", "order_lines_archive", "SALES.ORDER-LINE-CFUD8", LONG},
        {"sales", "order_lines_of_last_year", "SALES.ORDER-LINE-V9HDC", LONG},
        {"sales",
         "gr\xC3\xB6\xC3\x9F"
         "e",
         "SALES.GR--E-SDHCJ", OTHERS},
        {"sales", "\xE6\x97\xA5\xE6\x9C\xAC", "SALES.X-TKJLI", OTHERS},
        {"sales", "_private", "SALES.PRIVATE-IUAG4", OTHERS},
        {"sales", "1st", "SALES.ST-MMLSA", OTHERS},
        {"sales", "Order Lines", "SALES.ORDER-LINE-TI6AQ", OTHERS},
        {"sales", "a----------b_and_more", "SALES.A-4GG1Q", LONG},
        {"a_schema_with_a_long_name", "t", "A-SCHEMA-W-L0UTH.T", LONG},
        {"a_schema_with_a_long_name", "u", "A-SCHEMA-W-L0UTH.U", LONG},
    };
    for (const auto &row : rows) {
        notes.clear();
        EXPECT_EQ(table(row.table, row.schema), row.name);
        if (row.why == nullptr) {
            EXPECT_THAT(notes, IsEmpty());
            continue;
        }
        ASSERT_EQ(notes.size(), 1U) << row.name;
        EXPECT_THAT(notes[0], testing::EndsWith(std::string(": its dataset is named ") + row.name +
                                                ", since " + row.why));
        EXPECT_EQ(table(row.table, row.schema), row.name);
        EXPECT_EQ(notes.size(), 1U) << "told once";
    }
}

TEST_F(Names, ANameThatAnotherTableHasIsShortened)
{
    EXPECT_EQ(table("order_lines"), "SALES.ORDER-LINES");
    EXPECT_EQ(table("order-lines"), "SALES.ORDER-LINE-SBBVP");
    EXPECT_EQ(table("order_lines", "shop"), "SHOP.ORDER-LINES");
    EXPECT_THAT(notes, ElementsAre("table sales.order-lines: its dataset is named "
                                   "SALES.ORDER-LINE-SBBVP, since SALES.ORDER-LINES is that of "
                                   "table sales.order_lines"));
}

TEST_F(Names, AShortenedNameThatAnotherTableHasGetsTheNextChecksum)
{
    EXPECT_EQ(table("order_line_SBBVP"), "SALES.ORDER-LINE-SBBVP");
    EXPECT_EQ(table("order_lines"), "SALES.ORDER-LINES");
    EXPECT_EQ(table("order-lines"), "SALES.ORDER-LINE-KD2J0");
}

TEST_F(Names, TheConfigurationGoesFirst)
{
    fwu_dataset dataset;
    dataset.layout = {.dbname = "SHOP", .dsetname = "ARCHIVE", .items = {}};
    dataset.table = "sales.order_lines_of_last_year";
    dataset.line = 3;
    config.datasets.push_back(dataset);
    dataset.layout = {.dbname = "SALES", .dsetname = "ORDER-LINES", .items = {}};
    dataset.table = "sales.other";
    dataset.line = 4;
    config.datasets.push_back(dataset);
    EXPECT_EQ(table("order_lines_of_last_year"), "SHOP.ARCHIVE");
    EXPECT_THAT(notes, IsEmpty());
    EXPECT_EQ(table("order-lines"), "SALES.ORDER-LINE-SBBVP");
    EXPECT_THAT(notes, ElementsAre("table sales.order-lines: its dataset is named "
                                   "SALES.ORDER-LINE-SBBVP, since SALES.ORDER-LINES is that of "
                                   "test.cfg:4"));
    EXPECT_EQ(table("other"), "SALES.ORDER-LINES");
}

TEST_F(Names, ItemsFollowTheRule)
{
    const std::string characters = "an item name has no blanks and no characters outside ASCII";
    const std::string length = "an item name has 1 to 17 characters";
    const struct {
        const char *column;
        std::vector<std::string> so_far;
        const char *item;
        std::string why; // empty: it is the source's
    } rows[] = {
        {"order_no", {}, "ORDER-NO", ""},
        {"seventeen_letters", {"ORDER-NO"}, "SEVENTEEN-LETTERS", ""},
        {"1st.half!", {}, "1ST.HALF!", ""},
        {"telephone_extension_2", {}, "TELEPHONE-E-QCQ8R", length},
        {"", {}, "X-SR81R", length},
        {"gr\xC3\xB6\xC3\x9F"
         "e",
         {},
         "GR--E-1RR8D",
         characters},
        {"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", {}, "X-H0QHO", characters},
        {"price \"net\"", {}, "PRICE--NET-P1IJA", characters},
        {"null_map", {}, "NULL-MAP-BNE6L", "NULL-MAP is another item of this dataset"},
        {"a-b", {"A-B"}, "A-B-KJLDP", "A-B is another item of this dataset"},
    };
    for (const auto &row : rows) {
        notes.clear();
        EXPECT_EQ(item(row.column, row.so_far), row.item);
        if (row.why.empty()) {
            EXPECT_THAT(notes, IsEmpty());
            continue;
        }
        ASSERT_EQ(notes.size(), 1U) << row.item;
        EXPECT_THAT(notes[0], testing::EndsWith(std::string(": its item is named ") + row.item +
                                                ", since " + row.why));
        EXPECT_EQ(item(row.column, row.so_far), row.item);
        EXPECT_EQ(notes.size(), 1U) << "told once";
    }
}

TEST_F(Names, AnItemThatIsTakenGetsTheNextChecksum)
{
    EXPECT_EQ(item("a-b", {"A-B", "A-B-KJLDP"}), "A-B-2MMMT");
    EXPECT_EQ(item("a-b"), "A-B-2MMMT") << "a name that was given stays";
    EXPECT_EQ(item("a-b", {"A-B-2MMMT"}), "A-B") << "unless the table gives it to another column";
}

TEST_F(Names, OfTwoTablesTheOneWhoseNameIsNotChangedHasIt)
{
    feed_names_tables(
        names, config,
        {{"sales", "Order_lines"}, {"sales", "order-lines"}, {"sales", "order_lines"}}, notes);
    EXPECT_EQ(names.tables.at("sales.order_lines").dsetname, "ORDER-LINES");
    EXPECT_EQ(names.tables.at("sales.order-lines").dsetname, "ORDER-LINE-SBBVP");
    EXPECT_EQ(notes.size(), 2U);
}

TEST_F(Names, AreKeptInAFileOfThisForm)
{
    ASSERT_TRUE(reopen());
    table("order_lines");
    table("Order Lines");
    table("order-lines");
    item("price \"net\"", {}, "Order Lines");
    item("telephone_extension_2", {}, "order_lines");
    item("order_no", {}, "order_lines");
    keep();
    EXPECT_EQ(read_file(path), read_file(KESTRO_SOURCE_DIR "/tests/golden/names.txt"));
    struct stat about = {};
    ASSERT_EQ(stat(path.c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 07777, 0640U);

    feed_names before = names;
    ASSERT_TRUE(reopen());
    EXPECT_EQ(names.tables, before.tables);
    EXPECT_EQ(names.items, before.items);
    EXPECT_EQ(names.owners, before.owners);
}

TEST_F(Names, TheFileIsWrittenOnlyWhenThereAreNewOnes)
{
    ASSERT_TRUE(reopen());
    keep();
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    table("orders");
    keep();
    unlink(path.c_str());
    table("orders");
    item("order_no");
    keep();
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    item("telephone_extension_2");
    item("null_map");
    keep(); // they come again anyway
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    keep(true);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    unlink(path.c_str());
    keep(true);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    item("a-b", {"A-B"});
    keep();
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    unlink(path.c_str());
    item("a-b", {"A-B"});
    item("gr\xC3\xB6\xC3\x9F"
         "e",
         {"GR--E-1RR8D"});
    keep();
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    EXPECT_NE(access((path + ".new").c_str(), F_OK), 0);
}

TEST_F(Names, AreInMemoryOnlyWithoutADirectory)
{
    ASSERT_TRUE(feed_names_open(names, "", 0600));
    EXPECT_EQ(table("1st"), "SALES.ST-MMLSA");
    keep();
    ASSERT_TRUE(feed_names_open(names, dir.file("not/there"), 0600));
    EXPECT_EQ(table("1st"), "SALES.ST-MMLSA");
}

// Tables that come and go between two starts, asked for in any order: who has a name keeps it.
TEST_F(Names, RandomTablesKeepTheirNames)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::map<std::string, std::string> had; // the model: a table's first name
    for (int start = 0; start < 30; start++) {
        ASSERT_TRUE(reopen());
        for (int n = 0; n < 40; n++) {
            std::string name = "a";
            for (size_t i = random() % 3; i > 0; i--)
                name += std::string_view("_- A.1")[random() % 6];
            const std::string given = table(name);
            const auto found = had.emplace(name, given).first;
            EXPECT_EQ(given, found->second) << name;
            EXPECT_TRUE(fwu_dataset_name_ok(given.substr(6))) << given;
        }
        keep();
    }
    std::set<std::string> all;
    for (const auto &[name, given] : had)
        EXPECT_TRUE(all.insert(given).second) << given;
}

TEST_F(Names, ADamagedFileIsRefused)
{
    const std::string whole = read_file(KESTRO_SOURCE_DIR "/tests/golden/names.txt");
    const std::string error =
        told_as() + std::string(": ") + path +
        ": damaged: it says which dataset each table has; restore it from a copy, or remove it: "
        "then they are taken from the layouts in the log\n";
    for (size_t i = 0; i < whole.size(); i++) {
        for (const bool cut : {true, false}) {
            std::string text = whole.substr(0, cut ? i : whole.size());
            if (!cut)
                text[i] = static_cast<char>(text[i] ^ 1);
            write_file(path, text);
            EXPECT_EQ(told([&] { return reopen().kind(); }), error) << i;
        }
    }
    unlink(path.c_str()); // as the message says
    ASSERT_TRUE(reopen());
    EXPECT_EQ(table("order_lines"), "SALES.ORDER-LINES");
    EXPECT_EQ(table("Order Lines"), "SALES.ORDER-LINE-TI6AQ");
}

// A log with a record of each of these, one behind the other, in files of their own.
static void write_log(const std::string &directory, const std::vector<fwu_layout> &layouts)
{
    fwu_config log;
    log.log_directory = directory;
    log.sync = FWU_SYNC_NONE;
    log.log_file_size = 1; // each transaction begins a file
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_writer_open(&writer, log), 0);
    uint64_t lsn = fwu_writer_last_lsn(writer);
    for (const fwu_layout &layout : layouts) {
        ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
        const std::string image(layout.items.size(), 'x');
        ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, layout, 1,
                                    static_cast<int32_t>(image.size()), nullptr, image.data()),
                  0);
        ASSERT_EQ(fwu_writer_commit(writer, {.time_us = 1, .xid = 1, .lsn = ++lsn}), 0);
    }
    ASSERT_EQ(fwu_writer_close(writer), 0);
}

static fwu_layout layout_of(const std::string &dataset, const std::string &table,
                            const std::vector<std::pair<std::string, std::string>> &items)
{
    fwu_layout layout;
    layout.dbname = "SALES";
    layout.dsetname = dataset;
    fwu_source source;
    source.schema = "sales";
    source.table = table;
    for (const auto &[item, column] : items) {
        fwu_source_column &made = source.columns.emplace_back();
        made.name = column;
        made.item = static_cast<int32_t>(layout.items.size());
        layout.items.push_back({.name = item, .type = 'X', .size = 1, .count = 1});
    }
    layout.source = std::make_shared<const fwu_source>(std::move(source));
    return layout;
}

// "order_lines" was dropped before "Order_Lines" came, which the rule alone would not know.
TEST_F(Names, MissingFileIsMadeFromTheLog)
{
    ASSERT_TRUE(reopen());
    EXPECT_EQ(table("gone_1"), "SALES.GONE-1");
    EXPECT_EQ(table("Gone_1"), "SALES.GONE-1-D42S0");
    const std::string second = "A-B-KJLDP";
    EXPECT_EQ(item("a-b", {"A-B"}), second);
    keep(true);
    const std::map<std::string, std::string> items = names.items;
    fwu_layout plain = layout_of("PLAIN", "unused", {{"NO", "no"}});
    plain.source = nullptr;
    write_log(dir.path(), {layout_of("OLD", "orders", {{"NO", "no"}}),
                           layout_of("GONE-1-D42S0", "Gone_1", {{"NO", "no"}}), plain,
                           layout_of("ORDERS", "orders", {{"A-B", "a_b"}, {second, "a-b"}})});
    unlink(path.c_str());

    ASSERT_TRUE(reopen());
    EXPECT_EQ(names.items, items);
    EXPECT_EQ(names.tables, (std::map<std::string, feed_dataset_name>{
                                {"sales.Gone_1", {"SALES", "GONE-1-D42S0"}},
                                {"sales.orders", {"SALES", "ORDERS"}},
                            }));
    EXPECT_EQ(item("a-b"), second);
    EXPECT_EQ(table("Gone_1"), "SALES.GONE-1-D42S0");
    EXPECT_EQ(table("old"), "SALES.OLD"); // free again
    keep();
    const std::string kept = read_file(path);
    EXPECT_THAT(kept, testing::HasSubstr("table sales.Gone_1 SALES GONE-1-D42S0\n"));
    ASSERT_TRUE(reopen());
    EXPECT_FALSE(names.is_new) << "read from the file";
    EXPECT_EQ(table("orders"), "SALES.ORDERS");
    EXPECT_EQ(read_file(path), kept);
}

// Of a log that tells no names the file says that there are none, so that it is not read again.
TEST_F(Names, LogWithoutSourcesIsReadOnce)
{
    fwu_layout plain = layout_of("PLAIN", "unused", {{"NO", "no"}});
    plain.source = nullptr;
    write_log(dir.path(), {plain});
    ASSERT_TRUE(reopen());
    EXPECT_THAT(names.tables, IsEmpty());
    keep();
    ASSERT_TRUE(reopen());
    EXPECT_FALSE(names.is_new);
    EXPECT_THAT(names.tables, IsEmpty());
    EXPECT_EQ(table("Plain"), "SALES.PLAIN");
}

// Names that the file could not hold are passed over.
TEST_F(Names, OddNamesInTheLogAreNotKept)
{
    write_log(dir.path(), {layout_of("ODD", "odd", {{"A\"B", "a"}, {"#C", "c"}, {"D E", "d"}})});
    ASSERT_TRUE(reopen());
    EXPECT_THAT(names.items, IsEmpty());
    keep();
    ASSERT_TRUE(reopen());
    EXPECT_EQ(table("odd"), "SALES.ODD");
}

// Lines that nobody writes, with a good checksum.
TEST_F(Names, LinesOfAnotherFormAreRefused)
{
    for (const char *line : {"table a.b C D\ntable a.b C E", "table a.b C D\ntable a.c C D",
                             "table a.b C", "table a.b C D E", "table a C D", "table a.b.c C D",
                             "column a.b C", "column a.b.c", "column a.b.c D\ncolumn a.b.c E",
                             "column a.b.c D E", "index a.b C D", "table a.\"b C D", ""}) {
        std::string text = std::string("fwlog names 1\n") + line + "\n";
        char last[32];
        (void)snprintf(last, sizeof last, "checksum %08x\n",
                       fwu_crc32c(0, text.data(), text.size()));
        write_file(path, text + last);
        EXPECT_THAT(told([&] { return reopen().kind(); }), testing::HasSubstr(": damaged: "))
            << line;
    }
}

TEST_F(Names, WhatTheSystemRefusesIsTold)
{
    const std::string who = told_as() + std::string(": ");
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(told([&] { return reopen().kind(); }),
              who + path + ": cannot read the names of datasets and items: Is a directory\n");
    ASSERT_EQ(rmdir(path.c_str()), 0);
    ASSERT_TRUE(reopen());
    table("orders");
    ASSERT_EQ(mkdir((path + ".new").c_str(), 0700), 0);
    EXPECT_EQ(told([&] { return feed_names_keep(names).kind(); }),
              who + path + ": cannot keep the names of datasets and items: Is a directory\n");
    ASSERT_EQ(rmdir((path + ".new").c_str()), 0);
    keep(); // they were not forgotten
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
}
