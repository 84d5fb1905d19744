// fwlog prune: removes old log files.  They go oldest first, so that whatever ends
// it leaves a log without a gap, and none goes that a registered reader or a given status file
// still needs.
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_reader_config.h"
#include "fwutil/fwu_readers.h"
#include "fwutil/fwu_removal.h"
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
#include <utility>

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

// What to do about a reader that forbids it.
struct reader_remedy {
    std::string path;
    bool registered = false;
};

static std::string when_over(const reader_remedy &reader)
{
    return reader.registered ? "take it off the register when its run is over (fwlog readers "
                               "--remove " +
                                   reader.path + ")"
                             : "leave out its --status";
}

// Whether the run of a status file can do without the oldest files.
static outcome check_status(const reader_remedy &reader, const fwu_need &need, size_t free,
                            size_t count)
{
    const char *const path = reader.path.c_str();
    const std::string over = when_over(reader);
    const std::string position = fwu_position_text(need.place.position);
    switch (need.kind) {
    case FWU_NEED_UNKNOWN:
        tell("%s", need.why.c_str());
        return outcome_failed(
            "%s: what its run still needs is not known; nothing removed; mend the "
            "status file, or %s%s",
            path, over.c_str(), reader.registered ? "" : " when the run is over");
    case FWU_NEED_NO_PLACE:
        return outcome_failed("%s: the status file names no record yet%s, so its run begins with "
                              "the log's oldest file; nothing removed; prune when it has captured "
                              "something, or %s",
                              path, need.has_live ? " that is known to be on disk" : "",
                              over.c_str());
    case FWU_NEED_FOREIGN:
        return outcome_failed("%s; nothing removed; name the right configuration, or %s",
                              need.why.c_str(), over.c_str());
    case FWU_NEED_LOST:
        tell("%s", need.why.c_str());
        return outcome_failed("%s: its run cannot go on; nothing removed; mend that, or %s", path,
                              over.c_str());
    default:
        if (count <= free)
            return {};
        return outcome_failed("%s: its %s %s needs %s and the files behind it; nothing removed; "
                              "prune with --before %d-%d, or when its run has gone on",
                              path, need.which, position.c_str(), need.file.name.c_str(),
                              need.file.generation, need.file.sequence);
    }
}

