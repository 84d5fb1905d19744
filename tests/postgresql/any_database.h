// A database that nobody prepared, sessions that work in it, and the comparison of what was
// captured with its tables (any_database_compare.py).
#ifndef TESTS_POSTGRESQL_ANY_DATABASE_H
#define TESTS_POSTGRESQL_ANY_DATABASE_H

#include "tests/postgresql/bridge_fixture.h"

#include <fstream>
#include <sstream>

class AnyDatabase : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        psql = pg_server::client_program("psql");
        if (psql.empty())
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
        const run_result result =
            run_program(psql_argv({"-f", KESTRO_SOURCE_DIR "/tests/postgresql/" + name}), options);
        ASSERT_EQ(result.status, 0) << result.err;
    }

    // The words of one of the sessions that work at once.
    std::vector<std::string> work(int session, const std::string &call) const
    {
        return psql_argv(
            {"-c", "SELECT work.begin(0." + std::to_string(session) + ")", "-c", "CALL " + call});
    }

    // Those of the snapshot, too, but no marks; the lines of all go to a file.
    int logged_changes() const
    {
        const run_result lines = fwlog({"tail", "-n", "1000000000", "--json"});
        EXPECT_EQ(lines.status, 0) << lines.err;
        write_file(dir.file("lines"), lines.out);
        return occurrences(lines.out, "{\"op\":") - occurrences(lines.out, "{\"op\":\"t\"") -
               occurrences(lines.out, "{\"op\":\"g\"");
    }

    // The tables that the server can tell of, as any_database_compare.py wants them.
    void write_contents() const
    {
        pg_client client = connect();
        std::ofstream file(dir.file("contents"), std::ios::binary);
        const std::string sent = client.version() < 18 ? "= ''" : "<> 'v'";
        const std::string published = client.version() < 13
                                          ? "relkind = 'r'"
                                          : "relkind IN ('r', 'p') AND NOT relispartition";
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
                 "   AND attgenerated " +
                 sent + ") a WHERE " + published +
                 " AND relpersistence = 'p'"
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

    // Of columns that were renamed and tables that are set aside, as the comparer wants them.
    run_result compare(const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> argv = {
            "/usr/bin/env",
            "python3",
            KESTRO_SOURCE_DIR "/tests/postgresql/any_database_compare.py",
            "lines",
            "records",
            "contents"};
        argv.insert(argv.end(), more.begin(), more.end());
        return run_program(argv, options);
    }

    background capture;
    std::string psql;
};

#endif
