// What is captured comes out as it went in: message and text files, JSON and CSV, and what does
// not fit is refused.
#include "tests/support/schema_check.h"
#include "tests/tools/capread/capread_fixture.h"

#include <algorithm>

static const std::vector<std::string> ALL = {"-exthdr", "-yyyy", "-recnum"};

static std::vector<std::string> with(std::vector<std::string> words,
                                     const std::vector<std::string> &more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

TEST_F(Capread, EveryOperationOfAMessageFile)
{
    insert(1);
    add(FWU_OP_UPDATE, capread_image(1, "Jo  "), capread_image(2, "Ann "));
    add(FWU_OP_DELETE, capread_image(2, "Ann "), "");
    kestro({"m"});
    make_layouts();
    const std::string jo = capread_values(1, "\"Jo\"");
    const std::string ann = capread_values(2, "\"Ann\"");
    const std::string wanted =
        capread_line("c", "null", jo) + capread_line("u", jo, ann) + capread_line("d", ann, "null");
    EXPECT_EQ(lines({"--layout", "layouts.json", "m"}), wanted);
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "m"}), wanted);
    EXPECT_EQ(records("m"), 3);
}

TEST_F(Capread, HeaderItemsAndLayoutLine)
{
    insert(1);
    kestro(with(ALL, {"m"}));
    const run_result result = capread(with(ALL, {"-cfg", "fwutil.cfg", "m"}));
    EXPECT_EQ(
        result.out,
        R"({"schema":{"database":"SALES","dataset":"ORDERS","table":null,"position":"1-1.2",)"
        R"("items":[{"name":"NO","type":"I","size":4,"count":1,"scale":0,"column":null,"source_type":null,"key":null,"nullable":true},)"
        R"({"name":"NAME","type":"X","size":4,"count":1,"scale":0,"column":null,"source_type":null,"key":null,"nullable":true},)"
        R"({"name":"NET","type":"P","size":3,"count":2,"scale":1,"column":null,"source_type":null,"key":null,"nullable":true}],)"
        R"("key":[],"null_map":"NULL-MAP"}})"
        "\n"
        R"({"op":"c","before":null,"after":{"NO":1,"NAME":"Jo","NET":[12.3,-4.5]},)"
        R"("source":{"database":"SALES","dataset":"ORDERS","table":null,"position":null,"record":1,"xid":null,"lsn":null,"commit_us":null,)"
        R"("program":"till","user":"KASSE1","login":null,"pid":4711},"transaction":null,"ts_ms":1700000000000})"
        "\n");
    EXPECT_EQ(result.err, "");
    const run_result checked = schema_check(result.out);
    if (checked.status == SCHEMA_CHECK_ABSENT)
        GTEST_SKIP() << SCHEMA_CHECK_SKIPPED;
    EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
}

TEST_F(Capread, MarksOfTheNullMap)
{
    add(FWU_OP_INSERT, "", capread_image(1, "Jo  ", "N?!"));
    add(FWU_OP_INSERT, "", capread_image(1, "Joan", "RC."));
    kestro({"m"});
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "m"}),
              capread_line("c", "null", R"({"NO":null})") +
                  capread_line("c", "null", R"({"NO":1,"NAME":"Joan","NET":[12.3,-4.5]})"));
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "--csv", "--columns", "NO,NAME,_unknown", "m"}),
              "_op,_position,NO,NAME,_unknown\r\nc,,,,\"NAME,NET\"\r\nc,,1,Joan,\r\n");
}

TEST_F(Capread, TextInEveryForm)
{
    insert(1, "J\xF6  ");
    add(FWU_OP_UPDATE, capread_image(1, "Jo  "), capread_image(0xFFFFFFFF, "A\nb "));
    const std::string first = capread_line("c", "null", capread_values(1, "\"J~\""));
    const std::string second =
        capread_line("u", capread_values(1, "\"Jo\""), capread_values(-1, "\"A~b\""));
    const std::string told = "capread: t: SALES.ORDERS: a text capture is not exact: \"~\" for "
                             "each byte that is no printable ASCII: NAME\n";
    for (const std::vector<std::string> &form :
         std::vector<std::vector<std::string>>{{"-ascii"}, {"-ascii", "-bwfmt"}}) {
        std::filesystem::remove(file("t"));
        kestro(with(form, {"t"}));
        const run_result result = capread(with(form, {"-cfg", "fwutil.cfg", "t"}));
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(without_layouts(result.out), first + second);
        EXPECT_EQ(result.err, told);
    }
    // A line end inside a text ends no record.
    kestro({"-ascii", "-dirty", "d"});
    EXPECT_EQ(
        lines({"-cfg", "fwutil.cfg", "-ascii", "-dirty", "d"}),
        capread_line("c", "null", capread_values(1, "\"J\xC3\xB6\"")) +
            capread_line("u", capread_values(1, "\"Jo\""), capread_values(-1, "\"A\\u000ab\"")));
    // What was read in the wrong order is turned back.
    kestro({"-asciirev", "-dirty", "r"});
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "-asciirev", "-dirty", "r"}),
              lines({"-cfg", "fwutil.cfg", "-ascii", "-dirty", "d"}));
}

