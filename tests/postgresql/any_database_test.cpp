// Databases that nobody prepared, followed by one start with no configuration but where the log
// is: whatever applications do meanwhile, the capture records, with the values that the log has
// whole where a record could not, give the database's tables.
#include "tests/postgresql/bridge_fixture.h"

#include <fstream>

using testing::HasSubstr;
using testing::Not;

static const std::string here = KESTRO_SOURCE_DIR "/tests/postgresql/";
static const std::string example = KESTRO_SOURCE_DIR "/examples/orders";

#ifdef KESTRO_SANITIZED
constexpr int STEPS = 150;
#else
constexpr int STEPS = 600;
#endif
constexpr int SESSIONS = 3;
static const char TABLES[] = "64 tables, "; // of the schema and of the migrations

class AnyDatabaseTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        psql = pg_server::programs() + "/psql";
        if (access(psql.c_str(), X_OK) != 0)
            GTEST_SKIP() << "psql is missing (Debian package postgresql-client-15)";
        if (run_program({"/usr/bin/env", "python3", "--version"}).status != 0)
            GTEST_SKIP() << "no python3";
        write_file(dir.file("fwutil.cfg"), "log-directory log\n");
    }

    std::vector<std::string> psql_argv(const std::vector<std::string> &more) const
    {
        std::vector<std::string> argv = {
            psql, "-X", "-q", "-o", "/dev/null", "-v", "ON_ERROR_STOP=1", "-d", conninfo()};
        argv.insert(argv.end(), more.begin(), more.end());
        return argv;
    }

    void run_file(const std::string &name) const
    {
        const run_result result = run_program(psql_argv({"-f", here + name}), options);
        ASSERT_EQ(result.status, 0) << result.err;
    }

    // The words of one of the sessions that work at once.
    std::vector<std::string> work(int session, const std::string &call) const
    {
        return psql_argv(
            {"-c", "SELECT work.begin(0." + std::to_string(session) + ")", "-c", "CALL " + call});
    }

    void follow()
    {
        start_bridge({"--create", "--snapshot"});
        ASSERT_TRUE(poll_until([&] {
                        return status_member("state") == "streaming" || !bridge.running();
                    }) &&
                    bridge.running())
            << bridge.err();
        capture.start({KESTRO_BUILD_DIR "/bin/Kestro", "-cfg", "fwutil.cfg", "-stat", "any.status",
                       "-exthdr", "-yyyy", "-recnum", "any.msg"},
                      options, dir.file("kestro"));
    }

    // Both have gone on without a stop until nothing was left to take.
    void take_the_rest()
    {
        const std::string end = value("SELECT pg_current_wal_flush_lsn()");
        ASSERT_TRUE(poll_until([&] {
                        if (!bridge.running())
                            return true;
                        const std::string logged = status_member("logged_lsn");
                        return !logged.empty() &&
                               value("SELECT '" + logged + "'::pg_lsn >= '" + end + "'") == "t";
                    }) &&
                    bridge.running())
            << bridge.err();
        EXPECT_EQ(status_member("reconnects"), "0");
        EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
        const std::string changes = std::to_string(logged_changes());
        ASSERT_TRUE(poll_until([&] {
            const run_result info =
                run_program({KESTRO_BUILD_DIR "/bin/tmf", "info", "--json", "any.msg"}, options);
            return json_member(info.out, "records") == changes || !capture.running();
        })) << capture.err();
        EXPECT_EQ(capture.end(SIGTERM), 0) << capture.err();
        EXPECT_THAT(capture.out(),
                    HasSubstr(changes + " records written to capture file any.msg\n"));
    }

    // Those of the snapshot, too; their lines go to a file.
    int logged_changes() const
    {
        const run_result lines = fwlog({"tail", "-n", "1000000000", "--json"});
        EXPECT_EQ(lines.status, 0) << lines.err;
        write_file(dir.file("lines"), lines.out);
        return occurrences(lines.out, "{\"op\":");
    }

    // The tables that the server can tell of, as any_database_compare.py wants them.
    void write_contents() const
    {
        pg_client client = connect();
        std::ofstream file(dir.file("contents"), std::ios::binary);
        // One without columns has nothing to tell of, and the bridge says so.
        for (const auto &table : client.run(
                 "SELECT json_build_object('table', ARRAY[nspname, relname],"
                 " 'columns', names, 'types', types)::text, c.oid::regclass, list, relkind"
                 " FROM pg_class c JOIN pg_namespace n ON n.oid = relnamespace, LATERAL ("
                 "  SELECT array_agg(attname ORDER BY attnum) AS names,"
                 "   coalesce(string_agg(quote_ident(attname), ', ' ORDER BY attnum), '') AS list,"
                 "   array_agg((WITH RECURSIVE base(t) AS (SELECT atttypid UNION ALL"
                 "     SELECT typbasetype FROM base JOIN pg_type ON oid = t WHERE typtype = 'd')"
                 "     SELECT format_type(t, NULL) FROM base JOIN pg_type ON oid = t"
                 "     WHERE typtype <> 'd') ORDER BY attnum) AS types"
                 "  FROM pg_attribute WHERE attrelid = c.oid AND attnum > 0 AND NOT attisdropped"
                 "   AND attgenerated = '') a"
                 " WHERE relkind IN ('r', 'p') AND NOT relispartition AND relpersistence = 'p'"
                 " AND list <> '' AND nspname !~ '^(pg_|information_schema$|kestro$)' ORDER BY "
                 "nspname, relname"))
            file << '@' << table[0] << '\n' << rows(client, table);
    }

    // The rows of one, each behind "=".
    static std::string rows(pg_client &client, const std::vector<std::string> &table)
    {
        std::string text;
        std::string line;
        const std::string from = (table[3] == "p" ? " FROM " : " FROM ONLY ") + table[1];
        std::istringstream copied(client.copy("COPY (SELECT " + table[2] + from + ") TO STDOUT"));
        while (std::getline(copied, line))
            text += "=" + line + "\n";
        return text;
    }

    // What was captured, and what the database holds, as files for the comparer.
    void write_both() const
    {
        std::string records;
        for (const std::string &record : message_records(dir.file("any.msg"))) {
            for (int shift = 0; shift < 32; shift += 8)
                records += static_cast<char>(record.size() >> shift & 0xff);
            records += record;
        }
        write_file(dir.file("records"), records);
        write_contents();
    }

    run_result compare(const std::vector<std::string> &renamed = {}) const
    {
        std::vector<std::string> argv = {
            "/usr/bin/env", "python3", here + "any_database_compare.py",
            "lines",        "records", "contents"};
        argv.insert(argv.end(), renamed.begin(), renamed.end());
        return run_program(argv, options);
    }

    background capture;
    std::string psql;
};

