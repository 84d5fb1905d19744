// Reads the log from the place on, as its next run would.
#include "fwutil/fwu_behind.h"

#include "fwutil/fwu_log.h"
#include "fwutil/fwu_start.h"

#include <vector>

static bool is_record(const fwu_entry &entry)
{
    return entry.kind == FWU_KIND_INSERT || entry.kind == FWU_KIND_UPDATE ||
           entry.kind == FWU_KIND_DELETE;
}

int fwu_behind_measure(const std::string &directory, const fwu_place &place, fwu_behind &b)
{
    fwu_log log;
    log.directory = directory;
    fwu_position from = place.position;
    if (fwu_place_named(place)) {
        const std::string what = "position " + fwu_position_text(from);
        std::vector<fwu_log_file> files;
        const fwu_log_file *file = nullptr;
        if (fwu_place_check(directory, place, what) != 0 || fwu_log_list(directory, files) != 0 ||
            fwu_start_find(files, from, what, file) != 0 || fwu_cursor_open(log.cursor, *file) != 0)
            return -1;
        b.end = from;
        b.end_us = place.time_us;
    }
    fwu_found found = FWU_FOUND;
    int64_t since_record = 0; // bytes of entries behind the last record counted
    while ((found = fwu_log_next(log)) == FWU_FOUND) {
        const fwu_log_file &file = log.cursor.file;
        const bool first_file =
            file.generation == from.generation && file.sequence == from.sequence;
        fwu_entry entry;
        while ((found = fwu_log_entry(log, entry)) == FWU_FOUND) {
            if (first_file && entry.tag <= from.tag)
                continue;
            since_record += static_cast<int64_t>(fwu_entry_padded(entry.length));
            if (!is_record(entry))
                continue;
            if (b.records++ == 0)
                b.first_us = log.cursor.commit.commit.time_us;
            b.bytes += since_record;
            since_record = 0;
            b.end = {file.generation, file.sequence, entry.tag};
            b.end_us = log.cursor.commit.commit.time_us;
        }
        if (found != FWU_END)
            break;
    }
    fwu_cursor_close(log.cursor);
    return found == FWU_END ? 0 : -1;
}
