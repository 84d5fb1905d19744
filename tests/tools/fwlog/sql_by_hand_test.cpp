// Where no statement can follow a change: what docs/fwlog.md says to do by hand is done in a real
// SQLite database, one goes on as the message says, and the tables have every row once.
#include "fwutil/fwutil.h"
#include "tests/changes/written_log.h"
#include "tests/support/markdown.h"
#include "tests/tools/fwlog/sqlite.h"

#include <filesystem>
#include <gmock/gmock.h>

using testing::HasSubstr;

static const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";

class FwlogSqlByHand : public testing::Test {
  protected:
    void SetUp() override
    {
        if (sqlite::missing())
            GTEST_SKIP() << "sqlite3 is missing (Debian package sqlite3)";
    }
    // Whether the page has a row that says so; the message's own words are the remedy.
    static void expect_row(const std::string &message)
    {
        for (const md_table &table : md_find_tables(md_page("docs/fwlog.md"), "message")) {
            for (const auto &row : table.rows) {
                for (const std::string &code : md_code(row[0])) {
                    if (code == message)
                        return;
                }
            }
        }
        ADD_FAILURE() << "no row of " << message;
    }
    // A dataset of table shop.NAME with an item of each column.
    static fwu_layout layout_of(const std::string &table, const std::string &dataset,
                                const std::vector<fwu_item> &items,
                                const std::vector<fwu_source_column> &columns)
    {
        fwu_source source{.schema = "shop", .table = table, .columns = columns};
        for (size_t i = 0; i < columns.size(); i++)
            source.columns[i].item = static_cast<int32_t>(i);
        return {.dbname = "SHOP",
                .dsetname = dataset,
                .items = items,
                .source = std::make_shared<const fwu_source>(std::move(source))};
    }
    void add(const fwu_layout &layout, const std::string &image)
    {
        log.begin();
        log.insert(layout, image);
        log.commit();
    }
    run_result sql(const std::vector<std::string> &more)
    {
        std::vector<std::string> argv = {program, "sql", "-cfg", log.cfg, "--dialect", "sqlite"};
        argv.insert(argv.end(), more.begin(), more.end());
        return run_program(argv);
    }
    // What the command gives until it stops, with what it says, is applied.
    void expect_stop(const std::vector<std::string> &more, const std::string &text)
    {
        const run_result stopped = sql(more);
        EXPECT_EQ(stopped.status, 1);
        EXPECT_THAT(stopped.err, HasSubstr(text));
        EXPECT_EQ(target.run(stopped.out).err, "");
    }
    // The message of the stop names the position of the change; its commit is the entry behind it.
    std::string commit_behind_stop(const std::vector<std::string> &more)
    {
        const std::string err = sql(more).err;
        const size_t at = err.find("position ");
        if (at == err.npos) {
            ADD_FAILURE() << err;
            return "";
        }
        const std::string change = err.substr(at + 9, err.find(':', at) - at - 9);
        const size_t dot = change.find('.');
        return change.substr(0, dot + 1) + std::to_string(std::stoi(change.substr(dot + 1)) + 1);
    }
    void expect_goes_on(const std::vector<std::string> &more)
    {
        const run_result run = sql(more);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(target.run(run.out).err, "");
    }
    std::string rows(const std::string &columns, const std::string &table) const
    {
        return target.value("SELECT group_concat(" + columns + ", ' ') FROM " + table);
    }

    written_log log{"database SHOP\ndataset N\nitem NO I 4 key\n"};
    sqlite target{log.dir.file("copy.db")};
    const fwu_item NO{.name = "NO", .type = 'I', .size = 4};
    const fwu_item V{.name = "V", .type = 'I', .size = 4};
    const fwu_item TEXT{.name = "V", .type = 'X', .size = 4};
    const fwu_source_column no{.name = "no", .type = "integer", .key = 1};
    const std::vector<std::string> made = {"--create-tables", "--position-table", "done"};
    // How one goes on behind what was changed by hand.
    std::vector<std::string> kept() const
    {
        return {"--create-tables", "--position-table", "done",
                "--keep-tables",   "--after",          target.value("SELECT position FROM done")};
    }
};

