// fwlog prune: removes old log files.  They go oldest first, so that whatever ends
// it leaves a log without a gap, and none goes that a given status file still needs.
#include "fwutil/fwu_boot.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_place.h"
#include "fwutil/fwu_reader_config.h"
#include "fwutil/fwu_status.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/position.h"
#include "tools/fwlog/survey.h"
#include "util/json_text.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

struct prune_options {
    const char *cfg = nullptr;
    uint64_t keep = 0; // 0: not given
    fwu_position before;
    std::vector<const char *> statuses;
    bool dry_run = false;
    bool json = false;
};
static prune_options options;

static bool take_before(const char *word)
{
    return fwu_position_parse(word, options.before);
}

static constexpr cli_kind FILE_COUNT = {.word = "N",
                                        .lacking = "option lacks its number",
                                        .bad = "not a number of files (1 or more)",
                                        .smallest = 1};
static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},          {"--keep", FILE_COUNT, &options.keep},
    {"--before", FWLOG_POSITION, take_before}, {"--status", CLI_FILE, &options.statuses},
    {"--dry-run", CLI_FLAG, &options.dry_run}, {"--json", CLI_FLAG, &options.json},
};

struct prune_totals {
    uint64_t files = 0;
    int64_t bytes = 0;
};

// The newest file that holds a transaction: a writer that starts finds there where
// it has to go on.
static outcome find_last_transaction(const std::vector<fwu_log_file> &files, size_t &at)
{
    fwu_cursor cursor;
    fwu_found found = FWU_END;
    for (at = files.size(); at > 0 && found != FWU_FOUND && found != FWU_FAILED;) {
        at--;
        found = fwu_cursor_open(cursor, files[at]) == 0 ? fwu_cursor_next(cursor) : FWU_FAILED;
    }
    fwu_cursor_close(cursor);
    return fwlog_told(found != FWU_FAILED);
}

// The number of files before the position.
static outcome count_before(const std::vector<fwu_log_file> &files, fwu_position before,
                            size_t &count)
{
    if (before.generation == 0) {
        before.generation = files.back().generation;
        for (const fwu_log_file &file : files) // ascending: the newest that has it stays
            if (file.sequence == before.sequence)
                before.generation = file.generation;
    }
    count = 0;
    while (count < files.size() && fwlog_position_compare(files[count], INT32_MAX, before) < 0)
        count++;
    if (count < files.size())
        return {};
    return outcome_failed("--before: the log does not have that file yet, its newest one is %s "
                          "(position %d-%d); nothing removed",
                          files.back().name.c_str(), files.back().generation,
                          files.back().sequence);
}

// The number of files to remove, the oldest ones.
static outcome count_old(const std::vector<fwu_log_file> &files, size_t &count)
{
    count = 0;
    if (files.empty())
        return {};
    if (fwlog_position_given(options.before)) {
        if (outcome done = count_before(files, options.before, count); !done)
            return done;
    }
    if (options.keep != 0)
        count = files.size() - std::min<uint64_t>(files.size(), options.keep);
    size_t last = 0;
    if (count > 0) {
        if (outcome done = find_last_transaction(files, last); !done)
            return done;
    }
    count = std::min(count, last);
    return {};
}

// The place behind which the run of a status file may have to go on, and what it is.
// What the callback wrote for the last record of all may not be on disk: behind a power
// cut the run goes on behind the one before which everything is.
static const fwu_place &needed_place(const fwu_status_text &text, const char *&which)
{
    const bool live = text.version == 1 || (text.have_live && text.synced.boot == FWU_BOOT_ANY);
    which = live ? "position" : "position on disk";
    return live ? text.live : text.on_disk;
}

// Whether the run of a status file can do without the oldest files.
static outcome check_status(const char *path, const std::string &directory,
                            const std::vector<fwu_log_file> &files, size_t count)
{
    fwu_status_text text;
    if (fwu_status_read(path, text) != 0)
        return outcome_failed(
            "%s: what its run still needs is not known; nothing removed; mend the "
            "status file, or leave out its --status when the run is over",
            path);
    const char *which = nullptr;
    const fwu_place &place = needed_place(text, which);
    if (!fwu_place_named(place))
        return outcome_failed(
            "%s: the status file names no record yet%s, so its run begins with the "
            "log's oldest file; nothing removed; prune when it has captured "
            "something, or leave out its --status",
            path, fwu_place_named(text.live) ? " that is known to be on disk" : "");
    if (text.log_directory != directory)
        return outcome_failed("%s: the status file belongs to the log in %s, not to the one in %s; "
                              "nothing removed; name the right configuration, or leave out its "
                              "--status",
                              path, text.log_directory.c_str(), directory.c_str());
    const std::string position = fwu_position_text(place.position);
    const std::string what = std::string(path) + ": " + which + " " + position;
    if (fwu_place_check(directory, place, what) != 0)
        return outcome_failed(
            "%s: its run cannot go on; nothing removed; mend that, or leave out its "
            "--status",
            path);
    fwu_position file = place.position;
    const fwu_log_file *needed = fwu_start_look(files, file);
    // One that came after the log was listed is behind all that may go.
    if (needed == nullptr || needed >= files.data() + count)
        return {};
    return outcome_failed("%s: its %s %s needs %s and the files behind it; nothing removed; "
                          "prune with --before %d-%d, or when its run has gone on",
                          path, which, position.c_str(), needed->name.c_str(), needed->generation,
                          needed->sequence);
}

