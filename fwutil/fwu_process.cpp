// The record loop.  For each record, in this order: the callback, the status file's line
// that names it, and, when it is due, what brings that to disk.  A record that was
// refused is named nowhere, so it comes again; a signal counts between records only.
// A truncate takes the same way without a callback: whoever stops there comes back to it.
// Before the first record: configuration, status file, the place that counts, whether
// the log has it, and only then what changes anything.
#include "fwutil/fwu_process.h"

#include "fwutil/fwu_boot.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_current.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_hook.h"
#include "fwutil/fwu_layout_check.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_look.h"
#include "fwutil/fwu_map.h"
#include "fwutil/fwu_place.h"
#include "fwutil/fwu_reader_config.h"
#include "fwutil/fwu_source_name.h"
#include "fwutil/fwu_start.h"
#include "fwutil/fwu_status.h"
#include "fwutil/fwu_wait.h"
#include "fwutil/fwutil.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

constexpr int SYNC_AFTER_MS = 200;   // idle time after which the status goes to disk
constexpr int CHECK_AFTER_MS = 1000; // for file systems that do not tell of changes
constexpr int LOOK_EVERY = 1024;     // records, while there is no rest to look at the status in

struct run {
    fwu_callback callback = nullptr;
    bool sync_only = false;
    bool start_given = false; // the status file does not count
    bool stops_at_truncate = false;
    std::string cfg;        // path of the configuration, for messages
    std::string start_text; // where the start position comes from, for messages
    fwu_position start;     // records up to here are not delivered; sequence 0: none
    fwu_log log;
    fwu_status status;
    fwu_watch watch;
    fwu_forcing forcing;
    std::string boot;
    fwu_place place;        // of the record being delivered
    int32_t generation = 0; // of the file whose layouts are known
    int32_t sequence = 0;
    bool idle_noted = false;
    int until_look = LOOK_EVERY; // records until the status file is looked at
    int64_t looked_ms = 0;       // monotonic time at which it was, when reading waited
};

enum outcome { GO_ON, STOPPED, FAILED };

static int malformed(const run &r, const fwu_entry &entry)
{
    const fwu_cursor &cursor = r.log.cursor;
    return fwu_log_damage(
        cursor.file, {.at = cursor.read_at - static_cast<int64_t>(fwu_entry_padded(entry.length)),
                      .reason = FWU_MALFORMED});
}

// Else the position could name what the log loses.
static int force_log(const run &r)
{
    const fwu_cursor &cursor = r.log.cursor;
    if (cursor.fd < 0 || fdatasync(cursor.fd) == 0 || errno == EROFS || errno == EINVAL)
        return 0;
    return fwu_error("%s: cannot bring the log file to disk: %s", cursor.file.path.c_str(),
                     strerror(errno));
}

// What the program has written goes to disk first, then what was read, then the
// position.  What the system could not write it may drop, and a later call that succeeds
// tells nothing: nothing is forced again, and the next run goes back.
static int force(run &r)
{
    if (r.forcing.never)
        return fwu_status_force(r.status, std::string(FWU_BOOT_ANY), "");
    const char *mark = fwu_hook_sync();
    if (mark != nullptr && force_log(r) == 0 && fwu_status_force(r.status, r.boot, mark) == 0)
        return 0;
    if (r.status.written || !r.start_given) // else it is another run's, and good
        fwu_status_distrust(r.status);
    return -1;
}

static int force_if_due(run &r, int when)
{
    return r.status.unsynced && fwu_hook_due(r.forcing, when) ? force(r) : 0;
}

// Before the first record.  With a start position the file stays as it is until there
// is something better to say.
static int force_at_start(run &r)
{
    const bool due = fwu_hook_due(r.forcing, FWU_AT_START);
    if (r.start_given && !r.status.written)
        return due && fwu_hook_sync() == nullptr ? -1 : 0;
    return force(r);
}

// Names the record in hand as acknowledged.
static int acknowledge(run &r)
{
    if (fwu_status_acknowledge(r.status, r.place) != 0)
        return -1;
    if (--r.until_look <= 0) {
        r.until_look = LOOK_EVERY;
        if (fwu_status_look(r.status) != 0)
            return -1;
    }
    if (!r.status.written)
        return force(r);
    return r.status.unsynced && fwu_hook_due_at_record(r.forcing) ? force(r) : 0;
}

