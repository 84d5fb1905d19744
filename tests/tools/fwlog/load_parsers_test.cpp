// The load command with the swift parser of its lines and without: the log, what is said and the
// exit status are the same.
#include "tests/support/log_lines.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <random>

static const std::string example = KESTRO_SOURCE_DIR "/examples/orders/";

struct loaded {
    run_result result;
    std::vector<std::string> log;
};

static loaded load(const std::string &cfg, const std::string &stream, bool plain)
{
    const tempdir dir;
    write_file(dir.file("fwutil.cfg"), cfg);
    run_setup options;
    options.directory = dir.path();
    options.input = stream;
    if (plain)
        options.env["SIMDJSON_FORCE_IMPLEMENTATION"] = "none"; // the library then takes no line
    const run_result result = run_program({KESTRO_BUILD_DIR "/bin/fwlog", "load"}, options);
    return {result, log_lines(dir.file("log"))};
}

// Loads a stream both ways; gives what both say.
static loaded load_alike(const std::string &cfg, const std::string &stream)
{
    loaded swift = load(cfg, stream, false);
    const loaded plain = load(cfg, stream, true);
    const std::string start = stream.substr(0, 200);
    EXPECT_EQ(swift.result.status, plain.result.status) << start;
    EXPECT_EQ(swift.result.out, plain.result.out) << start;
    EXPECT_EQ(swift.result.err, plain.result.err) << start;
    EXPECT_EQ(swift.log, plain.log) << start;
    return swift;
}

static const std::string cfg = "log-directory log\n"
                               "database SALES\n"
                               "dataset ORDERS\n"
                               "item NOTE X 10\n"
                               "item AMOUNT P 5 scale=2\n";

static std::string line_of(const char *action)
{
    return R"({"action":")" + std::string(action) +
           R"(","xid":7,"timestamp":"2026-11-20 22:08:38+00","lsn":"0/10"})";
}

static const std::string begin = line_of("B");
static const std::string commit = line_of("C");

static std::string insert(const std::string &note, const std::string &amount)
{
    return R"({"action":"I","xid":7,"schema":"sales","table":"orders","columns":[)"
           R"({"name":"note","type":"text","value":)" +
           note + R"(},{"name":"amount","type":"numeric","value":)" + amount + "}]}";
}

TEST(FwlogLoadParsers, RecordedStreamGivesTheSameLog)
{
    const loaded done =
        load_alike(read_file(example + "fwutil.cfg"), read_file(example + "orders-changes.jsonl"));
    EXPECT_EQ(done.result.status, 0);
    EXPECT_EQ(count_lines(done.log, "commit "), 1195U);
}

TEST(FwlogLoadParsers, LinesHoweverTheyEndGiveTheSameLog)
{
    const std::string change = insert(R"("a\u00fcb")", "12.50");
    const std::string long_note =
        std::string(R"({"other":")") + std::string(8 * 1024 * 1024, 'x') + "\"," + change.substr(1);
    for (const std::string &stream : {
             begin + "\n" + change + "\n" + commit + "\n",
             begin + "\n" + insert(R"("\u0000")", "1e3") + "\n" + commit + "\n",
             begin + "\n" + insert("\"\"", "1" + std::string(300, '0') + "e-300") + "\n" + commit +
                 "\n",
             begin + "\n" + change + "\n" + commit,                          // no last line end
             begin + "\r\n" + change + "\r\n" + commit + "\r\n",             //
             "\n\n" + begin + "\n \t\n" + change + "\n\r\n" + commit + "\n", // blank lines
             "\xEF\xBB\xBF" + begin + "\n" + change + "\n" + commit + "\n",
             begin + "\n" + long_note + "\n" + change + "\n" + commit + "\n",
         }) {
        const loaded done = load_alike(cfg, stream);
        EXPECT_EQ(done.result.status, 0) << done.result.err;
        EXPECT_GE(count_lines(done.log, "insert SALES.ORDERS "), 1U);
    }
}

// With the places where they are told.
TEST(FwlogLoadParsers, WhatIsWrongIsToldAlike)
{
    const std::string change = insert("\"a\"", "1");
    const struct {
        std::string line; // the third
        std::string told;
    } cases[] = {
        {change + "x", "is not valid JSON at byte 156: invalid literal; expected end of input"},
        {change.substr(0, 40), "is not valid JSON at byte 41: invalid string: missing closing "
                               "quote"},
        {insert("\"a\xFF\"", "1"), "is not valid JSON at byte 107: invalid string: ill-formed "
                                   "UTF-8 byte"},
        {insert("\"a\"", "01"), "is not valid JSON at byte 153: unexpected number literal; "
                                "expected '}'"},
        {insert("\"a\"", "12345678901.5"), "sales.orders.amount"},
        {insert("\"a\"", "\"x\""), "sales.orders.amount"},
        {insert("\"12345678901\"", "1"), "sales.orders.note"},
        {insert("{}", "1"), "sales.orders.note has a JSON object as its value"},
        {R"({"x":[1,})" + change.substr(1), "is not valid JSON at byte 9: unexpected '}'"},
        {line_of("X"), "action \"X\" is none of B, I, U, D, C, M, T"},
        {begin, "a transaction begins inside transaction 7 (begun in line 1)"},
    };
    for (const auto &row : cases) {
        const loaded done =
            load_alike(cfg, begin + "\n" + change + "\n" + row.line + "\n" + commit + "\n");
        EXPECT_EQ(done.result.status, 1) << row.line;
        EXPECT_EQ(done.result.err.find("fwlog: standard input:3: " + row.told), 0U)
            << done.result.err << row.line;
        EXPECT_EQ(count_lines(done.log, "commit "), 0U);
    }
}

TEST(FwlogLoadParsers, StreamsCutOffAnywhereAreLoadedAlike)
{
    const std::string stream =
        begin + "\n" + insert(R"("\u00fc")", "-0.5") + "\n" + commit + "\n" + begin + "\n";
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int i = 0; i < 15; i++)
        (void)load_alike(cfg, stream.substr(0, random() % stream.size()));
}