TEST_F(AnyDatabaseTest, AnApplicationsCapturesAndWholeValuesGiveItsTables)
{
    ASSERT_NO_FATAL_FAILURE(run_file("any_database_schema.sql"));
    ASSERT_NO_FATAL_FAILURE(run_file("any_database_work.sql"));
    const run_result filled = run_program(work(1, "work.fill(10)"), options);
    ASSERT_EQ(filled.status, 0) << filled.err;
    ASSERT_NO_FATAL_FAILURE(follow());
    std::vector<background> sessions(SESSIONS);
    for (int i = 0; i < SESSIONS; i++)
        sessions[static_cast<size_t>(i)].start(
            work(2 + i, "work.go(" + std::to_string(STEPS) + ")"), options,
            dir.file("session" + std::to_string(i)));
    ASSERT_NO_FATAL_FAILURE(run_file("any_database_migrations.sql"));
    for (background &session : sessions)
        EXPECT_EQ(session.wait(), 0) << session.err();
    ASSERT_NO_FATAL_FAILURE(take_the_rest());
    write_both();
    const run_result compared = compare({"public.users.karma=public.users.reputation"});
    EXPECT_EQ(compared.status, 0) << compared.out << compared.err << bridge.err();
    EXPECT_THAT(compared.out, HasSubstr(TABLES));
    EXPECT_THAT(bridge.err(), HasSubstr("fwlog: warning: table public.no_columns has no columns"));
    // Each mark that such a database needs has been there.
    for (const char *mark : {" 0 .", " 0 N", " 0 C", " 0 ?", " 0 !"})
        EXPECT_THAT(compared.out, Not(HasSubstr(mark)));
}

TEST_F(AnyDatabaseTest, TheOrderEntryDatabaseNeedsNoDescription)
{
    sql(read_file(example + "/orders-schema.sql"));
    ASSERT_NO_FATAL_FAILURE(follow());
    const run_result work =
        run_program({"python3", example + "/orders-workload.py",
                     "host=" + value("SHOW unix_socket_directories") + " dbname=" + database, "1"},
                    options);
    ASSERT_EQ(work.status, 0) << work.err;
    ASSERT_NO_FATAL_FAILURE(take_the_rest());
    write_both();
    const run_result compared = compare();
    EXPECT_EQ(compared.status, 0) << compared.out << compared.err << bridge.err();
    EXPECT_THAT(compared.out, HasSubstr("8 tables, "));

    // The comparer sees a byte of a record and a row of the database that are otherwise.
    std::string records = read_file(dir.file("records"));
    std::string contents = read_file(dir.file("contents"));
    records[4 + 141] ^= 1;
    write_file(dir.file("records"), records);
    run_result different = compare();
    EXPECT_EQ(different.status, 1) << different.err;
    EXPECT_THAT(different.out, HasSubstr(" in the record, "));
    records[4 + 141] ^= 1;
    write_file(dir.file("records"), records);
    contents.erase(contents.rfind("\n=") + 1);
    write_file(dir.file("contents"), contents);
    different = compare();
    EXPECT_EQ(different.status, 1) << different.err;
    EXPECT_THAT(different.out, HasSubstr(": 1 rows too many, such as "));
}
