// Comparing what is remembered of a record with the log.  The start position that is
// given as a remedy repeats records rather than losing one: it stands behind the
// last of those transactions from the beginning on that are older.
#include "fwutil/fwu_place.h"

#include "fwutil/fwu_error.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_time.h"

#include <sys/stat.h>

// "committed 2026-11-21 03:33:52.123456 UTC at source position 0/1BC8080 in log 01..ef"
static std::string origin_of(const fwu_place &place)
{
    std::string time = "committed " + fwu_time_text(place.time_us);
    if (!place.full)
        return time;
    return time + " at source position " + fwu_lsn_text(place.lsn) + " in log " +
           fwu_identity_text(place.identity);
}

// Whether the transaction that was found is older than that of the place.
static bool is_older(const fwu_cursor &cursor, const fwu_place &place)
{
    const fwu_commit &commit = cursor.commit.commit;
    const fwu_position end = {cursor.file.generation, cursor.file.sequence, cursor.tx_last_tag};
    if (place.full && cursor.header.identity == place.identity && !(end < place.position))
        return false;                  // in its own log the order of positions says more
    if (!place.full || place.lsn == 0) // not every source has positions
        return commit.time_us < place.time_us;
    return commit.lsn < place.lsn && commit.time_us <= place.time_us;
}

// How to go on from a place that this log does not have.
static std::string remedy(const std::string &directory, const fwu_place &place,
                          const fwu_start_options &options)
{
    const auto option = [&options](const fwu_position &position) {
        return std::string(position.tag == 0 ? options.file : options.entry) + " " +
               fwu_position_text(position);
    };
    static const std::string end = std::string("; or restore the log that belongs to it, or name "
                                               "another status file") +
                                   FWU_KEEP_FIRST;
    std::vector<fwu_log_file> files;
    if (fwu_log_list(directory, files) != 0 || files.empty())
        return "to begin with the first record that this log will have, remove the status file" +
               end;
    fwu_cursor cursor;
    const fwu_position oldest = {files.front().generation, files.front().sequence, 0};
    fwu_position behind = oldest;
    bool older = true;
    bool other = false; // the log is not the one that the place is of
    for (size_t i = 0; i < files.size() && older; i++) {
        if (fwu_cursor_try_open(cursor, files[i]) != 0)
            break;
        fwu_found found = FWU_FOUND;
        while (older && (found = fwu_cursor_next(cursor)) == FWU_FOUND) {
            older = is_older(cursor, place);
            other = other || (place.full && cursor.header.identity != place.identity);
            if (older)
                behind = {files[i].generation, files[i].sequence, cursor.tx_last_tag};
        }
        older = older && found == FWU_END;
    }
    fwu_cursor_close(cursor);
    return "to go on with this log, give " + fwu_position_text(behind) + " as start position (" +
           option(behind) + "), " +
           (behind.tag == 0 ? "its oldest record" : "which is behind its last older transaction") +
           (behind.tag != 0 && other ? ", or, when it is fed from another source than before, its "
                                       "oldest record (" +
                                           option(oldest) + ")"
                                     : "") +
           end;
}

// Goes to the transaction that holds the place, in the file that is open.  FWU_END:
// the file ends before it.
static fwu_found find_transaction(fwu_cursor &cursor, int32_t tag)
{
    fwu_found found = FWU_FOUND;
    do
        found = fwu_cursor_next(cursor);
    while (found == FWU_FOUND && cursor.tx_last_tag < tag);
    return found;
}

static int compare(const std::string &directory, const fwu_cursor &cursor, const fwu_place &place,
                   const std::string &what, const fwu_start_options &options)
{
    fwu_place there;
    there.position = place.position;
    there.time_us = cursor.commit.commit.time_us;
    if (fwu_time_text(there.time_us) == fwu_time_text(place.time_us))
        there.time_us = place.time_us; // one of five-digit years was kept as the nearest
    there.full = place.full;
    if (place.full) {
        there.lsn = cursor.commit.commit.lsn;
        there.identity = cursor.header.identity;
    }
    if (there == place)
        return 0;
    return fwu_error("%s: the log has another record there: this one was %s, that one %s; %s",
                     what.c_str(), origin_of(place).c_str(), origin_of(there).c_str(),
                     remedy(directory, place, options).c_str());
}

int fwu_place_check(const std::string &directory, const fwu_place &place, const std::string &what,
                    const fwu_start_options &options)
{
    std::vector<fwu_log_file> files;
    if (fwu_log_list(directory, files) != 0)
        return -1;
    fwu_position position = place.position;
    const fwu_log_file *file = fwu_start_look(files, position);
    if (file == nullptr)
        return fwu_error("%s: %s; %s", what.c_str(), fwu_start_range(files).c_str(),
                         remedy(directory, place, options).c_str());
    fwu_cursor cursor;
    if (fwu_cursor_open(cursor, *file) != 0)
        return -1;
    int result = -1;
    const fwu_found found = find_transaction(cursor, position.tag);
    if (found == FWU_FOUND)
        result = compare(directory, cursor, place, what, options);
    else if (found == FWU_DAMAGED)
        fwu_log_damage(cursor);
    else if (found == FWU_END)
        fwu_error("%s: %s holds positions up to %d-%d.%d only; the log has %s to %s; %s",
                  what.c_str(), file->name.c_str(), file->generation, file->sequence,
                  cursor.tx_last_tag, files.front().name.c_str(), files.back().name.c_str(),
                  remedy(directory, place, options).c_str());
    fwu_cursor_close(cursor);
    return result;
}

int fwu_place_look(const std::string &directory, const fwu_cursor &cursor, const fwu_place &place,
                   const std::string &what, const fwu_start_options &options)
{
    if (cursor.fd < 0)
        return 0;
    struct stat named = {};
    struct stat held = {};
    const bool there = stat(cursor.file.path.c_str(), &named) == 0;
    if (there && fstat(cursor.fd, &held) == 0 && named.st_dev == held.st_dev &&
        named.st_ino == held.st_ino)
        return 0;
    std::vector<fwu_log_file> files;
    if (!there) {
        if (fwu_log_list(directory, files) != 0)
            return -1;
        if (!files.empty() && files.back().name > cursor.file.name)
            return 0;
    }
    fwu_error("%s: the log file was %s while it was being read", cursor.file.path.c_str(),
              there ? "replaced" : "removed, and no newer one is there,");
    if (fwu_place_named(place) && fwu_place_check(directory, place, what, options) != 0)
        return -1;
    return fwu_error("%s: start again to go on with the log that is there now%s", what.c_str(),
                     FWU_KEEP_FIRST);
}
