// Shows where a status file stands and how much of the log lies behind that.
#include "fwutil/fwu_report.h"

#include "fwutil/fwu_behind.h"
#include "fwutil/fwu_boot.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_place.h"
#include "fwutil/fwu_start.h"
#include "fwutil/fwu_status.h"
#include "fwutil/fwu_time.h"

#include <cstdio>
#include <sys/stat.h>

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

static std::string position_text(const fwu_place &place)
{
    return fwu_place_named(place) ? fwu_position_text(place.position) : "none";
}

// What the place that counts is chosen by.
static void print_choice(const fwu_status_text &text, const fwu_place &place,
                         const std::string &boot)
{
    printf("Log identity: %s\n",
           place.full ? fwu_identity_text(place.identity).c_str() : "not known");
    if (text.version == 1)
        return;
    const std::string &kept = text.synced.boot;
    printf("Last position: %s\n", text.have_live    ? position_text(text.live).c_str()
                                  : text.distrusted ? "not on disk"
                                                    : "damaged");
    printf("Position on disk: %s\n", position_text(text.on_disk).c_str());
    printf("Boot: %s\n", kept == FWU_BOOT_ANY ? "any" : kept == boot ? "this one" : "another one");
}

int fwu_report_status(const char *status, bool verbose)
{
    const std::string path = status != nullptr ? status : FWU_STATUS_DEFAULT;
    fwu_status_text text;
    if (fwu_status_read(path, text) != 0)
        return -1;
    const std::string boot = fwu_boot();
    const fwu_place &place = fwu_status_live_counts(text, boot) ? text.live : text.synced.place;
    const bool named = fwu_place_named(place);
    if (verbose)
        printf("Status file: %s\n", path.c_str());
    printf("Position: %s\n", position_text(place).c_str());
    printf("Last record: %s\n", named ? fwu_time_text(place.time_us).c_str() : "none");
    if (text.fresh)
        return 0; // it names no log yet
    if (verbose)
        printf("Log directory: %s\n", text.log_directory.c_str());
    if (verbose && print_files(text.log_directory) != 0)
        return -1;
    fwu_behind b;
    if (fwu_behind_measure(text.log_directory, place, b) != 0)
        return -1;
    if (verbose) {
        const bool any = b.end.sequence != 0;
        printf("End position: %s\n", any ? fwu_position_text(b.end).c_str() : "none");
        const int64_t lag_us = named ? b.end_us - place.time_us : 0;
        if (named)
            printf("Lag: %lld seconds\n", static_cast<long long>(lag_us / FWU_US_PER_S));
    }
    printf("Behind: %lld records, %lld bytes\n", static_cast<long long>(b.records),
           static_cast<long long>(b.bytes));
    if (verbose)
        print_choice(text, place, boot);
    return 0;
}
