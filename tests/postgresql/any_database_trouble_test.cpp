// The same database under releases that once ended its capture, while bridge, Kestro and server
// are killed at random moments: one table may be set aside, the others go on and are equal in the
// end, and so are those that were set aside, once they are mended and taken back.
#include "tests/postgresql/any_database.h"

#include <algorithm>
#include <atomic>
#include <iostream>
#include <random>
#include <regex>
#include <thread>

using testing::ElementsAre;
using testing::HasSubstr;

#ifdef KESTRO_SANITIZED
constexpr int STATEMENTS = 20;
constexpr useconds_t BETWEEN_STEPS = 400'000;
constexpr useconds_t BETWEEN_KILLS = 1'500'000;
#else
constexpr int STATEMENTS = 60;
constexpr useconds_t BETWEEN_STEPS = 200'000;
constexpr useconds_t BETWEEN_KILLS = 400'000;
#endif
constexpr int SESSIONS = 2;
constexpr int TRIES = 600; // of a step, a tenth of a second each

// Tables whose values must fit, so that what does not sets them aside.
static const char CONFIG[] = "log-directory log\n"
                             "log-file-size 1M\n"
                             "table crm.strict values=error\n"
                             "table crm.keyed values=error\n";
static const char STRICT[] = "CREATE TABLE crm.strict (id serial PRIMARY KEY, note text);"
                             "CREATE TABLE crm.keyed (id serial PRIMARY KEY, a text, b text);"
                             "ALTER TABLE crm.strict REPLICA IDENTITY FULL;"
                             "ALTER TABLE crm.keyed REPLICA IDENTITY FULL;"
                             "COMMENT ON COLUMN crm.strict.note IS 'work: md5(random()::text)';"
                             "COMMENT ON COLUMN crm.keyed.a IS 'work: md5(random()::text)';"
                             "COMMENT ON COLUMN crm.keyed.b IS 'work: md5(random()::text)';"
                             "CREATE TABLE work.steps (done integer PRIMARY KEY)";

// What takes away why they were set aside.
static const char MEND[] = "DO $$ BEGIN EXECUTE 'ALTER TABLE crm.bits '"
                           " || (SELECT string_agg('DROP COLUMN b' || n, ', ')"
                           " FROM generate_series(1, 1500) n); END $$;"
                           "UPDATE crm.strict SET note = left(note, 50);"
                           "ALTER TABLE crm.keyed REPLICA IDENTITY FULL";

class AnyDatabaseTroubleTest : public AnyDatabase {
  protected:
    void SetUp() override
    {
        AnyDatabase::SetUp();
        if (IsSkipped() || server == nullptr)
            return;
        write_file(dir.file("fwutil.cfg"), CONFIG);
        ASSERT_NO_FATAL_FAILURE(run_file("any_database_schema.sql"));
        ASSERT_NO_FATAL_FAILURE(run_file("any_database_work.sql"));
        sql(STRICT);
        const run_result filled = run_program(work(1, "work.fill(10)"), options);
        ASSERT_EQ(filled.status, 0) << filled.err;
    }

    void ensure_running()
    {
        if (!bridge.running()) {
            bridge_starts++;
            start_bridge({"--create", "--snapshot"});
        }
        if (!capture.running()) {
            capture_starts++;
            capture.start(capture_argv(), options, dir.file("kestro"));
        }
    }

    static std::vector<std::string> capture_argv(const std::vector<std::string> &more = {})
    {
        std::vector<std::string> argv = {KESTRO_BUILD_DIR "/bin/Kestro", "-cfg", "fwutil.cfg",
                                         "-stat", "any.status"};
        argv.insert(argv.end(), more.begin(), more.end());
        argv.insert(argv.end(), {"-exthdr", "-yyyy", "-recnum", "any.msg"});
        return argv;
    }

    // Sessions that a crash of the server has ended are begun again.
    void ensure_working()
    {
        for (size_t i = 0; i < sessions.size(); i++)
            if (!sessions[i].running())
                sessions[i].start(work(static_cast<int>(random() % 900),
                                       "work.go(" + std::to_string(STATEMENTS) + ")"),
                                  options, dir.file("session" + std::to_string(i)));
    }

    void stop_working()
    {
        for (background &session : sessions)
            session.wait();
    }

