// A table that is held: its rows are logged wherever the stream is, behind the snapshot's high
// mark, and need no mark of their own, since what the snapshot lacks comes behind all of them. What
// is too much of that has the stream wait until the rows have come.
#include "feed/postgresql/intake.h"

#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"

constexpr int ROW_WAIT_MS = 5;     // for a row, before the stream goes on
constexpr int64_t PAUSE_MS = 10;   // for the stream, where no rows come
constexpr int64_t SOME_MS = 1000;  // rows that are fewer than a piece are logged after this time
constexpr int64_t GO_ON_MS = 1000; // for the server's log to go on, once it was made to

void pgi_drop_held(pgi_intake &intake)
{
    pgi_spool_end(intake.held.kept);
    intake.held = {};
}

bool pgi_holds(const pgi_intake &intake)
{
    return !intake.held.piece.parts.empty();
}

bool pgi_holds(const pgi_intake &intake, const std::string &schema, const std::string &table)
{
    return pgi_holds(intake) && intake.held.wants.front().schema == schema &&
           intake.held.wants.front().table == table;
}

void pgi_hold(pgi_intake &intake)
{
    pgi_drop_held(intake);
    pgi_held &held = intake.held;
    pgp_piece &rest = intake.piece;
    held.piece = std::move(rest);
    rest = {};
    rest.snapshot = held.piece.snapshot;
    rest.high = held.piece.high;
    rest.time_us = held.piece.time_us;
    std::vector<pgp_part> parts = std::move(held.piece.parts);
    held.piece.parts.clear();
    for (pgp_part &part : parts)
        (part.gone || !part.refused.empty() ? rest.parts : held.piece.parts)
            .push_back(std::move(part));
    pgp_part &part = held.piece.parts.front();
    held.wants = {intake.wants[part.want]};
    part.want = 0;
    held.part_of = {{part.relation.id, 0}};
    held.begun_ms = held.logged_ms = fwu_monotonic_ms();
    intake.part_of.clear();
    intake.in_hand = !rest.parts.empty();
}

static bool is_taking(const pgi_intake &intake, const pga_registry &registry)
{
    const pgp_want &want = intake.held.wants.front();
    const pga_record *const record = pga_find(registry, fwu_source_name(want.schema, want.table));
    return record != nullptr && record->standing == PGA_TAKING;
}

// Reads what has come.
static outcome look(pgi_held &held, const pgi_place &on, std::string &later)
{
    outcome done = pgp_direct_rows(held.came, held.piece, on.server, ROW_WAIT_MS, later);
    held.again_ms = fwu_monotonic_ms() + (held.came == PGP_NOT_YET ? PAUSE_MS : 0);
    return done;
}

// Rows are logged at a position of their own, behind all that the stream has sent: it has to go on
// from time to time.
static bool has_room(const pgi_held &held, const pgi_place &on, uint64_t position)
{
    return position >= held.piece.high &&
           position > fwu_writer_last_lsn(on.tx.writer) + PGI_BELOW_HIGH;
}

static outcome make_room(pgi_held &held, const pgi_place &on, uint64_t position, int64_t now)
{
    if (position < held.piece.high || now < held.go_on_ms)
        return {};
    held.go_on_ms = now + GO_ON_MS;
    return pgp_go_on(on.server);
}

static bool is_settled(const pgp_part &part)
{
    return part.gone || !part.refused.empty();
}

outcome pgi_pass_held(pgi_intake &intake, const pgi_place &on, uint64_t position)
{
    pgi_held &held = intake.held;
    const int64_t now = fwu_monotonic_ms();
    std::string later;
    if (!is_taking(intake, on.relations.aside)) { // set aside, or renamed
        pgi_drop_held(intake);
        return {};
    }
    if (held.came == PGP_NOT_YET && now >= held.again_ms)
        if (outcome done = look(held, on, later); !done)
            return done;
    pgp_part &part = held.piece.parts.front();
    bool whole = held.came != PGP_BROKEN || is_settled(part);
    const bool waits = pgi_spool_size(held.kept) > PGI_SPOOL_MAX && held.came != PGP_LAST;
    const bool some = !part.lines.empty() && now - held.logged_ms >= SOME_MS;
    if (whole && held.came == PGP_NOT_YET && !some && !waits)
        return {};
    if (whole && !has_room(held, on, position))
        return make_room(held, on, position, now);
    if (whole)
        if (outcome done = pgi_log_held(whole, later, intake, on, position, waits); !done)
            return done;
    if (!whole && !is_settled(part)) { // it begins anew, with another snapshot
        pgi_drop_held(intake);
        pgi_wait_for(intake, on, now, later);
    } else if (whole && (held.came == PGP_LAST || held.came == PGP_BROKEN)) {
        pgi_drop_held(intake);
    } else if (whole) {
        held.begun = true;
        held.came = PGP_NOT_YET;
        held.again_ms = held.go_on_ms = 0;
        held.logged_ms = now;
        part.lines.clear();
    }
    return {};
}
