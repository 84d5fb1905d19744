// A server that people work on, the bridge, and "fwlog sql -f" into a second database and into
// SQLite, all killed at random moments: in the end both copies have what the server has.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/postgresql/load_client.h"
#include "tests/tools/fwlog/sqlite.h"

#include <iostream>
#include <random>
#include <set>
#include <sys/stat.h>

#ifdef KESTRO_SANITIZED
constexpr int ROUNDS = 4;
#else
constexpr int ROUNDS = 10;
#endif

using table_rows = std::multiset<std::vector<std::string>>;

static const char tables_sql[] =
    "CREATE SCHEMA work;"
    "CREATE TABLE work.keyed (id integer PRIMARY KEY, si smallint, bi bigint, r real,"
    " d double precision, n numeric(12,3), nn numeric, c char(5), v varchar(30), t text,"
    " b boolean, da date, ti time(3), ts timestamp, tz timestamptz, u uuid, j json, jb jsonb,"
    " by bytea, iv interval, ar integer[], p point, ip inet);"
    "CREATE TABLE work.plain (a integer, v text, j json, f double precision, b boolean, n numeric);"
    "ALTER TABLE work.keyed REPLICA IDENTITY FULL;"
    "ALTER TABLE work.plain REPLICA IDENTITY FULL;";

static const char tables_cfg[] =
    "column work.keyed.nn width=40\ncolumn work.keyed.t width=60\ncolumn work.keyed.j width=60\n"
    "column work.keyed.jb width=60\ncolumn work.keyed.by width=40\ncolumn work.keyed.iv width=40\n"
    "column work.keyed.ar width=40\ncolumn work.keyed.p width=40\ncolumn work.keyed.ip width=40\n"
    "column work.plain.v width=20\ncolumn work.plain.j width=40\ncolumn work.plain.n width=20\n";

// Columns as both databases write them.
static const char keyed_source[] =
    "id, si, bi, r, d, n, nn, rtrim(c), v, t, b::int, da, ti,"
    " to_char(ts, 'YYYY-MM-DD HH24:MI:SS.US'),"
    " to_char(tz AT TIME ZONE 'UTC', 'YYYY-MM-DD HH24:MI:SS.US'), u, j, jb, by, iv, ar, p, ip";
static const char keyed_copy[] =
    "id, si, bi, CASE typeof(r) WHEN 'real' THEN printf('%!.17g', r) ELSE r END,"
    " CASE typeof(d) WHEN 'real' THEN printf('%!.17g', d) ELSE d END, n, nn, c, v, t, b, da, ti,"
    " ts, tz, u, j, jb, by, iv, ar, p, ip";
static const char plain_source[] = "a, v, j, f, b::int, n";
static const char plain_copy[] =
    "a, v, j, CASE typeof(f) WHEN 'real' THEN printf('%!.17g', f) ELSE f END, b, n";
static const std::set<size_t> keyed_floats = {3, 4};
static const std::set<size_t> plain_floats = {3};

// Makes statements that work on the tables.
class worker {
  public:
    explicit worker(unsigned seed) : random(seed)
    {
    }

    std::string transaction()
    {
        std::string sql = "BEGIN;";
        for (int n = 1 + below(6); n > 0; n--)
            sql += below(2) == 0 ? keyed() : plain();
        return sql + (below(15) == 0 ? "ROLLBACK" : "COMMIT");
    }

    // Rows whose statements are longer than what is held back of a transaction.
    std::string large()
    {
        return "BEGIN; INSERT INTO work.keyed (id, t) SELECT g, 'large ' || g FROM "
               "generate_series(100000, 100800) g; UPDATE work.keyed SET t = 'x' WHERE id >= "
               "100000; DELETE FROM work.keyed WHERE id >= 100000; COMMIT";
    }

    // A column more, or one less; a change of the table comes right behind it.
    std::string alter()
    {
        std::string &extra = below(2) == 0 ? keyed_extra : plain_extra;
        const std::string table = &extra == &keyed_extra ? "work.keyed" : "work.plain";
        const std::string what = extra.empty() ? "ADD COLUMN extra integer" : "DROP COLUMN extra";
        extra = extra.empty() ? ", extra" : "";
        return "ALTER TABLE " + table + " " + what + "; INSERT INTO " + table + " (" +
               (&extra == &keyed_extra ? "id" : "a") + ") VALUES (" +
               std::to_string(1000 + alters++) + ")";
    }

    int below(int limit)
    {
        return static_cast<int>(random() % static_cast<unsigned>(limit));
    }

    std::string keyed_extra;
    std::string plain_extra;

