// "fwlog postgresql" and databases whose encoding is not UTF-8: whatever the server takes as text
// is followed, and what has no UTF-8 is marked.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;

class BridgeEncodingTest : public BridgeTest {
  protected:
    // The case's database anew, in this encoding.
    void recreate(const std::string &encoding) const
    {
        pg_client client(server->conninfo());
        client.run("DROP DATABASE " + database);
        client.run("CREATE DATABASE " + database + " ENCODING '" + encoding +
                   "' TEMPLATE template0 LC_COLLATE 'C' LC_CTYPE 'C'");
    }

    // A session that sends and gets bytes as they are stored.
    pg_client raw() const
    {
        pg_client client(conninfo());
        client.run("SET client_encoding = 'SQL_ASCII'");
        return client;
    }

    // What the server makes of stored bytes in UTF-8; empty: it cannot.
    static std::string in_utf8(pg_client &client, const std::string &hex)
    {
        try {
            const std::string found =
                client.value("SELECT encode(convert(decode('" + hex +
                             "', 'hex'), getdatabaseencoding(), 'UTF8'), 'hex')");
            return found;
        } catch (const pg_error &) {
            return "";
        }
    }

    static std::string from_hex(const std::string &hex)
    {
        std::string bytes;
        for (size_t i = 0; i < hex.size(); i += 2)
            bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
        return bytes;
    }

    // The last line of the log's changes that holds a text.
    std::string line_with(const std::string &text) const
    {
        std::istringstream json(fwlog({"tail", "--json"}).out);
        std::string found;
        for (std::string line; std::getline(json, line);)
            if (line.find(text) != line.npos)
                found = line;
        return found;
    }
};

// Characters of an encoding, as hexadecimal digits, and bytes that are none.
static std::vector<std::string> characters_of(const std::string &encoding)
{
    static const char digits[] = "0123456789abcdef";
    const auto hex = [](int byte) { return std::string{digits[byte / 16], digits[byte % 16]}; };
    std::vector<std::string> all;
    for (int byte = 0x80; byte < 0x100; byte++) {
        if (!encoding.starts_with("EUC_")) {
            all.push_back(hex(byte));
            continue;
        }
        all.push_back("8e" + hex(byte));
        for (const char *second : {"a1", "c7", "fe"}) {
            all.push_back(hex(byte) + second);
            all.push_back("8f" + hex(byte) + second);
            if (encoding == "EUC_TW")
                all.push_back("8ea2" + hex(byte) + second);
        }
    }
    return all;
}

// Each byte of a character that has no UTF-8 as three bytes that are none.
static std::string escaped(const std::string &hex)
{
    static const char *const table[] = {"edb28", "edb29", "edb2a", "edb2b",
                                        "edb38", "edb39", "edb3a", "edb3b"};
    std::string out;
    for (size_t i = 0; i < hex.size(); i += 2)
        out += table[std::stoi(hex.substr(i, 1), nullptr, 16) - 8] + hex.substr(i + 1, 1);
    return out;
}

