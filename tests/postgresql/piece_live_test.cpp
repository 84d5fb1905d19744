// Pieces of tables' rows: which rows they have, in which order, and how the tables are described.
#include "tests/postgresql/piece_fixture.h"

#include <algorithm>
#include <random>
#include <regex>

class PieceLiveTest : public PieceTest {};

TEST_F(PieceLiveTest, SmallTablesMakeOnePiece)
{
    sql("CREATE TABLE a (id int PRIMARY KEY, t text); INSERT INTO a VALUES (2, E'x\\ty'), (1, "
        "NULL);"
        "CREATE TABLE b (t text); INSERT INTO b VALUES ('only'); CREATE TABLE c ();"
        "INSERT INTO c DEFAULT VALUES; CREATE TABLE d (id int PRIMARY KEY); ANALYZE a");
    pgp_piece piece = read({want("b"), want("a"), want("c"), want("d")});
    EXPECT_EQ(later, "");
    ASSERT_EQ(piece.parts.size(), 4U);
    EXPECT_FALSE(piece.direct);
    for (size_t i = 0; i < 4; i++)
        EXPECT_EQ(piece.parts[i].want, i);

    const pgp_part &b = piece.parts[0];
    EXPECT_EQ(b.relation.name, "b");
    EXPECT_TRUE(b.key.empty() && b.order.columns.empty() && b.from.empty() && b.to.empty());
    EXPECT_TRUE(b.ends);
    EXPECT_EQ(b.rows, 1U);
    EXPECT_EQ(b.estimate, -1);
    EXPECT_EQ(rows_of(piece.parts[0]), (piece_rows{{"only"}}));

    const pgp_part &a = piece.parts[1];
    EXPECT_EQ(a.key, (std::vector<std::string>{"23 23 id"}));
    EXPECT_EQ(a.order.columns, (std::vector<size_t>{0}));
    EXPECT_EQ(a.order.types, (std::vector<uint32_t>{23}));
    EXPECT_EQ(a.to, (std::vector<std::string>{"2"}));
    EXPECT_TRUE(a.ends);
    EXPECT_EQ(a.rows, 2U);
    EXPECT_EQ(a.estimate, 2);
    EXPECT_EQ(rows_of(piece.parts[1]), (piece_rows{{"1", "\\N"}, {"2", "x\ty"}}));

    EXPECT_TRUE(piece.parts[2].ends);
    EXPECT_EQ(piece.parts[2].rows, 0U);
    EXPECT_EQ(piece.parts[2].lines, "");

    EXPECT_TRUE(piece.parts[3].ends);
    EXPECT_TRUE(piece.parts[3].to.empty());
    EXPECT_EQ(piece.parts[3].rows, 0U);
}

TEST_F(PieceLiveTest, APieceEndsWithItsRows)
{
    sql("CREATE TABLE a (id int PRIMARY KEY); INSERT INTO a SELECT generate_series(1, 10);"
        "CREATE TABLE b (id int PRIMARY KEY); INSERT INTO b SELECT generate_series(1, 10)");
    pgp_piece piece = read({want("a"), want("b")}, {.rows = 14});
    ASSERT_EQ(piece.parts.size(), 2U);
    EXPECT_TRUE(piece.parts[0].ends);
    EXPECT_FALSE(piece.parts[1].ends);
    EXPECT_EQ(piece.parts[1].to, (std::vector<std::string>{"4"}));
    EXPECT_EQ(rows_of(piece.parts[1]), (piece_rows{{"1"}, {"2"}, {"3"}, {"4"}}));

    pgp_want b = want("b");
    b.key = piece.parts[1].key;
    b.reached = piece.parts[1].to;
    piece = read({b, want("a")}, {.rows = 6});
    ASSERT_EQ(piece.parts.size(), 1U); // full
    EXPECT_EQ(piece.parts[0].to, (std::vector<std::string>{"10"}));
    EXPECT_FALSE(piece.parts[0].ends); // as far as it knows
    b.reached = piece.parts[0].to;
    piece = read({b}, {.rows = 6});
    ASSERT_EQ(piece.parts.size(), 1U);
    EXPECT_EQ(piece.parts[0].rows, 0U);
    EXPECT_TRUE(piece.parts[0].ends);
    EXPECT_FALSE(piece.parts[0].anew);
}

