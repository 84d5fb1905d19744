// Pieces of tables' rows, from a server at work.
#include "feed/postgresql/connect.h"
#include "feed/postgresql/facts.h"
#include "feed/postgresql/piece.h"
#include "tests/postgresql/pg_client.h"
#include "tests/postgresql/pg_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

using testing::HasSubstr;
using testing::StartsWith;

class PieceLiveTest : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        if (pg_server::missing().empty())
            server = new pg_server({"max_wal_senders = 4"});
    }

    static void TearDownTestSuite()
    {
        delete server;
    }

    void SetUp() override
    {
        if (server == nullptr)
            GTEST_SKIP() << pg_server::missing();
        use("test_" + std::to_string(++databases));
    }

    // A database of its own, with a publication of all tables.
    void use(const std::string &name, const std::string &with = "")
    {
        pg_client(server->conninfo()).run("CREATE DATABASE " + name + " " + with);
        client = std::make_unique<pg_client>(server->conninfo(name));
        sql("CREATE PUBLICATION feed FOR ALL TABLES");
        pgs_disconnect(from);
        from.conninfo = server->conninfo(name);
        from.publication = "feed";
    }

    void sql(const std::string &text)
    {
        client->run(text);
    }

    pgp_piece read(const std::vector<pgp_want> &wants, const pgp_limits &limits = {},
                   const std::vector<uint32_t> &passed = {})
    {
        pgp_piece piece;
        const outcome done = pgp_read(piece, from, wants, passed, later, limits);
        EXPECT_TRUE(done) << done.text();
        return piece;
    }

    static std::vector<std::vector<std::string>> rows_of(pgp_part &part)
    {
        std::vector<std::vector<std::string>> rows;
        pgo_tuple row;
        for (size_t at = 0; pgp_next(row, part.lines, at);) {
            rows.emplace_back();
            for (size_t i = 0; i < row.count; i++)
                rows.back().push_back(row.values[i].kind == 'n' ? "\\N"
                                                                : std::string(row.values[i].text));
        }
        return rows;
    }

    static inline pg_server *server = nullptr;
    static inline int databases = 0;
    std::unique_ptr<pg_client> client;
    pgs_server from;
    std::string later;
};

TEST_F(PieceLiveTest, SmallTablesMakeOnePiece)
{
    sql("CREATE TABLE a (id int PRIMARY KEY, t text); INSERT INTO a VALUES (2, E'x\\ty'), (1, "
        "NULL);"
        "CREATE TABLE b (t text); INSERT INTO b VALUES ('only')");
    pgp_piece piece =
        read({{.schema = "public", .table = "a"}, {.schema = "public", .table = "b"}});
    ASSERT_EQ(piece.parts.size(), 2U) << later;
    EXPECT_EQ(later, "");
    EXPECT_EQ(rows_of(piece.parts[0]),
              (std::vector<std::vector<std::string>>{{"1", "\\N"}, {"2", "x\ty"}}));
    EXPECT_EQ(piece.parts[0].key, std::vector<std::string>{"23 23 id"});
    EXPECT_EQ(piece.parts[0].to, std::vector<std::string>{"2"});
    EXPECT_TRUE(piece.parts[0].ends);
    EXPECT_EQ(rows_of(piece.parts[1]), (std::vector<std::vector<std::string>>{{"only"}}));
    EXPECT_EQ(piece.parts[1].key, std::vector<std::string>{});
    EXPECT_TRUE(piece.parts[1].ends);
    EXPECT_FALSE(piece.direct);
}
