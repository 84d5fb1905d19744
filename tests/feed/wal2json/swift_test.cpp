// The two parsers of a change stream's lines: whatever a line holds, what it gives and why it is
// refused is the same with the swift one as without, on each kind of processor.
#include "feed/wal2json/parse.h"
#include "feed/wal2json/pieces.h"
#include "feed/wal2json/swift.h"
#include "tests/feed/wal2json/line_shown.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <sys/mman.h>
#include <unistd.h>

#ifdef KESTRO_WITH_SIMDJSON
#include <simdjson.h>

// Runs it once for each set of instructions that the library has code for and this machine has.
static void on_each_processor(const std::function<void()> &run)
{
    const simdjson::implementation *const own = simdjson::get_active_implementation();
    int kinds = 0;
    for (const simdjson::implementation *kind : simdjson::get_available_implementations()) {
        if (!kind->supported_by_runtime_system())
            continue;
        SCOPED_TRACE(kind->name());
        simdjson::get_active_implementation() = kind;
        run();
        kinds++;
    }
    simdjson::get_active_implementation() = own;
    EXPECT_GT(kinds, 0);
}
#else
static void on_each_processor(const std::function<void()> &run)
{
    run();
}
#endif

// The parser's memory may have had other lines before, the record has not.
static std::string by_both(std::string_view text, w2j_swift_memory &memory)
{
    w2j_line line;
    line.swift = std::move(memory);
    const outcome done = w2j_parse(line, text);
    std::string shown = shown_line(line, done);
    memory = std::move(line.swift);
    return shown;
}

static std::string by_both(std::string_view text)
{
    w2j_swift_memory fresh;
    return by_both(text, fresh);
}

static std::string by_plain(std::string_view text)
{
    w2j_line line;
    const outcome done = w2j_parse_plain(line, text);
    return shown_line(line, done);
}

static bool is_swift(std::string_view text)
{
    w2j_line line;
    w2j_pieces pieces(line);
    return w2j_swift_tell(line.swift, pieces, text);
}