TEST_F(FwlogSqlByHand, ATypeThatNoStatementChanges)
{
    expect_row("T column C was X and is Y from here on, which no statement can change: make the "
               "table anew by hand, then go on behind the transaction before with --after and "
               "--keep-tables");
    add(layout_of("T", "T", {NO, V}, {no, {.name = "v", .type = "integer"}}), le(1, 4) + le(7, 4));
    add(layout_of("T", "T", {NO, TEXT}, {no, {.name = "v", .type = "text"}}), le(2, 4) + "two ");
    expect_stop(made, "shop.T column v was INTEGER and is TEXT from here on, which no statement "
                      "can change: make the table anew by hand, then go on behind the transaction "
                      "before with --after and --keep-tables");
    EXPECT_EQ(rows("no", "shop_T"), "1");
    // "copy its rows into a new one"
    EXPECT_EQ(target
                  .run("BEGIN; ALTER TABLE shop_T RENAME TO old;"
                       "CREATE TABLE shop_T (no INTEGER NOT NULL PRIMARY KEY, v TEXT);"
                       "INSERT INTO shop_T SELECT no, v FROM old; DROP TABLE old; COMMIT;")
                  .err,
              "");
    expect_goes_on(kept());
    EXPECT_EQ(rows("no || typeof(v) || v", "shop_T"), "1text7 2texttwo");
}

TEST_F(FwlogSqlByHand, APartOfAKeyThatIsLost)
{
    expect_row("T has lost column C, a part of its key, which no statement can drop: make the "
               "table anew by hand, then go on behind the transaction before with --after and "
               "--keep-tables");
    add(layout_of("T", "T", {NO, V}, {no, {.name = "v", .type = "integer"}}), le(1, 4) + le(7, 4));
    add(layout_of("T", "T", {V}, {{.name = "v", .type = "integer"}}), le(8, 4));
    expect_stop(made, "shop.T has lost column no, a part of its key, which no statement can drop: "
                      "make the table anew by hand, then go on behind the transaction before with "
                      "--after and --keep-tables");
    EXPECT_EQ(target
                  .run("BEGIN; ALTER TABLE shop_T RENAME TO old; CREATE TABLE shop_T (v INTEGER);"
                       "INSERT INTO shop_T SELECT v FROM old; DROP TABLE old; COMMIT;")
                  .err,
              "");
    expect_goes_on(kept());
    EXPECT_EQ(rows("v", "shop_T"), "7 8");
}

TEST_F(FwlogSqlByHand, ATableThatHasAnotherName)
{
    expect_row("A is B from here on: rename the table by hand, then go on behind the transaction "
               "before with --after and --keep-tables");
    add(layout_of("T", "T", {NO}, {no}), le(1, 4));
    add(layout_of("U", "T", {NO}, {no}), le(2, 4));
    expect_stop(made, "shop.T is shop.U from here on: rename the table by hand, then go on behind "
                      "the transaction before with --after and --keep-tables");
    EXPECT_EQ(target.run("ALTER TABLE shop_T RENAME TO shop_U").err, "");
    expect_goes_on(kept());
    EXPECT_EQ(rows("no", "shop_U"), "1 2");
    EXPECT_EQ(target.value("SELECT count(*) FROM sqlite_master WHERE name = 'shop_T'"), "0");
}

