// What keeps a table's rows from being read, and what then becomes of the others.
#include "feed/postgresql/connect.h"
#include "fwutil/fwu_start.h"
#include "tests/postgresql/pg_proxy.h"
#include "tests/postgresql/piece_fixture.h"
#include "tests/support/run.h"

#include <algorithm>
#include <set>
#include <thread>

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

class PieceTroubleTest : public PieceTest {
  protected:
    // A role that may log in, and nothing else.
    void read_as_nobody()
    {
        sql("DO $$ BEGIN CREATE ROLE nobody_special LOGIN; EXCEPTION WHEN duplicate_object THEN"
            " NULL; END $$");
        pgs_disconnect(from);
        from.conninfo = server->conninfo(database, "nobody_special");
    }

    // Ends the sessions that read.
    void end_sessions() const
    {
        const std::string ours = " FROM pg_stat_activity WHERE application_name = 'fwlog'";
        sql("SELECT pg_terminate_backend(pid)" + ours);
        EXPECT_TRUE(poll_until([&] { return value("SELECT count(*)" + ours) == "0"; }));
    }

    // Whether a session that reads is in a transaction.
    bool is_reading() const
    {
        return value("SELECT count(*) FROM pg_stat_activity WHERE application_name = 'fwlog'"
                     " AND xact_start IS NOT NULL") != "0";
    }

