// fwlog readers: the readers that are registered with a log.  What a registration answers is a
// promise, so it looks at the log while nothing can be removed.
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_reader_config.h"
#include "fwutil/fwu_readers.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/log_directory.h"
#include "util/json_text.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

struct readers_options {
    const char *cfg = nullptr;
    std::vector<const char *> added;
    std::vector<const char *> removed;
    bool json = false;
};
static readers_options options;

static constexpr cli_kind STATUS_FILE = {.word = "STATUS",
                                         .lacking = "option lacks its status file"};
static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    {"--add", STATUS_FILE, &options.added},
    {"--remove", STATUS_FILE, &options.removed},
    {"--json", CLI_FLAG, &options.json},
};

// The log as it was found, and how large its files are.
struct readers_log {
    std::string directory; // absolute
    std::vector<fwu_log_file> files;
    std::vector<int64_t> sizes;
};

static outcome find_log(readers_log &log)
{
    fwu_reader_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    return fwlog_log_directory(config, log.directory);
}

static outcome list_log(readers_log &log)
{
    if (fwu_log_list(log.directory, log.files) != 0)
        return OUTCOME_FAILED;
    for (const fwu_log_file &file : log.files) {
        struct stat about = {};
        log.sizes.push_back(stat(file.path.c_str(), &about) == 0 ? about.st_size : 0);
    }
    return {};
}

// What the registration of a reader keeps from now on.
static std::string promise(const readers_log &log, const fwu_need &need)
{
    const std::string all = log.files.empty()
                                ? "from the log's first file on"
                                : "from " + log.files.front().name + ", the log's oldest file, on";
    if (need.kind == FWU_NEED_FROM)
        return fwu_need_text(need) + "; " + need.file.name +
               " and all behind it stays until that is behind its position on disk";
    return fwu_need_text(need) + "; everything stays, " + all + ", until it has a position on disk";
}

static outcome add(const readers_log &log, std::vector<std::string> &paths, const char *word,
                   std::string &said)
{
    const std::string path = fwu_reader_path(word);
    if (path.empty())
        return OUTCOME_FAILED;
    const fwu_need need = fwu_need_of(path, log.directory, log.files);
    if (fwu_need_wrong(need))
        return outcome_failed("%s; not registered", need.why.c_str());
    const bool known = std::find(paths.begin(), paths.end(), path) != paths.end();
    if (!known)
        paths.push_back(path);
    said += path + ": registered" + (known ? " already: " : ": ") + promise(log, need) + "\n";
    return {};
}

// A reader that is gone for good may have taken its directory along: its path counts as it is
// written, too.
static outcome remove(std::vector<std::string> &paths, const char *word, std::string &said)
{
    auto found = std::find(paths.begin(), paths.end(), word);
    if (found == paths.end()) {
        const std::string path = fwu_reader_path(word);
        if (path.empty())
            return OUTCOME_FAILED;
        found = std::find(paths.begin(), paths.end(), path);
        if (found == paths.end())
            return outcome_failed("%s: no reader with this status file is registered",
                                  path.c_str());
    }
    said += *found + ": no longer registered\n";
    paths.erase(found);
    return {};
}

// All of it, or nothing.
static outcome change(readers_log &log)
{
    fwu_readers_lock lock;
    if (fwu_readers_take_lock(lock, log.directory, true) != FWU_FOUND)
        return OUTCOME_FAILED;
    std::vector<std::string> paths;
    if (fwu_readers_read(log.directory, paths) == FWU_FAILED)
        return OUTCOME_FAILED;
    if (outcome done = list_log(log); !done)
        return done;
    const std::vector<std::string> before = paths;
    std::string said;
    for (const char *word : options.removed)
        if (outcome done = remove(paths, word, said); !done)
            return done;
    for (const char *word : options.added)
        if (outcome done = add(log, paths, word, said); !done)
            return done;
    if (paths != before && fwu_readers_write(log.directory, paths) != 0)
        return OUTCOME_FAILED;
    if (!options.json)
        fputs(said.c_str(), stdout); // what it promises holds from here on
    return {};
}

// What a reader keeps: so many files with so many bytes, the newest ones.
struct kept {
    size_t files = 0;
    int64_t bytes = 0;
    std::string oldest; // empty: none
};

static kept kept_by(const readers_log &log, const fwu_need &need)
{
    kept sum;
    const size_t first = fwu_need_free(need, log.files);
    for (size_t i = first; i < log.files.size(); i++) {
        sum.files++;
        sum.bytes += log.sizes[i];
    }
    if (sum.files > 0)
        sum.oldest = log.files[first].name;
    return sum;
}

