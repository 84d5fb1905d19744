// Changes at the edges of what a log can hold, as JSON and as tables of real databases that were
// given the statements: all types with their extremes, every character, as many columns as a
// table can have, a row of 16 MiB; and the memory that many changes take.
#include "tests/changes/written_log.h"
#include "tests/support/run.h"
#include "tests/tools/fwlog/sqlite.h"
#ifdef KESTRO_WITH_SERVER
#include "tests/postgresql/pg_server.h"
#endif

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::string_literals;

static const std::string FWLOG = KESTRO_BUILD_DIR "/bin/fwlog";
static const std::string CHECK =
    "python3 " KESTRO_SOURCE_DIR "/tests/tools/fwlog/copy_against_json.py ";

static fwu_item item(std::string name, char type, int32_t size, int32_t scale = 0,
                     int32_t count = 1)
{
    fwu_item one;
    one.name = std::move(name);
    one.type = type;
    one.size = size;
    one.item_aux = scale;
    one.count = count;
    return one;
}

static std::string packed(size_t size, char digits, char last)
{
    return std::string(size - 1, digits) + last;
}

// A dataset and the images of its rows.
struct edge {
    fwu_layout layout;
    std::vector<std::string> rows;
};

// The least, the greatest and the zeros of each type, and what floating point has besides, in
// little-endian order.
static edge types()
{
    edge e{{.dbname = "EDGE", .dsetname = "TYPES", .items = {}}, std::vector<std::string>(4)};
    const auto add = [&e](const fwu_item &one, const std::vector<std::string> &images) {
        e.layout.items.push_back(one);
        for (size_t row = 0; row < e.rows.size(); row++)
            e.rows[row] += images[row < images.size() ? row : 0];
    };
    for (const int32_t bytes : {2, 4, 8}) {
        const auto size = static_cast<size_t>(bytes);
        const std::string zeros(size, '\0');
        const std::string ones(size, '\xFF');
        for (const char type : "IJ"s)
            add(item(type + std::to_string(size), type, bytes),
                {zeros.substr(1) + '\x80', ones.substr(1) + '\x7F', zeros, ones});
        add(item("K" + std::to_string(size), 'K', bytes), {zeros, ones});
    }
    for (const int32_t scale : {0, 3, 27})
        add(item("P" + std::to_string(scale), 'P', 14, scale),
            {packed(14, '\x99', '\x9D'), packed(14, '\x99', '\x9C'), packed(14, '\0', '\x0C')});
    for (const int32_t scale : {0, 2})
        add(item("Z" + std::to_string(scale), 'Z', 18, scale),
            {packed(18, '9', 'R'), packed(18, '9', 'I'), packed(18, '0', '{')});
    for (const char type : "ER"s) {
        const bool is_e = type == 'E';
        add(item(type + "4"s, type, 4), {le(0xFF7FFFFF, 4), le(0x7F7FFFFF, 4), le(1, 4),
                                         le(is_e ? 0x7FC00000 : 0x7F800000, 4)});
        add(item(type + "8"s, type, 8),
            {le(0xFFEFFFFFFFFFFFFF, 8), le(0x7FEFFFFFFFFFFFFF, 8), le(1, 8),
             le(is_e ? 0x7FF8000000000000 : 0xFFF0000000000000, 8)});
    }
    add(item("X", 'X', 3), {"   ", "\xFF\xFF\xFF", "  x"});
    return e;
}

// Each character in the middle of a text and at both ends; a text has no NUL in a database.
static edge characters()
{
    edge e{{.dbname = "EDGE", .dsetname = "CHARS", .items = {item("TEXT", 'X', 260)}}, {}};
    std::string all;
    for (int c = 1; c < 256; c++)
        all += static_cast<char>(c);
    for (int c = 1; c < 256; c++) {
        const std::string ends(2, static_cast<char>(c));
        e.rows.push_back(ends + all + ends + ' ');
    }
    return e;
}

// 1,600 columns, every seventh of them null.
static edge columns()
{
    edge e{{.dbname = "EDGE", .dsetname = "WIDE", .items = {}}, {""}};
    std::string nulls;
    for (uint64_t i = 0; i < 1600; i++) {
        e.layout.items.push_back(item("C" + std::to_string(i), 'I', 2));
        e.rows[0] += le(i, 2);
        nulls += i % 7 == 3 ? 'N' : '.';
    }
    e.layout.items.push_back(item("NULL-MAP", 'X', 1600));
    e.rows[0] += nulls;
    return e;
}

// 16 MiB and a bit in one row.
static edge large()
{
    edge e{{.dbname = "EDGE", .dsetname = "LARGE", .items = {item("T", 'X', 32767, 0, 513)}}, {""}};
    for (int i = 0; i < 513; i++)
        e.rows[0] += std::string(32766, static_cast<char>('a' + i % 26)) + '\xFC';
    return e;
}

struct edge_case {
    const char *name;
    edge (*make)();
};

