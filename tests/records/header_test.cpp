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

TEST_F(RecHeader, DaysThatTheCalendarHas)
{
    const struct {
        const char *day;
        bool is;
    } rows[] = {{"20260228", true},  {"20260229", false}, {"20240229", true},  {"20240230", false},
                {"20260231", false}, {"20000229", true},  {"21000229", false}, {"20260430", true},
                {"20260431", false}, {"20261231", true},  {"20261232", false}, {"20261200", false},
                {"20261301", false}, {"20260001", false}};
    for (const auto &row : rows) {
        const std::string date = row.day + std::string("22:08:36");
        EXPECT_EQ(take({.yyyy = true}, "000009" + NAMES + date + "IP"),
                  row.is ? ""
                         : "at offset 46 stands \"" + date +
                               "\", where these options have the time, YYYYMMDDhh:mm:ss");
    }
    EXPECT_EQ(take({}, "000009" + NAMES + "26023122:08:36IP"),
              "at offset 46 stands \"26023122:08:36\", where these options have the time, "
              "YYMMDDhh:mm:ss");
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

TEST_F(RecHeader, LineEndsOfTheSessionsTextsAreNone)
{
    rec_header_make(header, {.exthdr = true, .yyyy = true, .recnum = true});
    for (size_t at = 0; at < LONG.size(); at++) {
        std::string line = LONG;
        line[at] = '\n';
        const bool of_session = at >= 64 && at < 126;
        EXPECT_EQ(rec_header_line_end(header, line), of_session ? line.npos : at);
        EXPECT_EQ(rec_header_line_end(header, line.substr(0, at)), line.npos);
    }
    EXPECT_EQ(rec_header_line_end(header, LONG + "\n"), LONG.npos);
    rec_header_make(header, {.info = HDRKIND_DBNAME});
    EXPECT_EQ(rec_header_line_end(header, "000000in\nfo"), LONG.npos);
    EXPECT_EQ(rec_header_line_end(header, "0\n0000in\nfo"), 1U);
}

TEST_F(RecHeader, NamesThatAreTold)
{
    const auto tells = [this](const rec_form &form, const std::string &names) {
        EXPECT_EQ(take(form, "000009" + names + "26112022:08:36IP"), "");
        const rec_header_names told = rec_header_tells(header);
        return told.database.value_or("(none)") + ":" + told.dataset;
    };
    EXPECT_EQ(tells({}, NAMES), "DEPOT:ITEMS");
    EXPECT_EQ(tells({}, std::string(23, 'D') + " " + std::string(16, 'I')),
              std::string(23, 'D') + ":" + std::string(16, 'I'));
    EXPECT_EQ(tells({}, std::string(24, 'D') + padded("ITEMS", 16)), "(none):ITEMS");
    EXPECT_EQ(tells({.fga = true}, NAMES), "(none):ITEMS");
    EXPECT_EQ(tells({.info = HDRKIND_DBNAME}, NAMES), "(none):ITEMS");
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
