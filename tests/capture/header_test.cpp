// The capture record header: layout and filling.
#include "capture/header.h"

#include "driver/base/logrec.h"
#include "tests/support/core_state.h"
#include "tests/support/run.h"

#include <cstring>

// The items of one record, each in its full width.
#define SEQ "000000"
#define DB "ACCTDB.PROD.FIN         "
#define FGA "ACCTDB  PROD    FIN     "
#define SET "CUST-ITEMS      "
#define DATE2 "24031514:05:09"
#define DATE4 "2024031514:05:09"
#define OP "IU"
#define PROG "orders                  "
#define USER "MGR     "
#define LOGIN "SALES                   "
#define PID " 00987"
#define RECNUM "000000000000042"
#define EXT PROG USER LOGIN PID

static const struct {
    uint32_t hdropts;
    int32_t size;
    const char *bytes;
} layouts[] = {
    {0, 62, SEQ DB SET DATE2 OP},
    {HDR_EXTHDR, 124, SEQ DB SET DATE2 OP EXT},
    {HDR_YYYY, 64, SEQ DB SET DATE4 OP},
    {HDR_EXTHDR | HDR_YYYY, 126, SEQ DB SET DATE4 OP EXT},
    {HDR_RECNUM, 77, SEQ DB SET DATE2 OP RECNUM},
    {HDR_EXTHDR | HDR_RECNUM, 139, SEQ DB SET DATE2 OP EXT RECNUM},
    {HDR_YYYY | HDR_RECNUM, 79, SEQ DB SET DATE4 OP RECNUM},
    {HDR_EXTHDR | HDR_YYYY | HDR_RECNUM, 141, SEQ DB SET DATE4 OP EXT RECNUM},
    {HDR_FGA, 62, SEQ FGA SET DATE2 OP},
    {HDR_FGA | HDR_EXTHDR, 124, SEQ FGA SET DATE2 OP EXT},
    {HDR_FGA | HDR_YYYY, 64, SEQ FGA SET DATE4 OP},
    {HDR_FGA | HDR_EXTHDR | HDR_YYYY, 126, SEQ FGA SET DATE4 OP EXT},
    {HDR_FGA | HDR_RECNUM, 77, SEQ FGA SET DATE2 OP RECNUM},
    {HDR_FGA | HDR_EXTHDR | HDR_RECNUM, 139, SEQ FGA SET DATE2 OP EXT RECNUM},
    {HDR_FGA | HDR_YYYY | HDR_RECNUM, 79, SEQ FGA SET DATE4 OP RECNUM},
    {HDR_FGA | HDR_EXTHDR | HDR_YYYY | HDR_RECNUM, 141, SEQ FGA SET DATE4 OP EXT RECNUM},
};

class Header : public core_state {
  protected:
    Header()
    {
        g_fwu.session = {{"pname", "/opt/app/bin/orders -q"},
                         {"user", "MGR"},
                         {"login", "SALES"},
                         {"pid", "987"},
                         {"info", "web shop 17"}};
        record.dbname = "ACCTDB.PROD.FIN";
        record.dsetname = "CUST-ITEMS";
        record.logtime = 1710511509; // 15 March 2024, 14:05:09 UTC
        record.recnum = 42;
    }

    static capfil *file(uint32_t hdropts, int32_t info_item = 0)
    {
        capcfg cfg = {};
        cfg.hdropts = hdropts;
        cfg.info_item = info_item;
        capfil *cf = add_file("capfile", cfg);
        memcpy(cf->op, OP, 3);
        return cf;
    }

    std::string header(capfil *cf)
    {
        cap_header_put(cf, &record);
        return {cf->recbuf, static_cast<size_t>(cf->hdrsize)};
    }

    // What stands at offset of the header of a fresh file.
    std::string part(uint32_t hdropts, size_t offset, size_t width, int32_t info_item = 0)
    {
        return header(file(hdropts, info_item)).substr(offset, width);
    }

    log_record record = {};
};