TEST_F(Capread, WhatIsNoNumberIsHex)
{
    using namespace std::string_literals;
    add(FWU_OP_INSERT, "", le(1, 4) + "Jo  " + "\x41\x42\x43\x01\x02\x3A"s + "...");
    kestro({"m", "-ascii", "t", "-ascii", "-dirty", "d"});
    const auto wanted = [](const char *second) {
        return R"({"NO":1,"NAME":"Jo","NET":[{"hex":"414243"},{"hex":")" + std::string(second) +
               R"("}]})";
    };
    // 0x41424 with the sign 3 is none; of 0x01023A a text shows "~~:".
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "m"}), capread_line("c", "null", wanted("01023a")));
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "-ascii", "-dirty", "d"}),
              capread_line("c", "null", wanted("01023a")));
    const run_result text = capread({"-cfg", "fwutil.cfg", "-ascii", "t"});
    EXPECT_EQ(without_layouts(text.out), capread_line("c", "null", wanted("7e7e3a")));
}

TEST_F(Capread, FloatsAreToldAndOfTheOtherOrderRefused)
{
    const fwu_layout layout = {.dbname = "SALES",
                               .dsetname = "W",
                               .items = {{"RATE", 'E', 4, 1, 0}, {"NO", 'I', 2, 1, 0}}};
    log.begin();
    log.insert(layout, le(0x3F000000, 4) + le(7, 2));
    log.commit();
    kestro({"-ascii", "t", "-asciirev", "r"});
    const run_result good = capread({"-cfg", "fwutil.cfg", "-ascii", "--csv", "t"});
    EXPECT_EQ(good.out, "_op,_position,RATE,NO\r\nc,,0.5,7\r\n");
    EXPECT_EQ(good.err, "capread: t: SALES.W: a text capture is not exact: so many digits of "
                        "floating-point numbers: RATE (7)\n");
    const run_result bad = capread({"-cfg", "fwutil.cfg", "-asciirev", "r"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.err,
              "capread: r: record 1: at byte 0: SALES.W: item RATE: a text file made with "
              "-asciirev on a machine like this does not tell little-endian floating-point "
              "numbers; capture with -ascii\n");
}

TEST_F(Capread, CsvIsOfOneDatasetInOneLayout)
{
    insert(1);
    add(FWU_OP_INSERT, "", capread_image(2, "Ann "), "OTHER");
    insert(3);
    kestro({"-recnum", "m"});
    const run_result both = capread({"-cfg", "fwutil.cfg", "-recnum", "--csv", "m"});
    EXPECT_EQ(both.status, 1);
    EXPECT_EQ(both.out, "_op,_position,NO,NAME,NET[1],NET[2]\r\nc,,1,Jo,12.3,-4.5\r\n");
    EXPECT_EQ(both.err, "capread: m: record 2: it is of SALES.OTHER, and the CSV is of "
                        "SALES.ORDERS; choose one with --dset\n");
    EXPECT_EQ(
        lines({"-cfg", "fwutil.cfg", "-recnum", "--csv", "--dset", "sales:orders", "--columns",
               "_record,NO,_time,_transaction,_n,_lsn,_xid,_commit_us", "m"}),
        "_op,_position,_record,NO,_time,_transaction,_n,_lsn,_xid,_commit_us\r\n"
        "c,,1,1,2023-11-14 22:13:20.000000,,,,,\r\nc,,3,3,2023-11-14 22:13:20.000000,,,,,\r\n");
    EXPECT_EQ(capread({"-cfg", "fwutil.cfg", "-recnum", "--csv", "--columns", "NIX", "m"}).status,
              1);
}

TEST_F(Capread, LayoutThatHeldAtTheRecordsNumber)
{
    insert(1);
    fwu_layout wider = capread_layout();
    wider.items[1].size = 6;
    log.begin();
    log.insert(wider, capread_image(2, "Joanna"));
    log.commit();
    kestro({"-recnum", "m"});
    kestro({"n"});
    EXPECT_THAT(lines({"-cfg", "fwutil.cfg", "-recnum", "m"}),
                testing::AllOf(HasSubstr("\"Jo\""), HasSubstr("\"Joanna\"")));
    const run_result csv = capread({"-cfg", "fwutil.cfg", "-recnum", "--csv", "m"});
    EXPECT_EQ(csv.status, 1);
    EXPECT_EQ(csv.err, "capread: m: record 2: SALES.ORDERS has another layout from here on, and "
                       "CSV has one; print JSON\n");
    const run_result newest = capread({"-cfg", "fwutil.cfg", "n"});
    EXPECT_EQ(newest.status, 1);
    EXPECT_EQ(newest.err, "capread: n: record 1: it has 79 bytes, where one of SALES.ORDERS has "
                          "81\n");
}

TEST_F(Capread, RefusesWhatDoesNotFit)
{
    insert(1);
    kestro({"-yyyy", "m", "-ascii", "-yyyy", "t"});
    const auto refused = [this](const std::vector<std::string> &words) {
        const run_result result = capread(with({"-cfg", "fwutil.cfg"}, words));
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        return result.err;
    };
    const std::string date = R"(at offset 46 stands "2023111422:13:", where these options have )"
                             "the time, YYMMDDhh:mm:ss\n";
    EXPECT_EQ(refused({"m"}), "capread: m: record 1: " + date);
    EXPECT_EQ(refused({"-ascii", "t"}), "capread: t: record 1: at byte 0: " + date);
    EXPECT_EQ(refused({"-yyyy", "t"}), "capread: t: File is not a message file.\n");
    EXPECT_EQ(refused({"-yyyy", "-ascii", "none"}), "capread: none: No such file or directory\n");
    EXPECT_EQ(refused({"none"}), "capread: none: No such file or directory\n");
    EXPECT_FALSE(std::filesystem::exists(file("none")));

    write_file(file("short"), "");
    EXPECT_EQ(refused({"short"}), "capread: short: File is not a message file.\n");
    const std::string line = read_file(file("t"));
    write_file(file("x"), line.substr(0, 20) + "\n" + line);
    EXPECT_EQ(refused({"-ascii", "-yyyy", "x"}),
              "capread: x: record 1: at byte 0: the line has 20 bytes, where these options have a "
              "header of 64\n");
    write_file(file("x"), line.substr(0, 70) + "\n" + line);
    EXPECT_EQ(refused({"-ascii", "-yyyy", "x"}),
              "capread: x: record 1: at byte 0: the line has 70 bytes, where one of SALES.ORDERS "
              "has 97\n");
    write_file(file("x"), line.substr(0, 97) + "x\n");
    EXPECT_EQ(refused({"-ascii", "-yyyy", "x"}),
              "capread: x: record 1: at byte 0: the line does not end where one of SALES.ORDERS "
              "has 97 bytes\n");
    std::string wrong = line;
    wrong.replace(64, 14, "          1o12");
    write_file(file("x"), wrong);
    EXPECT_EQ(refused({"-ascii", "-yyyy", "x"}),
              "capread: x: record 1: at byte 0: SALES.ORDERS: item NO: \"          1o12\" is not a "
              "signed number\n");
    EXPECT_EQ(refused({"-ascii", "-yyyy", "-bwfmt", "t"}),
              "capread: t: record 1: at byte 0: SALES.ORDERS: item NET: \"+00123\" is not a packed "
              "decimal number of -bwfmt\n");

    tmf_handle *h = tmf_fopen(file("m").c_str(), 0);
    EXPECT_EQ(tmf_fwrite(h, "short", 5), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
    const run_result second = capread({"-cfg", "fwutil.cfg", "-yyyy", "m"});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(without_layouts(second.out), capread_line("c", "null", capread_values(1, "\"Jo\"")));
    EXPECT_EQ(second.err, "capread: m: record 2: it has 5 bytes, where these options have a header "
                          "of 64\n");
}

TEST_F(Capread, LineEndsInTheSessionsTexts)
{
    for (uint64_t n = 1; n <= 2; n++) {
        fwu_session session;
        session.pname = "/opt/till\n-initial";
        session.user = "\nKAS\n";
        session.login = "a\nb";
        session.pid = "12";
        session.info = "\n\ninfo";
        log.begin(&session);
        log.change(FWU_OP_INSERT, capread_layout(), "", capread_image(n, "Jo  "));
        log.commit();
    }
    const std::vector<std::string> info = {"-exthdr", "-info", "dbname"};
    for (const std::vector<std::string> &form : {ALL, info}) {
        kestro(with(form, {"m" + std::to_string(runs)}));
        const std::string message = "m" + std::to_string(runs - 1);
        const std::string wanted = lines(with(form, {"-cfg", "fwutil.cfg", message}));
        EXPECT_THAT(wanted, HasSubstr(R"("user":"\u000aKAS\u000a","login":"a\u000ab","pid":12)"));
        const std::string text = "t" + std::to_string(runs);
        kestro(with(form, {"-ascii", text}));
        const run_result result = capread(with(form, {"-cfg", "fwutil.cfg", "-ascii", text}));
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(without_layouts(result.out), wanted);
    }
}

TEST_F(Capread, TornLastLineIsTold)
{
    insert(1);
    insert(2);
    kestro({"-ascii", "-dirty", "t"});
    const std::string text = read_file(file("t"));
    const std::string first = capread_line("c", "null", capread_values(1, "\"Jo\""));
    const size_t line = text.size() / 2;
    for (size_t end = line + 1; end < text.size(); end += 7) {
        write_file(file("x"), text.substr(0, end));
        const run_result result = capread({"-cfg", "fwutil.cfg", "-ascii", "-dirty", "x"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(without_layouts(result.out), first);
        EXPECT_EQ(result.err, "capread: x: record 2: at byte " + std::to_string(line) +
                                  ": the file ends within the line, behind " +
                                  std::to_string(end - line) +
                                  " bytes; the records before it are whole\n");
    }
    write_file(file("x"), text.substr(0, text.size() - 1)); // but for its end
    EXPECT_EQ(capread({"-cfg", "fwutil.cfg", "-ascii", "-dirty", "x"}).status, 1);
    EXPECT_EQ(
        without_layouts(
            capread({"-cfg", "fwutil.cfg", "-ascii", "-dirty", "-"}, text.substr(0, line)).out),
        first);
}

TEST_F(Capread, RemovesWhatIsWritten)
{
    for (uint64_t n = 1; n <= 3; n++)
        insert(n);
    kestro({"m"});
    const std::string all = lines({"-cfg", "fwutil.cfg", "m"});
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "--remove", "m"}), all);
    EXPECT_EQ(records("m"), 0);
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "--remove", "m"}), "");
}

