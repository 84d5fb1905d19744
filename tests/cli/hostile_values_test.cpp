// Values that would do something where they are not taken for data (formats, escape sequences, line
// ends, quotes, statements), from a change stream to each form that the programs give them out in:
// they come through byte for byte or escaped, and what is printed for people moves no terminal.
#include "tests/cli/cli_fixture.h"

#include <gmock/gmock.h>

using namespace std::string_literals;
using testing::HasSubstr;

constexpr size_t WIDTH = 3000; // of the item

static std::string repeated(const std::string &text, size_t times)
{
    std::string out;
    while (times-- > 0)
        out += text;
    return out;
}

struct value {
    std::string stream; // between the quotes of the stream's JSON
    std::string bytes;  // in the log and in capture records, ISO 8859-1
    std::string text;   // in text files without -dirty
    std::string json;   // between quotes
    std::string dump;   // between quotes
    std::string csv;
    std::string postgresql;
    std::string sqlite;
};

static value plain(const std::string &text)
{
    return {text, text, text, text, text, text, "'" + text + "'", "'" + text + "'"};
}

// clang-format off
static const std::vector<value> VALUES = {
    plain("%n%s%x%p%1$n%999999999d"),
    plain("`id`;$(id)|&${HOME}"),
    plain("=1+1"),
    plain("NULL"),
    plain(repeated("%n", WIDTH / 2)),
    {R"(\u001b]0;title\u0007\u001b[2J\u007f)", "\x1b]0;title\a\x1b[2J\x7F", "~]0;title~~[2J~",
     R"(\u001b]0;title\u0007\u001b[2J\u007f)", R"(\x1B]0;title\x07\x1B[2J\x7F)", "\"\x1b]0;title\a\x1b[2J\x7F\"",
     R"(E'\033]0;title\007\033[2J\177')", "'\x1b]0;title\a\x1b[2J\x7F'"},
    {R"(a\nb\r\n.shell id\tz)", "a\nb\r\n.shell id\tz", "a~b~~.shell id~z",
     R"(a\u000ab\u000d\u000a.shell id\u0009z)", R"(a\x0Ab\x0D\x0A.shell id\x09z)", "\"a\nb\r\n.shell id\tz\"",
     R"(E'a\012b\015\012.shell id\011z')",
     "replace(replace('a\\nb\\r\\n.shell id\tz','\\r',char(13)),'\\n',char(10))"},
    {R"('\",;)", R"('",;)", R"('",;)", R"('\",;)", R"('\",;)", R"("'"",;")", R"('''",;')", R"('''",;')"},
    {R"(back\\slash\\n\\)", R"(back\slash\n\)", R"(back\slash\n\)", R"(back\\slash\\n\\)", R"(back\\slash\\n\\)",
     R"(back\slash\n\)", R"(E'back\\slash\\n\\')", R"('back\slash\n\')"},
    {R"(');DROP TABLE t;--)", R"(');DROP TABLE t;--)", R"(');DROP TABLE t;--)", R"(');DROP TABLE t;--)",
     R"(');DROP TABLE t;--)", R"(');DROP TABLE t;--)", R"(''');DROP TABLE t;--')", R"(''');DROP TABLE t;--')"},
    {R"(\"},\"op\":\"d\",{\")", R"("},"op":"d",{")", R"("},"op":"d",{")", R"(\"},\"op\":\"d\",{\")",
     R"(\"},\"op\":\"d\",{\")", R"("""},""op"":""d"",{""")", R"('"},"op":"d",{"')", R"('"},"op":"d",{"')"},
    // A control sequence of one byte, and the line end of ISO 8859-1.
    {R"(x\u009b31m\u0085z)", "x\x9B" "31m\x85z", "x~31m~z", R"(x\u009b31m\u0085z)", R"(x\x9B31m\x85z)",
     "x\xC2\x9B" "31m\xC2\x85z", "'x\xC2\x9B" "31m\xC2\x85z'", "'x\xC2\x9B" "31m\xC2\x85z'"},
    {R"(\u00e9\u00ff)", "\xE9\xFF", "~~", "\xC3\xA9\xC3\xBF", "\xC3\xA9\xC3\xBF", "\xC3\xA9\xC3\xBF",
     "'\xC3\xA9\xC3\xBF'", "'\xC3\xA9\xC3\xBF'"},
};
// clang-format on

static std::string padded(const std::string &text, size_t width)
{
    return text + std::string(width - text.size(), ' ');
}

class HostileValues : public testing::Test {
  protected:
    void SetUp() override
    {
        setup.directory = dir.path();
        setup.env = {{"TZ", "UTC"},
                     {"PATH", std::string(KESTRO_BUILD_DIR "/bin:") + getenv("PATH")}};
        setup.unset = {"KESTRO_SYNC", "KESTRO_TEXT", "KESTRO_MAXCAP", "LD_LIBRARY_PATH"};
        write_file(dir.file("fwutil.cfg"), "log-directory log\ndatabase SHOP\ndataset T\n"
                                           "item ID I 4 key\nitem NAME X 3000\n"
                                           "item NULL-MAP X 2 null-map\n");
        std::filesystem::create_directory(dir.file("log"));
        if (shell("fwlog load /dev/null").err.find("not part of this build") != std::string::npos)
            GTEST_SKIP() << "fwlog load is not built";
    }
    run_result shell(const std::string &line) const
    {
        return run_program({"/bin/sh", "-c", line}, setup);
    }
    // What a command prints that ends with status 0 and says nothing else.
    std::string printed(const std::string &line) const
    {
        const run_result result = shell(line);
        EXPECT_EQ(result.status, 0) << line << result.err;
        expect_harmless(line, result.err);
        return result.out;
    }
    // No control character but the end of a line, in one byte or in UTF-8.
    static void expect_harmless(const std::string &what, const std::string &text)
    {
        for (size_t i = 0; i < text.size(); i++) {
            const auto c = static_cast<unsigned char>(text[i]);
            const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
            ASSERT_TRUE((c >= ' ' && c != 0x7F) || c == '\n') << what << ": byte " << i;
            ASSERT_FALSE(c == 0xC2 && next < 0xA0) << what << ": byte " << i;
        }
    }
    // A transaction of these lines.
    static std::string transaction(const std::string &lines, int number = 1)
    {
        const std::string place =
            R"("xid":7,"timestamp":"2026-11-20 22:08:36.077609+00","lsn":"0/19)" +
            std::to_string(number) + "00000\"";
        std::string all = R"({"action":"B",@})"
                          "\n" +
                          lines + R"({"action":"C",@})" + "\n";
        for (size_t at; (at = all.find('@')) != std::string::npos;)
            all.replace(at, 1, place);
        return all;
    }
    static std::string insert(const std::string &id, const std::string &name,
                              const std::string &table = "t", const std::string &column = "name",
                              const std::string &type = "character varying(3000)")
    {
        return R"({"action":"I",@,"schema":"shop","table":")" + table +
               R"(","columns":[{"name":"id","type":"integer","value":)" + id + R"(},{"name":")" +
               column + R"(","type":")" + type + R"(","value":")" + name + "\"}]}\n";
    }
    // Of a session whose texts are no better.
    void load_all()
    {
        std::string lines =
            R"({"action":"M",@,"transactional":true,"prefix":"session",)"
            R"("content":"pid=1;login=\u001b[31m%n;user=%s\n\u0007;pname=p%n\u009b"})"
            "\n";
        for (size_t i = 0; i < VALUES.size(); i++)
            lines += insert(std::to_string(i), VALUES[i].stream);
        write_file(dir.file("changes"), transaction(lines));
        (void)printed("fwlog load changes");
    }

    const tempdir dir;
    run_setup setup;
};

// A capture record's number, names, time and operation.
static std::string header(size_t number)
{
    char text[16];
    (void)snprintf(text, sizeof text, "%06zu", number);
    return text + padded("SHOP", 24) + padded("T", 16) + "26112022:08:36IP";
}

static std::string column_of(size_t number)
{
    char text[16];
    (void)snprintf(text, sizeof text, "%14zu", number);
    return text;
}

TEST_F(HostileValues, InCaptureFiles)
{
    load_all();
    (void)printed("Kestro -synconly queue -ascii text -ascii -dirty dirty -ascii -exthdr extended");
    std::string records;
    std::string text;
    std::string dirty;
    std::string extended;
    for (size_t i = 0; i < VALUES.size(); i++) {
        const value &v = VALUES[i];
        records += header(i) + static_cast<char>(i) + "\0\0\0"s + padded(v.bytes, WIDTH) + "..\n";
        text += header(i) + column_of(i) + padded(v.text, WIDTH) + "..\n";
        dirty += header(i) + column_of(i) + padded(v.bytes, WIDTH) + "..\n";
        // Kept: texts of the session stand in the header as they are.
        extended += header(i) + padded("p%n\x9B", 24) + padded("%s\n\a", 8) +
                    padded("\x1b[31m%n", 24) + " 00001" + column_of(i) + padded(v.text, WIDTH) +
                    "..\n";
    }
    EXPECT_TRUE(printed("tmf read --keep queue") == records);
    EXPECT_TRUE(read_file(dir.file("text")) == text);
    EXPECT_TRUE(read_file(dir.file("dirty")) == dirty);
    EXPECT_TRUE(read_file(dir.file("extended")) == extended);
}

TEST_F(HostileValues, AsDataFromTheLog)
{
    load_all();
    const std::string dump = printed("fwlog dump");
    const std::string json = printed("fwlog dump --json");
    EXPECT_EQ(printed("fwlog tail -n 1 --json"), json);
    const std::string csv = printed("fwlog csv");
    const std::string postgresql = printed("fwlog sql --dialect postgresql");
    const std::string sqlite = printed("fwlog sql --dialect sqlite");
    for (size_t i = 0; i < VALUES.size(); i++) {
        const value &v = VALUES[i];
        const std::string id = std::to_string(i);
        const std::string into = "\" (\"id\", \"name\") ";
        EXPECT_THAT(dump, HasSubstr("after ID=" + id + " NAME=\"" + v.dump + "\" NULL-MAP"));
        EXPECT_THAT(json, HasSubstr("\"after\":{\"ID\":" + id + ",\"NAME\":\"" + v.json + "\"},"));
        EXPECT_THAT(csv, HasSubstr("," + id + "," + v.csv + "\r\n"));
        EXPECT_THAT(postgresql, HasSubstr("\nINSERT INTO \"shop\".\"t" + into +
                                          "OVERRIDING SYSTEM VALUE VALUES ('" + id + "', " +
                                          v.postgresql + ");\n"));
        EXPECT_THAT(sqlite, HasSubstr("\nINSERT INTO \"shop_t" + into + "VALUES (" + id + ", " +
                                      v.sqlite + ");\n"));
    }
    EXPECT_THAT(dump, HasSubstr("login \"\\x1B[31m%n\"\n"));
    EXPECT_THAT(json, HasSubstr(R"("program":"p%n\u009b","user":"%s\u000a\u0007",)"
                                R"("login":"\u001b[31m%n","pid":1})"));
    expect_harmless("dump", dump);
    expect_harmless("json", json);
}

TEST_F(HostileValues, AsDataFromCaptureFiles)
{
    load_all();
    (void)printed("Kestro -synconly queue -ascii -dirty dirty -exthdr extended -ascii -exthdr text;"
                  "fwlog layout --json > layouts");
    const std::string capread = "capread --layout layouts ";
    for (const char *const what : {"queue", "-ascii -dirty dirty", "-exthdr extended"}) {
        const std::string json = printed(capread + what);
        const std::string csv = printed(capread + "--csv " + what);
        for (size_t i = 0; i < VALUES.size(); i++) {
            const value &v = VALUES[i];
            const std::string id = std::to_string(i);
            EXPECT_THAT(json,
                        HasSubstr("\"after\":{\"ID\":" + id + ",\"NAME\":\"" + v.json + "\"},"))
                << what;
            EXPECT_THAT(csv, HasSubstr("\nc,," + id + "," + v.csv + "\r\n")) << what;
        }
        expect_harmless(what, json);
    }
    // The line end in the header ends no record.
    const std::string json = printed(capread + "-ascii -exthdr text");
    EXPECT_EQ(static_cast<size_t>(std::count(json.begin(), json.end(), '\n')), VALUES.size() + 1);
    EXPECT_THAT(json, HasSubstr(R"("user":"%s\u000a\u0007","login":"\u001b[31m%n","pid":1})"));
    expect_harmless("text", json);
    // With options of another file it says what stands where a number should.
    const run_result result = shell(capread + "-recnum extended");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("stands 0x70256e9b"));
    expect_harmless("what stands there", result.err);
}

// No form of SQL has a text with a NUL.
TEST_F(HostileValues, ANulByte)
{
    write_file(dir.file("changes"), transaction(insert("1", R"(a\u0000b)")));
    (void)printed("fwlog load changes; Kestro -synconly queue -ascii text");
    EXPECT_THAT(printed("fwlog dump"), HasSubstr(R"(NAME="a\x00b")"));
    EXPECT_THAT(printed("fwlog dump --json"), HasSubstr(R"("NAME":"a\u0000b")"));
    EXPECT_THAT(printed("fwlog csv"), HasSubstr(",1,\"a\0b\"\r\n"s));
    EXPECT_EQ(read_file(dir.file("text")),
              header(0) + column_of(1) + padded("a~b", WIDTH) + "..\n");
    EXPECT_EQ(printed("tmf read --keep queue"),
              header(0) + "\1\0\0\0"s + padded("a\0b"s, WIDTH) + "..\n");
    for (const char *const dialect : {"postgresql", "sqlite"}) {
        const run_result result = shell("fwlog sql --dialect "s + dialect);
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("NAME has bytes that are no text, having a NUL: 0x6100"));
        EXPECT_EQ(result.out.find("INSERT"), std::string::npos);
    }
}

// Names and types of columns that the stream has, in what tells of layouts.
TEST_F(HostileValues, InDescriptions)
{
    write_file(dir.file("fwutil.cfg"),
               "log-directory log\ndatabase SHOP\n"
               "dataset T table=shop.U&\"%n\\001B[2J\\000A\"\"'\\\\\"\n"
               "item ID I 4 key\nitem NAME X 3000\nitem NULL-MAP X 2 null-map\n");
    std::string line =
        insert("1", "x", R"(%n\u001b[2J\n\"'\\)", "name", R"(te%n\u001b[2J\n\"'\\xt)");
    line.replace(line.rfind("]}"), 2,
                 R"(,{"name":"c%n\u001b[2J\u009b\"","type":"integer","value":1}]})");
    write_file(dir.file("changes"), transaction(line));
    const run_result loaded = shell("fwlog load changes");
    EXPECT_EQ(loaded.status, 0) << loaded.err;
    EXPECT_THAT(loaded.err, HasSubstr(R"(column c%n\x1b[2J\u009b" has no item in dataset SHOP.T)"));
    expect_harmless("load", loaded.err);
    (void)printed("Kestro -synconly -verbose -showsets -capstats -dumprecs queue > told 2>&1");
    expect_harmless("Kestro", read_file(dir.file("told")));
    for (const char *const command :
         {"dump", "dump --json", "tail", "layout --columns", "layout --copybook", "layout --json",
          "info", "info --json", "verify", "verify --json"})
        expect_harmless(command, printed("fwlog "s + command));
    EXPECT_THAT(printed("fwlog sql --dialect postgresql"),
                HasSubstr("\nINSERT INTO \"shop\".\"%n\x1b[2J\n\"\"'\\\" (\"id\", "));
}

TEST_F(HostileValues, InMessages)
{
    const std::string evil = R"(%n%s\u001b[2J)";
    const struct {
        std::string lines;
        std::string text;
    } rows[] = {
        {insert("\"" + evil + "\"", "x"), R"("%n%s?[2J" is not a number, item ID)"},
        {insert("1", repeated(evil, 400)), R"("%n%s?[2J%n%s?[2J)"},
        {insert("1", R"(\u20ac)" + evil), "has the character U+20AC"},
        {insert("1", "x", evil), R"(table shop.U&"%n%s\001B[2J")"},
        {R"({"action":")" + evil + "\",@}\n", R"(action "%n%s\x1b[2J" is none of)"},
        {R"({"action":"I",@,"schema":1,"table":")" + evil + "\"}\n", R"(member "schema" has)"},
        {"\x1b[2J\n", "is not valid JSON at byte 1"},
        {insert("1", "\xFF\x1b[2J"), "is not valid JSON"},
    };
    for (const auto &row : rows) {
        write_file(dir.file("changes"), transaction(row.lines));
        const run_result result = shell("fwlog load changes");
        EXPECT_EQ(result.status, 1) << row.text;
        EXPECT_THAT(result.err, HasSubstr(row.text));
        expect_harmless(row.text, result.err);
    }
}