TEST_F(Header, EveryOptionSetHasItsLayout)
{
    for (const auto &layout : layouts) {
        SCOPED_TRACE(layout.hdropts);
        capfil *cf = file(layout.hdropts);
        EXPECT_EQ(layout.size, cf->hdrsize);
        EXPECT_EQ(layout.hdropts, cf->hdropts);
        memset(cf->recbuf, '#', static_cast<size_t>(cf->bufsize));
        EXPECT_EQ(layout.bytes, header(cf));
        EXPECT_EQ('#', cf->recbuf[cf->hdrsize]) << "the bytes behind it are not touched";
    }
}

TEST_F(Header, ItemsFollowEachOther)
{
    const struct {
        int32_t kind, offset, size;
    } all_options[] = {{1, 0, 6},   {3, 6, 24}, {4, 30, 16},  {5, 46, 16},  {7, 62, 2},
                       {8, 64, 24}, {9, 88, 8}, {10, 96, 24}, {11, 120, 6}, {12, 126, 15}};
    const capfil *cf = file(15);
    int i = 0;
    for (const auto &item : all_options) {
        ASSERT_NE(nullptr, cf->hdritems[i]);
        EXPECT_EQ(item.kind, cf->hdritems[i]->kind);
        EXPECT_EQ(item.offset, cf->hdritems[i]->offset);
        EXPECT_EQ(item.size, cf->hdritems[i]->size);
        i++;
    }
    EXPECT_EQ(nullptr, cf->hdritems[i]);
}

TEST_F(Header, ItemSizes)
{
    const int32_t sizes[] = {0, 6, 24, 24, 16, 16, 14, 2, 24, 8, 24, 6, 15};
    for (int32_t kind = 0; kind <= 12; kind++)
        EXPECT_EQ(sizes[kind], cap_header_item_size(kind));
    EXPECT_EQ(0, cap_header_item_size(13));
    EXPECT_EQ(0, cap_header_item_size(1000));
    EXPECT_EQ(0, cap_header_item_size(-1));
}

TEST_F(Header, SetupIsLoggedWithTheSize)
{
    g_loglevel = LOG_VERBOSE;
    for (const auto &layout : layouts) {
        capfil *cf = new_capfil();
        char name[] = "some file";
        cf->name = name;
        int32_t size = 0;
        const captured printed = capture([&] { size = cap_setup_header(cf, layout.hdropts); });
        EXPECT_EQ(layout.size, size);
        EXPECT_EQ("LOG Setup capture file some file header, size=" + std::to_string(layout.size) +
                      "\n",
                  without_stamps(printed.err));
        cap_header_free_items(cf);
        EXPECT_EQ(nullptr, cf->hdritems);
        cap_header_free_items(cf); // of none: nothing
        free(cf);
    }
}

TEST_F(Header, NamesAreCutOrPadded)
{
    const struct {
        const char *dbname, *dsetname, *expected;
    } cases[] = {
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZ", "12345678901234567890",
         "ABCDEFGHIJKLMNOPQRSTUVWX1234567890123456"},
        {"", "", "                                        "},
        {"D", "S", "D                       S               "},
        {nullptr, nullptr, "                                        "},
    };
    for (const auto &c : cases) {
        record.dbname = c.dbname;
        record.dsetname = c.dsetname;
        EXPECT_EQ(c.expected, part(0, 6, 40));
    }
}

TEST_F(Header, NothingOfThePreviousRecordIsLeft)
{
    capfil *cf = file(15);
    header(cf);
    record = {};
    g_fwu.session.clear();
    memset(cf->op, 0, sizeof cf->op);
    EXPECT_EQ(SEQ "                        "
                  "                1970010100:00:00  "
                  "                        "
                  "        "
                  "                        "
                  "      "
                  "000000000000000",
              header(cf));
}

TEST_F(Header, FgaNames)
{
    const struct {
        const char *dbname, *expected;
    } cases[] = {
        {"TOOLONGNAME.X", "TOOLONGNAME.X           "},
        {"A..C", "A               C       "},
        {nullptr, "                        "},
    };
    for (const auto &c : cases) {
        record.dbname = c.dbname;
        EXPECT_EQ(c.expected, part(HDR_FGA, 6, 24));
    }
}

