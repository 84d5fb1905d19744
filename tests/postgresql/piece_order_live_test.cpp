// Keys that only the server can put in order: pieces come in its order, and it tells where any
// other row stands.
#include "feed/postgresql/connect.h"
#include "tests/postgresql/piece_fixture.h"

#include <random>

using testing::HasSubstr;

class PieceOrderLiveTest : public PieceTest {
  protected:
    bool has_extension(const std::string &name) const
    {
        return value("SELECT count(*) FROM pg_available_extensions WHERE name = '" + name + "'") ==
               "1";
    }

    bool has_icu() const
    {
        return value("SELECT count(*) FROM pg_collation WHERE collname = 'und-x-icu'") == "1";
    }

    std::vector<pgp_side> ask(const pgp_part &one, const piece_rows &keys, pgs_refusal &refusal)
    {
        std::vector<std::vector<std::string_view>> asked;
        for (const piece_row &key : keys)
            asked.emplace_back(key.begin(), key.end());
        std::vector<pgp_side> sides;
        const outcome done = pgp_ask_sides(sides, from, pgp_range_of(one), asked, refusal);
        EXPECT_TRUE(done) << done.text();
        return sides;
    }

    std::vector<pgp_side> ask(const pgp_part &one, const piece_rows &keys)
    {
        pgs_refusal refusal;
        std::vector<pgp_side> sides = ask(one, keys, refusal);
        EXPECT_EQ(refusal.message, "");
        return sides;
    }

    static pgp_want behind(const pgp_part &one)
    {
        return {.schema = "public",
                .table = one.relation.name,
                .key = one.key,
                .reached = one.to,
                .id = one.relation.id};
    }
};

struct ordered_type {
    std::string name;
    std::string value; // by "r", a random number from 0 to 399
};

static const std::vector<ordered_type> every_server = {
    {"double precision",
     "CASE WHEN r < 3 THEN (ARRAY['NaN', 'Infinity', '-Infinity'])[r + 1]::float"
     " ELSE (r - 200) / 7.0 END"},
    {"real", "(r - 200) / 3.0"},
    {"interval", "make_interval(months => r % 3, days => r - 200, secs => r / 9.0)"},
    {"time", "'00:00'::time + make_interval(secs => r * 100.25)"},
    {"timetz", "('01:00:00' || (ARRAY['+00', '-05', '+05:30'])[r % 3 + 1])::timetz +"
               " make_interval(mins => r)"},
    {"inet", "CASE WHEN r % 3 = 0 THEN '::1'::inet + r ELSE '9.255.255.250/24'::inet + r END"},
    {"cidr", "set_masklen('10.0.0.0'::cidr, 8 + r % 25)"},
    {"macaddr", "('08:00:2b:01:02:' || lpad(to_hex(r % 256), 2, '0'))::macaddr"},
    {"bit(9)", "r::bit(9)"},
    {"varbit", "substring((r * 37 % 512)::bit(9)::varbit FROM 1 FOR 1 + r % 9)"},
    {"pg_lsn", "('0/' || to_hex(r))::pg_lsn"},
    {"jsonb", "jsonb_build_object(CASE WHEN r % 2 = 0 THEN 'a' ELSE 'b''\\' END, r)"},
    {"integer[]", "ARRAY[r % 5, NULL, r]"},
    {"text[]", "ARRAY['a b', chr(65 + r % 60), '\"', r::text]"},
    {"int4range", "int4range(r % 20, CASE WHEN r % 7 > 0 THEN 20 + r END)"},
    {"mood", "(ARRAY['zest', 'good', 'it''s', 'bad'])[r % 4 + 1]::mood"},
    {"pair", "ROW(r % 9, CASE WHEN r % 5 > 0 THEN 'x ' || r END)::pair"},
    {"share", "r / 400.0"},
    {"tsvector", "to_tsvector('simple', 'w' || r % 50 || ' v' || r)"},
    {"money", "(r - 200)::money"},
};