TEST_F(Capread, KeepsWhatCannotBeWritten)
{
    for (uint64_t n = 1; n <= 3; n++)
        insert(n);
    kestro({"m"});
    const run_result result = run_program(
        {"/bin/sh", "-c", KESTRO_BUILD_DIR "/bin/capread -cfg fwutil.cfg --remove m > /dev/full"},
        setup());
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "capread: writing standard output: No space left on device\n");
    EXPECT_EQ(records("m"), 3);
}

TEST_F(Capread, KeepsWhatIsBeyondTheFileSizeLimit)
{
    for (uint64_t n = 1; n <= 20; n++)
        insert(n);
    kestro({"m"});
    const std::string all = capread({"-cfg", "fwutil.cfg", "m"}).out;
    const run_result result = run_program({"/bin/sh", "-c",
                                           "ulimit -f 4; " KESTRO_BUILD_DIR
                                           "/bin/capread -cfg fwutil.cfg --remove m > out"},
                                          setup());
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "capread: writing standard output: File too large\n");
    const std::string out = read_file(file("out"));
    EXPECT_EQ(out, all.substr(0, out.size()));
    const auto whole = std::count(out.begin(), out.end(), '\n') - 1; // but for the layout
    EXPECT_GT(whole, 0);
    EXPECT_EQ(records("m"), 20 - whole);
}