TEST_F(Header, SequenceNumberIsTheNumberOfWritesBefore)
{
    const struct {
        int32_t nwritten;
        const char *expected;
    } cases[] = {{0, "000000"}, {6, "000006"}, {999999, "999999"}, {1234567, "123456"}};
    for (const auto &c : cases) {
        capfil *cf = file(0);
        cf->nwritten = c.nwritten;
        EXPECT_EQ(c.expected, header(cf).substr(0, 6));
    }
}

TEST_F(Header, RecordNumbers)
{
    const struct {
        int32_t recnum;
        const char *expected;
    } cases[] = {{0, "000000000000000"}, {2147483647, "000002147483647"}, {-7, "-00000000000007"}};
    for (const auto &c : cases) {
        record.recnum = c.recnum;
        EXPECT_EQ(c.expected, part(HDR_RECNUM, 62, 15));
    }
}

TEST_F(Header, ProcessIdsAreRightAlignedBehindABlank)
{
    const struct {
        const char *pid, *expected;
    } cases[] = {{"", " 00000"},       {"1", " 00001"},     {"987", " 00987"},
                 {"1234", " 01234"},   {"12345", " 12345"}, {"123456", "123456"},
                 {"1234567", "123456"}};
    for (const auto &c : cases) {
        g_fwu.session["pid"] = c.pid;
        EXPECT_EQ(c.expected, part(HDR_EXTHDR, 118, 6));
    }
}

TEST_F(Header, ProgramNames)
{
    const struct {
        const char *pname, *progterm, *expected;
    } cases[] = {
        {"/opt/app/bin/orders -q", nullptr, "orders                  "},
        {"/opt/app/bin/orders", nullptr, "orders                  "},
        {"orders\t-q", nullptr, "orders\t                 "},
        {"", nullptr, "                        "},
        {"/usr/bin/interp /app/bin/orders.cmd -x", ".cmd", "/app/bin/orders         "},
        {"/usr/bin/interp /app/bin/orders.cmd -x", ".xyz", "interp                  "},
        {"/usr/bin/interp", "", "                        "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.pname);
        g_fwu.session["pname"] = c.pname;
        capfil *cf = file(HDR_EXTHDR);
        cf->progterm = c.progterm == nullptr ? nullptr : strdup(c.progterm);
        EXPECT_EQ(c.expected, header(cf).substr(62, 24));
    }
}

TEST_F(Header, SessionItemsAreCutToTheirWidth)
{
    g_fwu.session = {{"user", "123456789"}, {"login", "1234567890123456789012345"}};
    EXPECT_EQ("                        12345678123456789012345678901234      ",
              part(HDR_EXTHDR, 62, 62));
}

TEST_F(Header, InfoReplacesTheChosenItem)
{
    const std::string info24 = "web shop 17             ";
    EXPECT_EQ(SEQ + info24 + SET DATE2 OP, header(file(0, 2)));
    EXPECT_EQ(SEQ DB SET DATE2 OP + info24 + USER LOGIN PID, header(file(HDR_EXTHDR, 8)));
    EXPECT_EQ(SEQ DB SET DATE2 OP PROG "web shop" LOGIN PID, header(file(HDR_EXTHDR, 9)));
    EXPECT_EQ(SEQ DB SET DATE2 OP PROG USER + info24 + PID, header(file(HDR_EXTHDR, 10)));
}

TEST_F(Header, InfoForAnItemThatIsNotThereHasNoEffect)
{
    EXPECT_EQ(SEQ FGA SET DATE2 OP, header(file(HDR_FGA, 2)));
    for (const int32_t kind : {8, 9, 10})
        EXPECT_EQ(SEQ DB SET DATE2 OP, header(file(0, kind)));
}

TEST_F(Header, MissingInfoBlanksTheItem)
{
    g_fwu.session.erase("info");
    EXPECT_EQ(SEQ DB SET DATE2 OP PROG "        " LOGIN PID, header(file(HDR_EXTHDR, 9)));
    EXPECT_EQ(SEQ "                        " SET DATE2 OP, header(file(0, 2)));
}

TEST_F(Header, WithoutARecordOnlyItsOwnItemsStayBlank)
{
    capfil *cf = file(HDR_EXTHDR | HDR_RECNUM);
    memset(cf->recbuf, '#', 139);
    memset(cf->op, 0, sizeof cf->op);
    cap_header_put(cf, nullptr);
    EXPECT_EQ(SEQ "                        "
                  "                "
                  "              "
                  "  " EXT "               ",
              std::string(cf->recbuf, 139));
}