static outcome check_statuses(const std::string &directory, const std::vector<fwu_log_file> &files,
                              size_t count)
{
    if (options.statuses.empty())
        return {};
    char *real = realpath(directory.c_str(), nullptr);
    if (real == nullptr)
        return outcome_failed("%s: cannot find the log directory: %s", directory.c_str(),
                              strerror(errno));
    const std::string absolute = real;
    free(real);
    outcome result;
    for (const char *path : options.statuses) { // all of them are told
        if (outcome done = check_status(path, absolute, files, count); !done)
            result = std::move(done);
    }
    return result;
}

static void print_removed(const fwu_log_file &file, int64_t size, bool first)
{
    if (options.json)
        printf("%s{\"file\":%s,\"size\":%" PRId64 "}", first ? "" : ",",
               json_text(file.name).c_str(), size);
    else
        printf("%s %s, %" PRId64 " bytes\n", options.dry_run ? "would remove" : "removed",
               file.name.c_str(), size);
}

// Removes the oldest files, in their order; one that is gone already was taken by
// another prune.
static outcome remove_files(const std::vector<fwu_log_file> &files, size_t count,
                            prune_totals &totals, size_t &at)
{
    for (at = 0; at < count; at++) {
        const fwu_log_file &file = files[at];
        struct stat about = {};
        int failed = stat(file.path.c_str(), &about);
        if (failed == 0 && !options.dry_run)
            failed = unlink(file.path.c_str());
        if (failed != 0 && errno == ENOENT)
            continue;
        if (failed != 0)
            return outcome_failed(
                "%s: cannot remove the log file: %s; it and the newer ones are left",
                file.path.c_str(), strerror(errno));
        print_removed(file, about.st_size, totals.files == 0);
        totals.files++;
        totals.bytes += about.st_size;
    }
    return {};
}

static outcome prune(const std::string &directory, const std::vector<fwu_log_file> &files,
                     size_t count)
{
    prune_totals totals;
    size_t gone = 0;
    if (options.json)
        printf("{\"directory\":%s,\"dry_run\":%s,\"removed\":[", json_text(directory).c_str(),
               options.dry_run ? "true" : "false");
    outcome result = remove_files(files, count, totals, gone);
    if (totals.files > 0 && !options.dry_run && fwu_path_sync(directory) != 0)
        result = outcome_failed("%s: cannot bring the log directory to disk: %s; after a power cut "
                                "removed files may be there again",
                                directory.c_str(), strerror(errno));
    const size_t left = files.size() - gone;
    const std::string oldest = left > 0 ? files[gone].name : "";
    if (options.json)
        printf("],\"files\":%" PRIu64 ",\"bytes\":%" PRId64 ",\"left\":%zu,\"oldest\":%s}\n",
               totals.files, totals.bytes, left, left > 0 ? json_text(oldest).c_str() : "null");
    else
        printf("%" PRIu64 " files %s, %" PRId64 " bytes; %zu files left%s%s\n", totals.files,
               options.dry_run ? "would be removed" : "removed", totals.bytes, left,
               left > 0 ? ", the oldest is " : "", oldest.c_str());
    return result;
}

static outcome run()
{
    if (options.keep == 0 && !fwlog_position_given(options.before))
        return cli_usage("give --keep or --before", "prune");
    if (options.keep != 0 && fwlog_position_given(options.before))
        return cli_usage("give only one of --keep and --before", "prune");
    fwu_reader_config config;
    std::vector<fwu_log_file> files;
    if (fwu_config_read(config, options.cfg) != 0 || fwu_log_list(config.log_directory, files) != 0)
        return OUTCOME_FAILED;
    size_t count = 0;
    if (outcome done = count_old(files, count); !done)
        return done;
    if (outcome done = check_statuses(config.log_directory, files, count); !done)
        return done;
    return prune(config.log_directory, files, count);
}

static const char help[] =
    "Usage: fwlog prune [-cfg FILE] (--keep N | --before POSITION) [--status FILE ...]\n"
    "                   [--dry-run] [--json]\n"
    "\n"
    "Removes the oldest files of the forward log, oldest first, also beside a writer\n"
    "and readers.  The newest file and the one with the last transaction always stay.\n"
    "\n"
    "  -cfg FILE          configuration file (else the one named by FWUTIL_CFG, else\n"
    "                     fwutil.cfg), which names the log directory\n"
    "  --keep N           keep the newest N files\n"
    "  --before POSITION  keep the file of this position (\"25\", \"1-25\", \"1-25.340\")\n"
    "                     and all behind it\n"
    "  --status FILE      remove nothing if the run with this status file needs one of\n"
    "                     the files; may be repeated\n"
    "  --dry-run          only say what would be removed\n"
    "  --json             one JSON object\n"
    "  --help             print this\n"
    "\n"
    "Exit status: 0 done, also when nothing was old enough; 1 error, or a status file\n"
    "forbids it; 2 wrong command line.\n";

constinit const cli_command fwlog_prune_row = {
    .name = "prune",
    .summary = "removes old files of a forward log",
    .run = run,
    .options = rows,
    .help = help,
};
