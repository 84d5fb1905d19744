// A database of its own for each case, with a publication of all its tables, and pieces of them.
#ifndef TESTS_POSTGRESQL_PIECE_FIXTURE_H
#define TESTS_POSTGRESQL_PIECE_FIXTURE_H

#include "feed/postgresql/piece.h"
#include "tests/postgresql/pg_client.h"
#include "tests/postgresql/pg_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

using piece_row = std::vector<std::string>; // a null is \N
using piece_rows = std::vector<piece_row>;

// Rows in a part; it can be asked for them once.
piece_rows rows_of(pgp_part &part);

// What the stream would send of the database's changes since the slot was made.
struct sent_commit {
    uint64_t lsn = 0;
    uint32_t xid = 0;
};
struct sent_stream {
    std::vector<sent_commit> commits;
    std::vector<pgo_relation> relations; // each as it was described last
    std::vector<uint64_t> messages;      // commit positions of those by which a piece is passed
};

class PieceTest : public testing::Test {
  protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;

    // Goes to a new database of this name, made with these options.
    void use(const std::string &name, const std::string &options = "");

    // Options of one whose texts are of an encoding and in the order of a locale.
    static std::string encoded(const std::string &encoding, const std::string &locale);

    pg_client connect(const std::string &user = "postgres") const;
    void sql(const std::string &text) const;
    std::string value(const std::string &text) const;

    // The server's main version.
    int version() const;

    // A table of schema public.
    static pgp_want want(const std::string &table);

    pgp_piece read(const std::vector<pgp_want> &wants, const pgp_limits &limits = {},
                   const std::vector<uint32_t> &passed = {});

    // Reads a table to its end, and gives its pieces.  Direct rows are put into the part.
    std::vector<pgp_piece> read_all(const std::string &table, const pgp_limits &limits = {});

    // The rows of a direct piece, up to what it ends with.
    pgp_came read_direct(pgp_piece &piece, piece_rows &rows, const pgp_limits &limits = {});

    // The part that has rows.
    static pgp_part &part(pgp_piece &piece);

    void make_slot() const;
    sent_stream stream() const;

    static inline pg_server *server = nullptr;
    static inline int databases = 0;
    std::string database;
    std::unique_ptr<pg_client> client;
    pgs_server from;
    std::string later; // of the last read
};

#endif