static outcome deliver_change(run &r, const fwu_entry &entry)
{
    fwu_change change;
    if (!fwu_entry_change(entry, change)) {
        malformed(r, entry);
        return FAILED;
    }
    fwu_current_set(change, r.place.position);
    const int result =
        r.callback(0, change.dbname, change.dsetname, static_cast<int32_t>(change.logtime),
                   change.opcode, change.recnum, change.reclen, change.before, change.after);
    if (result != 0) {
        fwu_note("stopped: the record at %s was refused and will be delivered again",
                 fwu_position_text(r.place.position).c_str());
        return FAILED;
    }
    if (acknowledge(r) != 0)
        return FAILED;
    return fwu_stop != 0 ? STOPPED : GO_ON;
}

// "SALES.ORDERS (table sales.orders)", as far as known.
static std::string marked_name(const fwu_mark &mark)
{
    std::string table;
    if (!mark.table.empty())
        table = "table " + fwu_source_name(mark.schema, mark.table);
    if (mark.dsetname.empty())
        return table.empty() ? "a table" : table;
    std::string name = mark.dbname + "." + mark.dsetname;
    if (!table.empty())
        name += " (" + table + ")";
    return name;
}

// A start position that names a truncate is its answer, which the status file keeps at once: the
// next start may come before the next record does.
static outcome meet_truncate(run &r, const fwu_mark &mark)
{
    const std::string at = fwu_position_text(r.place.position);
    if (r.stops_at_truncate && r.start < r.place.position) {
        fwu_error("%s: %s was truncated here, and nothing in the records tells it: empty what is "
                  "made of them, then start with start position %s (-start %s), which passes over "
                  "this truncate, or with the line \"truncate mark\" in %s, which passes over "
                  "all%s",
                  at.c_str(), marked_name(mark).c_str(), at.c_str(), at.c_str(), r.cfg.c_str(),
                  FWU_KEEP_FIRST);
        return FAILED;
    }
    fwu_note("%s: %s was truncated here", at.c_str(), marked_name(mark).c_str());
    return acknowledge(r) == 0 ? GO_ON : FAILED;
}

// Takes a mark behind the start position, or at it.
static outcome take_mark(run &r, const fwu_entry &entry)
{
    fwu_mark mark;
    if (!fwu_entry_mark(entry, mark)) {
        malformed(r, entry);
        return FAILED;
    }
    return mark.kind == FWU_MARK_TRUNCATE ? meet_truncate(r, mark) : GO_ON;
}

// Passes over the transaction found, keeping its layouts and delivering its
// records behind the start position.
static outcome deliver_transaction(run &r)
{
    const fwu_log_file &file = r.log.cursor.file;
    if (file.generation != r.generation || file.sequence != r.sequence) {
        fwu_current_begin_file();
        r.generation = file.generation;
        r.sequence = file.sequence;
    }
    fwu_current_begin_transaction();
    const fwu_commit &commit = r.log.cursor.commit.commit;
    r.place = {{file.generation, file.sequence, 0},
               commit.time_us,
               true,
               commit.lsn,
               r.log.cursor.header.identity};
    const int32_t passed_over =
        r.start.generation == file.generation && r.start.sequence == file.sequence ? r.start.tag
                                                                                   : 0;
    fwu_entry entry;
    for (;;) {
        const fwu_found found = fwu_log_entry(r.log, entry);
        if (found == FWU_END)
            return GO_ON;
        if (found != FWU_FOUND)
            return FAILED;
        bool good = true;
        outcome result = GO_ON;
        r.place.position.tag = entry.tag;
        if (entry.kind == FWU_KIND_LAYOUT)
            good = fwu_current_take_layout(entry);
        else if (entry.kind == FWU_KIND_SESSION)
            good = fwu_current_take_session(entry);
        else if (fwu_entry_is_change(entry) && entry.tag > passed_over)
            result = deliver_change(r, entry);
        else if (entry.kind == FWU_KIND_MARK &&
                 (entry.tag > passed_over || (r.start_given && entry.tag == passed_over)))
            result = take_mark(r, entry);
        if (!good) {
            malformed(r, entry);
            return FAILED;
        }
        if (result != GO_ON)
            return result;
    }
}