  private:
    template <size_t N> std::string one_of(const char *const (&values)[N])
    {
        return below(5) == 0 ? "NULL" : values[static_cast<size_t>(below(N))];
    }

    std::string some_text(int length)
    {
        static const char *const parts[] = {"''",  "\\",  "\"",      ";",  "--",       "/*",
                                            "$$",  "\n",  "\r\n",    "\t", "\xC3\xBC", "\xC2\xA0",
                                            ":x",  "E''", "COMMIT;", " ",  "NULL",     "\\n",
                                            "\\.", "{}",  ",",       "%"};
        std::string text;
        for (int n = below(length); n > 0; n--)
            text += parts[static_cast<size_t>(below(std::size(parts)))];
        return below(6) == 0 ? "NULL" : "'" + text + "x'";
    }

    std::string number(int64_t limit)
    {
        return below(5) == 0
                   ? "NULL"
                   : std::to_string(static_cast<int64_t>(random() % 2'000'000) * limit / 1'000'000 -
                                    limit);
    }

    // Values for all columns of work.keyed behind the first.
    std::vector<std::string> values()
    {
        return {number(30000),
                one_of({"-9223372036854775808", "9223372036854775807", "0", "-1"}),
                one_of({"'NaN'", "'Infinity'", "'-Infinity'", "0.1", "1e-30", "16777217", "-2.5"}),
                one_of({"'NaN'", "'-Infinity'", "0.1", "123456789012345.6", "-2.5e-7",
                        "0.30000000000000004"}),
                one_of({"-999999999.999", "0.001", "12.3"}),
                one_of({"1.0", "1.00", "-12345678901234567890.123456789", "'NaN'"}),
                one_of({"'a'", "'abcde'", "' b'", "''"}),
                some_text(4),
                some_text(8),
                one_of({"true", "false"}),
                one_of({"'infinity'", "'0044-03-15'", "'9999-12-31'"}),
                one_of({"'08:18:01.26'", "'00:00'"}),
                one_of({"'2026-01-02 03:04:05'", "'0001-01-01 00:00:00.000001'",
                        "'2026-01-02 03:04:05.5'"}),
                one_of({"'2026-07-02 03:04:05+02'", "'2026-01-02 03:04:05.123456-08'"}),
                one_of({"'6fb41e2e-1b1f-4c2e-9d3a-5a7c0c9be001'"}),
                one_of({"'{\"a\": [1, 1.0, \"it''s\"]}'", "'{ }'", "'null'"}),
                one_of({"'{\"a\": 1.00}'", "'{\"a\": 1.0}'"}),
                one_of({"'\\x00ff27'", "''"}),
                one_of({"'1 day'", "'24:00:00'", "'-3 mons 2 days'"}),
                one_of({"'{1,2,NULL}'", "'{}'"}),
                one_of({"'(1.5,-2)'", "'(0,0)'"}),
                one_of({"'10.0.0.1'", "'::1/64'"})};
    }

    std::string keyed()
    {
        static const char *const names[] = {"si", "bi", "r",  "d",  "n",  "nn", "c", "v",
                                            "t",  "b",  "da", "ti", "ts", "tz", "u", "j",
                                            "jb", "by", "iv", "ar", "p",  "ip"};
        const std::string id = std::to_string(below(60));
        const std::vector<std::string> all = values();
        std::string list;
        switch (below(5)) {
        case 0:
        case 1:
            for (size_t i = 0; i < all.size(); i++)
                list += ", " + all[i];
            return "INSERT INTO work.keyed VALUES (" + id + list + ") ON CONFLICT DO NOTHING;";
        case 2:
            for (size_t i = 0; i < all.size(); i++)
                list += std::string(i == 0 ? "" : ", ") + names[i] + " = " + all[i];
            return "UPDATE work.keyed SET " + list + " WHERE id = " + id + ";";
        case 3: {
            const std::string to = std::to_string(below(60));
            return "UPDATE work.keyed SET id = " + to + " WHERE id = " + id +
                   " AND NOT EXISTS (SELECT FROM work.keyed WHERE id = " + to + ");";
        }
        default:
            return "DELETE FROM work.keyed WHERE id = " + id + ";";
        }
    }

    std::string plain()
    {
        const std::string row = one_of({"1", "2"}) + ", " + one_of({"'a'", "'A'", "''"}) + ", " +
                                one_of({"'{}'", "'{ }'"}) + ", " + one_of({"'NaN'", "0.1"}) + ", " +
                                one_of({"true", "false"}) + ", " + one_of({"1.0", "1.00"});
        const std::string one =
            " WHERE ctid = (SELECT ctid FROM work.plain ORDER BY random() LIMIT 1);";
        switch (below(5)) {
        case 0:
        case 1:
            return "INSERT INTO work.plain VALUES (" + row + "), (" + row + ");";
        case 2:
            return "UPDATE work.plain SET (a, v, j, f, b, n) = ROW(" + row + ")" + one;
        case 3:
            return below(8) == 0 ? "DELETE FROM work.plain WHERE a = 1;"
                                 : "UPDATE work.plain SET v = 'b' WHERE a = 2 AND b;";
        default:
            return "DELETE FROM work.plain" + one;
        }
    }