// The tables that an --after passes over are there.
TEST_F(FwlogSqlByHand, ARowOfWhichNothingIsKnown)
{
    expect_row("T has a change of a row of which nothing is known: make it by hand and go on "
               "behind this transaction with --after, or leave the dataset out with --dset");
    const fwu_item map{.name = "NULLS", .type = 'X', .size = 1};
    fwu_source source{.schema = "shop",
                      .table = "T",
                      .columns = {{.name = "no", .type = "integer", .item = 0, .key = 1}},
                      .null_map = 1};
    const fwu_layout layout{.dbname = "SHOP",
                            .dsetname = "T",
                            .items = {NO, map},
                            .source = std::make_shared<const fwu_source>(source)};
    const fwu_layout other = layout_of("N", "N", {NO}, {no});
    add(layout, le(1, 4) + ".");
    add(layout, le(2, 4) + ".");
    log.begin();
    log.change(FWU_OP_DELETE, layout, le(0, 4) + "?", "");
    log.commit();
    log.begin();
    log.insert(layout, le(3, 4) + ".");
    log.insert(other, le(9, 4));
    log.commit();
    const std::string said = "shop.T has a change of a row of which nothing is known: make it by "
                             "hand and go on behind this transaction with --after, or leave the "
                             "dataset out with --dset";
    const std::vector<std::string> plain = {"--create-tables"};
    expect_stop(plain, said);
    EXPECT_EQ(rows("no", "shop_T"), "1 2");
    EXPECT_EQ(target.run("DELETE FROM shop_T WHERE no = 1").err, "");
    expect_goes_on({"--create-tables", "--after", commit_behind_stop(plain)});
    EXPECT_EQ(rows("no", "shop_T"), "2 3");
    EXPECT_EQ(rows("no", "shop_N"), "9");
    std::filesystem::remove(target.path);
    expect_goes_on({"--create-tables", "--dset", "SHOP:N"});
    EXPECT_EQ(rows("no", "shop_N"), "9");
}

TEST_F(FwlogSqlByHand, ATruncateOfATableThatIsNotSaid)
{
    expect_row("the log does not say which table was truncated here: empty it by hand, then go on "
               "behind this transaction with --after");
    const fwu_layout layout = layout_of("T", "T", {NO}, {no});
    add(layout, le(1, 4));
    log.begin();
    log.mark({.kind = FWU_MARK_TRUNCATE});
    log.commit();
    add(layout, le(2, 4));
    const std::vector<std::string> apply = {"--create-tables", "--truncate", "apply"};
    expect_stop(apply, "the log does not say which table was truncated here: empty it by hand, "
                       "then go on behind this transaction with --after");
    EXPECT_EQ(rows("no", "shop_T"), "1");
    EXPECT_EQ(target.run("DELETE FROM shop_T").err, "");
    expect_goes_on({"--create-tables", "--after", commit_behind_stop(apply)});
    EXPECT_EQ(rows("no", "shop_T"), "2");
}

TEST_F(FwlogSqlByHand, WhatCanBeNoTableIsLeftOutOrGetsOtherNames)
{
    expect_row("T has columns A and B, which would be one: leave it out with --dset, or begin a "
               "new log with one of them left out of the dataset or with another name");
    log.begin();
    log.insert(layout_of("N", "N", {NO}, {no}), le(5, 4));
    log.insert(
        layout_of("T", "T", {NO, V},
                  {{.name = "Name", .type = "integer"}, {.name = "nAME", .type = "integer"}}),
        le(1, 4) + le(2, 4));
    log.commit();
    const run_result stopped = sql({"--create-tables"});
    EXPECT_EQ(stopped.status, 1);
    EXPECT_THAT(stopped.err, HasSubstr("shop.T has columns Name and nAME, which would be one: "
                                       "leave it out with --dset, or begin a new log with one of "
                                       "them left out of the dataset or with another name"));
    EXPECT_EQ(stopped.out.find("INSERT"), std::string::npos) << "nothing of its transaction";
    expect_goes_on({"--create-tables", "--dset", "SHOP:N"});
    EXPECT_EQ(rows("no", "shop_N"), "5");
    written_log again("database SHOP\ndataset N\nitem NO I 4 key\n");
    again.begin();
    again.insert(layout_of("T", "T", {NO, V},
                           {{.name = "Name", .type = "integer"}, {.name = "v", .type = "integer"}}),
                 le(1, 4) + le(2, 4));
    again.commit();
    const run_result other =
        run_program({program, "sql", "-cfg", again.cfg, "--dialect", "sqlite", "--create-tables"});
    EXPECT_EQ(other.status, 0) << other.err;
    EXPECT_EQ(target.run(other.out).err, "");
    EXPECT_EQ(rows("Name || v", "shop_T"), "12");
}

