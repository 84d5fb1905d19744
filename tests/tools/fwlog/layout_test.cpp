// The layout command: positions and pictures worked out by hand from Kestro's page of capture
// records, and copybooks that a compiler takes.
#include "ascii/ascii_width.h"
#include "tests/changes/written_log.h"
#include "tests/support/program.h"
#include "tests/tools/fwlog/built_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

template <typename Log>
static run_result run_layout(const Log &here, std::vector<std::string> words)
{
    words.insert(words.begin(),
                 {KESTRO_BUILD_DIR "/bin/fwlog", "layout", "-cfg", here.dir.file("fwutil.cfg")});
    return run_program(words);
}

template <typename Log>
static std::string layout_of(const Log &here, const std::vector<std::string> &words)
{
    const run_result result = run_layout(here, words);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
    return result.out;
}

// A log of one file, of one transaction, that has the layouts.
static void add_layouts(place &here, const std::vector<fwu_layout> &layouts,
                        bool big_endian = false, int32_t sequence = 1,
                        fwu_encoding encoding = FWU_LATIN1)
{
    log_file file(sequence, big_endian, FWU_VERSION_PLAIN, encoding);
    for (const fwu_layout &layout : layouts) {
        fwu_entry_put_layout(file.bytes, ++file.tag, layout);
        file.added();
    }
    file.commit();
    here.add(sequence, file.bytes);
}

static fwu_item item(const char *name, char type, int32_t size, int32_t count = 1,
                     int32_t scale = 0)
{
    return {.name = name, .type = type, .size = size, .count = count, .item_aux = scale};
}

static fwu_layout small_layout()
{
    return {.dbname = "SALES",
            .dsetname = "ORDERS",
            .items = {item("NO", 'I', 2), item("NET", 'P', 2, 1, 1), item("TAG", 'X', 2, 2)}};
}

static const fwu_layout &all_types()
{
    static const fwu_layout layout{
        .dbname = "TEST",
        .dsetname = "ALL",
        .items = {item("I2", 'I', 2, 3), item("I4", 'I', 4), item("J8", 'J', 8), item("K2", 'K', 2),
                  item("K4", 'K', 4), item("K8", 'K', 8), item("P1", 'P', 1),
                  item("P14", 'P', 14, 1, 4), item("P2", 'P', 2, 1, 3), item("Z1", 'Z', 1),
                  item("Z28", 'Z', 28, 1, 3), item("Z4", 'Z', 4, 1, 2), item("X3", 'X', 3),
                  item("E4", 'E', 4), item("R8", 'R', 8)}};
    return layout;
}

// Compiles a program of these parts, which may include capture.cpy, and runs it.
static std::string run_cobol(const place &here, const std::string &copybook,
                             const std::string &file_control, const std::string &data,
                             const std::string &statements,
                             const std::vector<std::string> &options = {})
{
    write_file(here.dir.file("capture.cpy"), copybook);
    write_file(here.dir.file("program.cob"), "       IDENTIFICATION DIVISION.\n"
                                             "       PROGRAM-ID. PROGRAM-X.\n" +
                                                 file_control + "       DATA DIVISION.\n" + data +
                                                 "       PROCEDURE DIVISION.\n" + statements +
                                                 "           STOP RUN.\n");
    run_setup in_directory;
    in_directory.directory = here.dir.path();
    std::vector<std::string> words = {"cobc", "-x", "-Wall", "-Werror", "-o", "program"};
    words.insert(words.end(), options.begin(), options.end());
    words.emplace_back("program.cob");
    const run_result compiled = run_program(words, in_directory);
    EXPECT_EQ(compiled.status, 0) << compiled.err << copybook;
    const run_result result = run_program({here.dir.file("program")}, in_directory);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
}

TEST(FwlogLayout, ColumnsOfATextCaptureFile)
{
    place here;
    add_layouts(here, {small_layout()});
    EXPECT_EQ(layout_of(here, {"--columns", "-ascii"}),
              R"(SALES.ORDERS, layout of 1-1.1
line of a text capture file, -ascii
IP, ID: 84 bytes, one row
IU: 106 bytes, the old row and the new one behind it, 22 further on

   first     last  width  picture                             scale  item
       1        6      6  9(6)                                    0  sequence  (records of the file before this one)
       7       30     24  X(24)                                   0  database  (database)
      31       46     16  X(16)                                   0  dataset  (dataset)
      47       60     14  X(14)                                   0  date_time  (local commit time, YYMMDDhh:mm:ss)
      61       62      2  X(2)                                    0  operation  (IP insert, IU update, ID delete)
      63       76     14  -(13)9                                  0  NO
      77       80      4  S9(2)V9 SIGN IS LEADING SEPARATE        1  NET
      81       82      2  X(2)                                    0  TAG[1]
      83       84      2  X(2)                                    0  TAG[2]
)");
}