static void print_reader(const readers_log &log, const fwu_reader &reader)
{
    const kept sum = kept_by(log, reader.need);
    printf("%s\n"
           "    %s\n"
           "    keeps %zu of %zu files, %" PRId64 " bytes%s%s\n",
           reader.path.c_str(), fwu_need_text(reader.need).c_str(), sum.files, log.files.size(),
           sum.bytes, sum.oldest.empty() ? "" : ", from ", sum.oldest.c_str());
}

struct kind_row {
    fwu_need_kind kind;
    const char *word;
};
static constexpr kind_row KINDS[] = {
    {FWU_NEED_FROM, "known"},          {FWU_NEED_NO_PLACE, "no position"},
    {FWU_NEED_UNKNOWN, "unreadable"},  {FWU_NEED_FOREIGN, "other log"},
    {FWU_NEED_LOST, "not in the log"},
};

static const char *kind_word(const fwu_need &need)
{
    if (need.absent)
        return "absent";
    for (const kind_row &row : KINDS)
        if (row.kind == need.kind)
            return row.word;
    return "";
}

static void print_json_reader(const readers_log &log, const fwu_reader &reader, bool first)
{
    const fwu_need &need = reader.need;
    const kept sum = kept_by(log, need);
    const bool placed = need.kind == FWU_NEED_FROM;
    printf("%s{\"status\":%s,\"state\":\"%s\",\"position\":%s,\"commit_us\":%s,\"problem\":%s,"
           "\"files\":%zu,\"bytes\":%" PRId64 ",\"oldest\":%s}",
           first ? "" : ",", json_text(reader.path).c_str(), kind_word(need),
           placed ? json_text(fwu_position_text(need.place.position)).c_str() : "null",
           placed ? std::to_string(need.place.time_us).c_str() : "null",
           fwu_need_wrong(need) ? json_text(need.why).c_str() : "null", sum.files, sum.bytes,
           sum.oldest.empty() ? "null" : json_text(sum.oldest).c_str());
}

static outcome show(readers_log &log)
{
    std::vector<fwu_reader> readers;
    if (outcome done = list_log(log); !done)
        return done;
    if (fwu_readers_needs(log.directory, log.files, readers) == FWU_FAILED)
        return OUTCOME_FAILED;
    int64_t bytes = 0;
    for (const int64_t size : log.sizes)
        bytes += size;
    bool sound = true;
    if (options.json)
        printf("{\"directory\":%s,\"files\":%zu,\"bytes\":%" PRId64 ",\"readers\":[",
               json_text(log.directory).c_str(), log.files.size(), bytes);
    for (size_t i = 0; i < readers.size(); i++) {
        sound = sound && !fwu_need_wrong(readers[i].need);
        options.json ? print_json_reader(log, readers[i], i == 0) : print_reader(log, readers[i]);
    }
    if (options.json)
        puts("]}");
    else if (readers.empty())
        puts("no reader is registered");
    return fwlog_told(sound);
}

static outcome run()
{
    readers_log log;
    if (outcome done = find_log(log); !done)
        return done;
    if (options.added.empty() && options.removed.empty())
        return show(log);
    if (outcome done = change(log); !done)
        return done;
    if (!options.json)
        return {};
    log = {.directory = log.directory, .files = {}, .sizes = {}};
    return show(log);
}

static const char help[] =
    "Usage: fwlog readers [-cfg FILE] [--add STATUS ...] [--remove STATUS ...] [--json]\n"
    "\n"
    "Shows the readers that are registered with the forward log, each by its status file:\n"
    "where it stands on disk, and what of the log it keeps from being removed.\n"
    "\n"
    "  -cfg FILE        configuration file (else the one named by FWUTIL_CFG, else\n"
    "                   fwutil.cfg), which names the log directory\n"
    "  --add STATUS     register the run with this status file (-stat of Kestro, --state\n"
    "                   of fwlog tail), which may be one that is still to come; says what\n"
    "                   of the log stays for it\n"
    "  --remove STATUS  its run is over: nothing stays for it any more\n"
    "  --json           one JSON object\n"
    "  --help           print this (also -h)\n"
    "\n"
    "Exit status: 0 done; 1 error, or what one of the readers needs cannot be told, so that\n"
    "everything stays; 2 wrong command line.\n";

constinit const cli_command fwlog_readers_row = {
    .name = "readers",
    .summary = "registers the readers of a forward log",
    .run = run,
    .options = rows,
    .help = help,
};
