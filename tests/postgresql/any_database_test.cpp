// Databases that nobody prepared, followed by one start with no configuration but where the log
// is: whatever applications do meanwhile, the capture records, with the values that the log has
// whole where a record could not, give the database's tables.
#include "tests/postgresql/any_database.h"

using testing::HasSubstr;
using testing::Not;

static const std::string example = KESTRO_SOURCE_DIR "/examples/orders";

#ifdef KESTRO_SANITIZED
constexpr int STEPS = 150;
#else
constexpr int STEPS = 600;
#endif
constexpr int SESSIONS = 3;
// Tables of the schema and of the migrations: before version 13 partitions count, from version 18
// on one that has nothing but a generated column.
static std::string tables_of(int version)
{
    return version < 13 ? "71 tables, " : version < 18 ? "64 tables, " : "65 tables, ";
}

class AnyDatabaseTest : public AnyDatabase {
  protected:
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
    EXPECT_THAT(compared.out, HasSubstr(tables_of(server_version())));
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