    // Takes the steps one after the other, each until it is done.  The name of one that cannot be
    // done, and why; empty: all are.
    std::string take_steps(std::atomic<int> &taken) const
    {
        std::istringstream file(
            read_file(KESTRO_SOURCE_DIR "/tests/postgresql/any_database_trouble.sql"));
        std::vector<std::string> steps;
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("-- step: "))
                steps.emplace_back();
            if (!steps.empty())
                steps.back() += line + "\n";
        }
        for (size_t i = 0; i < steps.size(); i++) {
            if (steps[i].starts_with("-- step: once all is taken in:") &&
                !poll_until([&] { return status_member("taking") == "[]"; }, 300))
                return "tables are still being taken in\n" + steps[i];
            if (std::string why = take_step(std::to_string(i), steps[i]); !why.empty())
                return why + "\n" + steps[i];
            taken++;
            usleep(BETWEEN_STEPS);
        }
        return steps.size() < 10 ? "no steps" : "";
    }

    std::string take_step(const std::string &number, const std::string &step) const
    {
        std::string why;
        for (int i = 0; i < TRIES; i++) {
            try {
                pg_client client = connect();
                if (client.value("SELECT count(*) FROM work.steps WHERE done = " + number) == "1")
                    return "";
                client.run("BEGIN; INSERT INTO work.steps VALUES (" + number + "); " + step +
                           "; COMMIT");
            } catch (const pg_error &error) { // a crash, or a deadlock with a session
                why = error.what();
                usleep(100'000);
            }
        }
        return why;
    }

    // Kills some of bridge (1), Kestro (2) and server (4), one right behind the other.
    void kill_some(unsigned victims)
    {
        if ((victims & 1) != 0)
            bridge.signal(SIGKILL);
        if ((victims & 2) != 0)
            capture.signal(SIGKILL);
        if ((victims & 4) != 0)
            server->crash();
        if ((victims & 1) != 0)
            bridge.wait();
        if ((victims & 2) != 0)
            capture.wait();
        if ((victims & 4) != 0) {
            crashes++;
            server->start();
        }
    }

    // All steps are taken while sessions work and processes are killed: less and less often while
    // no step ends, since on a slow machine what is killed may not get that far.
    void live_through_the_steps()
    {
        std::atomic<bool> done = false;
        std::atomic<int> taken = 0;
        std::string failed;
        std::thread steps([&] {
            failed = take_steps(taken);
            done = true;
        });
        int seen = 0;
        useconds_t pause = BETWEEN_KILLS;
        while (!done) {
            ensure_running();
            ensure_working();
            pause = seen == taken ? pause + pause / 8 : BETWEEN_KILLS;
            seen = taken;
            usleep(pause + static_cast<useconds_t>(random() % BETWEEN_KILLS));
            kill_some(static_cast<unsigned>(1 + random() % 7));
        }
        steps.join();
        EXPECT_EQ(failed, "");
        stop_working();
    }

    // What the bridge has told, without the values that do not fit.
    std::string said() const
    {
        std::istringstream lines(bridge.err());
        std::string text;
        for (std::string line; std::getline(lines, line);)
            text += line.find("told once") == std::string::npos ? line + "\n" : "";
        return text;
    }

    // Until the log has what the server has, and all that is being taken in.
    bool all_is_taken()
    {
        const std::string end = value("SELECT pg_current_wal_flush_lsn()");
        return poll_until([&] {
            ensure_running();
            const std::string logged = status_member("logged_lsn");
            return !logged.empty() && status_member("taking") == "[]" &&
                   value("SELECT '" + logged + "'::pg_lsn >= '" + end + "'") == "t";
        });
    }

    // Bridge and Kestro end with all that there is; then log, records and tables are compared.
    run_result compared(const std::vector<std::string> &aside)
    {
        EXPECT_TRUE(all_is_taken()) << said() << read_file(dir.file("log/postgresql.json"));
        EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << said();
        capture.end(SIGTERM);
        const run_result last = run_program(capture_argv({"-synconly"}), options);
        EXPECT_EQ(last.status, 0) << last.err;
        (void)logged_changes();
        write_both();
        std::vector<std::string> words;
        for (const std::string &table : aside)
            words.push_back("aside:" + table);
        return compare(words);
    }

    // The tables that are set aside, as the state file has them.
    std::vector<std::string> aside() const
    {
        const std::string state = read_file(dir.file("log/postgresql.json"));
        const size_t from = state.find("\"aside\":");
        const std::string list = state.substr(from, state.find("\"taking\":") - from);
        static const std::regex table(R"x("table":"([^"]*)")x");
        std::vector<std::string> found;
        for (std::sregex_iterator at(list.begin(), list.end(), table), end; at != end; ++at)
            found.push_back((*at)[1]);
        std::sort(found.begin(), found.end());
        return found;
    }

    std::vector<background> sessions = std::vector<background>(SESSIONS);
    int bridge_starts = 0;
    int capture_starts = 0;
    int crashes = 0;
    const char *given_seed = getenv("KESTRO_TEST_SEED");
    unsigned seed = given_seed != nullptr ? static_cast<unsigned>(strtoul(given_seed, nullptr, 10))
                                          : std::random_device{}();
    std::mt19937 random{seed};
};

TEST_F(AnyDatabaseTroubleTest, OneTableNotTheDatabaseWhoeverIsKilled)
{
    std::cout << "KESTRO_TEST_SEED=" << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    ensure_running();
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << said();
    ASSERT_NO_FATAL_FAILURE(live_through_the_steps());
    run_result result = compared({"crm.bits", "crm.keyed", "crm.strict"});
    EXPECT_EQ(result.status, 0) << result.out << result.err << said();
    EXPECT_THAT(aside(), ElementsAre("crm.bits", "crm.keyed", "crm.strict"));
    std::cout << result.out;

    // They are mended and taken back while the others go on, and the bridge may be killed at it.
    ensure_running();
    ensure_working();
    sql(MEND);
    ASSERT_TRUE(all_is_taken()) << said();
    background resume;
    resume.start(bridge_argv({"--resume", "all"}), options, dir.file("resume"));
    usleep(static_cast<useconds_t>(random() % 500'000));
    kill_some(1);
    ensure_running();
    EXPECT_EQ(resume.wait(), 0) << resume.err() << said();
    stop_working();
    result = compared({});
    EXPECT_EQ(result.status, 0) << result.out << result.err << said();
    EXPECT_THAT(aside(), ElementsAre());
    const run_result verify = fwlog({"verify"});
    EXPECT_EQ(verify.status, 0) << verify.out << verify.err;
    std::cout << result.out << crashes << " crashes of the server, " << bridge_starts
              << " starts of the bridge, " << capture_starts << " of Kestro\n";
}
