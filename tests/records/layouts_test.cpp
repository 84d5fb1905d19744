// Layouts of a file, and of a log as far as record numbers ask for them.
#include "records/layouts.h"

#include "fwutil/fwutil.h"
#include "tests/changes/written_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

static std::string padded(std::string text, size_t width)
{
    text.resize(width, ' ');
    return text;
}

static rec_header header_of(const std::string &dataset, int32_t record)
{
    rec_header header;
    header.key = padded("SALES", 24) + padded(dataset, 16);
    header.record = record;
    return header;
}

static const std::string GOOD =
    R"({"database":"SALES","dataset":"T\u00e4","table":"sales.t","position":"1-25.3",)"
    R"("byte_order":"big","text_encoding":"iso-8859-1","items":[)"
    R"({"name":"NO","type":"I","size":4,"count":1,"scale":0,"column":"no","source_type":"integer",)"
    R"("key":1,"null_map":false,"picture":"S9"},)"
    R"({"name":"Q","type":"P","size":3,"count":2,"scale":1,"column":null,"source_type":null,)"
    R"("key":null,"null_map":false},)"
    R"({"name":"NULLS","type":"X","size":2,"count":1,"scale":0,"column":null,"key":null,)"
    R"("null_map":true}],"row_length":12})";

class RecLayoutFile : public testing::Test {
  protected:
    outcome read(const std::string &text)
    {
        write_file(file, text);
        layouts = {};
        rec_layouts_begin(layouts, {});
        return rec_layouts_read(layouts, file.c_str());
    }
    std::string wrong(std::string from, const std::string &to)
    {
        std::string text = GOOD;
        EXPECT_NE(text.find(from), text.npos) << from;
        text.replace(text.find(from), from.size(), to);
        return read(text).text();
    }
    tempdir dir;
    std::string file = dir.file("layouts.json");
    rec_layouts layouts;
};

TEST_F(RecLayoutFile, HasWhatAnImageIs)
{
    ASSERT_TRUE(read(GOOD + "\n"));
    rec_header header = header_of("T\xE4", 0);
    rec_dataset *found = nullptr;
    ASSERT_TRUE(rec_layouts_find(layouts, header, found));
    EXPECT_EQ(found->name, "SALES.T\xC3\xA4");
    EXPECT_EQ(found->row_length, 12U);
    const change_dataset &dataset = *found->dataset;
    EXPECT_TRUE(dataset.big_endian);
    EXPECT_EQ(dataset.encoding, FWU_LATIN1);
    EXPECT_EQ(dataset.begun, (fwu_position{1, 25, 3}));
    EXPECT_EQ(dataset.table, "sales.t");
    EXPECT_EQ(dataset.key, std::vector<int>{0});
    EXPECT_EQ(dataset.null_map, 2);
    EXPECT_EQ(dataset.null_flag, (std::vector<int>{0, 1, CHANGE_NO_ITEM}));
    EXPECT_EQ(dataset.offsets, (std::vector<int64_t>{0, 4, 10}));
    EXPECT_EQ(dataset.column, (std::vector<int>{0, CHANGE_NO_ITEM, CHANGE_NO_ITEM}));
    EXPECT_EQ(dataset.layout.source->columns[0].type, "integer");
    EXPECT_EQ(dataset.layout.items[1], (fwu_item{"Q", 'P', 3, 2, 1}));
}

TEST_F(RecLayoutFile, UnknownDatasetIsTold)
{
    ASSERT_TRUE(read(GOOD));
    rec_dataset *found = nullptr;
    const outcome done = rec_layouts_find(layouts, header_of("OTHER", 4), found);
    EXPECT_EQ(done.text(),
              file + " has no layout of \"" + padded("SALES", 24) + padded("OTHER", 16) + "\"");
}