TEST_F(PieceOrderLiveTest, PiecesComeInTheOrderOfTheServerAndItTellsWhereRowsStand)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](size_t end) {
        return std::uniform_int_distribution<size_t>(0, end - 1)(random);
    };
    sql("CREATE TYPE mood AS ENUM ('zest', 'bad', 'it''s', 'good'); CREATE TYPE pair AS (a int, b"
        " text); CREATE DOMAIN share AS double precision CHECK (VALUE <= 1);"
        "SELECT setseed(" +
        std::to_string(seed % 1000) + " / 1000.0)");
    std::vector<ordered_type> types = every_server;
    const std::string words = "(ARRAY['a', 'B', 'b', 'A', 'ä', '''', '-', 'Z'])[r % 8 + 1] || r";
    if (has_extension("citext")) {
        sql("CREATE SCHEMA \"odd one\"; CREATE EXTENSION citext SCHEMA \"odd one\"");
        types.push_back({"\"odd one\".citext", words});
    }
    if (has_icu()) {
        sql("CREATE COLLATION \"any case\" (provider = icu, locale = 'und-u-ks-level2',"
            " deterministic = false)");
        types.push_back({"text COLLATE \"und-x-icu\"", words});
        types.push_back({"varchar(20) COLLATE \"any case\"", words});
        types.push_back({"char(20) COLLATE \"und-x-icu\"", words});
    }
    types.push_back({"text", words}); // as the database has it
    types.push_back({"integer", "r"});
    for (size_t table = 0; table < 2 * types.size(); table++) {
        // Each type leads a key, alone at first.
        std::vector<ordered_type> key = {types[table % types.size()]};
        for (size_t n = table < types.size() ? 0 : 1 + below(2); n > 0; n--)
            key.push_back(types[below(types.size())]);
        std::string columns;
        std::string values;
        std::string list;
        for (size_t i = 0; i < key.size(); i++) {
            const std::string column = "\"k " + std::to_string(i) + "\"";
            columns += column + " " + key[i].name + ", ";
            list += (i == 0 ? "" : ", ") + column;
            values += (i == 0 ? "" : ", ") + key[i].value;
        }
        const std::string name = "t" + std::to_string(table);
        SCOPED_TRACE(columns);
        sql("CREATE TABLE " + name + " (" + columns + "PRIMARY KEY (" + list + ")); INSERT INTO " +
            name + " SELECT " + values +
            " FROM (SELECT floor(random() * 400)::int AS r FROM generate_series(1, 90)) n"
            " ON CONFLICT DO NOTHING");
        const piece_rows wanted = client->run("SELECT * FROM " + name + " ORDER BY " + list);
        size_t at = 0;
        for (pgp_piece &piece : read_all(name, {.rows = 12 + below(40)})) {
            pgp_part &one = part(piece);
            ASSERT_EQ(one.key.size(), key.size());
            const size_t begin = at;
            const pgp_part kept = one;
            for (const piece_row &row : rows_of(one)) {
                ASSERT_LT(at, wanted.size());
                ASSERT_EQ(row, wanted[at]);
                at++;
            }
            if (kept.order.operands.empty())
                continue; // it is ordered here
            const std::vector<pgp_side> sides = ask(kept, wanted);
            for (size_t i = 0; i < wanted.size(); i++)
                EXPECT_EQ(sides[i], i < begin ? PGP_TAKEN
                                    : i < at  ? PGP_PIECE
                                              : PGP_LATER)
                    << wanted[i][0];
        }
        EXPECT_EQ(at, wanted.size());
    }
}

