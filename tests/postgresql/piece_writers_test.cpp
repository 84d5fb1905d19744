// Pieces beside writers: each has exactly what its snapshot says, and all of that has committed
// before its position.
#include "feed/postgresql/facts.h"
#include "tests/postgresql/piece_fixture.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <thread>

class PieceWritersTest : public PieceTest {};

// A change of a row, as a trigger noted it in the transaction that made it.
struct noted {
    uint32_t xid = 0;
    std::string old_id; // empty: there was none
    std::string new_id;
    std::string v;
};

// What the table has in a snapshot: the changes that are in it, in their order.
static std::map<int, std::string> contents(const std::vector<noted> &journal,
                                           const std::string &snapshot)
{
    std::map<int, std::string> rows;
    for (const noted &change : journal) {
        if (!pgf_has_transaction(snapshot, change.xid))
            continue;
        if (!change.old_id.empty())
            rows.erase(std::stoi(change.old_id));
        if (!change.new_id.empty())
            rows[std::stoi(change.new_id)] = change.v;
    }
    return rows;
}

static void work(pg_client client, unsigned seed, const std::atomic<bool> &stop)
{
    std::mt19937 random(seed);
    const auto below = [&](int end) {
        return std::to_string(std::uniform_int_distribution<int>(0, end - 1)(random));
    };
    while (!stop) {
        std::string text = "BEGIN;";
        for (int n = 1 + std::stoi(below(4)); n > 0; n--) {
            const std::string id = below(300);
            const int what = std::stoi(below(4));
            text += what == 0 ? "INSERT INTO w VALUES (" + id + ", " + below(1000) +
                                    ") ON CONFLICT DO NOTHING;"
                    : what == 1 ? "DELETE FROM w WHERE id = " + id + ";"
                    : what == 2 ? "UPDATE w SET v = v + 1 WHERE id = " + id + ";"
                                : "UPDATE w SET id = " + below(300) + " WHERE id = " + id + ";";
        }
        try {
            client.run(text + (below(10) == "0" ? "ROLLBACK" : "COMMIT"));
        } catch (const pg_error &) {
            client.run("ROLLBACK"); // a key twice, or a deadlock
        }
    }
}

TEST_F(PieceWritersTest, EachPieceHasWhatItsSnapshotSays)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    sql("CREATE TABLE w (id int PRIMARY KEY, v int); CREATE TABLE journal (number bigserial,"
        " xid bigint, old_id text, new_id text, v text);"
        "CREATE FUNCTION note() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN"
        " INSERT INTO journal (xid, old_id, new_id, v) VALUES (txid_current() % (2^32)::bigint,"
        " CASE WHEN TG_OP <> 'INSERT' THEN OLD.id::text ELSE '' END,"
        " CASE WHEN TG_OP <> 'DELETE' THEN NEW.id::text ELSE '' END,"
        " CASE WHEN TG_OP <> 'DELETE' THEN NEW.v::text ELSE '' END); RETURN NULL; END $$;"
        "CREATE TRIGGER note AFTER INSERT OR UPDATE OR DELETE ON w FOR EACH ROW"
        " EXECUTE FUNCTION note(); INSERT INTO w SELECT n, n FROM generate_series(0, 300, 2) n");
    make_slot();
    std::atomic<bool> stop = false;
    std::vector<std::thread> writers;
    for (unsigned i = 0; i < 4; i++)
        writers.emplace_back(work, connect(), seed + i, std::cref(stop));
    std::vector<pgp_piece> pieces;
    for (int round = 0; round < 12; round++)
        for (pgp_piece &piece : read_all("w", {.rows = 25}))
            pieces.push_back(std::move(piece));
    stop = true;
    for (std::thread &writer : writers)
        writer.join();

    std::vector<noted> journal;
    for (const auto &row :
         client->run("SELECT xid, old_id, new_id, v FROM journal ORDER BY number"))
        journal.push_back({.xid = static_cast<uint32_t>(std::stoull(row[0])),
                           .old_id = row[1],
                           .new_id = row[2],
                           .v = row[3]});
    const sent_stream sent = stream();
    ASSERT_GE(sent.commits.size(), 20U);
    EXPECT_GE(pieces.size(), 50U);
    size_t unseen = 0; // transactions before a piece that it does not have
    for (pgp_piece &piece : pieces) {
        pgp_part one = part(piece);
        std::map<int, std::string> found;
        for (const piece_row &row : rows_of(one))
            found[std::stoi(row[0])] = row[1];
        std::map<int, std::string> wanted = contents(journal, piece.snapshot);
        std::erase_if(wanted, [&](const auto &row) {
            const std::string id = std::to_string(row.first);
            return pgp_side_of(one, {id}) != PGP_PIECE;
        });
        ASSERT_EQ(found, wanted) << piece.snapshot;
        for (const sent_commit &commit : sent.commits) {
            const bool has = pgf_has_transaction(piece.snapshot, commit.xid);
            ASSERT_TRUE(!has || commit.lsn < piece.high);
            EXPECT_NE(commit.lsn, piece.high - 7);
            unseen += !has && commit.lsn < piece.high;
        }
        // The stream comes behind it by itself.
        EXPECT_TRUE(std::any_of(sent.messages.begin(), sent.messages.end(),
                                [&](uint64_t lsn) { return lsn >= piece.high; }) ||
                    version() < 14);
        EXPECT_NE(piece.time_us, 0);
    }
    EXPECT_EQ(sent.messages.size(), version() < 14 ? 0 : pieces.size()); // not sent before
    RecordProperty("unseen", std::to_string(unseen));
}

TEST_F(PieceWritersTest, TheServersClockIsThatOfThePiece)
{
    sql("CREATE TABLE a (id int PRIMARY KEY)");
    const auto now = [&] {
        return std::stoll(
            value("SELECT (extract(epoch FROM clock_timestamp()) * 1000000)::bigint"));
    };
    const int64_t before = now();
    const pgp_piece piece = read({want("a")});
    EXPECT_LE(before, piece.time_us);
    EXPECT_LE(piece.time_us, now());
}