static std::vector<std::string> recorded_lines()
{
    std::vector<std::string> lines;
    std::ifstream stream(KESTRO_SOURCE_DIR "/examples/orders/orders-changes.jsonl");
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

// An insert whose one column has this value, as it is written.
static std::string with_value(const std::string &value)
{
    return R"({"action":"I","xid":1,"schema":"s","table":"t","columns":[{"name":"a","type":"text",)"
           R"("value":)" +
           value + "}]}";
}

// A begin with this member, which nobody needs, in front of the others.
static std::string with_other(const std::string &value)
{
    return R"({"other":)" + value + R"(,"action":"B","xid":1,"lsn":"0/1","timestamp":"t"})";
}

static std::string repeated(const std::string &text, int times)
{
    std::string all;
    while (times-- > 0)
        all += text;
    return all;
}

struct way {
    std::string text;
    bool swift; // the swift parser takes it, where it was built
};

static std::vector<way> ways()
{
    std::vector<way> all;
    // What stands in the place of a value, of a column and of a member that is passed over.
    const struct {
        const char *value;
        bool swift;
    } values[] = {
        {"0", true},
        {"-0", true},
        {"-0.0", true},
        {"0e0", true},
        {"0E-7", true},
        {"1.50", true},
        {"1e+99", true},
        {"-1e-99", true},
        {"12345678901234567890123456789012345678901234567890.5", true},
        {"18446744073709551615", true},
        {"18446744073709551616", true},
        {"-9223372036854775808", true},
        {"-9223372036854775809", true},
        {"1e100", false}, // taken by the other one
        {"1e400", false},
        {"1e-400", false},
        {"1e00", true},
        {"1e9999", false},
        {"1e99999999999999999999", false},
        {"01", false},
        {"-01", false},
        {"00", false},
        {"-", false},
        {"+1", false},
        {".5", false},
        {"5.", false},
        {"1.e5", false},
        {"1e", false},
        {"1e+", false},
        {"1ee5", false},
        {"1.5.5", false},
        {"0x1F", false},
        {"1_000", false},
        {"1a", false},
        {"1\"a\"", false},
        {"1 2", false},
        {"--1", false},
        {"NaN", false},
        {"Infinity", false},
        {"null", true},
        {"nul", false},
        {"nulls", false},
        {"null\"\"", false},
        {"Null", false},
        {"true", true},
        {"true\t", true},
        {"tru", false},
        {"truee", false},
        {"false", true},
        {"false ", true},
        {"fals", false},
        {"", false},
        {":1", false},
        {",", false},
        {"1,", false},
        {"\"\"", true},
        {"\"a\"", true},
        {" \"a\" ", true},
        {"\"a\"\"b\"", false},
        {"\"a\"b", false},
        {"\"a\":\"b\"", false},
        {"\"a\":1", false},
        {"\"a", false},
        {"'a'", false},
        {R"("q\"\\\/\b\f\n\r\t")", true},
        {R"("\u00fc\u20AC\u0041")", true},
        {R"("\u0000")", true},
        {R"("\ud83d\ude00")", true},
        {R"("\uD83D\uDE00")", true},
        {R"("\ud800")", false},
        {R"("\ud800x")", false},
        {R"("\udc00")", false},
        {R"("\ude00\ud83d")", false},
        {R"("\ud800\ud800")", false},
        {R"("\ud800\u0041")", false},
        {R"("\ud83d\uDE0")", false},
        {R"("\u12")", false},
        {R"("\u12G4")", false},
        {R"("\u")", false},
        {R"("\x41")", false},
        {R"("\U0041")", false},
        {R"("\'")", false},
        {R"("\)", false},
        {R"("a\")", false},
        {R"("a\\")", true},
        {"\"\xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80 \xEF\xBF\xBF \xF4\x8F\xBF\xBF\"", true},
        {"\"\xFF\"", false},
        {"\"\x80\"", false},
        {"\"\xC3\"", false},
        {"\"\xC0\xAF\"", false},         // two bytes for what has one
        {"\"\xE0\x80\xAF\"", false},     // three
        {"\"\xED\xA0\x80\"", false},     // half of a pair
        {"\"\xF4\x90\x80\x80\"", false}, // behind the last character
        {"\"\xF5\x80\x80\x80\"", false},
        {"\"\xE2\x82\"", false},
        {"\"a\tb\"", false},
        {"\"a\x01\"", false},
        {"\"a\x1F\"", false},
        {"\"a\x7F\"", true},
        {"\x0C"
         "1",
         false},
        {"\xC2\xA0"
         "1",
         false},
        {"\xEF\xBB\xBF"
         "1",
         false},
        {"//\n1", false},
        {"/**/1", false},
        {"[1,]", false},
        {"[,1]", false},
        {"[1 2]", false},
        {"[1", false},
        {"1]", false},
        {"[1}", false},
        {"{\"a\":1,}", false},
        {"{\"a\" 1}", false},
        {"{\"a\"}", false},
        {"{a:1}", false},
        {"{1:1}", false},
        {"{\"a\":1 \"b\":2}", false},
        {"{\"a\":\"b\":1}", false},
        {"{\"a\":1]", false},
        {"{,}", false},
        {"{\"\\ud800\":1}", false},
        {"{\"a\\\":1}", false},
        {"{\"a\":\x01}", false},
    };
    for (const auto &row : values) {
        all.push_back({with_value(row.value), row.swift});
        all.push_back({with_other(row.value), row.swift});
        all.push_back({with_other("[" + std::string(row.value) + "]"),
                       row.swift || std::string(row.value).empty()});
        all.push_back(
            {with_other("[[],{\"x\":[true," + std::string(row.value) + "]}]"), row.swift});
    }
    // Sound, but of no use as a value of a column: refused for what they are.
    for (const char *value : {"[]", "{}", "[1]", "{\"a\":{}}", "[[[[]]]]"}) {
        all.push_back({with_value(value), false});
        all.push_back({with_other(value), true});
    }
    const std::string other = with_other("1");
    for (const char *behind : {" ", "\r", "\t \r", "\n"})
        all.push_back({other + behind, true});
    for (const char *behind : {"x", "}", "]", ",", "{}", "1", "\"a\"", "//", "/**/", "\xEF\xBB\xBF",
                               "\xFF", "\\", "\"", "\x01", "null"}) {
        all.push_back({other + behind, false});
        all.push_back({other + " " + behind, false});
    }
    for (const char *before : {" ", "\t", "\r\n "})
        all.push_back({before + other, true});
    for (const char *before : {"\xEF\xBB\xBF", "\xEF\xBB", "\xFE\xFF", "x", ",", "[", "{"})
        all.push_back({before + other, false});
    for (const char *whole :
         {"", " ", "{", "}", "[]", "1", "-1.5", "\"B\"", "null", "true", "{}}", "{{}}", "{\"\":}"})
        all.push_back({whole, false});
    for (const char *whole : {"{}", " { } ", R"({"change":[]})", R"({"action":"X"})"})
        all.push_back({whole, true}); // JSON, and refused behind it
    for (const char *xid :
         {"\"1\"", "-1", "-0", "1.0", "1e1", "18446744073709551616", "[1]", "{}", "true"})
        all.push_back({R"({"xid":)" + std::string(xid) + "}", false});
    for (const char *xid : {"0", "18446744073709551615", "null"})
        all.push_back(
            {R"({"xid":)" + std::string(xid) + R"(,"action":"B","lsn":"","timestamp":""})", true});
    // Members twice, by names that are the same behind their escapes only.
    all.push_back({R"({"action":"B","action":"C"})", false});
    all.push_back({R"({"action":"B","acti\u006fn":"C"})", false});
    all.push_back({R"({"acti\u006fn":"T","xid":1,"schema":"\u0073","tabl\u0065":"t"})", true});
    all.push_back({R"({"columns":[{"name":"a","n\u0061me":"b"}]})", false});
    all.push_back({R"({"x":1,"x":2,"action":"T","xid":1,"schema":"s","table":"t"})", true});
    all.push_back({R"({"columns":[{"name":"a","type":"t"}]})", false});
    all.push_back({R"({"columns":[1]})", false});
    all.push_back({R"({"action":"BB"})", false});
    all.push_back({R"({"action":"I","xid":1,"schema":"s","table":"t","columns":[]})", true});
    // Brackets in brackets.
    for (const int deep : {1, 14, 15, 16, 1000}) {
        all.push_back({with_other(repeated("[", deep) + repeated("]", deep)), deep < 16});
        all.push_back(
            {with_other(repeated("{\"a\":", deep) + "1" + repeated("}", deep)), deep < 16});
        all.push_back({with_other(repeated("[", deep)), false});
        all.push_back({with_other(repeated("[", deep) + repeated("]", deep + 1)), false});
    }
    all.push_back({with_value(repeated("7", 200)), true});
    all.push_back({with_value(repeated("7", 201)), false});
    all.push_back({with_value("0." + repeated("3", 198)), true});
    return all;
}

// Numbers and texts of many bytes, and more brackets than there is memory for calls.
static std::vector<way> long_ways()
{
    std::vector<way> all;
    for (const int digits : {1000, 4900, 5000, 131072})
        all.push_back({with_value(repeated("9", digits)), false});
    for (const int bytes : {4000, 4096, 65536, 1000000, 1048576, 8 * 1024 * 1024})
        all.push_back({with_value("\"" + std::string(static_cast<size_t>(bytes), 'x') + "\""),
                       bytes <= 1000000});
    all.push_back({with_other(repeated("[", 100000) + repeated("]", 100000)), false});
    all.push_back({with_other(repeated("{\"a\":", 100000)), false});
    return all;
}

static void compare(const std::vector<way> &all)
{
    for (const way &row : all) {
        const std::string start = row.text.substr(0, 300);
        ASSERT_EQ(by_both(row.text), by_plain(row.text)) << start;
#ifdef KESTRO_WITH_SIMDJSON
        EXPECT_EQ(is_swift(row.text), row.swift) << start;
#else
        EXPECT_FALSE(is_swift(row.text)) << start;
#endif
    }
}

TEST(Wal2jsonSwift, WhateverALineHoldsBothParsersSayTheSame)
{
    const std::vector<way> all = ways();
    on_each_processor([&] { compare(all); });
}

TEST(Wal2jsonSwift, HoweverLongALineIsBothParsersSayTheSame)
{
    compare(long_ways());
}

#ifdef KESTRO_WITH_SIMDJSON
TEST(Wal2jsonSwift, EveryRecordedLineIsTaken)
{
    on_each_processor([] {
        w2j_line line;
        for (const std::string &text : recorded_lines()) {
            w2j_pieces pieces(line);
            ASSERT_TRUE(w2j_swift_tell(line.swift, pieces, text)) << text;
            ASSERT_TRUE(pieces.check()) << text;
        }
    });
}
#endif

TEST(Wal2jsonSwift, NulByteAnywhereIsFoundByBoth)
{
    on_each_processor([] {
        const std::string sound = with_value(R"(["a\n",1.5,true,null])");
        for (size_t at = 0; at <= sound.size(); at++) {
            std::string text = sound;
            text.insert(at, 1, '\0');
            ASSERT_FALSE(is_swift(text)) << at;
            ASSERT_EQ(by_both(text), by_plain(text)) << at;
        }
    });
}

TEST(Wal2jsonSwift, EveryCutOfALineIsRefusedAlike)
{
    on_each_processor([] {
        const std::string whole =
            R"({"action":"U","xid":1,"schema":"s","table":"t","other":[{"a":[true]},"\u20ac"],)"
            R"("columns":[{"name":"a","type":"real","value":-1.5e3}],"identity":[]} )";
        for (size_t length = 0; length <= whole.size(); length++)
            ASSERT_EQ(by_both(whole.substr(0, length)), by_plain(whole.substr(0, length)));
    });
}

// A line at the very end of memory, behind which nothing may be read, of each length.
TEST(Wal2jsonSwift, NothingIsReadBehindALine)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char *const pages = static_cast<char *>(
        mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + 2 * page, page, PROT_NONE), 0);
    on_each_processor([&] {
        w2j_line line;
        for (size_t length = 0; length < 200; length++) {
            const std::string text = with_value("\"" + std::string(length, 'x') + "\"");
            char *const at = pages + 2 * page - text.size();
            text.copy(at, text.size());
            ASSERT_TRUE(w2j_parse(line, {at, text.size()}));
            ASSERT_EQ(line.columns.columns[0].value, std::string(length, 'x'));
        }
    });
    munmap(pages, 3 * page);
}

