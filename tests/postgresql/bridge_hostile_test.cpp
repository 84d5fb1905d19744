// "fwlog postgresql" and clients that write whatever the server takes: names, texts and messages
// of any bytes.  Nothing of it stops the feed, and what comes behind it is there.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;
using testing::Not;

class BridgeHostileTest : public BridgeTest {
  protected:
    static std::string quoted(const std::string &name)
    {
        std::string out = "\"";
        for (const char c : name)
            out += c == '"' ? "\"\"" : std::string(1, c);
        return out + "\"";
    }

    // The bridge goes on: a row of a table made now comes to the log, here and after a restart.
    void expect_alive(const std::vector<std::string> &more = {})
    {
        const std::string number = std::to_string(++alive);
        sql("CREATE TABLE alive" + number + " (alive integer PRIMARY KEY); INSERT INTO alive" +
            number + " VALUES (" + number + ")");
        const std::string row = "after ALIVE=" + number + " ";
        if (bridge.running()) {
            EXPECT_TRUE(poll_until([&] { return logged(row) || !bridge.running(); }));
        } else {
            const run_result result = catch_up(more);
            EXPECT_EQ(result.status, 0) << result.err;
        }
        EXPECT_TRUE(logged(row)) << bridge.err();
    }

    int alive = 0;
};

static const std::string longest(63, 'w');

static const std::vector<std::string> names = {
    "\"",
    " ",
    "   ",
    "'",
    "\\",
    "\n",
    "\t\r\x01\x7F",
    ".",
    "..",
    ",",
    "#",
    "=",
    "%s%n%d",
    "a\"b",
    "a b",
    " a",
    "a ",
    "a,b",
    "U&\"x\"",
    "\"; DROP TABLE alive1; --",
    "'; DROP TABLE alive1; --",
    "$1",
    "{}",
    "[0]",
    "{\"op\":\"d\"}",
    "NULL-MAP",
    "null_map",
    "skip-table x",
    "select",
    "all",
    "-",
    "--",
    "1",
    "\xC3\xA9",
    "\xF0\x9F\x90\x98",
    "\xEF\xBF\xBF",
    "\xC2\x85",
    "\xE2\x80\xAE",
    longest,
    longest.substr(1) + "x",
    longest.substr(1) + "\"",
    std::string(63, '"'),
    std::string(63, ' '),
    std::string(62, ' ') + ".",
};