TEST(FwlogLayout, ColumnsOfAMessageCaptureFile)
{
    place here;
    add_layouts(here, {small_layout()});
    EXPECT_THAT(layout_of(here, {"--columns"}), HasSubstr(R"(
record of a message capture file, little-endian
IP, ID: 70 bytes, one row
IU: 78 bytes, the old row and the new one behind it, 8 further on
)"));
    EXPECT_THAT(layout_of(here, {"--columns"}), EndsWith(R"(
      63       64      2  S9(4) COMP-5                            0  NO
      65       66      2  S9(2)V9 COMP-3                          1  NET
      67       68      2  X(2)                                    0  TAG[1]
      69       70      2  X(2)                                    0  TAG[2]
)"));
}

TEST(FwlogLayout, TextsInUtf8AreSaidToBe)
{
    place here;
    fwu_layout numbers = small_layout();
    numbers.dsetname = "TOTALS";
    numbers.items.pop_back();
    add_layouts(here, {small_layout(), numbers}, false, 1, FWU_UTF8);
    EXPECT_THAT(layout_of(here, {"--columns", "-ascii"}),
                StartsWith("SALES.ORDERS, layout of 1-1.1, texts in UTF-8\n"));
    const std::string json = layout_of(here, {"--json"});
    EXPECT_THAT(json, HasSubstr(R"("byte_order":"little","text_encoding":"utf-8",)"));
    const std::string copybook = layout_of(here, {"--copybook"});
    const std::string advice =
        "      * Texts are in UTF-8: PIC X counts bytes, and a character may "
        "have\n      * up to four.\n";
    const size_t at = copybook.find(advice);
    ASSERT_NE(at, std::string::npos) << copybook;
    EXPECT_EQ(copybook.find(advice, at + 1), std::string::npos) << "TOTALS has no texts";
}

TEST(FwlogLayout, JsonHasAllThatTakesRecordsApart)
{
    place here;
    fwu_layout layout = small_layout();
    layout.items.push_back(item("NULL-MAP", 'X', 3));
    add_layouts(here, {layout}, true);
    EXPECT_EQ(
        layout_of(here, {"--json", "-asciirev", "-yyyy", "-info", "dbname", "-progterm", "a\"b"}),
        R"j({"database":"SALES","dataset":"ORDERS","table":null,"position":"1-1.1","form":"text",)j"
        R"j("byte_order":"big","text_encoding":"iso-8859-1","options":{"exthdr":false,"yyyy":true,"recnum":false,"fga":false,)j"
        R"j("ascii":true,"asciirev":true,"dirty":false,"bwfmt":false},"progterm":"a\"b",)j"
        R"j("header":[{"name":"sequence","offset":0,"width":6},)j"
        R"j({"name":"info","offset":6,"width":24},{"name":"dataset","offset":30,"width":16},)j"
        R"j({"name":"date_time","offset":46,"width":16},{"name":"operation","offset":62,"width":2}],)j"
        R"j("header_length":64,"items":[)j"
        R"j({"name":"NO","type":"I","size":2,"count":1,"scale":0,"column":null,"source_type":null,)j"
        R"j("key":null,"null_map":false,"null_flag":0,"image_offset":0,"first":65,"last":78,)j"
        R"j("width":14,"picture":"-(13)9","usage":""},)j"
        R"j({"name":"NET","type":"P","size":2,"count":1,"scale":1,"column":null,"source_type":null,)j"
        R"j("key":null,"null_map":false,"null_flag":1,"image_offset":2,"first":79,"last":82,)j"
        R"j("width":4,"picture":"S9(2)V9","usage":"SIGN IS LEADING SEPARATE"},)j"
        R"j({"name":"TAG","type":"X","size":2,"count":2,"scale":0,"column":null,"source_type":null,)j"
        R"j("key":null,"null_map":false,"null_flag":2,"image_offset":4,"first":83,"last":86,)j"
        R"j("width":2,"picture":"X(2)","usage":""},)j"
        R"j({"name":"NULL-MAP","type":"X","size":3,"count":1,"scale":0,"column":null,)j"
        R"j("source_type":null,"key":null,"null_map":true,"null_flag":null,"image_offset":8,)j"
        R"j("first":87,"last":89,"width":3,"picture":"X(3)","usage":""}],)j"
        R"j("image_length":11,"row_length":25,"record_lengths":{"IP":89,"IU":114,"ID":89}})j"
        "\n");
}

TEST(FwlogLayout, CopybookHasARecordForEachDataset)
{
    place here;
    fwu_layout other{.dbname = "DEPOT", .dsetname = "STOCK", .items = {item("QTY", 'K', 4)}};
    add_layouts(here, {small_layout(), other});
    EXPECT_EQ(layout_of(here, {"--copybook", "-ascii", "-recnum"}),
              R"(      * Capture records of DEPOT.STOCK, as Kestro writes them with
      * -recnum -ascii; layout of 1-1.2.
      * IP and ID: 92 bytes, CAPTURE-ROW is the new row of IP, the old
      * row of ID.
      * IU: 107 bytes, CAPTURE-ROW is the old row, CAPTURE-NEW-ROW the
      * new one.
       01  DEPOT-STOCK-REC.
           05  CAPTURE-HEADER.
               10  H-SEQUENCE                PIC 9(6).
               10  H-DATABASE                PIC X(24).
               10  H-DATASET                 PIC X(16).
               10  H-DATE-TIME               PIC X(14).
               10  H-OPERATION               PIC X(2).
                   88  H-INSERT              VALUE "IP".
                   88  H-UPDATE              VALUE "IU".
                   88  H-DELETE              VALUE "ID".
               10  H-RECORD-NUMBER           PIC 9(15).
           05  CAPTURE-ROW.
               10  R-QTY                     PIC Z(14)9.
           05  CAPTURE-NEW-ROW.
               10  N-QTY                     PIC Z(14)9.
      * Capture records of SALES.ORDERS, as Kestro writes them with
      * -recnum -ascii; layout of 1-1.1.
      * IP and ID: 99 bytes, CAPTURE-ROW is the new row of IP, the old
      * row of ID.
      * IU: 121 bytes, CAPTURE-ROW is the old row, CAPTURE-NEW-ROW the
      * new one.
       01  SALES-ORDERS-REC.
           05  CAPTURE-HEADER.
               10  H-SEQUENCE                PIC 9(6).
               10  H-DATABASE                PIC X(24).
               10  H-DATASET                 PIC X(16).
               10  H-DATE-TIME               PIC X(14).
               10  H-OPERATION               PIC X(2).
                   88  H-INSERT              VALUE "IP".
                   88  H-UPDATE              VALUE "IU".
                   88  H-DELETE              VALUE "ID".
               10  H-RECORD-NUMBER           PIC 9(15).
           05  CAPTURE-ROW.
               10  R-NO                      PIC -(13)9.
               10  R-NET                     PIC S9(2)V9
                                             SIGN IS LEADING SEPARATE.
               10  R-TAG                     PIC X(2) OCCURS 2 TIMES.
           05  CAPTURE-NEW-ROW.
               10  N-NO                      PIC -(13)9.
               10  N-NET                     PIC S9(2)V9
                                             SIGN IS LEADING SEPARATE.
               10  N-TAG                     PIC X(2) OCCURS 2 TIMES.
)");
}

TEST(FwlogLayout, HeadersHaveTheSizesOfThePage)
{
    const std::vector<std::pair<std::vector<std::string>, int>> cases = {
        {{}, 62},
        {{"-yyyy"}, 64},
        {{"-exthdr"}, 124},
        {{"-exthdr", "-yyyy"}, 126},
        {{"-recnum"}, 77},
        {{"-yyyy", "-recnum"}, 79},
        {{"-exthdr", "-recnum"}, 139},
        {{"-exthdr", "-yyyy", "-recnum"}, 141},
        {{"--fga", "--info=PROG", "-progterm", "x"}, 62},
    };
    place here;
    add_layouts(here, {small_layout()});
    for (const auto &[options, size] : cases) {
        std::vector<std::string> words = options;
        words.emplace_back("--json");
        EXPECT_THAT(layout_of(here, words),
                    HasSubstr("\"header_length\":" + std::to_string(size) + ","));
    }
}

TEST(FwlogLayout, InfoStandsOnlyWhereTheHeaderHasItsItem)
{
    place here;
    add_layouts(here, {small_layout()});
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"-info", "DBNAME"}, R"({"name":"info","offset":6,)"},
        {{"-exthdr", "-info", "Prog"}, R"({"name":"info","offset":62,)"},
        {{"-exthdr", "-info", "session"}, R"({"name":"info","offset":86,)"},
        {{"-exthdr", "-info", "dbuser"}, R"({"name":"info","offset":94,)"},
        {{"-exthdr", "-info", "dbuser"}, R"({"name":"process_id","offset":118,)"},
        {{"-fga", "-info", "dbname"}, R"({"name":"database","offset":6,)"},
    };
    for (const auto &[options, expected] : cases) {
        std::vector<std::string> words = options;
        words.emplace_back("--json");
        EXPECT_THAT(layout_of(here, words), HasSubstr(expected));
    }
}