    std::mt19937 random;
    int alters = 0;
};

// "fwlog sql -f", a pipe, and a client that takes it.
struct copying {
    const char *dialect;
    std::vector<std::string> client_words;
    std::vector<std::string> stop_words; // that make the client end at the first error
    background writer;
    background client;
    int starts = 0;
};

class SqlLiveTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        const std::string psql = pg_server::client_program("psql");
        if (psql.empty())
            GTEST_SKIP() << "psql is missing (Debian package postgresql-client-15)";
        if (sqlite::missing())
            GTEST_SKIP() << "sqlite3 is missing (Debian package sqlite3)";
        pg_client(server->conninfo()).run("CREATE DATABASE " + database + "_copy");
        postgresql.dialect = "postgresql";
        postgresql.client_words = {psql, "-X", "-q", "-d", server->conninfo(database + "_copy")};
        postgresql.stop_words = {"-v", "ON_ERROR_STOP=1"};
        lite.dialect = "sqlite";
        lite.client_words = {"sqlite3", "-cmd", ".timeout 20000", copy_path};
        lite.stop_words = {"-bail"};
        configure(std::string("log-file-size 1M\n") + tables_cfg + ledger_cfg + audit_cfg);
        sql(std::string(tables_sql) + ledger_sql + audit_sql);
    }

    void TearDown() override
    {
        for (copying *to : {&postgresql, &lite}) {
            to->writer.end(SIGKILL);
            to->client.end(SIGKILL);
        }
        BridgeTest::TearDown();
        if (server != nullptr)
            server->drop_database(database + "_copy");
    }

    pg_client copy() const
    {
        return pg_client(server->conninfo(database + "_copy"));
    }

    // Where a copy is; empty: nowhere yet.
    std::string position(const copying &to)
    {
        const std::string query = "SELECT max(position) FROM done";
        std::string found;
        if (&to == &postgresql) {
            pg_client client = copy();
            if (client.value("SELECT to_regclass('done') IS NOT NULL") == "t")
                found = client.value(query);
        } else {
            const run_result result =
                run_program({"sqlite3", "-cmd", ".timeout 20000", copy_path, query});
            found = result.out.substr(0, result.out.find('\n'));
        }
        return found == "\\N" || found.ends_with(".0000000000") ? "" : found;
    }

    std::vector<std::string> writer_words(const copying &to, const std::string &after) const
    {
        std::vector<std::string> words = {KESTRO_BUILD_DIR "/bin/fwlog",
                                          "sql",
                                          "--dialect",
                                          to.dialect,
                                          "--create-tables",
                                          "--position-table",
                                          "done"};
        if (!after.empty())
            words.insert(words.end(), {"--after", after});
        return words;
    }

    static std::string shell(const std::vector<std::string> &words, const std::string &more)
    {
        std::string line = "exec";
        for (const std::string &word : words) {
            line += " '";
            for (const char c : word)
                line += c == '\'' ? "'\\''" : std::string(1, c);
            line += "'";
        }
        return line + more;
    }

    // Starts what does not run.  stop: the client ends at errors, and so has to begin where
    // the copy is.
    void ensure_running(copying &to, worker &random)
    {
        if (to.writer.running() && to.client.running())
            return;
        to.writer.end(SIGKILL);
        to.client.end(random.below(2) == 0 ? SIGKILL : 0);
        const bool stop = random.below(2) == 0;
        const std::string after = stop || random.below(2) == 0 ? position(to) : "";
        const std::string pipe =
            dir.file(std::string(to.dialect) + std::to_string(++to.starts) + ".pipe");
        ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
        std::vector<std::string> words = writer_words(to, after);
        words.emplace_back("-f");
        to.writer.start({"sh", "-c", shell(words, " > " + pipe)}, options,
                        dir.file(std::string(to.dialect) + "-writer"));
        words = to.client_words;
        if (stop)
            words.insert(words.begin() + 1, to.stop_words.begin(), to.stop_words.end());
        to.client.start({"sh", "-c", shell(words, " < " + pipe)}, options,
                        dir.file(std::string(to.dialect) + "-client"));
    }

    // The rest of the log in one go, from where the copy is.
    void finish(copying &to)
    {
        to.writer.end(SIGTERM);
        to.client.wait();
        const std::string after = position(to);
        ASSERT_NE(after, "");
        std::vector<std::string> words = writer_words(to, after);
        const run_result text = run_program(words, options);
        ASSERT_EQ(text.status, 0) << text.err;
        run_setup setup = options;
        setup.input = text.out;
        words = to.client_words;
        words.insert(words.begin() + 1, to.stop_words.begin(), to.stop_words.end());
        const run_result applied = run_program(words, setup);
        EXPECT_EQ(applied.status, 0) << to.dialect;
        EXPECT_EQ(applied.err, "") << to.dialect;
    }

    static table_rows rows_of(pg_client &client, const std::string &query)
    {
        const auto all = client.run(query);
        return {all.begin(), all.end()};
    }

    // Floating point values in one form.
    static table_rows canonical(const table_rows &rows, const std::set<size_t> &floats)
    {
        table_rows out;
        for (std::vector<std::string> row : rows) {
            for (const size_t at : floats)
                if (row[at] != "\\N") {
                    char text[40];
                    (void)snprintf(text, sizeof text, "%.17g", strtod(row[at].c_str(), nullptr));
                    row[at] = text;
                }
            out.insert(row);
        }
        return out;
    }

    void compare(const worker &work)
    {
        pg_client source = connect();
        pg_client target = copy();
        const sqlite file(copy_path);
        for (const char *table : {"work.keyed", "work.plain", "load.ledger", "load.audit"}) {
            const std::string query = std::string("SELECT t::text FROM ") + table + " t";
            EXPECT_EQ(rows_of(target, query), rows_of(source, query)) << table;
        }
        EXPECT_EQ(canonical(file.rows(std::string("SELECT ") + keyed_copy + work.keyed_extra +
                                      " FROM work_keyed"),
                            keyed_floats),
                  canonical(rows_of(source, std::string("SELECT ") + keyed_source +
                                                work.keyed_extra + " FROM work.keyed"),
                            keyed_floats));
        EXPECT_EQ(canonical(file.rows(std::string("SELECT ") + plain_copy + work.plain_extra +
                                      " FROM work_plain"),
                            plain_floats),
                  canonical(rows_of(source, std::string("SELECT ") + plain_source +
                                                work.plain_extra + " FROM work.plain"),
                            plain_floats));
        EXPECT_EQ(file.rows("SELECT id, client, amount, body, paid FROM load_ledger"),
                  rows_of(source, "SELECT id, client, amount, body, paid::int FROM load.ledger"));
        EXPECT_EQ(file.rows("SELECT id, client, xid FROM load_audit"),
                  rows_of(source, "SELECT id, client, xid FROM load.audit"));
    }

    std::string copy_path = dir.file("copy.db");
    copying postgresql;
    copying lite;
};