class FwlogSizes : public testing::TestWithParam<edge_case> {
  protected:
    void SetUp() override
    {
        const edge e = GetParam().make();
        rows = e.rows.size();
        log.begin();
        for (const std::string &row : e.rows)
            log.insert(e.layout, row);
        log.commit();
        table = e.layout.dsetname;
        setup.directory = log.dir.path();
        run("fwlog dump --json > lines");
    }

    // What a command of the shell prints; its failure is the test's.
    std::string run(const std::string &command)
    {
        setup.env["PATH"] = KESTRO_BUILD_DIR "/bin:" + std::string(getenv("PATH"));
        const run_result result = run_program({"bash", "-o", "pipefail", "-c", command}, setup);
        EXPECT_EQ(result.status, 0) << command << ": " << result.err.substr(0, 1000);
        return result.out;
    }

    written_log log{"log-file-size 1G\n"};
    run_setup setup;
    size_t rows = 0;
    std::string table;
};

TEST_P(FwlogSizes, ASqliteDatabaseHoldsWhatTheLinesSay)
{
    if (sqlite::missing())
        GTEST_SKIP() << "no program sqlite3 (Debian package sqlite3)";
    run("fwlog sql --dialect sqlite --create-tables --position-table p | sqlite3 -bail copy.db");
    EXPECT_EQ(run(CHECK + "sqlite copy.db EDGE_" + table + " < lines"),
              std::to_string(rows) + "\n");
}

#ifdef KESTRO_WITH_SERVER
TEST_P(FwlogSizes, APostgresqlDatabaseHoldsWhatTheLinesSay)
{
    if (const std::string why = pg_server::missing(); !why.empty())
        GTEST_SKIP() << why;
    const pg_server server;
    setup.env["PGHOST"] = std::filesystem::path(server.socket()).parent_path();
    setup.env["PGUSER"] = "postgres";
    run("fwlog sql --dialect postgresql --create-tables --position-table p | "
        "psql -X -q -v ON_ERROR_STOP=1");
    run(R"(psql -X --csv -c 'SELECT * FROM "EDGE".")" + table + R"("' > rows)");
    EXPECT_EQ(run(CHECK + "csv rows < lines"), std::to_string(rows) + "\n");
}
#endif

static constexpr edge_case edges[] = {
    {"Types", types}, {"Characters", characters}, {"Columns", columns}, {"Large", large}};
INSTANTIATE_TEST_SUITE_P(Edges, FwlogSizes, testing::ValuesIn(edges),
                         [](const auto &test) { return std::string(test.param.name); });

// Peak memory of fwlog with these arguments, in KiB.
static int64_t peak_of(const std::vector<std::string> &arguments)
{
    std::vector<char *> argv = {const_cast<char *>(FWLOG.c_str())};
    for (const std::string &word : arguments)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, 1);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = -1;
    rusage usage = {};
    EXPECT_EQ(wait4(pid, &status, 0, &usage), pid);
    EXPECT_EQ(status, 0) << arguments[0];
    return usage.ru_maxrss;
}

// changes in transactions of so many, over several files.
static void write_changes(written_log &log, int changes, int each)
{
    const fwu_layout layout{.dbname = "SALES",
                            .dsetname = "ORDERS",
                            .items = {item("NO", 'I', 4), item("TEXT", 'X', 60)}};
    for (int i = 0; i < changes; i++) {
        if (i % each == 0)
            log.begin();
        log.insert(layout, le(static_cast<uint64_t>(i), 4) + std::string(60, 'x'));
        if (i % each == each - 1)
            log.commit();
    }
}

static const std::vector<std::string> forms[] = {
    {"dump", "--json"}, {"csv"}, {"sql", "--dialect", "postgresql"}, {"layout", "--columns"}};

// Less than any of the larger logs has: they have 100 bytes and more for a change.
constexpr int64_t ROOM_KIB = 4096;

class FwlogMemory : public testing::Test {
  protected:
    void SetUp() override
    {
#ifdef KESTRO_SANITIZED
        GTEST_SKIP() << "what sanitizers keep of freed memory counts, too";
#endif
    }

    static void compare_peaks(const written_log &few, const written_log &many)
    {
        for (std::vector<std::string> form : forms) {
            const std::string name = form[0];
            form.insert(form.end(), {"-cfg", few.cfg});
            const int64_t peak = peak_of(form);
            form.back() = many.cfg;
            EXPECT_LT(peak_of(form), peak + ROOM_KIB) << name;
        }
    }
};

TEST_F(FwlogMemory, TenTimesAsManyChangesTakeNoMore)
{
    written_log few("log-file-size 1M\n");
    written_log many("log-file-size 1M\n");
    write_changes(few, 10'000, 100);
    write_changes(many, 100'000, 100);
    compare_peaks(few, many);
}

TEST_F(FwlogMemory, ATransactionOfAMillionChangesTakesNoMoreThanASmallOne)
{
    written_log few("log-file-size 1G\n");
    written_log many("log-file-size 1G\n");
    write_changes(few, 10'000, 10'000);
    write_changes(many, 1'000'000, 1'000'000);
    compare_peaks(few, many);
}