// All that forbid it are told.
static outcome check_statuses(const std::string &directory, const std::vector<fwu_log_file> &files,
                              size_t count)
{
    std::vector<std::string> paths;
    if (fwu_readers_read(directory, paths) == FWU_FAILED)
        return outcome_failed(
            "what the registered readers still need is not known; nothing removed");
    const size_t registered = count > 0 ? paths.size() : 0; // nothing goes: nobody objects
    paths.resize(registered);
    paths.insert(paths.end(), options.statuses.begin(), options.statuses.end());
    if (paths.empty())
        return {};
    char *real = realpath(directory.c_str(), nullptr);
    if (real == nullptr)
        return outcome_failed("%s: cannot find the log directory: %s", directory.c_str(),
                              strerror(errno));
    const std::string absolute = real;
    free(real);
    outcome result;
    for (size_t i = 0; i < paths.size(); i++) {
        const fwu_need need = fwu_need_of(paths[i], absolute, files);
        const reader_remedy reader = {.path = paths[i], .registered = i < registered};
        if (outcome done = check_status(reader, need, fwu_need_free(need, files), count); !done)
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

// A file that is gone, and its size.
using removed_file = std::pair<fwu_log_file, int64_t>;

// early: were removed before.
static outcome prune(const std::string &directory, const std::vector<fwu_log_file> &files,
                     size_t count, const std::vector<removed_file> &early)
{
    fwu_removal totals;
    bool first = true;
    const auto print = [&first](const fwu_log_file &file, int64_t size) {
        print_removed(file, size, first);
        first = false;
    };
    if (options.json)
        printf("{\"directory\":%s,\"dry_run\":%s,\"removed\":[", json_text(directory).c_str(),
               options.dry_run ? "true" : "false");
    int64_t early_bytes = 0;
    for (const auto &[file, size] : early) {
        print(file, size);
        early_bytes += size;
    }
    outcome result =
        fwlog_told(fwu_remove_oldest(files, count, options.dry_run, totals, print) == 0);
    if (totals.files + early.size() > 0 && !options.dry_run && fwu_path_sync(directory) != 0)
        result = outcome_failed("%s: cannot bring the log directory to disk: %s; after a power cut "
                                "removed files may be there again",
                                directory.c_str(), strerror(errno));
    totals.files += early.size();
    totals.bytes += early_bytes;
    const size_t left = files.size() - totals.gone;
    const std::string oldest = left > 0 ? files[totals.gone].name : "";
    if (options.json)
        printf("],\"files\":%" PRIu64 ",\"bytes\":%" PRId64 ",\"left\":%zu,\"oldest\":%s}\n",
               totals.files, totals.bytes, left, left > 0 ? json_text(oldest).c_str() : "null");
    else
        printf("%" PRIu64 " files %s, %" PRId64 " bytes; %zu files left%s%s\n", totals.files,
               options.dry_run ? "would be removed" : "removed", totals.bytes, left,
               left > 0 ? ", the oldest is " : "", oldest.c_str());
    return result;
}

// What there is, and how much of it is to go.
static outcome look(const std::string &directory, std::vector<fwu_log_file> &files, size_t &count)
{
    files.clear();
    if (fwu_log_list(directory, files) != 0)
        return OUTCOME_FAILED;
    if (outcome done = count_old(files, count); !done)
        return done;
    return check_statuses(directory, files, count);
}

// full: there is no room for the lock file, which is not told.
static outcome take_lock(fwu_readers_lock &lock, const std::string &directory, bool &full)
{
    const fwu_error_hold hold;
    const fwu_found found = fwu_readers_take_lock(lock, directory, true);
    full = found == FWU_FAILED && (errno == ENOSPC || errno == EDQUOT);
    if (found == FWU_FOUND || full)
        return found == FWU_FOUND ? outcome() : outcome_bad(hold.text);
    return outcome_failed("%s", hold.text.c_str());
}

static outcome run()
{
    if (options.keep == 0 && !fwlog_position_given(options.before))
        return cli_usage("give --keep or --before", "prune");
    if (options.keep != 0 && fwlog_position_given(options.before))
        return cli_usage("give only one of --keep and --before", "prune");
    fwu_reader_config config;
    std::vector<fwu_log_file> files;
    std::vector<removed_file> early;
    size_t count = 0;
    bool full = false;
    fwu_readers_lock lock; // who registers meanwhile finds the log as it is before, or behind
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    const std::string &directory = config.log_directory;
    outcome locked = options.dry_run ? outcome() : take_lock(lock, directory, full);
    if (!locked && !full)
        return locked;
    if (outcome done = look(directory, files, count); !done)
        return done;
    if (!locked && count > 0) {
        // Without room nobody can have the lock; one file that goes makes some.
        fwu_removal removal;
        if (fwu_remove_oldest(files, 1, false, removal,
                              [&early](const fwu_log_file &file, int64_t size) {
                                  early.emplace_back(file, size);
                              }) != 0)
            return OUTCOME_FAILED;
        if (outcome done = take_lock(lock, directory, full); !done)
            return full ? outcome_failed("%s", done.text().c_str()) : std::move(done);
        if (outcome done = look(directory, files, count); !done)
            return done;
    }
    return prune(directory, files, count, early);
}

static const char help[] =
    "Usage: fwlog prune [-cfg FILE] (--keep N | --before POSITION) [--status FILE ...]\n"
    "                   [--dry-run] [--json]\n"
    "\n"
    "Removes the oldest files of the forward log, oldest first, also beside a writer\n"
    "and readers.  The newest file and the one with the last transaction always stay.\n"
    "Nothing is removed if a registered reader (fwlog readers) needs one of the files.\n"
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
    "  --help             print this (also -h)\n"
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
