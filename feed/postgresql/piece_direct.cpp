// A table that is read directly: its rows come bit by bit from one COPY of the server's, over a
// connection that nobody else uses, in the snapshot that the piece was begun with.
#include "feed/postgresql/ask.h"
#include "feed/postgresql/piece_work.h"
#include "fwutil/fwu_clock.h"

#include <algorithm>

constexpr int64_t AT_ONCE_MS = 100; // that rows are taken for, as long as they come

static pgp_part *find_part(pgp_piece &piece)
{
    const auto found =
        std::find_if(piece.parts.begin(), piece.parts.end(),
                     [](const pgp_part &part) { return !part.gone && part.refused.empty(); });
    return found == piece.parts.end() ? nullptr : &*found;
}

static outcome ask_for_rows(pgs_copied &copied, pgp_piece &piece, pgs_server &server,
                            pgs_refusal &refusal, int wait_ms)
{
    if (!piece.sent)
        if (outcome sent = pgs_copy_send(server, piece.reader.get(), piece.command); !sent)
            return sent;
    piece.sent = true;
    return pgs_copy_begins(copied, server, piece.reader.get(), refusal, wait_ms);
}

// Whether a server from which nothing has come is still there.
static outcome look_after(pgp_piece &piece, const pgs_server &server)
{
    const int64_t now = fwu_monotonic_ms();
    if (now - piece.heard_ms < server.patience_ms)
        return {};
    piece.heard_ms = now;
    std::string one;
    if (pgs_ask(server, piece.reader.get(), "SELECT 1", one))
        return {};
    return {OUTCOME_LOST, "the server has been silent for too long"};
}

// Takes a row, if one came.
static outcome take_row(pgp_came &came, pgp_piece &piece, pgs_server &server, pgs_refusal &refusal,
                        int wait_ms)
{
    pgs_copied copied = PGS_COPY_ROW;
    std::span<char> line;
    outcome done;
    came = PGP_NOT_YET;
    if (!piece.copying) {
        done = ask_for_rows(copied, piece, server, refusal, wait_ms);
        piece.copying = done && copied == PGS_COPY_ROW;
    }
    if (done && copied == PGS_COPY_ROW)
        done =
            pgs_copy_row(copied, line, piece.given, server, piece.reader.get(), refusal, wait_ms);
    if (!done)
        return done;
    if (copied == PGS_COPY_WAITS)
        return look_after(piece, server);
    piece.heard_ms = fwu_monotonic_ms();
    if (copied == PGS_COPY_ROW) {
        came = PGP_FULL;
        pgp_part &part = *find_part(piece);
        part.lines.append(line.data(), line.size());
        part.rows++;
        piece.at_hand++;
        return {};
    }
    if (refusal.state.empty()) {
        came = PGP_LAST;
        done = pgp_check_names(piece, server, piece.reader.get());
    }
    return done;
}

static outcome take_rows(pgp_came &came, pgp_piece &piece, pgs_server &server, pgs_refusal &refusal,
                         int wait_ms, const pgp_limits &limits)
{
    const int64_t begun_ms = fwu_monotonic_ms();
    const pgp_part &part = *find_part(piece);
    outcome done;
    do {
        done = take_row(came, piece, server, refusal, wait_ms);
        if (part.lines.size() >= limits.bytes || piece.at_hand >= limits.rows)
            return done;
        if (piece.heard_ms - begun_ms >= AT_ONCE_MS && came == PGP_FULL)
            came = PGP_NOT_YET;
    } while (done && came == PGP_FULL);
    server.row.reset();
    return done;
}

// The server has refused to give the rows, or the rest of them.
static void take_refusal(pgp_part &part, const PGconn *connection, const pgs_refusal &refusal,
                         std::string &later)
{
    switch (pgp_trouble_of(refusal)) {
    case PGP_GONE:
        part.gone = true;
        return;
    case PGP_REFUSED:
        part.refused = pgp_reason(refusal, connection, part.relation.schema, part.relation.name);
        return;
    default:
        later = pgp_reason(refusal);
    }
}

outcome pgp_direct_rows(pgp_came &came, pgp_piece &piece, pgs_server &server, int wait_ms,
                        std::string &later, const pgp_limits &limits)
{
    pgs_refusal refusal;
    if (!piece.sent)
        piece.heard_ms = fwu_monotonic_ms();
    if (find_part(piece)->lines.empty())
        piece.at_hand = 0;
    const bool converts = server.texts == nullptr;
    if (outcome done = take_rows(came, piece, server, refusal, wait_ms, limits); !done) {
        if (done.kind() != OUTCOME_LOST || converts != (server.texts == nullptr))
            return done;
        later = done.text();
    } else if (refusal.state.empty()) {
        return {};
    } else {
        take_refusal(*find_part(piece), piece.reader.get(), refusal, later);
    }
    came = PGP_BROKEN;
    pgp_end(piece);
    return {};
}

void pgp_end(pgp_piece &piece)
{
    piece.reader.reset();
    piece.direct = false;
}