TEST_F(Header, ValueStopsAtItsEnd)
{
    capfil *cf = file(0);
    memset(cf->recbuf, '#', 20);
    const hdritem item = {HDRKIND_DBNAME, 3, 5};
    cap_header_put_value(cf, "ab", &item);
    EXPECT_EQ("###ab   ###", std::string(cf->recbuf, 11));
    cap_header_put_value(cf, "abcdefgh", &item);
    EXPECT_EQ("###abcde###", std::string(cf->recbuf, 11));
    cap_header_put_value(cf, "", &item);
    EXPECT_EQ("###     ###", std::string(cf->recbuf, 11));
}

TEST_F(Header, SessionDataIsPrintedAtTheSecondVerbose)
{
    g_fwu.session_data = {"first", "", "third"};
    capfil *cf = file(0);
    EXPECT_EQ("", capture([&] { header(cf); }).out);
    g_flags = FLAG_SESSDATA;
    EXPECT_EQ("session_data[0]=first\nsession_data[1]=\nsession_data[2]=third\n",
              capture([&] { header(cf); }).out);
    g_fwu.session_data.clear();
    EXPECT_EQ("", capture([] { show_session_data(); }).out);
}

TEST_F(Header, DateTable)
{
    const char *const berlin = "CET-1CEST,M3.5.0,M10.5.0/3";
    const struct {
        const char *zone;
        time_t time;
        const char *two, *four;
    } cases[] = {
        {"UTC", 1710511509, "24031514:05:09", "2024031514:05:09"},
        {"UTC", 946684800, "00010100:00:00", "2000010100:00:00"},
        {"UTC", 946684799, "-1123123:59:59", "1999123123:59:59"},
        {"UTC", 0, "-30010100:00:00", "1970010100:00:00"},
        {"UTC", -1, "-31123123:59:59", "1969123123:59:59"},
        {"UTC", 2147483647, "38011903:14:07", "2038011903:14:07"},
        {"UTC", -2147483647 - 1, "-99121320:45:52", "1901121320:45:52"},
        {"UTC", 4102444800, "100010100:00:00", "2100010100:00:00"},
        {"UTC", 1709164800, "24022900:00:00", "2024022900:00:00"},
        // Spring: 01:59:59 is followed by 03:00:00; autumn: 02:59:59 by 02:00:00.
        {berlin, 1711846799, "24033101:59:59", "2024033101:59:59"},
        {berlin, 1711846800, "24033103:00:00", "2024033103:00:00"},
        {berlin, 1729990799, "24102702:59:59", "2024102702:59:59"},
        {berlin, 1729990800, "24102702:00:00", "2024102702:00:00"},
        {"EST5EDT,M3.2.0,M11.1.0", 0, "-31123119:00:00", "1969123119:00:00"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.four);
        set_zone(c.zone);
        char out[HDRDATE_SIZE];
        cap_header_get_date(c.time, out, 2);
        EXPECT_STREQ(c.two, out);
        cap_header_get_date(c.time, out, 4);
        EXPECT_STREQ(c.four, out);
    }
}

TEST_F(Header, AChangeOfTheZoneShowsFromTheNextSecondOn)
{
    for (const uint32_t hdropts : {0U, HDR_YYYY}) {
        set_zone("UTC");
        const size_t at = hdropts == 0 ? 46 : 48;
        EXPECT_EQ("14:05:09", part(hdropts, at + 6, 8));
        setenv("TZ", "XYZ-11:30", 1); // and nobody says so
        const time_t changed = time(nullptr);
        ASSERT_TRUE(poll_until([&] { return time(nullptr) > changed; }));
        EXPECT_EQ("01:35:09", part(hdropts, at + 6, 8)) << "also for a record of the same second";
    }
}

TEST_F(Header, DateOutsideTheCenturyIsCutToItsWidth)
{
    record.logtime = 0;
    EXPECT_EQ("-30010100:00:0", part(0, 46, 14));
}