TEST_F(BridgeHostileTest, NamesOfQuotesAndBlanksAndTheLongest)
{
    start_bridge({"--create", "-v"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    pg_client client = connect();
    std::string columns;
    for (const std::string &name : names)
        columns += ", " + quoted(name) + " text";
    int row = 0;
    for (const std::string &name : names) {
        const std::string table = quoted(name) + "." + quoted(name);
        client.run("CREATE SCHEMA " + quoted(name));
        client.run("CREATE TYPE " + quoted(name) + "." + quoted("t" + name) + " AS ENUM ('a', " +
                   client.value("SELECT quote_literal($kestro$" + name + "$kestro$)") + ")");
        client.run("CREATE TABLE " + table + " (" + quoted(name) + " integer PRIMARY KEY, word " +
                   quoted(name) + "." + quoted("t" + name) + ")");
        client.run("INSERT INTO " + table + " VALUES (" + std::to_string(++row) + ", 'a')");
        client.run("UPDATE " + table + " SET word = NULL");
    }
    client.run("CREATE TABLE wide (number integer PRIMARY KEY" + columns + ")");
    client.run("INSERT INTO wide VALUES (4711)");
    expect_alive();
    const std::string log = dump();
    const int tables = static_cast<int>(names.size());
    EXPECT_EQ(occurrences(log, " insert "), tables + 2); // table "wide", and the one behind it
    EXPECT_EQ(occurrences(log, " update "), tables);
    EXPECT_TRUE(logged("after NUMBER=4711 "));
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    EXPECT_THAT(bridge.err(), Not(HasSubstr("set aside")));
    // All of it again: changed, emptied, renamed, dropped.
    for (const std::string &name : names) {
        const std::string table = quoted(name) + "." + quoted(name);
        client.run("ALTER TABLE " + table + " ADD " + quoted("+" + name) + " integer");
        client.run("UPDATE " + table + " SET word = 'a'");
        client.run("TRUNCATE " + table);
        client.run("ALTER TABLE " + table + " RENAME TO renamed");
        client.run("INSERT INTO " + quoted(name) + ".renamed VALUES (1, 'a')");
        client.run("DROP TABLE " + quoted(name) + ".renamed");
    }
    expect_alive();
    expect_alive();
}

TEST_F(BridgeHostileTest, MessagesOfEveryPrefix)
{
    start_bridge({"--create"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    if (server_version() < 14)
        return; // messages are not sent
    pg_client client = connect();
    std::vector<std::string> prefixes = names;
    prefixes.insert(prefixes.end(), {"", "session", "session ", "SESSION", "kestro", "kestro ",
                                     std::string(100'000, 'p')});
    const std::string all_bytes = "(SELECT decode(string_agg(lpad(to_hex(n), 2, '0'), ''), 'hex') "
                                  "FROM generate_series(0, 255) n)";
    client.run("CREATE TABLE noted (id serial PRIMARY KEY)");
    for (const std::string &prefix : prefixes) {
        const std::string text = "$kestro$" + prefix + "$kestro$";
        for (const char *transactional : {"true", "false"}) {
            const std::string emit =
                "SELECT pg_logical_emit_message(" + std::string(transactional) + ", " + text;
            client.run("BEGIN; " + emit + ", ''); " + emit + ", " + all_bytes +
                       "); INSERT INTO noted DEFAULT VALUES; " + emit +
                       ", 'pid=99999999999;;=;login=;user=' || repeat('x', 70000)); " + emit +
                       ", " + text + "); INSERT INTO noted DEFAULT VALUES; COMMIT");
            client.run(emit + ", " + text + ")");
        }
    }
    expect_alive();
    EXPECT_TRUE(logged("after ID=" + std::to_string(4 * prefixes.size())));
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    expect_alive();
}

// A database without an encoding takes all bytes but zero, in names, too.
TEST_F(BridgeHostileTest, AnyBytesInADatabaseWithoutEncoding)
{
    pg_client(server->conninfo()).run("DROP DATABASE " + database);
    pg_client(server->conninfo())
        .run("CREATE DATABASE " + database +
             " ENCODING 'SQL_ASCII' TEMPLATE template0 LC_COLLATE 'C' LC_CTYPE 'C'");
    start_bridge({"--create", "-v"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    pg_client client = connect();
    client.run("CREATE TABLE bytes (id integer PRIMARY KEY, body text);"
               "ALTER TABLE bytes REPLICA IDENTITY FULL");
    for (int first = 1; first < 256; first += 7) {
        std::string text;
        for (int byte = first; byte < std::min(first + 7, 256); byte++)
            text += static_cast<char>(byte);
        const std::string id = std::to_string(first);
        const std::string table = quoted("t" + text);
        client.run("INSERT INTO bytes VALUES (" + id + ", $kestro$" + text + "$kestro$)");
        client.run("CREATE TABLE " + table + " (id integer PRIMARY KEY, " + quoted("c" + text) +
                   " text)");
        client.run("INSERT INTO " + table + " VALUES (" + id + ", $kestro$" + text + "$kestro$)");
        client.run("SELECT pg_logical_emit_message(true, $kestro$" + text + "$kestro$, '')");
    }
    client.run("UPDATE bytes SET body = body || body; DELETE FROM bytes");
    expect_alive();
    const std::string log = dump();
    for (int first = 1; first < 256; first += 7)
        EXPECT_GE(occurrences(log, "after ID=" + std::to_string(first) + " "), 3) << first;
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    expect_alive();
}
