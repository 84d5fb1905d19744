// fwlog prune: removes old log files.  They go oldest first, so that whatever ends
// it leaves a log without a gap, and none goes that a given status file still needs.
#include "fwutil/fwu_boot.h"
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_place.h"
#include "fwutil/fwu_status.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/position.h"
#include "tools/fwlog/survey.h"
#include "util/json_text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

struct prune_options {
    const char *cfg = nullptr;
    size_t keep = 0; // 0: not given
    fwu_position before;
    std::vector<const char *> statuses;
    bool dry_run = false;
    bool json = false;
};

struct prune_totals {
    uint64_t files = 0;
    int64_t bytes = 0;
};

static bool parse_count(size_t &count, std::string_view text)
{
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), count);
    return code == std::errc() && end == text.data() + text.size() && count > 0;
}

static int take_option(prune_options &options, const char *option, const char *word)
{
    if (strcmp(option, "-cfg") == 0)
        options.cfg = word;
    else if (strcmp(option, "--status") == 0)
        options.statuses.push_back(word);
    else if (strcmp(option, "--keep") == 0 && !parse_count(options.keep, word))
        return fwlog_usage_error("not a number of files (1 or more)", word);
    else if (strcmp(option, "--before") == 0 && !fwu_position_parse(word, options.before))
        return fwlog_usage_error("not a position (25, 1-25 or 1-25.340)", word);
    return FWLOG_EXIT_OK;
}

static int scan_options(prune_options &options, int argc, char **argv)
{
    static const std::pair<const char *, const char *> with_word[] = {
        {"-cfg", "option lacks its file name"},
        {"--status", "option lacks its file name"},
        {"--keep", "option lacks its number"},
        {"--before", "option lacks its position"},
    };
    for (int i = 0; i < argc; i++) {
        const char *const word = argv[i];
        const char *lacking = nullptr;
        for (const auto &[name, text] : with_word)
            lacking = strcmp(word, name) == 0 ? text : lacking;
        if (lacking != nullptr && i + 1 == argc)
            return fwlog_usage_error(lacking, word);
        int usage = FWLOG_EXIT_OK;
        if (lacking != nullptr)
            usage = take_option(options, word, argv[++i]);
        else if (strcmp(word, "--dry-run") == 0)
            options.dry_run = true;
        else if (strcmp(word, "--json") == 0)
            options.json = true;
        else
            usage = fwlog_usage_error(word[0] == '-' ? "unknown option" : "unexpected word", word);
        if (usage != FWLOG_EXIT_OK)
            return usage;
    }
    if (options.keep == 0 && !fwlog_position_given(options.before))
        return fwlog_usage_error("give --keep or --before", "prune");
    if (options.keep != 0 && fwlog_position_given(options.before))
        return fwlog_usage_error("give only one of --keep and --before", "prune");
    return FWLOG_EXIT_OK;
}

// The newest file that holds a transaction: a writer that starts finds there where
// it has to go on.  0 or -1 (reported).
static int find_last_transaction(const std::vector<fwu_log_file> &files, size_t &at)
{
    fwu_cursor cursor;
    fwu_found found = FWU_END;
    for (at = files.size(); at > 0 && found != FWU_FOUND && found != FWU_FAILED;) {
        at--;
        found = fwu_cursor_open(cursor, files[at]) == 0 ? fwu_cursor_next(cursor) : FWU_FAILED;
    }
    fwu_cursor_close(cursor);
    return found == FWU_FAILED ? -1 : 0;
}

// The number of files before the position.  0 or -1 (reported).
static int count_before(const std::vector<fwu_log_file> &files, fwu_position before, size_t &count)
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
        return 0;
    return fwu_error("--before: the log does not have that file yet, its newest one is %s "
                     "(position %d-%d); nothing removed",
                     files.back().name.c_str(), files.back().generation, files.back().sequence);
}

