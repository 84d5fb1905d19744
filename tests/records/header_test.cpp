// Headers as docs/capture-record.md has them.
#include "records/header.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <string>

class RecHeader : public testing::Test {
  protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    std::string take(const rec_form &form, const std::string &record)
    {
        rec_header_make(header, form);
        EXPECT_LE(header.length, record.size());
        std::string wrong;
        return rec_header_take(header, record, wrong) ? "" : wrong;
    }
    const char *session(size_t entry) const
    {
        const char *const text = header.session.entry[entry];
        return text == nullptr ? "(none)" : text;
    }
    rec_header header;
};

static std::string padded(std::string text, size_t width)
{
    text.resize(width, ' ');
    return text;
}

static const std::string NAMES = padded("DEPOT", 24) + padded("ITEMS", 16);
static const std::string LONG = "000000" + NAMES + "2026112022:08:36" + "IP" +
                                padded("loader", 24) + padded("BATCH", 8) + padded("batch", 24) +
                                " 04121" + "000000000000017";

TEST_F(RecHeader, OfEveryOption)
{
    EXPECT_EQ(take({.exthdr = true, .yyyy = true, .recnum = true}, LONG), "");
    EXPECT_EQ(header.length, 141U);
    EXPECT_EQ(header.key, NAMES);
    EXPECT_EQ(header.op, CHANGE_CREATE);
    EXPECT_EQ(header.second, 1795212516);
    EXPECT_EQ(header.record, 17);
    EXPECT_STREQ(session(0), "loader");
    EXPECT_STREQ(session(1), "BATCH");
    EXPECT_STREQ(session(2), "batch");
    EXPECT_STREQ(session(3), "4121");
    EXPECT_STREQ(session(4), "(none)");
}

TEST_F(RecHeader, SizesOfThePage)
{
    const struct {
        rec_form form;
        size_t length;
    } rows[] = {{{}, 62},
                {{.yyyy = true}, 64},
                {{.exthdr = true}, 124},
                {{.exthdr = true, .yyyy = true}, 126},
                {{.recnum = true}, 77},
                {{.yyyy = true, .recnum = true}, 79},
                {{.exthdr = true, .recnum = true}, 139}};
    for (const auto &row : rows) {
        rec_header_make(header, row.form);
        EXPECT_EQ(header.length, row.length);
    }
}

TEST_F(RecHeader, OperationsAndShortYears)
{
    for (const auto &[letters, op] :
         {std::pair("IP", CHANGE_CREATE), {"IU", CHANGE_UPDATE}, {"ID", CHANGE_DELETE}}) {
        EXPECT_EQ(take({}, "000009" + NAMES + "26112022:08:36" + letters), "");
        EXPECT_EQ(header.op, op);
        EXPECT_EQ(header.second, 1795212516);
        EXPECT_EQ(header.record, 0);
        EXPECT_STREQ(session(0), "(none)");
    }
}

TEST_F(RecHeader, BlankSessionItemsAreNotKnown)
{
    std::string record = LONG;
    record.replace(64, 62, 62, ' ');
    EXPECT_EQ(take({.exthdr = true, .yyyy = true, .recnum = true}, record), "");
    for (size_t entry = 0; entry < 4; entry++)
        EXPECT_STREQ(session(entry), "(none)");
}

TEST_F(RecHeader, ProcessIds)
{
    const struct {
        const char *item;
        const char *pid;
    } rows[] = {{" 00000", "0"}, {" 00007", "7"}, {"123456", "123456"}, {" 0a 12", "a 12"}};
    for (const auto &row : rows) {
        std::string record = LONG;
        record.replace(120, 6, row.item);
        EXPECT_EQ(take({.exthdr = true, .yyyy = true, .recnum = true}, record), "");
        EXPECT_STREQ(session(3), row.pid);
    }
}

