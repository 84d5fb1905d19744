// Whole values of logs come with their changes; what no change can have is damage.
#include "changes/reader.h"
#include "tests/changes/written_log.h"
#include "tests/tools/fwlog/built_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::HasSubstr;

static fwu_layout layout_of(const char *dsetname)
{
    return {"SALES",
            dsetname,
            {{"NO", 'I', 2, 1, 0}, {"TEXT", 'X', 2, 1, 0}, {"NULL-MAP", 'X', 2, 1, 0}}};
}

static std::string image(uint64_t number, const std::string &rest)
{
    return le(number, 2) + rest;
}

static std::string shown(const change_row &row)
{
    if (row.image == nullptr)
        return "-";
    std::string out = std::to_string(row.image[0]);
    for (const fwu_value &value : row.values)
        out +=
            " " + std::to_string(value.item) + "=" +
            (value.text.size() < 20 ? std::string(value.text) : std::to_string(value.text.size()));
    return out;
}

struct all_changes {
    std::vector<std::string> lines; // "u ORDERS #1 5 1=old | 5 1=new"
    change_found end = CHANGE_FOUND;
    std::string err;
};

static all_changes read_all(const fwu_config &config, change_range range = {})
{
    all_changes result;
    change_reader reader;
    change next;
    testing::internal::CaptureStderr();
    if (change_open(reader, config, std::move(range)) != 0)
        result.end = CHANGE_FAILED;
    while (result.end == CHANGE_FOUND || result.end == CHANGE_COMMITTED ||
           result.end == CHANGE_PASSED) {
        result.end = change_next(reader, next);
        if (result.end == CHANGE_FOUND)
            result.lines.push_back(std::string(1, static_cast<char>(next.op)) + " " +
                                   next.dataset->layout.dsetname + " #" +
                                   std::to_string(next.record) + " " + shown(next.before) + " | " +
                                   shown(next.after));
    }
    result.err = testing::internal::GetCapturedStderr();
    return result;
}

// Four changes of two datasets, whole values beside the first three.
static void write_values(written_log &log)
{
    const fwu_layout orders = layout_of("ORDERS");
    const fwu_layout lines = layout_of("LINES");
    const std::string long_one(2 * FWU_VALUE_PIECE_MAX + 5, 'x');
    log.begin();
    log.change(FWU_OP_INSERT, orders, "", image(1, "ab.C"),
               std::vector<fwu_value>{{.item = 1, .text = "abc"}});
    log.change(FWU_OP_UPDATE, lines, image(2, "ab.C"), image(3, "cd!C"),
               std::vector<fwu_value>{{.item = 1, .text = long_one},
                                      {.item = 1, .image = FWU_IMAGE_BEFORE, .text = "abd"},
                                      {.item = 0, .text = "70000"}});
    log.change(FWU_OP_DELETE, orders, image(1, "ab.C"), "",
               std::vector<fwu_value>{{.item = 1, .image = FWU_IMAGE_BEFORE, .text = ""}});
    log.change(FWU_OP_INSERT, lines, "", image(4, "ab.."));
    log.commit();
}

static const std::string FIRST = "c ORDERS #1 - | 1 1=abc";
static const std::string SECOND = "u LINES #2 2 1=abd | 3 0=70000 1=2097157";
static const std::string THIRD = "d ORDERS #3 1 1= | -";
static const std::string FOURTH = "c LINES #4 - | 4";

TEST(ChangeReaderValues, ComeWithTheChangeBehindThem)
{
    written_log log;
    write_values(log);
    const all_changes all = read_all(log.config);
    EXPECT_THAT(all.lines, ElementsAre(FIRST, SECOND, THIRD, FOURTH));
    EXPECT_EQ(all.end, CHANGE_NO_MORE);
    EXPECT_EQ(all.err, "");
}

TEST(ChangeReaderValues, OfChangesThatAreNotWantedGoToNoOther)
{
    written_log log;
    write_values(log);
    change_range lines;
    lines.dataset = [](const std::string &, const std::string &name) { return name == "LINES"; };
    EXPECT_THAT(read_all(log.config, lines).lines, ElementsAre(SECOND, FOURTH));
    // Entries: layout, value, insert; layout, values of the update, update; ...
    for (const auto &[from, expected] :
         {std::pair{3, std::vector<std::string>{FIRST, SECOND, THIRD, FOURTH}},
          std::pair{4, std::vector<std::string>{SECOND, THIRD, FOURTH}},
          std::pair{11, std::vector<std::string>{THIRD, FOURTH}},
          std::pair{12, std::vector<std::string>{THIRD, FOURTH}},
          std::pair{13, std::vector<std::string>{FOURTH}}}) {
        change_range range;
        range.from = {1, 1, from};
        EXPECT_EQ(read_all(log.config, range).lines, expected) << from;
        if (from == 3)
            continue;
        range.from = {};
        range.after = {1, 1, from - 1};
        EXPECT_EQ(read_all(log.config, range).lines, expected) << "after " << from - 1;
    }
}

TEST(ChangeReaderValues, TheLogTellsTheEncodingOfItsTexts)
{
    for (const fwu_encoding encoding : {FWU_LATIN1, FWU_UTF8}) {
        written_log log(encoding == FWU_UTF8 ? "text-encoding utf-8\n" : "");
        write_values(log);
        change_reader reader;
        change next;
        ASSERT_EQ(change_open(reader, log.config, {}), 0);
        ASSERT_EQ(change_next(reader, next), CHANGE_FOUND);
        EXPECT_EQ(next.dataset->encoding, encoding);
    }
}

// A log with a transaction of these values, then the insert of a record with three items.
static all_changes read_values(const std::vector<fwu_value_piece> &pieces, bool with_change = true)
{
    place at;
    log_file file(1, false, FWU_VERSION_SALTED);
    file.layout();
    for (const fwu_value_piece &piece : pieces)
        file.value(piece);
    if (with_change)
        file.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    file.commit();
    at.add(1, file.bytes);
    fwu_config config;
    EXPECT_EQ(fwu_config_read(config, at.dir.file("fwutil.cfg").c_str()), 0);
    return read_all(config);
}

TEST(ChangeReaderValues, ThatNoChangeCanHaveAreDamage)
{
    const fwu_value_piece good = {.item = 2, .bytes = "whole"};
    EXPECT_THAT(read_values({good}).lines, ElementsAre("c ORDERS #12 - | 5 2=whole"));
    struct bad_row {
        const char *what;
        std::vector<fwu_value_piece> pieces;
        bool with_change = true;
    };
    for (const bad_row &row :
         {bad_row{"an item that is none", {{.item = 3, .bytes = "x"}}},
          bad_row{"a row that is none", {{.item = 2, .image = FWU_IMAGE_BEFORE, .bytes = "x"}}},
          bad_row{"one item twice", {good, good}},
          bad_row{"a piece too few", {{.item = 2, .more = true, .bytes = "x"}}},
          bad_row{"another item's piece", {{.item = 2, .more = true, .bytes = "x"}, {.item = 1}}},
          bad_row{"no change", {good}, false}}) {
        const all_changes all = read_values(row.pieces, row.with_change);
        EXPECT_EQ(all.end, CHANGE_FAILED) << row.what;
        EXPECT_TRUE(all.lines.empty()) << row.what;
        EXPECT_THAT(all.err, HasSubstr("the entry's content is malformed")) << row.what;
    }
}