// An index may have other operators and another collation than its columns.
TEST_F(PieceOrderLiveTest, TheIndexSaysWhatTheOrderIs)
{
    const std::string collation = has_icu() ? "\"und-x-icu\"" : "\"default\"";
    sql("CREATE TABLE a (k text COLLATE " + collation +
        " NOT NULL, l interval NOT NULL);"
        "CREATE UNIQUE INDEX i ON a (k text_pattern_ops, l); ALTER TABLE a REPLICA IDENTITY USING"
        " INDEX i; INSERT INTO a SELECT chr(65 + n % 50), make_interval(days => n) FROM"
        " generate_series(1, 200) n;"
        "CREATE TABLE b (k text COLLATE " +
        collation +
        " NOT NULL); CREATE UNIQUE INDEX j ON b (k COLLATE \"C\");"
        "ALTER TABLE b REPLICA IDENTITY USING INDEX j;"
        "INSERT INTO b SELECT chr(65 + n) FROM generate_series(0, 50) n");
    piece_rows rows;
    for (pgp_piece &piece : read_all("a", {.rows = 30}))
        for (piece_row &row : rows_of(part(piece)))
            rows.push_back(std::move(row));
    EXPECT_EQ(rows, client->run("SELECT * FROM a ORDER BY k COLLATE \"C\", l"));
    std::vector<pgp_piece> pieces = read_all("b", {.rows = 30});
    ASSERT_EQ(pieces.size(), 2U);
    const pgp_part first = part(pieces[0]);
    EXPECT_EQ(first.to, piece_row{"^"}); // 65 + 29
    EXPECT_EQ(ask(first, {{"A"}, {"^"}, {"_"}, {"a"}}),
              (std::vector<pgp_side>{PGP_PIECE, PGP_PIECE, PGP_LATER, PGP_LATER}));
    // It serves the rows: they are not sorted for each piece.
    sql("INSERT INTO b SELECT 'x' || n FROM generate_series(1, 20000) n; ANALYZE b");
    std::string plan;
    for (const auto &row : client->run("EXPLAIN SELECT k FROM ONLY b WHERE k COLLATE "
                                       "pg_catalog.\"C\" OPERATOR(pg_catalog.>) 'x5'::text ORDER"
                                       " BY k COLLATE pg_catalog.\"C\" USING"
                                       " OPERATOR(pg_catalog.<) LIMIT 10"))
        plan += row[0] + "\n";
    EXPECT_THAT(plan, HasSubstr("Index Only Scan using j"));
    EXPECT_THAT(plan, HasSubstr("Index Cond"));
    EXPECT_THAT(plan, testing::Not(HasSubstr("Sort")));
}

TEST_F(PieceOrderLiveTest, AnOrderThatIsAnotherOneByThenBeginsTheTableAnew)
{
    static const struct {
        const char *sql;
        bool anew;
    } cases[] = {
        {"SELECT 1", false},
        {"ALTER TYPE mood RENAME VALUE 'b' TO 'bb'", true},
        {"ALTER TYPE mood RENAME VALUE 'a' TO 'aa'; ALTER TYPE mood RENAME VALUE 'b' TO 'a'", true},
        {"ALTER TABLE a ALTER k TYPE text", true},
        {"ALTER TYPE mood RENAME TO mode", true},
        {"UPDATE a SET v = 2", false},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.sql);
        sql("CREATE TYPE mood AS ENUM ('c', 'b', 'a'); CREATE TABLE a (k mood PRIMARY KEY, v int);"
            "INSERT INTO a VALUES ('a', 1), ('b', 1), ('c', 1)");
        pgp_piece piece = read({want("a")}, {.rows = 2});
        const pgp_want rest = behind(part(piece));
        EXPECT_EQ(rest.reached, piece_row{"b"});
        sql(one.sql);
        piece = read({rest});
        ASSERT_EQ(piece.parts.size(), 1U) << later;
        EXPECT_EQ(part(piece).anew, one.anew);
        EXPECT_EQ(part(piece).rows, one.anew ? 3U : 1U);
        EXPECT_FALSE(piece.direct);
        sql("DROP TABLE a; DROP TYPE IF EXISTS mood; DROP TYPE IF EXISTS mode");
    }
}

TEST_F(PieceOrderLiveTest, WhatTheServerComparesNoMoreIsRefused)
{
    sql("CREATE TYPE mood AS ENUM ('c', 'b', 'a'); CREATE TABLE a (k mood PRIMARY KEY);"
        "INSERT INTO a VALUES ('a'), ('b'), ('c')");
    pgp_piece piece = read({want("a")}, {.rows = 2});
    const pgp_part first = part(piece);
    EXPECT_EQ(ask(first, {{"a"}, {"c"}, {"b"}}),
              (std::vector<pgp_side>{PGP_LATER, PGP_PIECE, PGP_PIECE}));
    pgs_refusal refusal;
    EXPECT_EQ(ask(first, {{"a"}, {"d"}}, refusal),
              (std::vector<pgp_side>{PGP_UNKNOWN, PGP_UNKNOWN}));
    EXPECT_THAT(refusal.message, HasSubstr("invalid input value for enum"));
    EXPECT_EQ(ask(first, {{"a"}}), std::vector<pgp_side>{PGP_LATER}); // the session goes on
    sql("ALTER TYPE mood RENAME VALUE 'b' TO 'bb'");
    ask(first, {{"a"}}, refusal);
    EXPECT_THAT(refusal.message, HasSubstr("invalid input value for enum"));
    sql("DROP TABLE a; DROP TYPE mood");
    ask(first, {{"a"}}, refusal);
    EXPECT_EQ(refusal.message, "type \"public.mood\" does not exist");
}