TEST_F(PieceLiveTest, TablesBeyondTheirNumberComeLater)
{
    sql("CREATE TABLE a (id int PRIMARY KEY); CREATE TABLE b (id int PRIMARY KEY);"
        "CREATE TABLE c (id int PRIMARY KEY)");
    EXPECT_EQ(read({want("a"), want("b"), want("c")}, {.tables = 2}).parts.size(), 2U);
    EXPECT_EQ(read({want("a"), want("b"), want("c")}, {.time_ms = 0}).parts.size(), 1U);
    EXPECT_EQ(read({}).parts.size(), 0U);
    EXPECT_EQ(later, "");
}

// ---- keys of all types that are compared here

class value_maker {
  public:
    // Decimals may be infinite from version 14 of the server on.
    value_maker(unsigned seed, bool infinite) : infinite_decimals(infinite), random(seed)
    {
    }

    int below(int end)
    {
        return std::uniform_int_distribution<int>(0, end - 1)(random);
    }

    std::string number(int64_t least, int64_t greatest)
    {
        if (below(20) == 0)
            return std::to_string(below(2) == 0 ? least : greatest);
        const int64_t near = below(3000) - 1500;
        return std::to_string(std::clamp(near, least, greatest));
    }

    std::string decimal()
    {
        static const char *const special[] = {"NaN", "0", "-0.000", "Infinity", "-Infinity"};
        if (below(10) == 0)
            return special[below(infinite_decimals ? 5 : 3)];
        std::string text = below(2) == 0 ? "-" : "";
        for (int n = 1 + below(3); n > 0; n--)
            text += static_cast<char>('0' + below(10));
        text += below(5) == 0 ? std::string(40, '9') : "";
        if (below(2) == 0)
            return text;
        text += '.';
        for (int n = 1 + below(4); n > 0; n--)
            text += static_cast<char>('0' + below(3));
        return text;
    }

    std::string words()
    {
        static const char *const parts[] = {
            "a", "B", " ",    "z",   "\xC3\xA4", "\xF0\x9F\x98\x80", "'", "\\", "\t", "\n", "\"",
            "0", "~", "\x7F", "\\N", "Z"};
        std::string text;
        for (int n = below(5); n > 0; n--)
            text += parts[below(16)];
        return text;
    }

    std::string bytes()
    {
        std::string text = "\\x";
        for (int n = below(4); n > 0; n--)
            text += {"0123456789abcdef"[below(16)], "07f"[below(3)]};
        return text;
    }

    std::string uuid()
    {
        std::string text = "00000000-0000-0000-0000-000000000000";
        for (const size_t at : {0U, 1U, 9U, 35U})
            text[at] = "0123456789abcdef"[below(16)];
        return text;
    }

    std::string date()
    {
        static const char *const special[] = {"infinity",      "-infinity",   "4713-01-01 BC",
                                              "0001-12-31 BC", "10000-01-01", "0001-01-01"};
        if (below(5) == 0)
            return special[below(6)];
        char text[40];
        snprintf(text, sizeof text, "%04d-%02d-%02d%s", 1 + below(below(2) == 0 ? 3 : 3000),
                 1 + below(12), 1 + below(28), below(4) == 0 ? " BC" : "");
        return text;
    }

