// What a record cannot hold, in CSV: whole values, fields of what is not known, UTF-8 logs.
#include "changes/csv.h"
#include "tests/changes/made_changes.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

// An integer, a decimal, a text and an array: 2, 2, 4 and 4 bytes.
static change_dataset made(fwu_encoding encoding = FWU_LATIN1)
{
    change_dataset dataset = dataset_of("D",
                                        {{"NO", 'I', 2},
                                         {"NET", 'P', 2, 1, 1},
                                         {"TAG", 'X', 4},
                                         {"QTY", 'I', 2, 2},
                                         {"MAP", 'X', 4}},
                                        "MAP");
    dataset.encoding = encoding;
    return dataset;
}

static std::string row_of(const std::string &flags, const std::string &tag = "a   ")
{
    return "\5\0\x12\x3C"s + tag + "\1\0\2\0"s + flags;
}

// The fields of these columns, without "_op" and "_position" in front.
static std::string fields(const change_dataset &dataset, std::vector<std::string> columns,
                          change_op op, const std::string &before, const std::string &after,
                          const whole_values &whole = {})
{
    change_csv csv;
    const outcome made_it = change_csv_make(csv, dataset, {.columns = std::move(columns)});
    EXPECT_TRUE(made_it) << made_it.text();
    change next;
    next.op = op;
    next.dataset = &dataset;
    next.position = {1, 25, 4};
    const auto image = [](const std::string &bytes) {
        return bytes.empty() ? nullptr : reinterpret_cast<const unsigned char *>(bytes.data());
    };
    next.before = {image(before), whole.before};
    next.after = {image(after), whole.after};
    std::string out;
    change_csv_put(csv, out, next, transaction_at());
    EXPECT_TRUE(out.ends_with("\r\n"));
    return out.substr(9, out.size() - 11); // behind "c,1-25.4,"
}

static std::string inserted(const std::string &flags, const std::vector<fwu_value> &whole = {})
{
    return fields(made(), {"NO", "NET", "TAG", "QTY"}, CHANGE_CREATE, "", row_of(flags),
                  {{}, whole});
}

TEST(ChangesCsvWhole, AWholeValueStandsInPlaceOfWhatTheImageHas)
{
    EXPECT_EQ(inserted("...."), "5,12.3,a,1,2");
    EXPECT_EQ(inserted("..C.", {{.item = 2, .text = "a longer one  "}}),
              "5,12.3,\"a longer one  \",1,2");
    EXPECT_EQ(inserted("..R.", {{.item = 2, .text = "5 \xE2\x82\xAC, \"net\""}}),
              "5,12.3,\"5 \xE2\x82\xAC, \"\"net\"\"\",1,2");
    EXPECT_EQ(inserted(".!C.", {{.item = 1, .text = "123456789.5"}, {.item = 2, .text = "\xE9"}}),
              "5,123456789.5,0xe9,1,2");
    EXPECT_EQ(inserted(".!..", {{.item = 1, .text = "NaN"}}), "5,NaN,a,1,2");
    EXPECT_EQ(inserted("...!", {{.item = 3, .text = "{1,70000}"}}), "5,12.3,a,\"{1,70000}\",")
        << "of all elements, where the first one stands";
    EXPECT_EQ(inserted("..C."), "5,12.3,a,1,2") << "what there is of it";
}

TEST(ChangesCsvWhole, WhatIsNotKnownIsAnEmptyFieldThatAColumnTellsFromNull)
{
    EXPECT_EQ(inserted("?N.?"), ",,a,,");
    EXPECT_EQ(inserted(".!.."), "5,,a,1,2");
    const change_dataset dataset = made();
    const auto unknown = [&dataset](change_op op, const std::string &before,
                                    const std::string &after) {
        return fields(dataset, {"_unknown"}, op, before, after);
    };
    EXPECT_EQ(unknown(CHANGE_CREATE, "", row_of("....")), "");
    EXPECT_EQ(unknown(CHANGE_CREATE, "", row_of("..?N")), "TAG");
    EXPECT_EQ(unknown(CHANGE_UPDATE, row_of(".???"), row_of("..!.")),
              "\"TAG,before.NET,before.TAG,before.QTY\"");
    EXPECT_EQ(unknown(CHANGE_DELETE, row_of(".?.?"), ""), "\"NET,QTY\"");
    EXPECT_EQ(fields(dataset, {"_unknown"}, CHANGE_CREATE, "", row_of("..!."),
                     {{}, {{.item = 2, .text = "known"}}}),
              "");
    EXPECT_EQ(fields(dataset_of("D", {{"A,B", 'X', 1}, {"MAP", 'X', 1}}, "MAP"), {"_unknown"},
                     CHANGE_CREATE, "", " ?"),
              "\"\"\"A,B\"\"\"")
        << "a list as --columns takes it";
}

TEST(ChangesCsvWhole, MarksHaveNothingThatIsNotKnown)
{
    const change_dataset dataset = made();
    change_csv csv;
    ASSERT_TRUE(change_csv_make(csv, dataset, {.columns = {"_unknown"}}));
    const fwu_mark mark = {.kind = FWU_MARK_GAP};
    change next;
    next.op = CHANGE_GAP;
    next.position = {1, 25, 4};
    next.mark = &mark;
    std::string out;
    change_csv_put(csv, out, next, transaction_at());
    next.dataset = &dataset;
    change_csv_put(csv, out, next, transaction_at());
    EXPECT_EQ(out, "g,1-25.4,\r\ng,1-25.4,\r\n");
}

TEST(ChangesCsvWhole, TextsOfUtf8LogsStayAsTheyAreUnlessTheyAreNone)
{
    const change_dataset dataset = made(FWU_UTF8);
    const auto tag = [&dataset](const std::string &text) {
        return fields(dataset, {"TAG"}, CHANGE_CREATE, "", row_of("....", text));
    };
    EXPECT_EQ(tag("ab  "), "ab");
    EXPECT_EQ(tag("    "), "\"\"");
    EXPECT_EQ(tag("\xE2\x82\xAC,"), "\"\xE2\x82\xAC,\"");
    EXPECT_EQ(tag("\xC3\xA9  "), "\xC3\xA9");
    EXPECT_EQ(tag("\xE9   "), "0xe9202020");
}