TEST_F(SqlLiveTest, CopiesSurviveKillsOfEverything)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    worker work(seed);
    // Rows that the log begins with.
    for (int n = 0; n < 20; n++)
        sql(work.transaction());
    const run_result created = catch_up({"--create", "--snapshot"});
    ASSERT_EQ(created.status, 0) << created.err;
    load_clients load(conninfo(), 2, seed, 0);
    int kills = 0;
    for (int round = 0; round < ROUNDS; round++) {
        if (!bridge.running())
            start_bridge();
        for (copying *to : {&postgresql, &lite})
            ASSERT_NO_FATAL_FAILURE(ensure_running(*to, work));
        for (int n = 10 + work.below(20); n > 0; n--)
            sql(work.below(50) == 0 ? work.large() : work.transaction());
        if (round % 2 == 1)
            sql(work.alter());
        // What came before a kill has got some way, or has not.
        std::this_thread::sleep_for(std::chrono::milliseconds(work.below(400)));
        background *const victims[] = {&postgresql.writer, &postgresql.client, &lite.writer,
                                       &lite.client, &bridge};
        for (int n = 1 + work.below(3); n > 0; n--) {
            background &victim = *victims[static_cast<size_t>(work.below(std::size(victims)))];
            kills += victim.running() ? 1 : 0;
            victim.end(SIGKILL);
        }
    }
    EXPECT_TRUE(load.stop());
    bridge.end(SIGTERM);
    const run_result rest = catch_up();
    ASSERT_EQ(rest.status, 0) << rest.err;
    for (copying *to : {&postgresql, &lite})
        ASSERT_NO_FATAL_FAILURE(finish(*to));
    compare(work);
    std::cout << kills << " kills, " << postgresql.starts << " and " << lite.starts
              << " starts of the copies, " << value("SELECT count(*) FROM load.audit")
              << " transactions of clients\n";
}
