// Shows where a status file stands and how much of the log lies behind that.
#include "fwutil/fwu_report.h"

#include "fwutil/fwu_error.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_start.h"
#include "fwutil/fwu_status.h"

#include <cstdio>
#include <sys/stat.h>

// What lies behind a position.
struct behind {
    int64_t records = 0;
    int64_t bytes = 0;  // of the entries up to the last record
    fwu_position end;   // last record of the log
    int64_t end_us = 0; // its commit time
};

static bool is_record(const fwu_entry &entry)
{
    return entry.kind == FWU_KIND_INSERT || entry.kind == FWU_KIND_UPDATE ||
           entry.kind == FWU_KIND_DELETE;
}

static int measure(const fwu_status_text &text, behind &b)
{
    fwu_log log;
    log.directory = text.log_directory;
    fwu_position from = text.position;
    if (text.have_position) {
        std::vector<fwu_log_file> files;
        const fwu_log_file *file = nullptr;
        if (fwu_log_list(log.directory, files) != 0 ||
            fwu_start_find(files, from, "position " + fwu_position_text(from), file) != 0 ||
            fwu_cursor_open(log.cursor, *file) != 0)
            return -1;
        b.end = from;
        b.end_us = text.time_us;
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
            b.records++;
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

static int print_files(const std::string &directory)
{
    std::vector<fwu_log_file> files;
    if (fwu_log_list(directory, files) != 0)
        return -1;
    for (const fwu_log_file &file : files) {
        struct stat st = {};
        if (stat(file.path.c_str(), &st) == 0) // else it is gone by now
            printf("Log file: %s %lld bytes\n", file.name.c_str(),
                   static_cast<long long>(st.st_size));
    }
    return 0;
}

int fwu_report_status(const char *status, bool verbose)
{
    const std::string path = status != nullptr ? status : FWU_STATUS_DEFAULT;
    fwu_status_text text;
    if (fwu_status_read(path, text) != 0)
        return -1;
    if (verbose)
        printf("Status file: %s\n", path.c_str());
    printf("Position: %s\n",
           text.have_position ? fwu_position_text(text.position).c_str() : "none");
    printf("Last record: %s\n", text.have_position ? fwu_time_text(text.time_us).c_str() : "none");
    if (text.fresh)
        return 0; // it names no log yet
    if (verbose)
        printf("Log directory: %s\n", text.log_directory.c_str());
    if (verbose && print_files(text.log_directory) != 0)
        return -1;
    behind b;
    if (measure(text, b) != 0)
        return -1;
    if (verbose) {
        const bool any = b.end.sequence != 0;
        printf("End position: %s\n", any ? fwu_position_text(b.end).c_str() : "none");
        const int64_t lag_us = text.have_position ? b.end_us - text.time_us : 0;
        if (text.have_position)
            printf("Lag: %lld seconds\n", static_cast<long long>(lag_us / 1000000));
    }
    printf("Behind: %lld records, %lld bytes\n", static_cast<long long>(b.records),
           static_cast<long long>(b.bytes));
    return 0;
}