TEST_F(Capread, RefusedRecordIsNotRemoved)
{
    insert(1);
    kestro({"m"});
    tmf_handle *h = tmf_fopen(file("m").c_str(), 0);
    EXPECT_EQ(tmf_fwrite(h, "short", 5), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
    EXPECT_EQ(capread({"-cfg", "fwutil.cfg", "--remove", "m"}).status, 1);
    EXPECT_EQ(records("m"), 1);
}

TEST_F(Capread, ChosenDatasets)
{
    insert(1);
    add(FWU_OP_INSERT, "", capread_image(2, "Ann "), "OTHER");
    kestro({"m"});
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "--dset", "sales:orders", "m"}),
              capread_line("c", "null", capread_values(1, "\"Jo\"")));
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "--dset", "sales:nix", "m"}), "");
}

// The layout file has one of two datasets.
TEST_F(Capread, DatasetsThatAreNotChosenNeedNoLayout)
{
    insert(1);
    make_layouts();
    add(FWU_OP_UPDATE, capread_image(2, "A\nn "), capread_image(3, "Ann "), "OTHER");
    add(FWU_OP_DELETE, capread_image(3, "Ann "), "", "OTHER");
    insert(4);
    const std::string wanted = capread_line("c", "null", capread_values(1, "\"Jo\"")) +
                               capread_line("c", "null", capread_values(4, "\"Jo\""));
    kestro({"m"});
    kestro({"-fga", "f"});
    kestro({"-ascii", "t"});
    kestro({"-ascii", "-dirty", "d"});
    const auto layouts = [](const std::vector<std::string> &words) {
        return with({"--layout", "layouts.json"}, words);
    };
    for (const char *pattern : {"sales:orders", "orders", "@:ord@"}) {
        EXPECT_EQ(lines(layouts({"--dset", pattern, "m"})), wanted);
        EXPECT_EQ(lines(layouts({"--dset", pattern, "-fga", "f"})), wanted);
        EXPECT_EQ(without_layouts(capread(layouts({"--dset", pattern, "-ascii", "t"})).out),
                  wanted);
    }
    EXPECT_EQ(lines(layouts({"--dset", "shop:other", "m"})), "");
    const std::string lacks = "layouts.json has no layout of \"" + std::string("SALES") +
                              std::string(19, ' ') + "OTHER" + std::string(11, ' ') + "\"\n";
    const auto refused = [&](const std::vector<std::string> &words) {
        const run_result result = capread(layouts(words));
        EXPECT_EQ(result.status, 1);
        return result.err;
    };
    EXPECT_EQ(refused({"m"}), "capread: m: record 2: " + lacks);
    EXPECT_EQ(refused({"--dset", "sales:other", "m"}), "capread: m: record 2: " + lacks);
    // The header may have a part of the database's name.
    EXPECT_EQ(refused({"--dset", "shop:other", "-fga", "f"}), "capread: f: record 2: " + lacks);
    // Only the layout tells where a line ends that may hold line ends.
    EXPECT_THAT(refused({"--dset", "orders", "-ascii", "-dirty", "d"}), HasSubstr(lacks));

    const std::string text = read_file(file("t"));
    const size_t last = text.rfind('\n', text.rfind('\n', text.size() - 2) - 1) + 1;
    write_file(file("x"), text.substr(0, last + 70));
    EXPECT_THAT(refused({"--dset", "orders", "-ascii", "x"}),
                HasSubstr("capread: x: record 3: at byte " + std::to_string(last) +
                          ": the file ends within the line, behind 70 bytes; "));
    write_file(file("x"), text.substr(last, 70) + std::string(8 * 1024 * 1024, 'x'));
    EXPECT_THAT(refused({"--dset", "orders", "-ascii", "x"}),
                testing::MatchesRegex("capread: x: record 1: at byte 0: the line does not end "
                                      "within [0-9]+ bytes\n"));
}