TEST_F(RecHeader, InfoStandsInThePlaceOfAnItem)
{
    rec_form form = {.exthdr = true, .yyyy = true, .recnum = true, .info = HDRKIND_PROG};
    EXPECT_EQ(take(form, LONG), "");
    EXPECT_STREQ(session(0), "(none)");
    EXPECT_STREQ(session(4), "loader");
    form.info = HDRKIND_DBNAME;
    EXPECT_EQ(take(form, LONG), "");
    EXPECT_STREQ(session(4), "DEPOT");
    EXPECT_EQ(header.key, padded("ITEMS", 16));
    EXPECT_EQ(rec_header_key(header, "DEPOT", "ITEMS"), padded("ITEMS", 16));
    form.fga = true; // there is nothing to replace
    EXPECT_EQ(take(form, LONG), "");
    EXPECT_STREQ(session(4), "(none)");
    EXPECT_EQ(header.key, NAMES);
}

TEST_F(RecHeader, KeysAreTheFieldsOfNames)
{
    rec_header_make(header, {});
    EXPECT_EQ(rec_header_key(header, "DEPOT", "ITEMS"), NAMES);
    rec_header_make(header, {.fga = true});
    EXPECT_EQ(rec_header_key(header, "F.GRP.ACC", "ITEMS"),
              padded("F", 8) + padded("GRP", 8) + padded("ACC", 8) + padded("ITEMS", 16));
    EXPECT_EQ(rec_header_key(header, "FILENAMELONG.G", "ITEMS"),
              padded("FILENAMELONG.G", 24) + padded("ITEMS", 16));
}

TEST_F(RecHeader, TellsWhatStandsWhere)
{
    const rec_form form = {.exthdr = true, .yyyy = true, .recnum = true};
    const struct {
        size_t offset;
        const char *bytes;
        const char *wrong;
    } rows[] = {
        {0, "00000x",
         R"(at offset 0 stands "00000x", where these options have the record's number, six digits)"},
        {46, "2026130122:08:36",
         R"(at offset 46 stands "2026130122:08:36", where these options have the time, YYYYMMDDhh:mm:ss)"},
        {46, "2026113222:08:36",
         R"(at offset 46 stands "2026113222:08:36", where these options have the time, YYYYMMDDhh:mm:ss)"},
        {46, "2026113024:08:36",
         R"(at offset 46 stands "2026113024:08:36", where these options have the time, YYYYMMDDhh:mm:ss)"},
        {46, "2026113023:60:36",
         R"(at offset 46 stands "2026113023:60:36", where these options have the time, YYYYMMDDhh:mm:ss)"},
        {46, "2026113023:50-36",
         R"(at offset 46 stands "2026113023:50-36", where these options have the time, YYYYMMDDhh:mm:ss)"},
        {62, "XX",
         R"(at offset 62 stands "XX", where these options have the operation, IP, IU or ID)"},
        {62, "\x01\xFF",
         R"(at offset 62 stands 0x01ff, where these options have the operation, IP, IU or ID)"},
        {126, "00000000000001 ",
         R"(at offset 126 stands "00000000000001 ", where these options have the log record number, 15 digits)"},
        {126, "999999999999999",
         R"(at offset 126 stands "999999999999999", where these options have the log record number, 15 digits)"},
    };
    for (const auto &row : rows) {
        std::string record = LONG;
        record.replace(row.offset, strlen(row.bytes), row.bytes);
        EXPECT_EQ(take(form, record), row.wrong);
    }
    // Of other options.
    EXPECT_EQ(
        take({.exthdr = true, .recnum = true}, LONG),
        R"(at offset 46 stands "2026112022:08:", where these options have the time, YYMMDDhh:mm:ss)");
}

// Whatever byte a header has changed, the answer is one or the other.
TEST_F(RecHeader, AnyByte)
{
    for (size_t at = 0; at < LONG.size(); at++) {
        for (int byte = 0; byte < 256; byte++) {
            std::string record = LONG;
            record[at] = static_cast<char>(byte);
            const std::string wrong = take({.exthdr = true, .yyyy = true, .recnum = true}, record);
            const bool checked = at < 6 || (at >= 46 && at < 64) || at >= 126;
            ASSERT_TRUE(checked || wrong.empty()) << at;
        }
    }
}