TEST_F(PieceOrderLiveTest, ALostConnectionIsMadeOnceMore)
{
    sql("CREATE TABLE a (k float PRIMARY KEY); INSERT INTO a VALUES (1), (2), (3)");
    pgp_piece piece = read({want("a")}, {.rows = 2});
    const pgp_part first = part(piece);
    const std::vector<pgp_side> wanted = {PGP_LATER, PGP_PIECE};
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(ask(first, {{"2.5"}, {"-1"}}), wanted);
        const std::string pid = std::to_string(PQbackendPID(from.order.get()));
        sql("SELECT pg_terminate_backend(" + pid + ")");
        while (value("SELECT count(*) FROM pg_stat_activity WHERE pid = " + pid) != "0") {
        }
    }
    pg_client(server->conninfo()).run("ALTER DATABASE " + database + " ALLOW_CONNECTIONS false");
    std::vector<pgp_side> sides;
    pgs_refusal refusal;
    const outcome done = pgp_ask_sides(sides, from, pgp_range_of(first), {{"1"}}, refusal);
    EXPECT_EQ(done.kind(), OUTCOME_LOST);
    EXPECT_THAT(done.text(), HasSubstr("not currently accepting connections"));
    pg_client(server->conninfo()).run("ALTER DATABASE " + database + " ALLOW_CONNECTIONS true");
    EXPECT_EQ(ask(first, {{"2.5"}, {"-1"}}), wanted);
}

// Without the right to name a key's type the table comes as a whole.
TEST_F(PieceOrderLiveTest, ATypeThatTheRoleMayNotNameHasNoOrder)
{
    sql("CREATE SCHEMA hidden; CREATE TYPE hidden.mood AS ENUM ('b', 'a');"
        "CREATE TABLE a (k hidden.mood PRIMARY KEY); INSERT INTO a VALUES ('a'), ('b');"
        "CREATE ROLE order_reader LOGIN; GRANT USAGE ON SCHEMA public TO order_reader;"
        "GRANT SELECT ON a TO order_reader");
    from.conninfo = server->conninfo(database, "order_reader");
    pgp_piece piece = read({want("a")});
    EXPECT_EQ(part(piece).key, std::vector<std::string>{});
    EXPECT_EQ(part(piece).rows, 2U);
    sql("GRANT USAGE ON SCHEMA hidden TO order_reader");
    piece = read({want("a")});
    EXPECT_EQ(part(piece).key.size(), 1U);
    EXPECT_EQ(rows_of(part(piece)), (piece_rows{{"b"}, {"a"}}));
    pgs_disconnect(from);
    sql("DROP OWNED BY order_reader; DROP ROLE order_reader");
}

TEST_F(PieceOrderLiveTest, ATableWhoseOrderFailsComesAsAWhole)
{
    sql("CREATE TABLE a (k float PRIMARY KEY); INSERT INTO a SELECT generate_series(1, 9)");
    pgp_piece piece = read({want("a")}, {.rows = 4});
    pgp_want broken = behind(part(piece));
    broken.reached = {"four"};
    piece = read({broken});
    ASSERT_TRUE(piece.direct) << later;
    EXPECT_TRUE(part(piece).anew);
    piece_rows rows;
    EXPECT_EQ(read_direct(piece, rows), PGP_LAST);
    EXPECT_EQ(rows.size(), 9U);
    pgp_want whole = want("a");
    whole.whole = true;
    piece = read({whole});
    EXPECT_TRUE(piece.direct);
    EXPECT_EQ(part(piece).key, std::vector<std::string>{});
    pgp_end(piece);
}