    // Whether none is any more: the server may take a moment to see that one has gone.
    bool reading_ends() const
    {
        for (int n = 0; n < 1000 && is_reading(); n++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return !is_reading();
    }
};

// Names of those that were read, refused and gone.
static std::set<std::string> names(const pgp_piece &piece)
{
    std::set<std::string> found;
    for (const pgp_part &part : piece.parts)
        found.insert((part.gone              ? "gone "
                      : part.refused.empty() ? ""
                                             : "refused ") +
                     part.relation.name);
    return found;
}

using name_set = std::set<std::string>;

TEST_F(PieceTroubleTest, TablesThatMayNotBeReadAreRefusedAndTheOthersRead)
{
    sql("CREATE TABLE a (id int PRIMARY KEY); CREATE TABLE b (id int PRIMARY KEY);"
        "CREATE TABLE c (id int PRIMARY KEY); CREATE TABLE d (id int PRIMARY KEY);"
        "INSERT INTO a VALUES (1); INSERT INTO c VALUES (1); INSERT INTO d VALUES (1)");
    read_as_nobody();
    sql("GRANT SELECT ON a, c, d TO nobody_special;"
        "ALTER TABLE c ENABLE ROW LEVEL SECURITY");
    const pgp_piece piece = read({want("c"), want("b"), want("a"), want("d"), want("e")});
    EXPECT_EQ(names(piece), (name_set{"a", "refused b", "refused c", "d", "gone e"}));
    for (const pgp_part &one : piece.parts) {
        if (one.relation.name == "b")
            EXPECT_EQ(one.refused, "permission denied for table b; give the role the right: GRANT "
                                   "SELECT ON \"public\".\"b\" TO \"nobody_special\"");
        else if (one.relation.name == "c")
            EXPECT_EQ(one.refused,
                      "query would be affected by row-level security policy for table "
                      "\"c\"; let the role see all rows: ALTER ROLE \"nobody_special\" BYPASSRLS");
        else
            EXPECT_EQ(one.rows, one.gone ? 0U : 1U);
    }
    EXPECT_EQ(later, "");
    // That alone has its place in the log, too.
    for (const char *name : {"b", "c", "e"}) {
        const std::string before = value("SELECT pg_current_wal_insert_lsn()");
        const pgp_piece alone = read({want(name)});
        EXPECT_EQ(alone.parts.size(), 1U);
        EXPECT_EQ(value("SELECT h >= '" + before +
                        "' AND pg_current_wal_insert_lsn() > h FROM (SELECT '" +
                        fwu_lsn_text(alone.high) + "'::pg_lsn AS h) AS piece"),
                  "t");
    }
    EXPECT_TRUE(reading_ends());
    EXPECT_EQ(names(read({want("b")})), (name_set{"refused b"}));
    EXPECT_TRUE(reading_ends());
}

TEST_F(PieceTroubleTest, WhatIsNoTableOfThePublicationIsGone)
{
    sql("DROP PUBLICATION feed; CREATE TABLE a (id int PRIMARY KEY); CREATE TABLE b (id int);"
        "CREATE PUBLICATION feed FOR TABLE a; CREATE VIEW v AS SELECT 1; CREATE SEQUENCE s");
    EXPECT_EQ(names(read({want("b"),
                          want("v"),
                          want("s"),
                          want("none"),
                          {.schema = "none", .table = "a"},
                          want("a")})),
              (name_set{"gone b", "gone v", "gone s", "gone none", "gone a", "a"}));
    EXPECT_EQ(later, "");
}

TEST_F(PieceTroubleTest, ALockedTableIsLeftForLater)
{
    sql("CREATE TABLE a (id int PRIMARY KEY); CREATE TABLE b (id int PRIMARY KEY)");
    pg_client other = connect();
    other.run("BEGIN; ALTER TABLE a ADD COLUMN c int");
    EXPECT_EQ(names(read({want("a"), want("b")})), (name_set{"b"}));
    EXPECT_THAT(later, HasSubstr("table \"public\".\"a\" cannot be read now: canceling statement "
                                 "due to lock timeout"));
    EXPECT_EQ(names(read({want("a")})), (name_set{}));
    EXPECT_THAT(later,
                AllOf(StartsWith("table \"public\".\"a\" cannot be read now: canceling statement "
                                 "due to lock timeout: process "),
                      HasSubstr(" of user postgres, in a transaction since ")));
    other.run("COMMIT");
    const pgp_piece piece = read({want("a"), want("b")});
    EXPECT_EQ(names(piece), (name_set{"a", "b"}));
    EXPECT_EQ(piece.parts[0].relation.columns.size(), 2U);
    EXPECT_EQ(later, "");
}

TEST_F(PieceTroubleTest, ATransactionThatOthersDoNotSeeYetIsWaitedFor)
{
    sql("CREATE TABLE a (id int PRIMARY KEY)");
    pg_client other = connect();
    other.run("BEGIN; INSERT INTO a VALUES (1)");
    const auto xid = static_cast<uint32_t>(std::stoull(other.value("SELECT txid_current()")));
    const std::string before = value("SELECT txid_current()");
    EXPECT_EQ(names(read({want("a")}, {}, {static_cast<uint32_t>(std::stoull(before)), xid})),
              (name_set{}));
    EXPECT_EQ(later, "others do not see transaction " + std::to_string(xid) +
                         " yet, which the stream has sent");
    EXPECT_TRUE(reading_ends());
    // It is seen while it is waited for.
    std::thread ends([&] { other.run("SELECT pg_sleep(0.02); COMMIT"); });
    bool seen = false;
    for (int n = 0; n < 1000 && !seen; n++)
        seen = names(read({want("a")}, {}, {xid})) == name_set{"a"};
    ends.join();
    EXPECT_TRUE(seen);
    EXPECT_EQ(later, "");
}

TEST_F(PieceTroubleTest, ALostSessionIsMadeAnew)
{
    sql("CREATE TABLE a (id int PRIMARY KEY)");
    EXPECT_EQ(names(read({want("a")})), (name_set{"a"}));
    end_sessions();
    EXPECT_EQ(names(read({want("a")})), (name_set{}));
    EXPECT_THAT(later, HasSubstr("terminating connection due to administrator command"));
    EXPECT_EQ(from.sql, nullptr);
    EXPECT_EQ(names(read({want("a")})), (name_set{"a"}));
    EXPECT_EQ(later, "");
    // Nor does it matter when there is none to be had.
    sql("ALTER DATABASE " + database + " CONNECTION LIMIT 0");
    read_as_nobody();
    EXPECT_EQ(names(read({want("a")})), (name_set{}));
    EXPECT_THAT(later, HasSubstr("too many connections for database"));
    sql("ALTER DATABASE " + database + " CONNECTION LIMIT -1");
    EXPECT_EQ(names(read({want("a")})), (name_set{"refused a"}));
}

// ---- the table is another one by now

TEST_F(PieceTroubleTest, AnotherKeyOrAnotherTableIsReadAnew)
{
    static const struct {
        const char *sql;
        bool anew;
    } cases[] = {
        {"ALTER TABLE a ADD COLUMN c int", false},
        {"ALTER TABLE a ADD COLUMN c int; ALTER TABLE a DROP COLUMN v", false},
        {"CREATE TABLE b (LIKE a INCLUDING ALL)", false},
        {"ALTER TABLE a ALTER COLUMN id TYPE bigint", true},
        {"ALTER TABLE a ALTER COLUMN id TYPE text COLLATE \"C\"", true},
        {"ALTER TABLE a ALTER COLUMN id TYPE text", true}, // there is no key any more
        {"ALTER TABLE a RENAME COLUMN id TO number", true},
        {"ALTER TABLE a DROP CONSTRAINT a_pkey", true},
        {"ALTER TABLE a DROP CONSTRAINT a_pkey; ALTER TABLE a ADD PRIMARY KEY (id, v)", true},
        {"ALTER TABLE a DROP CONSTRAINT a_pkey; ALTER TABLE a ADD PRIMARY KEY (v)", true},
        {"CREATE TABLE n (LIKE a INCLUDING ALL); INSERT INTO n SELECT * FROM a; DROP TABLE a;"
         "ALTER TABLE n RENAME TO a",
         true},
    };
    for (const auto &one : cases) {
        sql("CREATE TABLE a (id int PRIMARY KEY, v int UNIQUE NOT NULL);"
            "INSERT INTO a SELECT n, -n FROM generate_series(1, 9) n");
        pgp_piece piece = read({want("a")}, {.rows = 4});
        pgp_want a = want("a");
        a.key = part(piece).key;
        a.reached = part(piece).to;
        a.id = part(piece).relation.id;
        sql(one.sql);
        piece = read({a});
        ASSERT_EQ(piece.parts.size(), 1U) << one.sql << later;
        EXPECT_EQ(piece.parts[0].anew, one.anew) << one.sql;
        EXPECT_EQ(piece.parts[0].from.empty(), one.anew) << one.sql;
        EXPECT_EQ(piece.parts[0].rows, one.anew ? 9U : 5U) << one.sql;
        EXPECT_TRUE(piece.parts[0].ends) << one.sql;
        sql("DROP TABLE a; DROP TABLE IF EXISTS b");
    }
}

TEST_F(PieceTroubleTest, WhatIsKeptOfAKeyThatFitsNoMoreIsReadAnew)
{
    sql("CREATE TABLE a (id int PRIMARY KEY); INSERT INTO a VALUES (1), (2)");
    for (const std::vector<std::string> &reached :
         {std::vector<std::string>{"1", "2"}, std::vector<std::string>{"1", "2", "3"}}) {
        pgp_want a = want("a");
        a.key = {"23 23 id"};
        a.reached = reached;
        pgp_piece piece = read({a});
        EXPECT_TRUE(part(piece).anew);
        EXPECT_EQ(part(piece).rows, 2U);
    }
}

TEST_F(PieceTroubleTest, ATableOfAnotherNameByThenIsNotTaken)
{
    // Schemas can be renamed whatever is locked.
    sql("CREATE TABLE a (t text); INSERT INTO a SELECT repeat('x', 2000) FROM"
        " generate_series(1, 9); ALTER TABLE a ALTER COLUMN t SET STORAGE EXTERNAL;"
        "CREATE SCHEMA other; CREATE TABLE other.a (t text)");
    pgp_piece piece = read({want("a")}, {.bytes = 100});
    ASSERT_TRUE(piece.direct) << later;
    sql("ALTER SCHEMA public RENAME TO old; ALTER SCHEMA other RENAME TO public");
    piece_rows rows;
    EXPECT_EQ(read_direct(piece, rows), PGP_BROKEN);
    EXPECT_EQ(later, "another table has the name \"public\".\"a\" since a moment ago");
    EXPECT_FALSE(piece.direct);
}

// ---- rows that are many or long

TEST_F(PieceTroubleTest, LongRowsMakeSmallPieces)
{
    sql("CREATE TABLE a (id int PRIMARY KEY, v text);"
        "INSERT INTO a SELECT n, repeat(chr(97 + n % 26), 1000) FROM generate_series(1, 700) n");
    std::vector<pgp_piece> pieces = read_all("a", {.bytes = 100'000});
    int id = 0;
    for (pgp_piece &piece : pieces) {
        EXPECT_LE(part(piece).lines.size(),
                  400'000U + 2000U); // the first ones are asked for by number
        for (const piece_row &row : rows_of(part(piece)))
            ASSERT_EQ(row, (piece_row{std::to_string(++id),
                                      std::string(1000, static_cast<char>(97 + id % 26))}));
    }
    EXPECT_EQ(id, 700);
    EXPECT_GE(pieces.size(), 3U);
}

TEST_F(PieceTroubleTest, RowsThatAreLongerThanAPieceComeOneByOne)
{
    sql("CREATE TABLE a (id int PRIMARY KEY, v text);"
        "INSERT INTO a SELECT n, repeat('x', 50000) FROM generate_series(1, 5) n;"
        "CREATE TABLE b (id int PRIMARY KEY)");
    std::vector<pgp_piece> pieces = read_all("a", {.bytes = 1000});
    ASSERT_EQ(pieces.size(), 6U);
    for (size_t i = 0; i < 5; i++) {
        EXPECT_EQ(part(pieces[i]).rows, 1U);
        EXPECT_EQ(part(pieces[i]).to, (std::vector<std::string>{std::to_string(i + 1)}));
    }
    EXPECT_EQ(part(pieces[5]).rows, 0U);
    // The session was given up each time; the next one is there.
    EXPECT_EQ(names(read({want("b")})), (name_set{"b"}));
    EXPECT_TRUE(reading_ends());
}

TEST_F(PieceTroubleTest, AWholeTableThatIsTooLargeComesDirectly)
{
    sql("CREATE TABLE a (v text); INSERT INTO a SELECT CASE WHEN n % 2 = 0 THEN n || E'\\t\\\\' END"
        " FROM generate_series(1, 3000) n; CREATE TABLE b (id int PRIMARY KEY);"
        "ALTER TABLE a REPLICA IDENTITY FULL");
    pgp_piece piece = read({want("b"), want("a")}, {.bytes = 8000});
    EXPECT_EQ(names(piece), (name_set{"b"})); // it would come alone
    EXPECT_FALSE(piece.direct);
    piece = read({want("none"), want("a"), want("b")}, {.bytes = 8000});
    EXPECT_EQ(names(piece), (name_set{"a", "gone none"}));
    ASSERT_TRUE(piece.direct);
    EXPECT_TRUE(part(piece).ends);
    EXPECT_EQ(part(piece).lines, "");
    EXPECT_TRUE(is_reading());
    sql("INSERT INTO a VALUES ('later'); UPDATE a SET v = 'other' WHERE v LIKE '2%'");
    piece_rows rows;
    EXPECT_EQ(read_direct(piece, rows, {.rows = 700}), PGP_LAST);
    EXPECT_EQ(part(piece).rows, 3000U);
    EXPECT_TRUE(is_reading()); // the table is locked as long as it is not logged
    pgp_end(piece);
    EXPECT_FALSE(piece.direct);
    EXPECT_TRUE(reading_ends());
    ASSERT_EQ(rows.size(), 3000U);
    std::sort(rows.begin(), rows.end());
    std::set<std::string> wanted;
    for (int n = 2; n <= 3000; n += 2)
        wanted.insert(std::to_string(n) + "\t\\");
    EXPECT_TRUE(
        std::equal(wanted.begin(), wanted.end(), rows.begin(), rows.begin() + 1500,
                   [](const std::string &a, const piece_row &b) { return b == piece_row{a}; }));
    EXPECT_EQ(rows[1500], piece_row{"\\N"});
    EXPECT_EQ(names(read({want("b")})), (name_set{"b"}));
}

TEST_F(PieceTroubleTest, AWholeTableThatIsLargerThanItLooksComesDirectly)
{
    sql("CREATE TABLE a (v text); INSERT INTO a SELECT repeat('x', 500000) FROM"
        " generate_series(1, 20); CREATE TABLE b (id int PRIMARY KEY)");
    const pgp_limits limits = {.bytes = 200'000};
    ASSERT_LT(std::stoi(value("SELECT pg_table_size('a')")), 200'000); // compressed
    EXPECT_EQ(names(read({want("b"), want("a")}, limits)), (name_set{"b"}));
    EXPECT_TRUE(reading_ends());
    pgp_piece piece = read({want("a")}, limits);
    EXPECT_EQ(names(piece), (name_set{"a"}));
    ASSERT_TRUE(piece.direct);
    piece_rows rows;
    EXPECT_EQ(read_direct(piece, rows), PGP_LAST);
    EXPECT_EQ(rows, piece_rows(20, {std::string(500'000, 'x')}));
}

TEST_F(PieceTroubleTest, WhatTakesTooLongComesDirectly)
{
    if (version() < 15)
        return; // publications have no conditions
    // A condition that takes its time, and a stream that does not give much of it.
    sql("ALTER DATABASE " + database +
        " SET wal_sender_timeout = '400ms';"
        "DROP PUBLICATION feed; CREATE TABLE a (id int PRIMARY KEY, v text);"
        "INSERT INTO a SELECT n, 'x' FROM generate_series(1, 80) n;"
        "CREATE PUBLICATION feed FOR TABLE a WHERE (length(repeat(v, 5000000)) > 0)"
        " WITH (publish = 'insert')");
    pgp_want a = want("a");
    a.key = {"23 23 id"};
    a.reached = {"40"};
    pgp_piece piece = read({want("a")});
    EXPECT_EQ(names(piece), (name_set{"a"})) << later;
    ASSERT_TRUE(piece.direct);
    pgp_end(piece);
    EXPECT_FALSE(piece.direct);
    EXPECT_EQ(from.sql, nullptr); // it was the piece's
    // The same behind what was reached.
    piece = read({a});
    EXPECT_EQ(names(piece), (name_set{"a"})) << later;
    ASSERT_TRUE(piece.direct);
    EXPECT_EQ(part(piece).from, a.reached);
    piece_rows rows;
    EXPECT_EQ(read_direct(piece, rows), PGP_LAST);
    EXPECT_EQ(rows.size(), 40U);
}

// ---- a direct piece that does not come to its end

TEST_F(PieceTroubleTest, ADirectPieceThatBreaksIsForLater)
{
    sql("CREATE TABLE a (v text); INSERT INTO a SELECT repeat('x', 10000) FROM"
        " generate_series(1, 3000); ALTER TABLE a ALTER COLUMN v SET STORAGE EXTERNAL;"
        "ALTER TABLE a REPLICA IDENTITY FULL; UPDATE a SET v = v || 'y'");
    const pgp_limits limits = {.bytes = 10'000};
    for (const bool begun : {false, true}) {
        pgp_piece piece = read({want("a")}, limits);
        ASSERT_TRUE(piece.direct);
        pgp_came came = PGP_NOT_YET;
        while (begun && came == PGP_NOT_YET)
            ASSERT_TRUE(pgp_direct_rows(came, piece, from, 100, later, {.rows = 1}));
        EXPECT_EQ(came, begun ? PGP_FULL : PGP_NOT_YET);
        EXPECT_EQ(piece.at_hand, begun ? 1U : 0U);
        end_sessions();
        piece_rows rows;
        EXPECT_EQ(read_direct(piece, rows), PGP_BROKEN);
        EXPECT_NE(later, "");
        EXPECT_EQ(part(piece).refused, "");
        EXPECT_FALSE(piece.direct);
        EXPECT_LT(rows.size(), 3000U);
    }
    pgp_piece piece = read({want("a")}, limits);
    piece_rows rows;
    EXPECT_EQ(read_direct(piece, rows), PGP_LAST);
    EXPECT_EQ(rows.size(), 3000U);
}

TEST_F(PieceTroubleTest, ADirectPieceThatIsRefusedSaysWhy)
{
    sql("CREATE TABLE a (v text); INSERT INTO a SELECT repeat('x', 1000) FROM"
        " generate_series(1, 300)");
    read_as_nobody();
    sql("GRANT SELECT ON a TO nobody_special");
    pgp_piece piece = read({want("a")}, {.bytes = 10'000});
    ASSERT_TRUE(piece.direct) << later;
    sql("REVOKE SELECT ON a FROM nobody_special");
    piece_rows rows;
    EXPECT_EQ(read_direct(piece, rows), PGP_BROKEN);
    EXPECT_EQ(piece.parts.at(0).refused, "permission denied for table a; give the role the right: "
                                         "GRANT SELECT ON \"public\".\"a\" TO \"nobody_special\"");
    EXPECT_EQ(later, "");
    EXPECT_TRUE(reading_ends());
}

TEST_F(PieceTroubleTest, WhatIsGivenUpLeavesNoTransaction)
{
    sql("CREATE TABLE a (v text); INSERT INTO a SELECT repeat('x', 1000) FROM"
        " generate_series(1, 300); CREATE TABLE b (id int PRIMARY KEY)");
    pgp_piece piece = read({want("a")}, {.bytes = 10'000});
    ASSERT_TRUE(piece.direct);
    pgp_end(piece);
    EXPECT_TRUE(reading_ends());
    // One that was forgotten is no hindrance either.
    piece = read({want("a")}, {.bytes = 10'000});
    ASSERT_TRUE(piece.direct);
    EXPECT_EQ(names(read({want("b")})), (name_set{"b"}));
    // While one is read directly, another one is told to be left.
    const pgp_piece other = read({want("b"), want("a")}, {.bytes = 10'000, .direct = false});
    EXPECT_EQ(names(other), (name_set{"b"}));
    const pgp_piece none = read({want("a")}, {.bytes = 10'000, .direct = false});
    EXPECT_TRUE(none.parts.empty());
    EXPECT_EQ(none.left, std::vector<size_t>{0});
    EXPECT_TRUE(is_reading()); // the first one
    EXPECT_NE(piece.reader, nullptr);
    piece = read({want("b")});
    pgp_end(piece); // nothing to do
    EXPECT_NE(from.sql, nullptr);
}

// Text that the server cannot make UTF-8.
TEST_F(PieceTroubleTest, ATextThatTheServerCannotConvertComesInConnectionsMadeAnew)
{
    use("piece_" + std::to_string(++databases), encoded("EUC_JP", "C"));
    sql("CREATE TABLE a (id int PRIMARY KEY, v text); CREATE TABLE b (id int PRIMARY KEY);"
        "INSERT INTO a VALUES (1, 'good'), (2, convert_from('\\xfea1', 'EUC_JP'))");
    pgp_piece piece;
    const outcome done = pgp_read(piece, from, {want("a"), want("b")}, {}, later);
    EXPECT_EQ(done.kind(), OUTCOME_LOST);
    EXPECT_THAT(done.text(), HasSubstr("has no equivalent in encoding \"UTF8\""));
    pgs_disconnect(from);
    piece = read({want("a"), want("b")});
    EXPECT_EQ(names(piece), (name_set{"a", "b"}));
    const piece_rows rows = {{"1", "good"}, {"2", "\xED\xB3\xBE\xED\xB2\xA1"}};
    EXPECT_EQ(rows_of(part(piece)), rows);
    // Directly, too.
    sql("DROP TABLE a; CREATE TABLE a (v text); INSERT INTO a SELECT convert_from('\\xfea1',"
        " 'EUC_JP') FROM generate_series(1, 300)");
    from.texts = nullptr;
    pgs_disconnect(from);
    piece = read({want("a")}, {.bytes = 8000});
    ASSERT_TRUE(piece.direct);
    pgp_came came = PGP_NOT_YET;
    outcome direct;
    while (direct && came == PGP_NOT_YET)
        direct = pgp_direct_rows(came, piece, from, 100, later);
    EXPECT_EQ(direct.kind(), OUTCOME_LOST);
    pgs_disconnect(from);
    piece = read({want("a")}, {.bytes = 8000});
    ASSERT_TRUE(piece.direct);
    piece_rows marked;
    EXPECT_EQ(read_direct(piece, marked), PGP_LAST);
    EXPECT_EQ(marked, piece_rows(300, {"\xED\xB3\xBE\xED\xB2\xA1"}));
}

// A value in an answer: its length in four bytes, then its text.
static std::string answered(const std::string &text)
{
    return std::string(3, '\0') + static_cast<char>(text.size()) + text;
}

TEST_F(PieceTroubleTest, NonsenseInAnswersIsForLater)
{
    sql("CREATE TABLE t (id int PRIMARY KEY, words varchar(7)); INSERT INTO t VALUES (1, 'one')");
    const std::string id = value("SELECT 't'::regclass::oid");
    const std::string zs(id.size(), 'z');
    const struct {
        std::string request;
        std::string from;
        std::string to;
        std::string later;
    } rows[] = {
        {"txid_current_snapshot()", ":", ";", "the server gives no snapshot, position and time"},
        {"txid_current_snapshot()", "0/", "0;", "the server gives no snapshot, position and time"},
        {"txid_current_snapshot()", answered("1234567890123456").substr(0, 4) + "1",
         answered("1234567890123456").substr(0, 4) + "x",
         "the server gives no snapshot, position and time"},
        {"t.relreplident, t.filter", answered("0"), answered("x"),
         "the server gives \"x\" as a table's place"},
        {"t.relreplident, t.filter", answered(id), answered(zs),
         "the server gives \"" + zs + "\" as a table's number"},
        {"t.relreplident, t.filter", answered("8192"), answered("8-92"),
         "the server gives \"8-92\" as a table's size"},
        {"a.attname, a.atttypid", answered("23"), answered("-1"),
         "the server gives \"-1\" as a column's type"},
        {"a.attname, a.atttypid", answered("-1"), answered("1e"),
         "the server gives \"23\" as a column's type"},
    };
    pg_proxy proxy(server->socket());
    from.conninfo = proxy.conninfo(database);
    for (const auto &row : rows) {
        proxy.change_behind(row.request, row.from, row.to);
        const pgp_piece nothing = read({want("t")});
        EXPECT_TRUE(proxy.happened()) << row.request;
        EXPECT_THAT(later, StartsWith(row.later));
        EXPECT_TRUE(nothing.parts.empty()) << row.later;
        pgp_piece piece = read({want("t")});
        EXPECT_EQ(later, "");
        EXPECT_EQ(rows_of(part(piece)), (piece_rows{{"1", "one"}}));
    }
}