TEST_F(FwlogSqlByHand, ATableWithoutAnythingThatTellsRowsApart)
{
    expect_row("T has columns of all names that tell rows apart (X), and no key: give it one with "
               "--key");
    const fwu_layout layout{.dbname = "SHOP",
                            .dsetname = "T",
                            .items = {{.name = "ROWID", .type = 'I', .size = 4},
                                      {.name = "OID", .type = 'I', .size = 4},
                                      {.name = "_rowid_", .type = 'I', .size = 4}}};
    const std::string one = le(1, 4) + le(1, 4) + le(1, 4);
    add(layout, one);
    add(layout, le(2, 4) + le(1, 4) + le(1, 4));
    log.begin();
    log.change(FWU_OP_DELETE, layout, one, "");
    log.commit();
    expect_stop({"--create-tables", "--position-table", "done"},
                "SHOP.T has columns of all names that tell rows apart (rowid), and no key: give "
                "it one with --key");
    expect_goes_on({"--create-tables", "--position-table", "done", "--key", "T=ROWID"});
    EXPECT_EQ(rows("ROWID", "SHOP_T"), "2");
}

TEST_F(FwlogSqlByHand, AColumnThatIsGoneAndANewOneAreWhatOneSays)
{
    expect_row("T has columns no more (C) and new ones (C): --rename C=C says that one has become "
               "the other, --drop-columns that none has");
    const auto with = [this](const std::string &column) {
        return layout_of("T", "T", {NO, V}, {no, {.name = column, .type = "integer"}});
    };
    add(with("old"), le(1, 4) + le(7, 4));
    add(with("new"), le(2, 4) + le(8, 4));
    const std::string said = "shop.T has columns no more (old) and new ones (new): --rename "
                             "old=new says that one has become the other, --drop-columns that "
                             "none has";
    const std::pair<std::vector<std::string>, const char *> rows_of[] = {
        {{"--rename", "old=new"}, "1:7 2:8"}, {{"--drop-columns"}, "1: 2:8"}};
    for (const auto &[options, expected] : rows_of) {
        SCOPED_TRACE(options[0]);
        std::filesystem::remove(target.path);
        expect_stop(made, said);
        EXPECT_EQ(rows("no", "shop_T"), "1");
        std::vector<std::string> words = made;
        words.insert(words.end(), {"--after", target.value("SELECT position FROM done")});
        words.insert(words.end(), options.begin(), options.end());
        expect_goes_on(words);
        EXPECT_EQ(rows("no || ':' || ifnull(new, '')", "shop_T"), expected);
    }
}

TEST_F(FwlogSqlByHand, ATruncateEmptiesTheTableOrIsPassedOver)
{
    expect_row("... --truncate apply empties the table, --truncate skip leaves it as it is");
    const fwu_layout layout = layout_of("T", "T", {NO}, {no});
    add(layout, le(1, 4));
    log.begin();
    log.mark({.kind = FWU_MARK_TRUNCATE, .dbname = "SHOP", .dsetname = "T"});
    log.commit();
    add(layout, le(2, 4));
    for (const char *word : {"apply", "skip"}) {
        SCOPED_TRACE(word);
        std::filesystem::remove(target.path);
        expect_stop(made, "--truncate apply empties the table, --truncate skip leaves it as it is");
        EXPECT_EQ(rows("no", "shop_T"), "1");
        expect_goes_on({"--create-tables", "--position-table", "done", "--truncate", word,
                        "--after", target.value("SELECT position FROM done")});
        EXPECT_EQ(rows("no", "shop_T"), word == std::string("apply") ? "2" : "1 2");
    }
}
