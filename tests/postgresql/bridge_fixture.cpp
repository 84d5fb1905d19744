// The common parts of the cases about "fwlog postgresql".
#include "tests/postgresql/bridge_fixture.h"

#include "msgfile/tmf.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>

using testing::IsEmpty;

static const std::string bin = KESTRO_BUILD_DIR "/bin/";

const char ledger_sql[] =
    "CREATE SCHEMA load;"
    "CREATE TABLE load.ledger (id bigint PRIMARY KEY, client integer NOT NULL,"
    " amount numeric(11,2), body varchar(60) NOT NULL, paid boolean);"
    "ALTER TABLE load.ledger REPLICA IDENTITY FULL;";

const char ledger_cfg[] = "database LOAD\n"
                          "dataset LEDGER\n"
                          "item ID       I 8\n"
                          "item CLIENT   I 4\n"
                          "item AMOUNT   P 6 scale=2\n"
                          "item BODY     X 60\n"
                          "item PAID     X 1\n"
                          "item NULL-MAP X 5 null-map\n";

const replay_keys load_keys = {{"load.ledger", {"ID"}}, {"load.audit", {"ID"}}};

std::unique_ptr<pg_server> BridgeTest::server;

void BridgeTest::SetUpTestSuite()
{
    if (pg_server::missing().empty())
        server = std::make_unique<pg_server>();
}

void BridgeTest::TearDownTestSuite()
{
    server.reset();
}

void BridgeTest::SetUp()
{
    if (server == nullptr)
        GTEST_SKIP() << pg_server::missing();
    static int cases = 0;
    database = "case" + std::to_string(++cases);
    pg_client(server->conninfo()).run("CREATE DATABASE " + database);
    options.directory = dir.path();
    options.env = {{"TZ", "UTC"}};
    configure();
}

// The slot goes before its database; a walsender that has just lost its client may
// hold it a moment longer.
void BridgeTest::TearDown()
{
    if (server == nullptr)
        return;
    bridge.end(SIGKILL);
    pg_client client(server->conninfo());
    client.run("SELECT pg_terminate_backend(active_pid) FROM pg_replication_slots "
               "WHERE active_pid IS NOT NULL");
    poll_until([&] {
        return client.value("SELECT count(*) FROM pg_replication_slots WHERE active") == "0";
    });
    client.run("SELECT pg_drop_replication_slot(slot_name) FROM pg_replication_slots");
    server->drop_database(database);
}

void LedgerTest::SetUp()
{
    BridgeTest::SetUp();
    if (server == nullptr)
        return;
    configure(ledger_cfg);
    sql(ledger_sql);
}

void LedgerTest::insert(int id) const
{
    sql("INSERT INTO load.ledger VALUES (" + std::to_string(id) + ", 0, 1, 'row', NULL)");
}

std::string BridgeTest::conninfo(const std::string &user) const
{
    return server->conninfo(database, user);
}

int BridgeTest::server_version()
{
    return pg_client(server->conninfo()).version();
}

std::string BridgeTest::unsent_kind()
{
    return server_version() < 18 ? "STORED" : "VIRTUAL";
}

std::string BridgeTest::publication_with()
{
    const int version = server_version();
    if (version < 13)
        return "";
    return std::string(" WITH (publish_via_partition_root = true") +
           (version < 18 ? ")" : ", publish_generated_columns = stored)");
}

pg_client BridgeTest::connect(const std::string &user) const
{
    return pg_client(conninfo(user));
}

void BridgeTest::sql(const std::string &text) const
{
    connect().run(text);
}

std::string BridgeTest::value(const std::string &text) const
{
    return connect().value(text);
}

void BridgeTest::configure(const std::string &text) const
{
    write_file(dir.file("fwutil.cfg"), "log-directory log\nbyte-order little\n" + text);
}

std::vector<std::string> BridgeTest::bridge_argv(const std::vector<std::string> &more) const
{
    std::vector<std::string> argv = {bin + "fwlog",   "postgresql", "-cfg",   "fwutil.cfg",
                                     "--conninfo",    conninfo(),   "--slot", database,
                                     "--publication", database};
    argv.insert(argv.end(), more.begin(), more.end());
    return argv;
}

run_result BridgeTest::run_bridge(const std::vector<std::string> &more) const
{
    std::vector<std::string> argv = bridge_argv(more);
    argv.insert(argv.begin(), {"timeout", "-s", "KILL", "120"});
    return run_program(argv, options);
}

run_result BridgeTest::catch_up(const std::vector<std::string> &more) const
{
    std::vector<std::string> words = {"--once"};
    words.insert(words.end(), more.begin(), more.end());
    return run_bridge(words);
}

void BridgeTest::start_bridge(const std::vector<std::string> &more)
{
    bridge.start(bridge_argv(more), options, dir.file("bridge"));
}