TEST_F(RecLayoutFile, TellsWhatIsWrong)
{
    const auto told = [this](const char *member) {
        return file + ": layout 1 has no member \"" + member +
               "\" that can be; \"fwlog layout --json\" prints such files";
    };
    EXPECT_EQ(wrong(R"("SALES")", "\"\""), told("database"));
    EXPECT_EQ(wrong(R"("SALES")", R"("SALES-AND-MORE-XX")"), told("database"));
    EXPECT_EQ(wrong(R"("SALES")", R"("€")"), told("database"));
    EXPECT_EQ(wrong(R"("dataset")", R"("dset")"), told("dataset"));
    EXPECT_EQ(wrong("1-25.3", "x"), told("position"));
    EXPECT_EQ(wrong(R"("big")", R"("middle")"), told("byte_order"));
    EXPECT_EQ(wrong("iso-8859-1", "ebcdic"), told("text_encoding"));
    EXPECT_EQ(wrong(R"("items")", R"("item")"), told("items"));
    EXPECT_EQ(wrong(R"("NO")", "7"), told("name"));
    EXPECT_EQ(wrong(R"("I")", R"("Q")"), told("type"));
    EXPECT_EQ(wrong(R"("size":4)", R"("size":3)"), told("size"));
    EXPECT_EQ(wrong(R"("size":4)", R"("size":4.5)"), told("size"));
    EXPECT_EQ(wrong(R"("size":4)", R"("size":99999999999999999999)"), told("size"));
    EXPECT_EQ(wrong(R"("count":2)", R"("count":0)"), told("count"));
    EXPECT_EQ(wrong(R"("scale":1)", R"("scale":6)"), told("scale"));
    EXPECT_EQ(wrong(R"("key":1)", R"("key":"1")"), told("key"));
    EXPECT_EQ(wrong(R"("count":1,"scale":0,"column":null)", R"("count":2,"scale":0,"column":null)"),
              told("null_map"));
    EXPECT_EQ(wrong("}]", "}"), file + ": layout 1 is no JSON; \"fwlog layout --json\" prints such "
                                       "files");
    EXPECT_EQ(read("").text(),
              file + ": layout 1 is no JSON; \"fwlog layout --json\" prints such files");
    EXPECT_EQ(read(GOOD + "\n" + GOOD).text(),
              file + ": layout 2 is of a dataset that has one before; \"fwlog layout --json\" "
                     "prints such files");
    EXPECT_EQ(read(GOOD + "\n[]").text(),
              file + ": layout 2 has no member \"database\" that can be; \"fwlog layout --json\" "
                     "prints such files");
    rec_layouts none;
    EXPECT_EQ(rec_layouts_read(none, dir.file("none").c_str()).text(),
              dir.file("none") + ": No such file or directory");
}

TEST_F(RecLayoutFile, TwoThatHeadersDoNotTellApart)
{
    std::string other = GOOD;
    other.replace(other.find("SALES"), 5, "DEPOT");
    write_file(file, GOOD + other);
    rec_layouts_begin(layouts, {.info = HDRKIND_DBNAME});
    EXPECT_EQ(rec_layouts_read(layouts, file.c_str()).text(),
              file + ": DEPOT.T\xC3\xA4 and SALES.T\xC3\xA4: these headers do not tell them apart");
}

TEST_F(RecLayoutFile, AnyByteAndAnyEnd)
{
    for (size_t at = 0; at < GOOD.size(); at++) {
        (void)read(GOOD.substr(0, at));
        for (const char byte : {'"', '{', '}', '\\', '9', '\0', '\xFF'}) {
            std::string text = GOOD;
            text[at] = byte;
            (void)read(text); // an answer, whichever
        }
    }
}

static fwu_layout layout_of(const std::string &dataset, int32_t size)
{
    return {.dbname = "SALES", .dsetname = dataset, .items = {{"A", 'X', size, 1, 0}}};
}

class RecLayoutLog : public testing::Test {
  protected:
    void add(const std::string &dataset, int32_t size)
    {
        log.begin();
        log.insert(layout_of(dataset, size), std::string(static_cast<size_t>(size), 'a'));
        log.commit();
    }
    void open(const rec_form &form)
    {
        layouts = {};
        rec_layouts_begin(layouts, form);
        ASSERT_TRUE(rec_layouts_log(layouts, log.cfg.c_str()));
    }
    size_t length_at(const std::string &dataset, int32_t record)
    {
        rec_dataset *found = nullptr;
        const outcome done = rec_layouts_find(layouts, header_of(dataset, record), found);
        told = done.text();
        return found == nullptr ? 0 : found->row_length;
    }
    written_log log;
    rec_layouts layouts;
    std::string told;
};

TEST_F(RecLayoutLog, HoldsAtTheRecordsNumber)
{
    add("A", 3); // 1
    add("B", 5); // 2
    add("A", 4); // 3
    add("A", 4); // 4
    add("A", 6); // 5
    open({.recnum = true});
    EXPECT_EQ(length_at("A", 1), 3U);
    EXPECT_EQ(layouts.last, 1); // not more of it is read than is asked for
    EXPECT_EQ(length_at("A", 3), 4U);
    EXPECT_EQ(length_at("A", 4), 4U);
    EXPECT_EQ(length_at("A", 5), 6U);
    EXPECT_EQ(length_at("A", 1), 3U); // again
    EXPECT_EQ(length_at("A", 2), 3U);
    EXPECT_EQ(length_at("B", 2), 5U);
    EXPECT_EQ(length_at("B", 1), 0U);
    EXPECT_EQ(told, log.log + " has no layout of \"" + padded("SALES", 24) + padded("B", 16) +
                        "\" at record 1 or before it");
    add("A", 7); // while it is followed
    EXPECT_EQ(length_at("A", 6), 7U);
}

TEST_F(RecLayoutLog, NewestWithoutNumbers)
{
    add("A", 3);
    add("A", 4);
    open({});
    EXPECT_EQ(length_at("A", 0), 4U);
    EXPECT_EQ(length_at("B", 0), 0U);
    EXPECT_EQ(told,
              log.log + " has no layout of \"" + padded("SALES", 24) + padded("B", 16) + "\"");
    add("B", 9);
    EXPECT_EQ(length_at("B", 0), 9U);
}