// A layout that the log knows the source of, with names of any characters.
static fwu_layout sourced_layout()
{
    fwu_layout layout{.dbname = "SALES",
                      .dsetname = "ORDERS",
                      .items = {item("NR", 'I', 4), item("GR\xD6SSE", 'X', 2, 2),
                                item("MAP", 'X', 3), item("ALONE", 'X', 1)}};
    fwu_source source;
    source.schema = "sales";
    source.table = "auftr\xC3\xA4ge";
    source.columns = {{.name = "gr\xC3\xB6\xC3\x9F"
                               "e",
                       .type = "text[]",
                       .item = 1,
                       .key = 2},
                      {.name = "left_out", .type = "text", .item = -1},
                      {.name = "nr\n", .type = "", .item = 0, .key = 1}};
    source.null_map = 2;
    layout.source = std::make_shared<const fwu_source>(source);
    return layout;
}

TEST(FwlogLayout, SourceOfItemsIsTold)
{
    written_log here;
    here.begin();
    here.insert(sourced_layout(), le(1, 4) + "abcd...x");
    here.commit();
    EXPECT_THAT(layout_of(here, {"--columns"}),
                StartsWith("SALES.ORDERS, table sales.auftr\xC3\xA4ge, layout of 1-1.1\n"));
    EXPECT_THAT(layout_of(here, {"--columns"}), EndsWith(R"(
      63       66      4  S9(9) COMP-5                            0  NR  (nr\x0A)
      67       68      2  X(2)                                    0  GRÖSSE[1]  (größe text[])
      69       70      2  X(2)                                    0  GRÖSSE[2]
      71       73      3  X(3)                                    0  MAP
      74       74      1  X                                       0  ALONE
)"));
    const std::string json = layout_of(here, {"--json"});
    EXPECT_THAT(json, HasSubstr(R"("table":"sales.aufträge",)"));
    EXPECT_THAT(json, HasSubstr(R"({"name":"NR","type":"I","size":4,"count":1,"scale":0,)"
                                R"("column":"nr\u000a","source_type":null,"key":1,)"
                                R"("null_map":false,"null_flag":0,)"));
    EXPECT_THAT(json, HasSubstr(R"({"name":"GRÖSSE","type":"X","size":2,"count":2,"scale":0,)"
                                R"("column":"größe","source_type":"text[]","key":2,)"
                                R"("null_map":false,"null_flag":1,)"));
    EXPECT_THAT(json, HasSubstr(R"({"name":"MAP","type":"X","size":3,"count":1,"scale":0,)"
                                R"("column":null,"source_type":null,"key":null,)"
                                R"("null_map":true,"null_flag":null,)"));
    EXPECT_THAT(layout_of(here, {"--copybook"}),
                testing::AllOf(HasSubstr("Capture records of SALES.ORDERS, table sales.auftr??ge,"),
                               HasSubstr("      * R-GR-SSE is item GR?SSE\n"
                                         "               10  R-GR-SSE ")));
}

// First line of each table.
static std::string headings(const std::string &out)
{
    std::string found;
    for (size_t at = out.find(", layout of "); at != out.npos;
         at = out.find(", layout of ", at + 1)) {
        const size_t begin = out.rfind('\n', at) + 1; // npos + 1: the first line
        found += out.substr(begin, out.find('\n', at) - begin) + "; ";
    }
    return found;
}

TEST(FwlogLayout, NewestLayoutIsTakenOrTheOneAtAPosition)
{
    place here;
    fwu_layout wider = small_layout();
    wider.items[2].count = 3;
    const fwu_layout other{.dbname = "DEPOT", .dsetname = "STOCK", .items = {item("QTY", 'I', 2)}};
    add_layouts(here, {small_layout(), other}, false, 1);
    add_layouts(here, {small_layout()}, false, 2); // as before: begun in file 1
    add_layouts(here, {wider}, false, 3);
    EXPECT_EQ(headings(layout_of(here, {"--columns"})),
              "DEPOT.STOCK, layout of 1-1.2; SALES.ORDERS, layout of 1-3.1; ");
    EXPECT_EQ(headings(layout_of(here, {"--columns", "--at", "2"})),
              "DEPOT.STOCK, layout of 1-1.2; SALES.ORDERS, layout of 1-1.1; ");
    EXPECT_EQ(headings(layout_of(here, {"--columns", "--at", "1-1.1"})),
              "SALES.ORDERS, layout of 1-1.1; ");
    EXPECT_EQ(headings(layout_of(here, {"--columns", "--dset", "sales:"})),
              "SALES.ORDERS, layout of 1-3.1; ");
    EXPECT_EQ(headings(layout_of(here, {"--columns", "--dset", "depot:@", "--dset", "orders"})),
              "DEPOT.STOCK, layout of 1-1.2; SALES.ORDERS, layout of 1-3.1; ");
}

TEST(FwlogLayout, LayoutsWithoutACommitAreNotThereYet)
{
    log_file file(1, false);
    file.layout();
    file.commit();
    fwu_layout wider = small_layout();
    wider.items[2].count = 3;
    fwu_entry_put_layout(file.bytes, ++file.tag, wider);
    place here;
    here.add(1, file.bytes);
    EXPECT_EQ(headings(layout_of(here, {"--columns"})), "SALES.ORDERS, layout of 1-1.1; ");
}

TEST(FwlogLayout, WhatIsNotThereIsAFailureWithItsReason)
{
    place here;
    EXPECT_EQ(run_layout(here, {"--columns"}).err,
              "fwlog: " + here.dir.file("log") +
                  ": no layout of any dataset; it comes with the first change\n");
    add_layouts(here, {small_layout()});
    const run_result none = run_layout(here, {"--json", "--dset", "STOCK"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.err,
              "fwlog: " + here.dir.file("log") + ": no layout of a dataset that --dset selects\n");
    const run_result late = run_layout(here, {"--json", "--at", "1-7.3"});
    EXPECT_EQ(late.status, 1);
    EXPECT_THAT(late.err, StartsWith("fwlog: --at 1-7.3: the log does not have that file"));
}

TEST(FwlogLayout, PositionBehindItsFileIsAFailure)
{
    place here;
    add_layouts(here, {small_layout()}, false, 1);
    const std::string all = layout_of(here, {"--columns"});
    EXPECT_EQ(layout_of(here, {"--columns", "--at", "1-1.2"}), all) << "its commit";
    const run_result behind = run_layout(here, {"--columns", "--at", "1-1.3"});
    EXPECT_EQ(behind.status, 1);
    EXPECT_EQ(behind.out, "");
    EXPECT_EQ(behind.err, "fwlog: --at 1-1.3: its log file ends before it; give a position that "
                          "the log has\n");
    add_layouts(here, {small_layout()}, false, 2);
    EXPECT_EQ(run_layout(here, {"--columns", "--at", "1-1.3"}).status, 1)
        << "though another file follows";
}

TEST(FwlogLayout, NumbersOfTheOtherByteOrderAreWarnedOf)
{
    const auto warned = [](bool big_endian, std::vector<fwu_item> items,
                           const std::vector<std::string> &options) {
        place here;
        add_layouts(here, {{.dbname = "D", .dsetname = "S", .items = std::move(items)}},
                    big_endian);
        std::vector<std::string> words = {"--columns"};
        words.insert(words.end(), options.begin(), options.end());
        const run_result result = run_layout(here, words);
        EXPECT_EQ(result.status, 0);
        return result.err;
    };
    const bool here = std::endian::native == std::endian::big;
    const std::string other = here ? "little" : "big";
    const std::string own = here ? "big" : "little";
    EXPECT_EQ(warned(!here, {item("N", 'I', 2)}, {"-ascii"}),
              "fwlog: warning: D.S: its binary numbers are " + other +
                  "-endian, and Kestro takes them for others with -ascii on this machine: give "
                  "-asciirev\n");
    EXPECT_EQ(warned(here, {item("F", 'E', 8)}, {"-asciirev"}),
              "fwlog: warning: D.S: its binary numbers are " + own +
                  "-endian, and Kestro takes them for others with -asciirev on this machine: "
                  "give -ascii\n");
    EXPECT_EQ(warned(!here, {item("N", 'I', 2)}, {"-asciirev"}), "");
    EXPECT_EQ(warned(here, {item("N", 'I', 2)}, {"-ascii"}), "");
    EXPECT_EQ(warned(!here, {item("N", 'I', 2)}, {}), "") << "raw images";
    EXPECT_EQ(warned(!here, {item("P", 'P', 2), item("X", 'X', 2)}, {"-ascii"}), "");
}

TEST(FwlogLayout, NumberWithoutATextColumnIsRefusedWithARemedyThatHelps)
{
    place here;
    add_layouts(here, {{.dbname = "D", .dsetname = "S", .items = {item("ODD\n", 'I', 3)}}});
    const run_result refused = run_layout(here, {"--columns", "-ascii"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "fwlog: D.S: item ODD\\x0A: a text capture file has no column for a "
                           "number of 3 bytes; leave out -ascii\n");
    EXPECT_THAT(layout_of(here, {"--columns"}),
                EndsWith("      63       65      3  X(3)                                    0  "
                         "ODD\\x0A\n"));
}

TEST(FwlogLayout, DamageIsAFailureUnlessItStandsBehindThePosition)
{
    log_file file = whole_file(1);
    const size_t whole = file.bytes.size();
    file.change(FWU_OP_DELETE, OLD_IMAGE, nullptr);
    file.commit();
    file.bytes[whole + 40] ^= 1; // inside the delete entry
    place here;
    here.add(1, file.bytes);
    const run_result damaged = run_layout(here, {"--columns"});
    EXPECT_EQ(damaged.status, 1);
    EXPECT_EQ(damaged.out, "");
    EXPECT_THAT(damaged.err, HasSubstr("damaged at offset 504"));
    EXPECT_EQ(headings(layout_of(here, {"--columns", "--at", "1-1.5"})),
              "SALES.ORDERS, layout of 1-1.2; ");
}

// 1,600 items of every type, the number of columns that a table can have at most.
TEST(FwlogLayout, CopybookOfAWideTableCompiles)
{
    NEED_PROGRAM("cobc", "gnucobol3");
    place here;
    fwu_layout wide{.dbname = "WIDE", .dsetname = "TABLE", .items = {}};
    int64_t width = 0;
    for (int n = 0; n < 1600; n++) {
        fwu_item one = all_types().items[static_cast<size_t>(n) % all_types().items.size()];
        one.name = "COLUMN-" + std::to_string(n);
        width += one.count * ascii_column_width(static_cast<uint32_t>(one.type), one.size);
        wide.items.push_back(std::move(one));
    }
    add_layouts(here, {wide});
    EXPECT_EQ(run_cobol(here, layout_of(here, {"--copybook", "-ascii"}), "",
                        "       WORKING-STORAGE SECTION.\n       COPY \"capture.cpy\".\n",
                        "           DISPLAY LENGTH OF CAPTURE-NEW-ROW.\n"),
              std::to_string(width) + "\n");
}

TEST(FwlogLayout, ImpossibleLayoutIsRefused)
{
    place here;
    add_layouts(here, {{.dbname = "D",
                        .dsetname = "S",
                        .items = {item("A", 'X', INT32_MAX, INT32_MAX),
                                  item("B", 'X', INT32_MAX, INT32_MAX),
                                  item("C", 'X', INT32_MAX, INT32_MAX)}}});
    const run_result refused = run_layout(here, {"--columns"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "fwlog: D.S: the layout of 1-1.1 describes no record that there can "
                           "be; leave it out with --dset\n");
}

TEST(FwlogLayout, WrongCommandLinesAreRefusedWithStatusTwo)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "give one of --columns, --copybook and --json: layout"},
        {{"--columns", "--json"}, "another form was asked for before: --json"},
        {{"--columns", "-dirty"}, "only with -ascii or -asciirev: -dirty"},
        {{"--columns", "-bwfmt"}, "only with -ascii or -asciirev: -bwfmt"},
        {{"-info", "x"}, "not a header item (DBNAME, DBUSER, PROG or SESSION): x"},
        {{"-info"}, "option lacks its header item: -info"},
        {{"-progterm"}, "option lacks its text: -progterm"},
        {{"--at"}, "option lacks its position: --at"},
        {{"--at", "x"}, "not a position (25, 1-25 or 1-25.340): x"},
        {{"capture.txt"}, "unexpected word: capture.txt"},
    };
    place here;
    add_layouts(here, {small_layout()});
    for (const auto &[words, error] : cases) {
        const run_result result = run_layout(here, words);
        EXPECT_EQ(result.status, 2) << error;
        EXPECT_EQ(result.err, "fwlog: " + error + "\nTry \"fwlog --help\".\n");
    }
}

TEST(FwlogLayout, CopybookOfHostileNamesCompiles)
{
    NEED_PROGRAM("cobc", "gnucobol3");
    place here;
    fwu_layout odd{.dbname = "SECTION", .dsetname = "+-*/?'#%&\n01  X.", .items = {}};
    for (const char *name :
         {"DATE", "MOVE", "A_B", "A-B", "a-b", "-", "--x--", "\xC4\xD6\xDC", "\n       STOP RUN",
          "END-EXEC.", "1", "ABCDEFGHIJKLMNOPQ", "ITEM", "*", "x'\"x", "SEQUENCE", "COUNT"})
        odd.items.push_back(item(name, 'X', 3));
    odd.items.push_back(item("LAST", 'P', 14, 32767, 27));
    fwu_layout same = odd; // the same name for COBOL
    same.dsetname = "+-*/?'#%&+01++X.";
    fwu_layout longest{.dbname = "ABCDEFGHIJKLMNOP", .dsetname = "QRSTUVWXYZABCDEF", .items = {}};
    longest.items.push_back(item("ABCDEFGHIJKLMNOPQ", 'Z', 28, 32767, 14));
    const fwu_layout none{.dbname = "NO", .dsetname = "ITEMS", .items = {}};
    add_layouts(here, {odd, same, longest, none});
    for (const std::vector<std::string> &options :
         {std::vector<std::string>{}, {"-ascii"}, {"-ascii", "-bwfmt"}}) {
        std::vector<std::string> words = options;
        words.insert(words.end(), {"--copybook", "-progterm", "\n       01  EVIL."});
        const std::string copybook = layout_of(here, words);
        for (size_t at = 0; at < copybook.size();) {
            const size_t end = copybook.find('\n', at);
            EXPECT_LE(end - at, 72U);
            at = end + 1;
        }
        EXPECT_THAT(copybook, HasSubstr("      * R-A-B is item A_B\n"));
        EXPECT_THAT(copybook, HasSubstr("  R-A-B-2  "));
        EXPECT_EQ(run_cobol(here, copybook, "",
                            "       WORKING-STORAGE SECTION.\n       COPY \"capture.cpy\".\n",
                            "           DISPLAY LENGTH OF CAPTURE-ROW OF\n"
                            "               ABCDEFGHIJKLMNOP-QRSTUVWXY-REC.\n"),
                  options.empty() ? "917476\n" : "950243\n");
    }
}

struct number_bytes {
    bool big_endian;
    std::string bytes;

    void put(uint64_t value, size_t size)
    {
        for (size_t i = 0; i < size; i++) {
            const size_t shift = 8 * (big_endian ? size - 1 - i : i);
            bytes.push_back(static_cast<char>(value >> shift));
        }
    }
};

static std::string extremes(bool big_endian)
{
    number_bytes image{big_endian, ""};
    image.put(0x8000, 2);
    image.put(0, 2);
    image.put(0x7FFF, 2);
    image.put(0x80000000, 4);
    image.put(0x8000000000000000, 8);
    image.put(0xFFFF, 2);
    image.put(0xFFFFFFFF, 4);
    image.put(0xFFFFFFFFFFFFFFFF, 8);
    image.bytes += "\x7C";                                                     // 7
    image.bytes += "\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x99\x9D"; // -27 nines
    image.bytes += std::string("\x00\x5D", 2);                                 // -.005
    image.bytes += "5";
    image.bytes += "999999999999999999999999999R"; // -28 nines
    image.bytes += "012C";                         // 1.23
    image.bytes += "a,b";
    image.put(0xC0500000, 4);         // -3.25
    image.put(0x442043561A882930, 8); // 1.5e20
    return image.bytes;
}

static const char EXTREMES_TEXT[] = "-000000000000000000000000032768.0000\n"
                                    "+000000000000000000000000000000.0000\n"
                                    "+000000000000000000000000032767.0000\n"
                                    "-000000000000000000002147483648.0000\n"
                                    "-000000000009223372036854775808.0000\n"
                                    "+000000000000000000000000065535.0000\n"
                                    "+000000000000000000004294967295.0000\n"
                                    "+000000000018446744073709551615.0000\n"
                                    "+000000000000000000000000000007.0000\n"
                                    "-000000099999999999999999999999.9999\n"
                                    "-000000000000000000000000000000.0050\n"
                                    "+000000000000000000000000000005.0000\n"
                                    "-000009999999999999999999999999.9990\n"
                                    "+000000000000000000000000000001.2300\n"
                                    "[a,b]\n";

struct cobol_case {
    const char *name;
    std::vector<std::string> options;
    bool big_endian;
    std::string floats; // what is displayed of them
    std::string floats_text;
};

static const std::vector<cobol_case> &cobol_cases()
{
    static const std::string numval = "           COMPUTE DOUBLE-NUM = FUNCTION NUMVAL-F (R-E4).\n"
                                      "           DISPLAY DOUBLE-NUM.\n"
                                      "           COMPUTE DOUBLE-NUM = FUNCTION NUMVAL-F (R-R8).\n"
                                      "           DISPLAY DOUBLE-NUM.\n";
    static const std::string direct = "           DISPLAY R-E4.\n           DISPLAY R-R8.\n";
    static const std::string bytes =
        "           IF R-E4 = X\"C0500000\" AND R-R8 = X\"442043561A882930\"\n"
        "               DISPLAY \"bytes\".\n";
    static const std::vector<cobol_case> cases = {
        {"Text", {"-ascii"}, false, numval, "-3.25\n1.5E+20\n"},
        {"TextBwfmt", {"-ascii", "-bwfmt"}, false, numval, "-3.25\n1.5E+20\n"},
        {"TextReversed", {"-asciirev", "-exthdr"}, true, numval, "-3.25\n1.5E+20\n"},
        {"RawLittleEndian", {"-recnum"}, false, direct, "-3.25\n1.5E+20\n"},
        {"RawBigEndian", {"-yyyy"}, true, bytes, "bytes\n"},
    };
    return cases;
}

class CopybookExtremes : public testing::TestWithParam<cobol_case> {};

TEST_P(CopybookExtremes, ArriveInNumericItems)
{
    NEED_PROGRAM("cobc", "gnucobol3");
    const cobol_case &form = GetParam();
    const bool text = form.options[0].starts_with("-ascii");
    place here;
    log_file file(1, form.big_endian);
    const std::string image = extremes(form.big_endian);
    const auto *const bytes = reinterpret_cast<const unsigned char *>(image.data());
    fwu_entry_put_layout(file.bytes, ++file.tag, all_types());
    file.added();
    fwu_entry_put_change(file.bytes, ++file.tag,
                         {.dbname = "TEST",
                          .dsetname = "ALL",
                          .logtime = 1,
                          .opcode = FWU_OP_INSERT,
                          .recnum = 1,
                          .reclen = static_cast<int32_t>(image.size()),
                          .after = bytes});
    file.added();
    file.commit();
    here.add(1, file.bytes);

    run_setup in_directory;
    in_directory.directory = here.dir.path();
    std::vector<std::string> words = {KESTRO_BUILD_DIR "/bin/Kestro", "-synconly"};
    words.insert(words.end(), form.options.begin(), form.options.end());
    words.emplace_back("capture");
    const run_result captured = run_program(words, in_directory);
    ASSERT_EQ(captured.status, 0) << captured.err;
    if (!text) {
        const run_result records =
            run_program({KESTRO_BUILD_DIR "/bin/tmf", "read", "--raw", "capture"}, in_directory);
        ASSERT_EQ(records.status, 0) << records.err;
        write_file(here.dir.file("capture"), records.out);
    }

    std::string statements = "           OPEN INPUT CAPTURE-FILE.\n"
                             "           READ CAPTURE-FILE.\n";
    for (const char *name : {"R-I2 (1)", "R-I2 (2)", "R-I2 (3)", "R-I4", "R-J8", "R-K2", "R-K4",
                             "R-K8", "R-P1", "R-P14", "R-P2", "R-Z1", "R-Z28", "R-Z4"})
        statements += std::string("           MOVE ") + name + " TO NUM DISPLAY NUM.\n";
    statements += "           DISPLAY \"[\" R-X3 \"]\".\n" + form.floats;
    words = form.options;
    words.emplace_back("--copybook");
    const std::string shown =
        run_cobol(here, layout_of(here, words),
                  std::string("       ENVIRONMENT DIVISION.\n"
                              "       INPUT-OUTPUT SECTION.\n"
                              "       FILE-CONTROL.\n"
                              "           SELECT CAPTURE-FILE ASSIGN TO \"capture\"\n"
                              "               ORGANIZATION IS ") +
                      (text ? "LINE " : "") + "SEQUENTIAL.\n",
                  "       FILE SECTION.\n"
                  "       FD  CAPTURE-FILE.\n"
                  "       COPY \"capture.cpy\".\n"
                  "       WORKING-STORAGE SECTION.\n"
                  "       01  NUM                    PIC +9(30).9(4).\n"
                  "       01  DOUBLE-NUM             COMP-2.\n",
                  statements, {"-fsign=EBCDIC"});
    EXPECT_EQ(shown, EXTREMES_TEXT + form.floats_text);
}

INSTANTIATE_TEST_SUITE_P(Forms, CopybookExtremes, testing::ValuesIn(cobol_cases()),
                         [](const auto &of) { return std::string(of.param.name); });
