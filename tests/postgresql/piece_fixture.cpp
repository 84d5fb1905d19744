// Pieces read as the bridge reads them, until one comes, and their rows taken apart.
#include "tests/postgresql/piece_fixture.h"

#include "feed/postgresql/connect.h"

#include <algorithm>

piece_rows rows_of(pgp_part &part)
{
    piece_rows rows;
    pgo_tuple row;
    for (size_t at = 0; pgp_next(row, part.lines, at);) {
        rows.emplace_back();
        for (size_t i = 0; i < row.count; i++)
            rows.back().emplace_back(row.values[i].kind == 'n' ? "\\N" : row.values[i].text);
    }
    return rows;
}

void PieceTest::SetUpTestSuite()
{
    if (pg_server::missing().empty())
        server = new pg_server();
}

void PieceTest::TearDownTestSuite()
{
    delete server;
    server = nullptr;
}

void PieceTest::SetUp()
{
    if (server == nullptr)
        GTEST_SKIP() << pg_server::missing();
    use("piece_" + std::to_string(++databases));
}

void PieceTest::use(const std::string &name, const std::string &options)
{
    database = name;
    pg_client(server->conninfo()).run("CREATE DATABASE " + name + " " + options);
    client = std::make_unique<pg_client>(server->conninfo(name));
    sql("CREATE PUBLICATION feed FOR ALL TABLES");
    pgs_disconnect(from);
    from = {};
    from.conninfo = server->conninfo(name);
    from.publication = "feed";
}

std::string PieceTest::encoded(const std::string &encoding, const std::string &locale)
{
    return "TEMPLATE template0 ENCODING '" + encoding + "' LC_COLLATE '" + locale + "' LC_CTYPE '" +
           locale + "'";
}

int PieceTest::version() const
{
    return client->version();
}

pg_client PieceTest::connect(const std::string &user) const
{
    return pg_client(server->conninfo(database, user));
}

void PieceTest::sql(const std::string &text) const
{
    client->run(text);
}

std::string PieceTest::value(const std::string &text) const
{
    return client->value(text);
}

pgp_want PieceTest::want(const std::string &table)
{
    return {.schema = "public", .table = table};
}

pgp_piece PieceTest::read(const std::vector<pgp_want> &wants, const pgp_limits &limits,
                          const std::vector<uint32_t> &passed)
{
    pgp_piece piece;
    const outcome done = pgp_read(piece, from, wants, passed, later, limits);
    EXPECT_TRUE(done) << done.text();
    return piece;
}

pgp_came PieceTest::read_direct(pgp_piece &piece, piece_rows &rows, const pgp_limits &limits)
{
    pgp_came came = PGP_NOT_YET;
    while (came == PGP_NOT_YET || came == PGP_FULL) {
        const outcome done = pgp_direct_rows(came, piece, from, 10, later, limits);
        EXPECT_TRUE(done) << done.text();
        if (!done)
            return PGP_BROKEN;
        if (came == PGP_BROKEN)
            continue;
        pgp_part &one = part(piece);
        EXPECT_LE(piece.at_hand, limits.rows);
        for (piece_row &row : rows_of(one))
            rows.push_back(std::move(row));
        one.lines.clear();
    }
    return came;
}

pgp_part &PieceTest::part(pgp_piece &piece)
{
    static pgp_part none;
    const auto found =
        std::find_if(piece.parts.begin(), piece.parts.end(),
                     [](const pgp_part &one) { return !one.gone && one.refused.empty(); });
    EXPECT_NE(found, piece.parts.end());
    return found == piece.parts.end() ? none : *found;
}

std::vector<pgp_piece> PieceTest::read_all(const std::string &table, const pgp_limits &limits)
{
    std::vector<pgp_piece> pieces;
    pgp_want wanted = want(table);
    for (bool ends = false; !ends;) {
        pieces.push_back(read({wanted}, limits));
        EXPECT_EQ(later, "");
        EXPECT_EQ(pieces.back().parts.size(), 1U);
        if (pieces.back().parts.size() != 1)
            break;
        const pgp_part &one = pieces.back().parts.front();
        EXPECT_EQ(one.refused, "");
        EXPECT_FALSE(one.gone);
        EXPECT_FALSE(one.anew);
        EXPECT_EQ(one.from, wanted.reached);
        ends = one.ends || !one.refused.empty() || one.gone;
        wanted.key = one.key;
        wanted.reached = one.to;
        wanted.id = one.relation.id;
    }
    return pieces;
}

void PieceTest::make_slot() const
{
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
}

static std::string bytes_of(const std::string &hex)
{
    std::string bytes;
    for (size_t at = 2; at + 1 < hex.size(); at += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    return bytes;
}

sent_stream PieceTest::stream() const
{
    sent_stream sent;
    const bool messages = version() >= 14;
    for (const auto &row :
         client->run("SELECT data FROM pg_logical_slot_get_binary_changes('" + database +
                     "', NULL, NULL, 'proto_version', '1', 'publication_names', 'feed'" +
                     (messages ? ", 'messages', 'true')" : ")"))) {
        pgo_message message;
        const std::string bytes = bytes_of(row.front());
        const outcome done = pgo_decode(message, bytes);
        EXPECT_TRUE(done) << done.text();
        if (message.kind == 'B')
            sent.commits.push_back({.lsn = message.lsn, .xid = message.xid});
        if (message.kind == 'M' && message.prefix == "kestro" && message.content.empty())
            sent.messages.push_back(sent.commits.back().lsn);
        if (message.kind != 'R')
            continue;
        std::erase_if(sent.relations,
                      [&](const pgo_relation &known) { return known.id == message.relation.id; });
        sent.relations.push_back(message.relation);
    }
    return sent;
}