// Whatever stands in the parser's memory behind a line, it is no part of the line.
TEST(Wal2jsonSwift, WhatTheLineBeforeHeldIsNoPartOfALine)
{
    std::vector<std::string> texts;
    for (const char *open :
         {R"({"other":[{})", R"({"other":[[{}],{})", R"({"other":{"a":{})",
          R"({"other":[1,{"a":1})", R"({"columns":[{"name":"a","type":"t","value":1})",
          R"({"action":{"a":1})", R"({"other":[{"a":[{"b":{})", R"({"other":[}})",
          R"({"other":{}{})"})
        texts.push_back(open);
    for (const way &row : ways())
        if (row.text.size() < 300)
            texts.push_back(row.text);
    std::vector<std::string> plain;
    for (const std::string &text : texts)
        plain.push_back(by_plain(text));
    on_each_processor([&] {
        w2j_swift_memory memory;
        for (const char before : {',', ']', '}', ':', '"', '[', '{', '1', ' ', '\\', 'x', '\xFF'})
            for (size_t i = 0; i < texts.size(); i++) {
                (void)by_both(std::string(1000, before), memory);
                ASSERT_EQ(by_both(texts[i], memory), plain[i]) << texts[i] << "\n" << before;
            }
    });
}

// One record takes all lines: what one leaves must not show in the next.
TEST(Wal2jsonSwift, LinesOfBothParsersFollowEachOtherInOneRecord)
{
    const std::string swift = with_value("\"short\"");
    const std::string plain = with_value("1e300");
    const std::string wrong = with_value("\"x");
    const std::string grown = with_value("\"" + std::string(100000, 'y') + "\"");
    on_each_processor([&] {
        w2j_line line;
        for (const std::string *text :
             {&swift, &plain, &swift, &wrong, &plain, &grown, &wrong, &swift, &plain}) {
            const outcome done = w2j_parse(line, *text);
            ASSERT_EQ(shown_line(line, done), by_plain(*text));
        }
    });
}