// Opens the file of the start position and goes through it up to there.
static outcome go_to_start(run &r)
{
    std::vector<fwu_log_file> files;
    if (fwu_log_list(r.log.directory, files) != 0)
        return FAILED;
    const fwu_log_file *file = nullptr;
    if (fwu_start_find(files, r.start, r.start_text, file) != 0 ||
        fwu_cursor_open(r.log.cursor, *file) != 0)
        return FAILED;
    fwu_note("reading %s", file->path.c_str());
    outcome result = GO_ON;
    fwu_cursor &cursor = r.log.cursor;
    while (result == GO_ON && cursor.tx_last_tag < r.start.tag) {
        const fwu_found found = fwu_cursor_next(cursor);
        if (found == FWU_FOUND) {
            result = fwu_stop != 0 ? STOPPED : deliver_transaction(r);
            continue;
        }
        result = FAILED;
        if (found == FWU_DAMAGED)
            fwu_log_damage(cursor);
        else if (found == FWU_END)
            fwu_error("%s: %s holds positions up to %d-%d.%d only; the log has %s to %s",
                      r.start_text.c_str(), file->name.c_str(), file->generation, file->sequence,
                      cursor.tx_last_tag, files.front().name.c_str(), files.back().name.c_str());
    }
    return result;
}

// The program's look at its signals and the wait, with none lost between them.
static outcome ask_and_wait(run &r, fwu_wake &wake)
{
    const fwu_held_signals held;
    const int asked = fwu_hook_wait();
    if (asked < 0 || (asked > 0 && !r.forcing.never && force(r) != 0))
        return FAILED;
    wake = fwu_watch_wait(
        r.watch, r.status.unsynced && !r.forcing.never ? SYNC_AFTER_MS : CHECK_AFTER_MS, held);
    return wake == FWU_WAKE_STOP ? STOPPED : GO_ON;
}

static outcome wait_for_more(run &r)
{
    if (!r.idle_noted)
        fwu_note("waiting for more records behind %s",
                 fwu_position_text(fwu_current_position()).c_str());
    r.idle_noted = true;
    fwu_look(FWU_LOOK_WAITING);
    fwu_wake wake = FWU_WAKE_SIGNAL;
    if (const outcome result = ask_and_wait(r, wake); result != GO_ON)
        return result;
    if (wake == FWU_WAKE_SIGNAL)
        return GO_ON;
    const int64_t now_ms = fwu_monotonic_ms();
    if (wake != FWU_WAKE_DATA || now_ms - r.looked_ms >= CHECK_AFTER_MS) {
        r.looked_ms = now_ms;
        if (fwu_status_look(r.status) != 0)
            return FAILED;
    }
    if (wake != FWU_WAKE_DATA) {
        r.log.look = true;
        if (fwu_place_look(r.log.directory, r.log.cursor, r.status.place, r.status.path) != 0)
            return FAILED;
    }
    if (wake == FWU_WAKE_TIMEOUT && force_if_due(r, FWU_AT_REST) != 0)
        return FAILED;
    return GO_ON;
}

static outcome read_log(run &r)
{
    outcome result = r.start.sequence != 0 ? go_to_start(r) : GO_ON;
    if (result == GO_ON)
        fwu_look(FWU_LOOK_OPEN);
    while (result == GO_ON) {
        if (fwu_stop != 0)
            return STOPPED;
        const fwu_found found = fwu_log_next(r.log);
        if (found == FWU_FOUND) {
            r.idle_noted = false;
            result = deliver_transaction(r);
        } else if (found == FWU_FAILED) {
            result = FAILED;
        } else if (r.sync_only) {
            fwu_note("stopped: end of the log");
            return STOPPED;
        } else {
            result = wait_for_more(r);
        }
    }
    return result;
}

static int find_log_directory(const fwu_reader_config &config, std::string &directory)
{
    char *real = realpath(config.log_directory.c_str(), nullptr);
    if (real == nullptr)
        return fwu_error("%s: cannot find the log directory: %s; create it, or correct "
                         "log-directory in %s",
                         config.log_directory.c_str(), strerror(errno), config.path.c_str());
    directory = real;
    free(real);
    return 0;
}

// Has the program bring to disk what the run before left in memory: this run's positions
// stand for it too, and it does not come again.
static int keep(run &r, const fwu_status_text &found)
{
    const fwu_synced &synced = found.synced;
    const bool marked = found.have_synced && synced.boot != FWU_BOOT_ANY;
    if (marked &&
        ((found.have_live && found.live == synced.place) ||
         (synced.boot != r.boot && synced.boot != FWU_BOOT_UNKNOWN && r.boot != FWU_BOOT_UNKNOWN)))
        return 0; // nothing is
    if (!marked && found.have_live && !fwu_place_named(found.live))
        return 0;
    if (fwu_hook_keep(marked ? synced.mark.c_str() : "") == 0)
        return 0;
    fwu_status_distrust(r.status);
    return -1;
}

