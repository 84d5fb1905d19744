// What the log has is told by file and offset alone.  Where a message joins it, the commits before
// are compared: a log that something else was written to has other bytes there.
#include "ship/log_target.h"

#include "fwutil/fwu_cursor.h"

#include <cstring>

outcome ship_target_open(ship_log_target &target, const fwu_config &config)
{
    return fwu_replica_open(&target.replica, config) == 0 ? OUTCOME_OK : OUTCOME_FAILED;
}

void ship_target_close(ship_log_target &target)
{
    (void)fwu_replica_close(target.replica); // reported
    target.replica = nullptr;
}

static int compare(const fwu_file_number &a, const fwu_file_number &b)
{
    if (a.generation != b.generation)
        return a.generation < b.generation ? -1 : 1;
    return a.sequence < b.sequence ? -1 : a.sequence > b.sequence;
}

static bool has(const fwu_replica_end &end, const ship_place &place)
{
    const int files = compare(place.file, end.file);
    return files < 0 || (files == 0 && place.to <= end.end + end.taken);
}

bool ship_target_has(const ship_log_target &target, const ship_place &place)
{
    return has(fwu_replica_where(target.replica), place);
}

std::string ship_target_text(const ship_log_target &target)
{
    const fwu_replica_end end = fwu_replica_where(target.replica);
    if (end.file.generation == 0)
        return "nothing";
    return fwu_log_file_name(end.file.generation, end.file.sequence) + " up to offset " +
           std::to_string(end.end);
}

static bool same_commit(const fwu_commit &a, const fwu_commit &b)
{
    return a.time_us == b.time_us && a.lsn == b.lsn && a.xid == b.xid;
}

static outcome other_bytes(const ship_place &place)
{
    return outcome_bad("the log here has something else at " + ship_place_text(place) +
                       " than the stream: another program has written to it, or the log that the "
                       "stream is of was cut back; pull into a new log");
}

// The first message of a file.  header_in: its header stands in the log already.
static outcome begin_file(ship_taken &taken, ship_log_target &target, const fwu_replica_end &end,
                          const ship_place &place, const unsigned char *data, size_t length,
                          bool &header_in)
{
    header_in = false;
    if (length < FWU_FILE_HEADER_SIZE)
        return outcome_bad("a message without the header of its file");
    fwu_file_header header;
    const char *const wrong = fwu_file_header_get(header, data);
    if (wrong != nullptr || fwu_file_number_of(header) != place.file ||
        header.identity != place.log)
        return outcome_bad("a message with another header than that of its file");
    if (place.file == end.file) {
        unsigned char have[FWU_FILE_HEADER_SIZE];
        fwu_file_header_put(have, end.header);
        if (end.end != static_cast<int64_t>(FWU_FILE_HEADER_SIZE) ||
            memcmp(have, data, sizeof have) != 0)
            return other_bytes(place);
        if (end.mid())
            taken = SHIP_MISSING;
        header_in = true;
        return {};
    }
    const bool follows =
        end.file.generation == 0 || (place.file_before == end.file && place.size_before == end.end);
    if (end.file.generation != 0 && place.file_before == end.file && place.size_before < end.end)
        return other_bytes(place);
    if (!follows || end.mid()) {
        taken = SHIP_MISSING;
        return {};
    }
    if (fwu_replica_begin_file(target.replica, header) != 0)
        return OUTCOME_FAILED;
    header_in = true;
    return {};
}

outcome ship_target_take(ship_taken &taken, ship_log_target &target, const ship_place &place,
                         const unsigned char *data, size_t length)
{
    const fwu_replica_end end = fwu_replica_where(target.replica);
    if (place.to - place.from != static_cast<int64_t>(length))
        return outcome_bad("a message that has not the length of its place");
    if (end.file.generation != 0 && end.header.identity != place.log)
        return outcome_bad("the stream is of log " + fwu_identity_text(place.log) +
                           ", the log here is " + fwu_identity_text(end.header.identity) +
                           "; pull into a new log");
    if (has(end, place)) {
        taken = SHIP_HAS;
        const bool last = place.file == end.file && place.to == end.end && place.to == place.end;
        if (last && end.commit_in_file && !same_commit(place.commit, end.commit))
            return other_bytes(place);
        return {};
    }
    taken = SHIP_TAKEN;
    if (place.from == 0) {
        bool header_in = false;
        if (outcome begun = begin_file(taken, target, end, place, data, length, header_in);
            !begun || !header_in || taken == SHIP_MISSING)
            return begun;
        data += FWU_FILE_HEADER_SIZE;
        length -= FWU_FILE_HEADER_SIZE;
    } else {
        const int64_t at = end.end + end.taken;
        if (place.file != end.file || place.from > at) {
            taken = SHIP_MISSING;
            return {};
        }
        if (place.from < at ||
            (!end.mid() && place.from == place.begin && place.has_commit_before &&
             (!end.commit_in_file || !same_commit(place.commit_before, end.commit))))
            return other_bytes(place);
    }
    if (fwu_replica_take(target.replica, data, length) != 0)
        return OUTCOME_FAILED;
    const fwu_replica_end now = fwu_replica_where(target.replica);
    if (place.to == place.end) {
        if (now.mid() || now.end != place.end)
            return outcome_bad("the message at " + ship_place_text(place) +
                               " does not end its transaction as it says");
        taken = SHIP_WHOLE;
    }
    return {};
}