void BridgeTest::begin_following()
{
    start_bridge({"--create"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
}

bool BridgeTest::bridge_says(const std::string &text)
{
    return poll_until([&] { return bridge.err().find(text) != std::string::npos; });
}

std::string BridgeTest::status_member(const std::string &name) const
{
    return json_member(read_file(dir.file("log/postgresql.json")), name);
}

bool BridgeTest::snapshot_is_done() const
{
    return status_member("snapshot") == "done";
}

void BridgeTest::let_commits_wait(bool wait) const
{
    pg_client session = connect();
    session.run("SET synchronous_commit = local");
    session.run(wait ? "ALTER SYSTEM SET synchronous_standby_names = 'nobody'"
                     : "ALTER SYSTEM RESET synchronous_standby_names");
    session.run("SELECT pg_reload_conf()");
}

std::thread BridgeTest::run_until_it_waits(const std::string &text) const
{
    const std::string waiting =
        "SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'SyncRep'";
    const int before = std::stoi(value(waiting));
    for (;;) {
        const auto done = std::make_shared<std::atomic<bool>>(false);
        std::thread client([this, text, done] {
            sql(text);
            *done = true;
        });
        bool waits = false;
        EXPECT_TRUE(poll_until([&] {
            waits = std::stoi(value(waiting)) > before;
            return waits || *done;
        })) << text;
        if (waits || !*done)
            return client;
        client.join();
    }
}

void BridgeTest::keep_slot() const
{
    sql("SELECT pg_copy_logical_replication_slot('" + database + "', '" + database + "_kept')");
}

void BridgeTest::drop_slot(pg_client &client) const
{
    const std::string which = " FROM pg_replication_slots WHERE slot_name = '" + database + "'";
    client.run("SELECT pg_terminate_backend(active_pid)" + which + " AND active_pid IS NOT NULL");
    ASSERT_TRUE(
        poll_until([&] { return client.value("SELECT count(*)" + which + " AND active") == "0"; }));
    client.run("SELECT pg_drop_replication_slot(slot_name)" + which);
}

void BridgeTest::drop_slot() const
{
    pg_client client = connect();
    drop_slot(client);
}

void BridgeTest::bring_slot_back(pg_client &client) const
{
    ASSERT_NO_FATAL_FAILURE(drop_slot(client));
    client.run("SELECT pg_copy_logical_replication_slot('" + database + "_kept', '" + database +
               "')");
}

void BridgeTest::bring_slot_back() const
{
    pg_client client = connect();
    bring_slot_back(client);
}

run_result BridgeTest::fwlog(const std::vector<std::string> &words) const
{
    std::vector<std::string> argv = {bin + "fwlog"};
    argv.insert(argv.end(), words.begin(), words.end());
    argv.insert(argv.end(), {"-cfg", "fwutil.cfg"});
    return run_program(argv, options);
}

std::string BridgeTest::dump() const
{
    const run_result result = fwlog({"dump"});
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
}

std::string BridgeTest::history() const
{
    const run_result result = fwlog({"dump", "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    std::string lines;
    std::istringstream in(result.out);
    for (std::string line; std::getline(in, line);) {
        const std::string op = json_member(line, "op");
        const size_t values = line.find("\"before\"");
        if (op.empty() || values == line.npos) // what a dataset is
            continue;
        // Why there is a gap may be told in other words where a question was not answered.
        const size_t end = std::min(line.find(",\"gap\""), line.find(",\"source\""));
        lines += op + " " + json_member(line, "dataset") + " " + line.substr(values, end - values);
        const std::string transaction = json_member(line, "xid");
        if (transaction != "0") // else rows of a table, as they are now
            lines += " " + transaction + " " + json_member(line, "lsn");
        lines += "\n";
    }
    return lines;
}

bool BridgeTest::logged(const std::string &text) const
{
    return fwlog({"dump"}).out.find(text) != std::string::npos;
}

void BridgeTest::wait_for_row(int id)
{
    const auto there = [&] { return logged("after ID=" + std::to_string(id) + " "); };
    ASSERT_TRUE(poll_until([&] { return there() || !bridge.running(); }) && there())
        << bridge.err();
}

std::vector<std::string> BridgeTest::captured() const
{
    for (const char *name : {"all.msg", "all.status"})
        std::filesystem::remove(dir.file(name));
    const run_result result =
        run_program({bin + "Kestro", "-cfg", "fwutil.cfg", "-stat", "all.status", "-synconly",
                     "-exthdr", "-yyyy", "-recnum", "all.msg"},
                    options);
    EXPECT_EQ(result.status, 0) << result.err;
    return message_records(dir.file("all.msg"));
}

void BridgeTest::expect_log_equals_tables() const
{
    replay state = replay_open(dir.file("fwutil.cfg"), load_keys);
    for (const std::string &record : captured())
        replay_message(state, record);
    pg_client client = connect();
    write_file(dir.file("contents.csv"), pg_contents(client, "'load'"));
    replay_compare(state, dir.file("contents.csv"));
    state.errors.resize(std::min<size_t>(state.errors.size(), 5));
    EXPECT_THAT(state.errors, IsEmpty());
}

int record_number(const std::string &record)
{
    return atoi(record.substr(126, 15).c_str());
}

std::vector<std::string> message_records(const std::string &path)
{
    std::vector<std::string> records;
    tmf_handle *reader =
        tmf_fopen(path.c_str(), TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
    EXPECT_NE(reader, nullptr) << path;
    if (reader == nullptr)
        return records;
    std::string buffer(TMF_MAX_DATA, '\0');
    int n = 0;
    while ((n = tmf_fread(reader, buffer.data(), TMF_MAX_DATA, 0)) > 0)
        records.push_back(buffer.substr(0, static_cast<size_t>(n)));
    EXPECT_EQ(n, 0);
    EXPECT_EQ(tmf_fclose(reader), 0);
    return records;
}

std::string json_member(const std::string &json, const std::string &name)
{
    const std::string key = "\"" + name + "\":";
    const size_t found = json.find(key);
    if (found == std::string::npos)
        return "";
    const size_t at = found + key.size();
    if (json[at] == '"')
        return json.substr(at + 1, json.find('"', at + 1) - at - 1);
    return json.substr(at, json.find_first_of(",}", at) - at);
}

int occurrences(const std::string &text, const std::string &part)
{
    int n = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        n++;
    return n;
}