static void damage(std::string &line, std::mt19937 &random)
{
    static const char *const words[] = {
        "{",       "}",       "[",      "]",       "\"",
        ",",       ":",       "\\",     "\\u0000", "\\ud800",
        "\\udc00", "\\u00e4", "\\\"",   "null",    "true",
        "1e400",   "-0",      "00",     "1.",      "\t",
        "\x01",    "\x80",    "\xC3",   "\xE2",    "\xEF\xBB\xBF",
        " ",       "\r",      "\"a\":", "[1,]",    "{\"x\":1}",
        "\"pk\":", "-",       "9",      "e",       "\"\"",
        "/**/",
    };
    const size_t at = random() % (line.size() + 1);
    switch (random() % 6) {
    case 0:
        line.insert(at, 1, static_cast<char>(random() % 256));
        break;
    case 1:
    case 2:
        line.insert(at, words[random() % std::size(words)]);
        break;
    case 3:
        line.erase(at, random() % 8 + 1);
        break;
    case 4:
        line.insert(at, line.substr(random() % line.size(), random() % 60));
        break;
    default:
        if (at < line.size())
            line[at] = words[random() % std::size(words)][0];
        break;
    }
}

TEST(Wal2jsonSwift, DamagedLinesAreTakenAndRefusedAlike)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::vector<std::string> lines = recorded_lines();
    for (const char *more : {R"("\u00fc\n\"\\ \ud83d\ude00")", "1.5e-7", "null", "[1,{\"a\":[]}]"})
        for (int i = 0; i < 1000; i++)
            lines.push_back(i % 2 == 0 ? with_value(more) : with_other(more));
    const char *const rounds = getenv("KESTRO_LINE_ROUNDS");
    int taken = 0;
    on_each_processor([&] {
        w2j_swift_memory memory;
        for (int i = rounds != nullptr ? atoi(rounds) : 3000; i > 0; i--) {
            std::string text = lines[random() % lines.size()];
            for (auto times = random() % 3 + 1; times > 0 && !text.empty(); times--)
                damage(text, random);
            const std::string plain = by_plain(text);
            taken += plain[0] >= 'A' ? 1 : 0;
            ASSERT_EQ(by_both(text, memory), plain) << text;
        }
    });
    EXPECT_GT(taken, 100);
}