TEST_F(Capread, NumbersAsText)
{
    insert(1);
    kestro({"m"});
    EXPECT_EQ(lines({"-cfg", "fwutil.cfg", "--numbers", "text", "m"}),
              capread_line("c", "null", R"({"NO":"1","NAME":"Jo","NET":["12.3","-4.5"]})"));
}

// A record is asked for in a usual length first.
TEST_F(Capread, RemovesLongRecordsWhole)
{
    std::string wanted;
    int number = 0;
    for (const int length : {10, 2048 - 63, 2048 - 62, 2048 - 61, 30000, 10}) {
        fwu_layout layout = capread_layout("LONG" + std::to_string(++number));
        layout.items = {{"TEXT", 'X', length, 1, 0}};
        const std::string text = std::string(static_cast<size_t>(length) - 1, 'x') + "y";
        log.begin();
        log.change(FWU_OP_INSERT, layout, "", text);
        log.commit();
        wanted += text + "\n";
    }
    kestro({"m"});
    const run_result result = capread({"-cfg", "fwutil.cfg", "--remove", "m"});
    EXPECT_EQ(result.err, "");
    std::string found;
    std::istringstream in(without_layouts(result.out));
    for (std::string line; std::getline(in, line);) {
        const size_t at = line.find("\"TEXT\":\"") + 8;
        found += line.substr(at, line.find('"', at) - at) + "\n";
    }
    EXPECT_EQ(found, wanted);
    EXPECT_EQ(records("m"), 0);
}
