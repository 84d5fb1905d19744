// Layout files and records that nobody wrote: an answer, and never a byte outside of what was
// given (each stands in memory of its own size, which the sanitizers watch).
#include "changes/json.h"
#include "records/record.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>
#include <memory>
#include <random>

static const std::string LAYOUT =
    R"({"database":"SALES","dataset":"T","table":"sales.t","position":"1-25.3",)"
    R"("byte_order":"little","text_encoding":"utf-8","items":[)"
    R"({"name":"NO","type":"I","size":4,"count":1,"scale":0,"column":"no","source_type":"integer",)"
    R"("key":1,"null_map":false},)"
    R"({"name":"Q","type":"P","size":3,"count":2,"scale":1,"column":null,"source_type":null,)"
    R"("key":null,"null_map":false},)"
    R"({"name":"Z","type":"Z","size":5,"count":1,"scale":2,"column":null,"key":null,"null_map":false},)"
    R"({"name":"E","type":"E","size":8,"count":1,"scale":0,"column":null,"key":null,"null_map":false},)"
    R"({"name":"S","type":"X","size":7,"count":1,"scale":0,"column":null,"key":null,"null_map":false},)"
    R"({"name":"NULLS","type":"X","size":5,"count":1,"scale":0,"column":null,"key":null,)"
    R"("null_map":true}],"row_length":35})"
    "\n";

static const std::vector<rec_form> forms = [] {
    std::vector<rec_form> all;
    for (int bits = 0; bits < 64; bits++) {
        rec_form form;
        form.text = (bits & 1) != 0;
        form.exthdr = (bits & 2) != 0;
        form.recnum = (bits & 4) != 0;
        form.yyyy = (bits & 8) != 0;
        form.bwfmt = form.text && (bits & 16) != 0;
        form.dirty = form.text && (bits & 32) != 0;
        form.asciirev = form.text && (bits & 18) == 18;
        all.push_back(form);
    }
    return all;
}();

class RecHostile : public testing::Test {
  protected:
    size_t below(size_t end)
    {
        return std::uniform_int_distribution<size_t>(0, end - 1)(random);
    }

    // Some bytes changed, some taken out, numbers that no layout has put in.
    std::string damaged(std::string text)
    {
        static const char *const odd[] = {"-1",    "0",      "2147483648", "99999999999999999999",
                                          "1e9",   "[",      "\"",         "}",
                                          "32768", "\\u0000"};
        for (size_t n = below(4) + 1; n > 0 && !text.empty(); n--) {
            const size_t at = below(text.size());
            switch (below(4)) {
            case 0:
                text[at] = static_cast<char>(below(256));
                break;
            case 1:
                text.erase(at, below(20) + 1);
                break;
            case 2:
                text.insert(at, odd[below(std::size(odd))]);
                break;
            default:
                if (const size_t digit = text.find_first_of("0123456789", at); digit != text.npos)
                    text.replace(digit, 1, odd[below(std::size(odd))]);
            }
        }
        return text;
    }

    // What a record of the layouts is taken for, begun as capread does.
    void take(rec_record &record, const std::string &text)
    {
        const size_t head = std::min(text.size(), record.header.length);
        if (head < record.header.length)
            return;
        const std::unique_ptr<char[]> begin(new char[head]);
        text.copy(begin.get(), head);
        if (!rec_record_begin(record, {begin.get(), head}))
            return;
        if (record.layouts.form.text && text.size() < record.length)
            return; // capread waits for all of a line
        const std::unique_ptr<char[]> whole(new char[text.size()]);
        text.copy(whole.get(), text.size());
        const size_t length = record.layouts.form.text ? record.length : text.size();
        if (!rec_record_take(record, {whole.get(), length}))
            return;
        taken++;
        std::string out;
        change_json json;
        change_json_put(json, out, record.made, record.transaction);
    }

    std::mt19937 random{20261122};
    int taken = 0;
    tempdir dir;
};

static std::string padded(std::string text, size_t width)
{
    text.resize(width, ' ');
    return text;
}

// A header of the dataset, and random bytes behind it, as many as records of it have or nearly so.
static std::string record_of(const rec_record &record, std::mt19937 &random)
{
    static const struct {
        const char *operation;
        size_t images;
    } kinds[] = {{"IP", 1}, {"IU", 2}, {"ID", 1}};
    const rec_form &form = record.layouts.form;
    const auto &kind = kinds[random() % std::size(kinds)];
    std::string text = "000001" + padded("SALES", 24) + padded("T", 16) +
                       (form.yyyy ? "2026112217:05:13" : "26112217:05:13") + kind.operation;
    if (form.exthdr)
        text += padded("till", 24) + padded("KASSE1", 8) + padded("cash", 24) + " 04711";
    if (form.recnum)
        text += "000000000000001";
    size_t length = kind.images * 35;
    if (form.text)
        length = 300;
    else if (random() % 4 == 0)
        length = random() % 100;
    for (size_t i = 0; i < length; i++) {
        // Text columns that hold something now and then.
        const unsigned value = static_cast<unsigned>(random());
        text += static_cast<char>(!form.text       ? value
                                  : value % 4 == 0 ? '0' + value / 4 % 10
                                                   : ' ' + value / 4 % 95);
    }
    return text;
}

TEST_F(RecHostile, RandomRecordsOfEveryForm)
{
    const std::string file = dir.file("layouts.json");
    write_file(file, LAYOUT);
    for (const rec_form &form : forms) {
        rec_record record;
        rec_record_open(record, form);
        const outcome done = rec_layouts_read(record.layouts, file.c_str());
        ASSERT_TRUE(done) << done.text();
        for (int i = 0; i < 100; i++) {
            const std::string text = record_of(record, random);
            take(record, text);
            take(record, damaged(text));
            take(record, text.substr(0, below(text.size())));
        }
    }
    EXPECT_GT(taken, 1000); // of messages; text columns that hold numbers are rare
}

TEST_F(RecHostile, RandomLayoutFiles)
{
    const std::string file = dir.file("layouts.json");
    int read = 0;
    for (int i = 0; i < 3000; i++) {
        rec_form form;
        form.text = i % 2 != 0;
        rec_record record;
        rec_record_open(record, form);
        write_file(file, damaged(LAYOUT));
        const outcome done = rec_layouts_read(record.layouts, file.c_str());
        if (!done) {
            EXPECT_FALSE(done.text().empty());
            continue;
        }
        read++;
        for (int n = 0; n < 5; n++)
            take(record, record_of(record, random));
    }
    EXPECT_GT(read, 100);
}