TEST_F(BridgeEncodingTest, WhateverTheServerTakesAsTextIsFollowed)
{
    for (const std::string encoding : {"WIN1253", "EUC_JP", "EUC_TW", "MULE_INTERNAL", "KOI8R"}) {
        SCOPED_TRACE(encoding);
        recreate(encoding);
        pg_client client = raw();
        client.run("CREATE TABLE texts (id integer PRIMARY KEY, body text);"
                   "ALTER TABLE texts REPLICA IDENTITY FULL");
        run_result result = catch_up({"--create"});
        ASSERT_EQ(result.status, 0) << result.err;
        const std::vector<std::string> characters = characters_of(encoding);
        std::map<std::string, std::string> expected; // what stands behind "BODY":
        int without = 0;
        for (size_t i = 0; i < characters.size(); i++) {
            const std::string &hex = characters[i];
            const std::string id = std::to_string(i + 1);
            try {
                client.run("INSERT INTO texts VALUES (" + id + ", convert_from(decode('78" + hex +
                           "79', 'hex'), '" + encoding + "'))");
            } catch (const pg_error &) {
                continue; // no text
            }
            const std::string utf8 = in_utf8(client, hex);
            without += utf8.empty() ? 1 : 0;
            expected[id] = utf8.empty() ? "{\"hex\":\"78" + escaped(hex) + "797a\"}"
                                        : "\"x" + from_hex(utf8) + "yz\"";
        }
        EXPECT_GE(expected.size(), 100U);
        EXPECT_EQ(without == 0, encoding == "KOI8R") << without;
        client.run("UPDATE texts SET body = body || 'z'");
        result = catch_up();
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(occurrences(result.err, "the server cannot convert a text of its encoding " +
                                              encoding + " to UTF-8 ("),
                  without == 0 || encoding == "MULE_INTERNAL" ? 0 : 1)
            << result.err;
        std::map<std::string, std::string> found;
        std::istringstream json(fwlog({"tail", "--json"}).out);
        for (std::string line; std::getline(json, line);) {
            const size_t after = line.find("\"after\":{\"ID\":");
            const size_t body = line.find(",\"BODY\":", after);
            if (line.find("\"op\":\"u\"") == line.npos || body == line.npos)
                continue;
            const size_t begin = body + 8;
            found[line.substr(after + 14, body - after - 14)] =
                line.substr(begin, line.find("},\"source\"") - begin);
        }
        EXPECT_EQ(found, expected);
        std::filesystem::remove_all(dir.file("log"));
        pg_client(server->conninfo()).run("SELECT pg_drop_replication_slot('" + database + "')");
    }
}

// A byte without a character of this encoding, in each name that a client can give.
TEST_F(BridgeEncodingTest, NamesMayHoldItToo)
{
    recreate("WIN1252");
    pg_client client = raw();
    client.run("CREATE SCHEMA \"s\x81\"; CREATE TYPE \"s\x81\".\"e\x8D\" AS ENUM ('l\x8F', 'm');"
               "CREATE TABLE \"s\x81\".\"t\x90\" (\"i\x9D\" integer PRIMARY KEY, "
               "\"c\xE9\" \"s\x81\".\"e\x8D\", \"d\x81\" text);"
               "INSERT INTO \"s\x81\".\"t\x90\" VALUES (1, 'l\x8F', 'z\xE9')");
    run_result result = run_bridge({"--check", "--create", "--snapshot"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("the server cannot convert a text of its encoding WIN1252"));
    result = catch_up({"--create", "--snapshot"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(line_with("\"op\":\""), HasSubstr("z\xC3\xA9"));
    start_bridge({"-v"});
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    client.run("UPDATE \"s\x81\".\"t\x90\" SET \"c\xE9\" = 'm', \"d\x81\" = 'y\xE8';"
               "SELECT pg_logical_emit_message(true, 'p\x81', 'c\x81');"
               "SELECT pg_logical_emit_message(false, '\x81', '\x81');"
               "ALTER TABLE \"s\x81\".\"t\x90\" ADD \"n\x81\" integer;"
               "CREATE TABLE \"u\x81\" (id integer PRIMARY KEY);"
               "INSERT INTO \"u\x81\" VALUES (77);"
               "DELETE FROM \"s\x81\".\"t\x90\"");
    ASSERT_TRUE(poll_until([&] { return logged("after ID=77"); })) << bridge.err();
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    EXPECT_THAT(line_with("\"op\":\"u\""), HasSubstr("y\xC3\xA8"));
    EXPECT_NE(line_with("\"op\":\"d\""), "");
    const std::string names = read_file(dir.file("log/names"));
    result = catch_up();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(read_file(dir.file("log/names")), names) << "the same names each time";
}

// What the server can convert it goes on to convert: nothing is told, and nothing is asked.
TEST_F(BridgeEncodingTest, TextsThatCanBeConvertedAreTheServersWork)
{
    recreate("LATIN1");
    pg_client client = raw();
    client.run("CREATE TABLE texts (id integer PRIMARY KEY, body text)");
    ASSERT_EQ(catch_up({"--create"}).status, 0);
    client.run("INSERT INTO texts VALUES (1, 'caf\xE9')");
    const run_result result = catch_up();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(line_with("\"op\":\"c\""), HasSubstr("\"caf\xC3\xA9\""));
}