// Why the last position of all does not count.
static const char *why_not_live(const fwu_status_text &found, const std::string &boot)
{
    if (found.distrusted)
        return "the last run could not bring to disk all that it had written";
    if (!found.have_live)
        return "its last position is damaged";
    if (boot == FWU_BOOT_UNKNOWN || found.synced.boot == FWU_BOOT_UNKNOWN)
        return "it cannot be told whether the system was started anew since";
    return "the system was started anew since";
}

// Takes the place that counts from the status file and sees that the log has it.
static int take_place(run &r)
{
    const fwu_status_text &found = r.status.found;
    const bool live = found.fresh || fwu_status_live_counts(found, r.boot);
    r.status.place = live ? found.live : found.synced.place;
    const fwu_place &place = r.status.place;
    r.start = place.position;
    if (fwu_place_named(place)) {
        r.start_text = r.status.path + ": position " + fwu_position_text(r.start);
        if (fwu_place_check(r.log.directory, place, r.start_text) != 0)
            return -1;
    }
    if (live)
        return found.fresh ? 0 : keep(r, found);
    const auto text = [](const fwu_place &p) {
        return fwu_place_named(p) ? fwu_position_text(p.position) : "none";
    };
    fwu_warn("%s: %s: going on behind %s, the last position whose output is known to be on disk; "
             "the last one of all was %s",
             r.status.path.c_str(), why_not_live(found, r.boot), text(place).c_str(),
             found.have_live ? text(found.live).c_str() : "not kept");
    return fwu_hook_resume(found.synced.mark.c_str());
}

// 0, -1 or FWU_STOPPED.
static int prepare(run &r, const char *cfg, const char *status, const char *start)
{
    fwu_reader_config config;
    if (const int result = fwu_config_read(config, cfg); result != 0)
        return result;
    fwu_note("configuration %s", config.path.c_str());
    r.cfg = config.path;
    r.stops_at_truncate = config.stops_at_truncate;
    r.start_given = start != nullptr;
    if (start != nullptr && fwu_start_parse(start, r.start) != 0)
        return -1;
    if (find_log_directory(config, r.log.directory) != 0)
        return -1;
    fwu_note("log directory %s", r.log.directory.c_str());
    if (fwu_status_open(r.status, status != nullptr ? status : FWU_STATUS_DEFAULT, r.log.directory,
                        start != nullptr) != 0)
        return -1;
    fwu_note("status file %s", r.status.path.c_str());
    r.boot = fwu_boot();
    if (start != nullptr)
        r.start_text = std::string("start position \"") + start + "\"";
    const bool there = r.status.damaged || !r.status.overridden.fresh;
    if (start == nullptr ? take_place(r) != 0 : there && keep(r, r.status.overridden) != 0)
        return -1;
    if (start == nullptr && !fwu_place_named(r.status.place))
        fwu_log_warn_begins_late(r.log.directory);
    fwu_note("starting %s",
             r.start_text.empty() ? "with the oldest record" : ("at " + r.start_text).c_str());
    return 0;
}

// The run proper, with the position on disk at both ends.
static outcome run_log(run &r)
{
    if (force_at_start(r) != 0)
        return FAILED;
    if (!r.sync_only)
        fwu_watch_open(r.watch, r.log.directory);
    const outcome result = read_log(r);
    if (fwu_stop != 0 && result == STOPPED)
        fwu_note("stopped: signal");
    fwu_current_clear();
    const bool due = r.status.unsynced && fwu_hook_due(r.forcing, FWU_AT_END);
    return (due ? force(r) : fwu_status_look(r.status)) == 0 ? result : FAILED;
}

int fwu_process_run(fwu_callback callback, const char *cfg, const char *status, const char *start,
                    bool sync_only)
{
    if (callback == nullptr)
        return fwu_error("Fwu_process was called without a callback");
    const fwu_signals signals;
    const fwu_map_faults faults;
    run r;
    r.callback = callback;
    r.sync_only = sync_only;
    fwu_current_reset(fwu_position());
    outcome result = FAILED;
    const int prepared = prepare(r, cfg, status, start);
    if (prepared == 0) {
        fwu_current_reset(r.start);
        result = run_log(r);
    } else if (prepared == FWU_STOPPED) {
        fwu_note("stopped: signal");
        result = STOPPED;
    }
    fwu_watch_close(r.watch);
    fwu_cursor_close(r.log.cursor);
    fwu_status_close(r.status);
    return result == STOPPED ? 0 : -1;
}