    std::string stamp()
    {
        std::string text = date();
        const size_t era = std::min(text.find(" BC"), text.size());
        char time[40];
        snprintf(time, sizeof time, " %02d:%02d:%02d.%06d", below(24), below(60), below(60),
                 below(3) * 10 * below(100'000));
        return text.ends_with("infinity") ? text : text.insert(era, time);
    }

    bool infinite_decimals;
    std::mt19937 random;
};

struct key_type {
    const char *name;
    std::string (*make)(value_maker &);
};

static const key_type key_types[] = {
    {"smallint", [](value_maker &m) { return m.number(-32768, 32767); }},
    {"integer", [](value_maker &m) { return m.number(INT32_MIN, INT32_MAX); }},
    {"bigint", [](value_maker &m) { return m.number(INT64_MIN, INT64_MAX); }},
    {"oid", [](value_maker &m) { return m.number(0, UINT32_MAX); }},
    {"numeric", [](value_maker &m) { return m.decimal(); }},
    {"boolean", [](value_maker &m) { return std::string(m.below(2) == 0 ? "t" : "f"); }},
    {"date", [](value_maker &m) { return m.date(); }},
    {"timestamp", [](value_maker &m) { return m.stamp(); }},
    {"timestamptz", [](value_maker &m) { return m.stamp(); }},
    {"bytea", [](value_maker &m) { return m.bytes(); }},
    {"uuid", [](value_maker &m) { return m.uuid(); }},
    {"name", [](value_maker &m) { return m.words(); }},
    {"text COLLATE \"C\"", [](value_maker &m) { return m.words(); }},
    {"varchar(30) COLLATE \"POSIX\"", [](value_maker &m) { return m.words(); }},
    {"text COLLATE ucs_basic", [](value_maker &m) { return m.words(); }},
    {"char(30) COLLATE \"C\"", [](value_maker &m) { return m.words(); }},
    {"counted", [](value_maker &m) { return m.number(0, INT64_MAX); }},
    {"worded", [](value_maker &m) { return m.words(); }},
};

static std::string literal(const std::string &text)
{
    std::string out = "E'";
    for (const char c : text)
        out += c == '\'' || c == '\\' ? std::string(2, c) : std::string(1, c);
    return out + "'";
}

TEST_F(PieceLiveTest, PiecesHaveAllRowsInTheOrderOfTheServer)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    value_maker make(seed, version() >= 14);
    sql("SET timezone = 'UTC'; CREATE DOMAIN number AS bigint; CREATE DOMAIN counted AS number"
        " CHECK (VALUE >= 0); CREATE DOMAIN worded AS text COLLATE \"C\"");
    constexpr int types = static_cast<int>(std::size(key_types));
    for (int table = 0; table < 2 * types; table++) {
        // Each type leads a key, alone at first.
        std::vector<const key_type *> key = {&key_types[table % types]};
        for (int n = table < types ? 0 : 1 + make.below(2); n > 0; n--)
            key.push_back(&key_types[make.below(types)]);
        const std::string name = "\"t" + std::to_string(table) + "\"";
        std::string columns = "v text";
        std::string list;
        for (size_t i = 0; i < key.size(); i++) {
            const std::string column = "\"k " + std::to_string(i) + "\"";
            columns += ", " + column + " " + key[i]->name;
            list += (i == 0 ? "" : ", ") + column;
        }
        std::string values;
        for (int n = 0; n < 120; n++) {
            values += (n == 0 ? "('" : ", ('") + std::to_string(n) + "'";
            for (const key_type *type : key)
                values += ", " + literal(type->make(make));
            values += ")";
        }
        sql("CREATE TABLE " + name + " (" + columns + ", PRIMARY KEY (" + list + "));" +
            "INSERT INTO " + name + " VALUES " + values + " ON CONFLICT DO NOTHING");
        std::vector<pgp_piece> pieces = read_all(
            "t" + std::to_string(table), {.rows = static_cast<uint64_t>(15 + make.below(60))});
        const piece_rows wanted = client->run("SELECT * FROM " + name + " ORDER BY " + list);
        size_t at = 0;
        for (pgp_piece &piece : pieces) {
            pgp_part &one = part(piece);
            ASSERT_EQ(one.key.size(), key.size()) << key[0]->name;
            const size_t begin = at;
            const pgp_part kept = one;
            for (const piece_row &row : rows_of(one)) {
                ASSERT_LT(at, wanted.size()) << key[0]->name;
                ASSERT_EQ(row, wanted[at]) << key[0]->name;
                at++;
            }
            EXPECT_EQ(kept.rows, at - begin);
            // Each row of the table stands where it is.
            for (size_t i = 0; i < wanted.size(); i++) {
                std::vector<std::string_view> values_of(wanted[i].begin() + 1, wanted[i].end());
                EXPECT_EQ(pgp_side_of(kept, values_of), i < begin ? PGP_TAKEN
                                                        : i < at  ? PGP_PIECE
                                                                  : PGP_LATER)
                    << key[0]->name << ": " << wanted[i][1];
            }
        }
        EXPECT_EQ(at, wanted.size()) << key[0]->name;
    }
}

// ---- descriptions

TEST_F(PieceLiveTest, TablesAreDescribedAsTheStreamDescribesThem)
{
    sql("CREATE DOMAIN cents AS numeric(9,2); CREATE TYPE mood AS ENUM ('good', 'bad');"
        "CREATE TABLE plain (a int, \"b b\" varchar(30), c cents, d mood, e int[]);"
        "ALTER TABLE plain DROP COLUMN a; ALTER TABLE plain ADD COLUMN f timestamp(3);"
        "CREATE TABLE keyed (a int, b text, c int, PRIMARY KEY (c, a) INCLUDE (b));"
        "CREATE TABLE whole (a int PRIMARY KEY, b text); ALTER TABLE whole REPLICA IDENTITY FULL;"
        "CREATE TABLE indexed (a int PRIMARY KEY, b int NOT NULL, c int NOT NULL);"
        "CREATE UNIQUE INDEX by_b ON indexed (b, c);"
        "ALTER TABLE indexed REPLICA IDENTITY USING INDEX by_b;"
        "CREATE TABLE nothing (a int PRIMARY KEY); ALTER TABLE nothing REPLICA IDENTITY NOTHING;"
        "CREATE TABLE deferred (a int PRIMARY KEY DEFERRABLE);"
        "CREATE TABLE made (a int PRIMARY KEY, b int GENERATED ALWAYS AS (a + 1) STORED, c text);"
        "CREATE TABLE root (a int, b int, PRIMARY KEY (a, b)) PARTITION BY RANGE (a);"
        "CREATE TABLE leaf PARTITION OF root FOR VALUES FROM (0) TO (10);"
        "CREATE TABLE \"odd \"\"name\\\" (\"a\"\"\\\" int PRIMARY KEY);"
        "CREATE TABLE parent (a int PRIMARY KEY);"
        "CREATE TABLE child (b int) INHERITS (parent)");
    make_slot();
    sql("INSERT INTO plain DEFAULT VALUES; INSERT INTO keyed VALUES (1, 'b', 3);"
        "INSERT INTO whole VALUES (1); INSERT INTO indexed VALUES (1, 2, 3);"
        "INSERT INTO nothing VALUES (1); INSERT INTO deferred VALUES (1);"
        "INSERT INTO made (a) VALUES (1); INSERT INTO root VALUES (1, 2);"
        "INSERT INTO \"odd \"\"name\\\" VALUES (1); INSERT INTO parent VALUES (1);"
        "INSERT INTO child VALUES (2, 3)");
    const sent_stream sent = stream();
    std::vector<pgp_want> wants;
    for (const pgo_relation &relation : sent.relations)
        wants.push_back({.schema = relation.schema, .table = relation.name});
    ASSERT_EQ(wants.size(), 11U);
    const pgp_piece piece = read(wants);
    ASSERT_EQ(piece.parts.size(), wants.size()) << later;
    for (const pgp_part &one : piece.parts) {
        EXPECT_EQ(one.relation, sent.relations[one.want]) << one.relation.name;
        EXPECT_EQ(one.rows, 1U) << one.relation.name << one.refused; // of it ONLY
    }
}

TEST_F(PieceLiveTest, APartitionedTableThatIsPublishedAsOneIsDescribedAsOne)
{
    if (version() < 13)
        return; // partitions are published as tables of their own
    sql("DROP PUBLICATION feed; CREATE TABLE root (a int, b int, PRIMARY KEY (a, b))"
        " PARTITION BY RANGE (a); CREATE TABLE leaf PARTITION OF root FOR VALUES FROM (0) TO (10);"
        "CREATE TABLE other (b int NOT NULL, a int NOT NULL);"
        "ALTER TABLE root ATTACH PARTITION other FOR VALUES FROM (10) TO (20);"
        "CREATE PUBLICATION feed FOR TABLE root WITH (publish_via_partition_root)");
    make_slot();
    sql("INSERT INTO root VALUES (15, 1), (3, 2), (12, 7); ANALYZE root");
    const sent_stream sent = stream();
    pgp_piece piece = read({want("root"), want("leaf")});
    ASSERT_EQ(piece.parts.size(), 2U);
    EXPECT_THAT(sent.relations, testing::Contains(piece.parts[0].relation));
    EXPECT_EQ(piece.parts[0].estimate, 3);
    EXPECT_EQ(piece.parts[0].key, (std::vector<std::string>{"23 23 a", "23 23 b"}));
    EXPECT_EQ(rows_of(piece.parts[0]), (piece_rows{{"3", "2"}, {"12", "7"}, {"15", "1"}}));
    EXPECT_TRUE(piece.parts[1].gone); // it is not published as itself
    sql("DROP TABLE leaf, other");
    piece = read({want("root")});
    ASSERT_EQ(piece.parts.size(), 1U) << later;
    EXPECT_EQ(piece.parts[0].rows, 0U);
    EXPECT_TRUE(piece.parts[0].ends);
}

TEST_F(PieceLiveTest, OnlyWhatIsPublishedIsRead)
{
    if (version() < 15)
        return; // publications have no lists of columns
    sql("DROP PUBLICATION feed; CREATE TABLE few (a int, b text, c int, d int,"
        " PRIMARY KEY (c)); INSERT INTO few SELECT n, 'b', 100 - n, n FROM generate_series(1, 9) "
        "n;"
        "CREATE TABLE fewer (k int NOT NULL, l int NOT NULL, PRIMARY KEY (k, l));"
        "ALTER TABLE fewer REPLICA IDENTITY NOTHING; INSERT INTO fewer VALUES (1, 1);"
        "CREATE PUBLICATION feed FOR TABLE few (a, c) WHERE (a > 2 OR d = 1 OR c IN (1, 2)),"
        " fewer (l) WITH (publish = 'insert')");
    pgp_piece piece = read({want("few"), want("fewer")}, {.rows = 5});
    ASSERT_EQ(piece.parts.size(), 1U);
    EXPECT_EQ(rows_of(piece.parts[0]),
              (piece_rows{{"9", "91"}, {"8", "92"}, {"7", "93"}, {"6", "94"}, {"5", "95"}}));
    pgp_want few = want("few");
    few.key = piece.parts[0].key;
    few.reached = piece.parts[0].to;
    EXPECT_EQ(piece.parts[0].to, (std::vector<std::string>{"95"}));
    piece = read({few, want("fewer")});
    ASSERT_EQ(piece.parts.size(), 2U);
    EXPECT_EQ(rows_of(piece.parts[0]), (piece_rows{{"4", "96"}, {"3", "97"}, {"1", "99"}}));
    EXPECT_EQ(piece.parts[1].key, std::vector<std::string>{}); // the key has another column, too
    EXPECT_EQ(rows_of(piece.parts[1]), (piece_rows{{"1"}}));
}

// ---- which key

TEST_F(PieceLiveTest, TheKeyIsWhatEveryOldRowHas)
{
    static const struct {
        const char *sql; // makes table t
        std::vector<std::string> key;
    } cases[] = {
        {"CREATE TABLE t (a int, b int)", {}},
        {"CREATE TABLE t (a int, b int, PRIMARY KEY (b, a))", {"23 23 b", "23 23 a"}},
        {"CREATE TABLE t (a int UNIQUE NOT NULL)", {}}, // old rows do not come
        {"CREATE TABLE t (a int UNIQUE NOT NULL); ALTER TABLE t REPLICA IDENTITY FULL",
         {"23 23 a"}},
        {"CREATE TABLE t (a int UNIQUE); ALTER TABLE t REPLICA IDENTITY FULL", {}}, // nulls
        {"CREATE TABLE t (a int NOT NULL); CREATE UNIQUE INDEX i ON t (a) WHERE a > 0;"
         "ALTER TABLE t REPLICA IDENTITY FULL",
         {}},
        {"CREATE TABLE t (a int NOT NULL); CREATE UNIQUE INDEX i ON t ((a + 1));"
         "ALTER TABLE t REPLICA IDENTITY FULL",
         {}},
        {"CREATE TABLE t (a int NOT NULL); CREATE INDEX i ON t (a);"
         "ALTER TABLE t REPLICA IDENTITY FULL",
         {}},
        {"CREATE TABLE t (a int UNIQUE NOT NULL, b int PRIMARY KEY);"
         "ALTER TABLE t REPLICA IDENTITY FULL",
         {"23 23 b"}},
        {"CREATE TABLE t (a int PRIMARY KEY, b int NOT NULL, c int);"
         "CREATE UNIQUE INDEX i ON t (b) INCLUDE (c);"
         "ALTER TABLE t REPLICA IDENTITY USING INDEX i",
         {"23 23 b"}},
        {"CREATE TABLE t (a int PRIMARY KEY DEFERRABLE)", {}},
        {"CREATE TABLE t (a double precision PRIMARY KEY)", {"701 0 a ..."}}, // the server's order
        {"CREATE TABLE t (a text COLLATE \"C\" PRIMARY KEY)", {"25 25 a"}},
        {"CREATE TABLE t (a int, b interval, PRIMARY KEY (a, b))", {"23 0 a ...", "1186 0 b ..."}},
        {"CREATE TABLE t (a json)", {}},                 // has no order
        {"CREATE TABLE t (a regclass PRIMARY KEY)", {}}, // whatever has the name then
        {"CREATE DOMAIN d AS varchar(9); CREATE TABLE t (a d COLLATE \"C\" PRIMARY KEY)",
         {"% 1043 a"}},
        {"CREATE TABLE t (a int, b int NOT NULL, PRIMARY KEY (a)) PARTITION BY RANGE (a);"
         "CREATE TABLE u PARTITION OF t DEFAULT; ALTER TABLE u REPLICA IDENTITY FULL",
         {"23 23 a"}},
        {"CREATE TABLE t (a int, b int NOT NULL, PRIMARY KEY (a)) PARTITION BY RANGE (a);"
         "CREATE TABLE u PARTITION OF t DEFAULT; CREATE UNIQUE INDEX i ON u (b);"
         "ALTER TABLE u REPLICA IDENTITY USING INDEX i",
         {}}, // b is all that comes of an old row
        {"CREATE TABLE t (a int, PRIMARY KEY (a)) PARTITION BY RANGE (a);"
         "CREATE TABLE u PARTITION OF t FOR VALUES FROM (0) TO (9) PARTITION BY RANGE (a);"
         "CREATE TABLE v PARTITION OF u DEFAULT",
         {"23 23 a"}},
    };
    const bool by_root = version() >= 13; // else partitions are tables of their own
    if (by_root)
        sql("ALTER PUBLICATION feed SET (publish_via_partition_root)");
    for (const auto &one : cases) {
        if (!by_root && strstr(one.sql, "PARTITION") != nullptr)
            continue;
        sql(one.sql);
        pgp_piece piece = read({want("t")});
        ASSERT_EQ(piece.parts.size(), 1U) << one.sql << later;
        std::vector<std::string> key = piece.parts[0].key;
        if (one.key == std::vector<std::string>{"% 1043 a"} && key.size() == 1)
            key[0].replace(0, key[0].find(' '), "%"); // a domain's number
        for (std::string &entry : key)
            if (const size_t end = entry.find('\0'); end != entry.npos)
                entry.replace(end, entry.npos, " ...");
        EXPECT_EQ(key, one.key) << one.sql;
        EXPECT_TRUE(piece.parts[0].ends);
        sql("DROP TABLE t; DROP DOMAIN IF EXISTS d");
    }
}

TEST_F(PieceLiveTest, TextsOfTheDatabaseAreComparedWhereItsBytesAre)
{
    const struct {
        std::string encoding;
        std::string locale;
        bool compared;
    } cases[] = {
        {"UTF8", "C", true},
        {"UTF8", "POSIX", true},
        {"SQL_ASCII", "C", true},
        {"LATIN1", "C", true},
        {"LATIN2", "C", false}, // not in the order of their UTF-8
        {"EUC_JP", "C", false},
        // By code points where the C library is known to do so.
        {"UTF8", "C.UTF-8",
         std::regex_search(value("SELECT version()"), std::regex("(deb|pgdg)1[2-9]"))},
    };
    for (const auto &one : cases) {
        use("piece_" + std::to_string(++databases), encoded(one.encoding, one.locale));
        SCOPED_TRACE(one.encoding + " " + one.locale);
        sql("CREATE TABLE t (a varchar(9) PRIMARY KEY); INSERT INTO t VALUES ('b'), ('a'), ('B')");
        std::vector<pgp_piece> pieces = read_all("t", {.rows = 2});
        EXPECT_EQ(part(pieces[0]).order.operands.empty(), one.compared);
        EXPECT_EQ(pieces.size(), 2U);
        EXPECT_EQ(rows_of(part(pieces[0])), (piece_rows{{"B"}, {"a"}}));
    }
}