// The number of files to remove, the oldest ones.  0 or -1 (reported).
static int count_old(const std::vector<fwu_log_file> &files, const prune_options &options,
                     size_t &count)
{
    count = 0;
    if (files.empty())
        return 0;
    if (fwlog_position_given(options.before) && count_before(files, options.before, count) != 0)
        return -1;
    if (options.keep != 0)
        count = files.size() - std::min(files.size(), options.keep);
    size_t last = 0;
    if (count > 0 && find_last_transaction(files, last) != 0)
        return -1;
    count = std::min(count, last);
    return 0;
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

// Whether the run of a status file can do without the oldest files.  0 or -1 (reported).
static int check_status(const char *path, const std::string &directory,
                        const std::vector<fwu_log_file> &files, size_t count)
{
    fwu_status_text text;
    if (fwu_status_read(path, text) != 0)
        return fwu_error("%s: what its run still needs is not known; nothing removed; mend the "
                         "status file, or leave out its --status when the run is over",
                         path);
    const char *which = nullptr;
    const fwu_place &place = needed_place(text, which);
    if (!fwu_place_named(place))
        return fwu_error("%s: the status file names no record yet%s, so its run begins with the "
                         "log's oldest file; nothing removed; prune when it has captured "
                         "something, or leave out its --status",
                         path, fwu_place_named(text.live) ? " that is known to be on disk" : "");
    if (text.log_directory != directory)
        return fwu_error("%s: the status file belongs to the log in %s, not to the one in %s; "
                         "nothing removed; name the right configuration, or leave out its "
                         "--status",
                         path, text.log_directory.c_str(), directory.c_str());
    const std::string position = fwu_position_text(place.position);
    const std::string what = std::string(path) + ": " + which + " " + position;
    if (fwu_place_check(directory, place, what) != 0)
        return fwu_error("%s: its run cannot go on; nothing removed; mend that, or leave out its "
                         "--status",
                         path);
    fwu_position file = place.position;
    const fwu_log_file *needed = fwu_start_look(files, file);
    if (needed == nullptr) // it came after the log was listed: behind all that may go
        return 0;
    if (needed >= files.data() + count)
        return 0;
    return fwu_error("%s: its %s %s needs %s and the files behind it; nothing removed; "
                     "prune with --before %d-%d, or when its run has gone on",
                     path, which, position.c_str(), needed->name.c_str(), needed->generation,
                     needed->sequence);
}

static int check_statuses(const prune_options &options, const std::string &directory,
                          const std::vector<fwu_log_file> &files, size_t count)
{
    if (options.statuses.empty())
        return 0;
    char *real = realpath(directory.c_str(), nullptr);
    if (real == nullptr)
        return fwu_error("%s: cannot find the log directory: %s", directory.c_str(),
                         strerror(errno));
    const std::string absolute = real;
    free(real);
    int result = 0;
    for (const char *path : options.statuses) // all of them are told
        if (check_status(path, absolute, files, count) != 0)
            result = -1;
    return result;
}

static void print_removed(const prune_options &options, const fwu_log_file &file, int64_t size,
                          bool first)
{
    if (options.json)
        printf("%s{\"file\":%s,\"size\":%" PRId64 "}", first ? "" : ",",
               json_text(file.name).c_str(), size);
    else
        printf("%s %s, %" PRId64 " bytes\n", options.dry_run ? "would remove" : "removed",
               file.name.c_str(), size);
}

// Removes the oldest files, in their order; one that is gone already was taken by
// another prune.  0 or -1 (reported).
static int remove_files(const prune_options &options, const std::vector<fwu_log_file> &files,
                        size_t count, prune_totals &totals, size_t &at)
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
            return fwu_error("%s: cannot remove the log file: %s; it and the newer ones are left",
                             file.path.c_str(), strerror(errno));
        print_removed(options, file, about.st_size, totals.files == 0);
        totals.files++;
        totals.bytes += about.st_size;
    }
    return 0;
}

static int prune(const prune_options &options, const std::string &directory,
                 const std::vector<fwu_log_file> &files, size_t count)
{
    prune_totals totals;
    size_t gone = 0;
    if (options.json)
        printf("{\"directory\":%s,\"dry_run\":%s,\"removed\":[", json_text(directory).c_str(),
               options.dry_run ? "true" : "false");
    int result = remove_files(options, files, count, totals, gone);
    if (totals.files > 0 && !options.dry_run && fwu_path_sync(directory) != 0)
        result = fwu_error("%s: cannot bring the log directory to disk: %s; after a power cut "
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
    return fwlog_flush_output(result == 0 ? FWLOG_EXIT_OK : FWLOG_EXIT_FAILED);
}

int fwlog_prune_main(int argc, char **argv)
{
    prune_options options;
    const int usage = scan_options(options, argc, argv);
    if (usage != FWLOG_EXIT_OK)
        return usage;
    fwu_config config;
    std::vector<fwu_log_file> files;
    size_t count = 0;
    if (fwu_config_read(config, options.cfg) != 0 ||
        fwu_log_list(config.log_directory, files) != 0 || count_old(files, options, count) != 0 ||
        check_statuses(options, config.log_directory, files, count) != 0)
        return FWLOG_EXIT_FAILED;
    return prune(options, config.log_directory, files, count);
}
