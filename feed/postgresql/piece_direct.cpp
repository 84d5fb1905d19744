// A table that is read directly: its rows go from the server's COPY straight to where they belong,
// and nobody holds them in memory.
#include "feed/postgresql/ask.h"
#include "feed/postgresql/piece_work.h"
#include "fwutil/fwu_clock.h"

#include <algorithm>

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
        if (outcome sent = pgs_copy_send(server, piece.command); !sent)
            return sent;
    piece.sent = true;
    return pgs_copy_begins(copied, server, refusal, wait_ms);
}

// Whether a server from which nothing has come is still there.
static outcome look_after(pgp_piece &piece, const pgs_server &server)
{
    const int64_t now = fwu_monotonic_ms();
    if (now - piece.heard_ms < server.patience_ms)
        return {};
    piece.heard_ms = now;
    std::string one;
    if (pgs_ask(server, server.sql.get(), "SELECT 1", one))
        return {};
    return {OUTCOME_LOST, "the server has been silent for too long"};
}

static outcome end_rows(pgp_piece &piece, pgs_server &server)
{
    pgs_result result;
    outcome done = pgp_check_names(piece, server);
    return done ? pgp_ask(server, result, "COMMIT") : std::move(done);
}

// Takes what came, if something did.
static outcome take_row(pgp_came &came, pgo_tuple &row, pgp_piece &piece, pgs_server &server,
                        pgs_refusal &refusal, int wait_ms)
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
        done = pgs_copy_row(copied, line, server, refusal, wait_ms);
    if (!done)
        return done;
    if (copied == PGS_COPY_WAITS)
        return look_after(piece, server);
    piece.heard_ms = fwu_monotonic_ms();
    if (copied == PGS_COPY_ROW) {
        came = PGP_ROW;
        find_part(piece)->rows++;
        pgp_split(row, line.data(), line.size());
        return {};
    }
    if (!refusal.state.empty())
        return {};
    done = end_rows(piece, server);
    came = PGP_LAST;
    piece.direct = !done;
    return done;
}

// The server has refused to give the rows, or the rest of them.
static void take_refusal(pgp_part &part, const pgs_refusal &refusal, std::string &later)
{
    switch (pgp_trouble_of(refusal)) {
    case PGP_GONE:
        part.gone = true;
        return;
    case PGP_REFUSED:
        part.refused = pgp_reason(refusal);
        return;
    default:
        later = pgp_reason(refusal);
    }
}

outcome pgp_direct_row(pgp_came &came, pgo_tuple &row, pgp_piece &piece, pgs_server &server,
                       int wait_ms, std::string &later)
{
    pgs_refusal refusal;
    if (!piece.sent)
        piece.heard_ms = fwu_monotonic_ms();
    const bool converts = server.texts == nullptr;
    if (outcome done = take_row(came, row, piece, server, refusal, wait_ms); !done) {
        if (done.kind() != OUTCOME_LOST || converts != (server.texts == nullptr))
            return done;
        later = done.text();
    } else if (refusal.state.empty()) {
        return {};
    } else {
        take_refusal(*find_part(piece), refusal, later);
    }
    came = PGP_BROKEN;
    pgp_end(piece, server);
    return {};
}

void pgp_end(pgp_piece &piece, pgs_server &server)
{
    if (piece.direct)
        server.sql.reset();
    piece.direct = false;
}
