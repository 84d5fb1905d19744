// Who reads the file finds the old one or the new one, whole.
#include "feed/postgresql/state.h"

#include "feed/postgresql/standing.h"
#include "feed/whole_file.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_start.h"
#include "fwutil/fwu_time.h"
#include "util/json_text.h"
#include "util/notify.h"
#include "util/process_word.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <unistd.h>
#include <utility>

void pgb_state_enter(pgb_state &state, const char *phase)
{
    state.phase = phase;
    state.error.clear();
    state.error_us = 0;
    state.error_lsn = 0;
}

void pgb_state_enter(pgb_state &state, const char *phase, const std::string &error)
{
    state.phase = phase;
    state.error = error;
    state.error_us = fwu_now_us();
    state.error_lsn = state.logged_lsn;
}

constexpr size_t LINES_MAX = 20; // for tables, in what is told

static const char file_begins[] = "{\"state\":";

// A path without links and dots, as far as it is there.
static std::filesystem::path real_path(const std::filesystem::path &path)
{
    std::error_code failed;
    const std::filesystem::path real = std::filesystem::weakly_canonical(
        std::filesystem::absolute(path, failed).lexically_normal(), failed);
    return failed ? path : real;
}

static bool is_inside(const std::filesystem::path &path, const std::filesystem::path &directory)
{
    return std::mismatch(directory.begin(), directory.end(), path.begin(), path.end()).first ==
           directory.end();
}

// Whether a regular file is empty or begins like one of ours.
static outcome check_file(const std::string &path)
{
    std::error_code failed;
    const auto type = std::filesystem::status(path, failed).type();
    if (type == std::filesystem::file_type::not_found)
        return {};
    const bool regular = type == std::filesystem::file_type::regular;
    std::string text;
    if (regular && feed_file_read(text, path) != 0)
        failed.assign(errno, std::generic_category());
    if (failed)
        return outcome_failed("%s: cannot be read: %s", path.c_str(), failed.message().c_str());
    if (regular && (text.empty() || text.starts_with(file_begins)))
        return {};
    return outcome_failed("%s: this is no status file, and would be replaced by one; name another "
                          "with --status, or remove it",
                          path.c_str());
}

outcome pgb_state_check_path(const std::string &path, const std::string &log_directory)
{
    const std::filesystem::path named = path;
    const std::filesystem::path directory =
        real_path(named.has_parent_path() ? named.parent_path() : ".");
    const std::filesystem::path log = real_path(log_directory);
    if (directory == log && named.filename() == PGB_STATE_FILE)
        return {};
    if (is_inside(directory, log) || is_inside(real_path(named), log))
        return outcome_failed("%s: the log directory is no place for a status file but for its %s; "
                              "name one elsewhere with --status, or leave that out",
                              path.c_str(), PGB_STATE_FILE);
    outcome good = check_file(path);
    return good ? check_file(path + PGB_FRESH) : std::move(good);
}

uint64_t pgb_lag_bytes(const pgb_state &state)
{
    const uint64_t reached = std::max(state.logged_lsn, state.kept.told_lsn);
    return state.server_lsn > reached ? state.server_lsn - reached : 0;
}

double pgb_lag_seconds(const pgb_state &state)
{
    if (pgb_lag_bytes(state) == 0 || state.commit_us == 0)
        return 0;
    return static_cast<double>(std::max<int64_t>(fwu_now_us() - state.commit_us, 0)) /
           static_cast<double>(FWU_US_PER_S);
}

// Calls use(name, table, record) for each table of this standing.
template <typename Use>
static void for_each(const pgb_state &state, pga_standing standing, const Use &use)
{
    if (state.relations == nullptr)
        return;
    for (const auto &[name, table] : state.relations->aside.tables)
        if (const pga_record &record = table.records.back(); record.standing == standing)
            use(name, table, record);
}

static std::string time_or_null(int64_t time_us)
{
    if (time_us == 0)
        return "null";
    return '"' + fwu_time_word(time_us) + '"';
}

static std::string position_or_null(uint64_t lsn)
{
    if (lsn == 0)
        return "null";
    return '"' + fwu_lsn_text(lsn) + '"';
}

// A number, or null for one that is not known.
static std::string number_or_null(int64_t number)
{
    if (number < 0)
        return "null";
    return std::to_string(number);
}

// A string, or null for an empty one.
static std::string text_or_null(const std::string &text)
{
    if (text.empty())
        return "null";
    return json_text(text);
}

// DATABASE.DATASET, or null for a table that has none.
static std::string dataset_or_null(const feed_dataset_name &dataset)
{
    if (dataset.dsetname.empty())
        return "null";
    return json_text(dataset.dbname + "." + dataset.dsetname);
}

static std::string aside_text(const pgb_state &state)
{
    std::string out = "[";
    for_each(state, PGA_ASIDE,
             [&](const std::string &name, const pga_table &table, const pga_record &record) {
                 const feed_dataset_name dataset =
                     pgb_dataset_of(*state.relations, table.schema, table.table);
                 out += (out.size() == 1 ? "{\"table\":" : ",{\"table\":") + json_text(name) +
                        ",\"dataset\":" + dataset_or_null(dataset) + ",\"position\":\"" +
                        fwu_lsn_text(record.since) +
                        "\",\"time\":" + time_or_null(record.since_us) +
                        ",\"reason\":" + json_text(record.reason) +
                        ",\"missed\":" + std::to_string(table.missed) + "}";
             });
    return out + "]";
}

static std::string taking_text(const pgb_state &state)
{
    std::string out = "[";
    for_each(state, PGA_TAKING,
             [&](const std::string &name, const pga_table &table, const pga_record &record) {
                 out += (out.size() == 1 ? "{\"table\":" : ",{\"table\":") + json_text(name) +
                        ",\"why\":" + json_text(record.why) +
                        ",\"rows\":" + std::to_string(record.rows) +
                        ",\"estimate\":" + number_or_null(table.estimate) + "}";
             });
    return out + "]";
}

static std::string untold_text(const pgb_state &state)
{
    std::string out = "[";
    if (state.untold != nullptr)
        for (const auto &[about, why] : *state.untold)
            out += (out.size() == 1 ? "{\"what\":" : ",{\"what\":") + json_text(about) +
                   ",\"answer\":" + json_text(why) + "}";
    return out + "]";
}

static std::string retention_text(const pgb_state &state)
{
    if (state.retained == nullptr)
        return "null";
    const fwu_retained &found = *state.retained;
    return "{\"keep\":" + text_or_null(found.keep) + ",\"files\":" + std::to_string(found.files) +
           ",\"bytes\":" + std::to_string(found.bytes) +
           ",\"readers\":" + std::to_string(found.readers) +
           ",\"held_by\":" + text_or_null(found.held_by) +
           ",\"held_at\":" + text_or_null(found.held_at) +
           ",\"held_files\":" + std::to_string(found.held_files) +
           ",\"held_bytes\":" + std::to_string(found.held_bytes) +
           ",\"problem\":" + text_or_null(found.problem) +
           ",\"removed_files\":" + std::to_string(found.removed_files) +
           ",\"removed_bytes\":" + std::to_string(found.removed_bytes) +
           ",\"free_bytes\":" + number_or_null(found.room.known ? found.room.free : -1) +
           ",\"little_room\":" + (found.little_room ? "true}" : "false}");
}

static std::string text_of(const pgb_state &state)
{
    std::string out = "{";
    const auto put = [&out](const char *name, const std::string &value, bool quoted) {
        out += out.size() == 1 ? "\"" : ",\"";
        out += name;
        out += "\":";
        if (quoted)
            json_text_append(out, value);
        else
            out += value;
    };
    char seconds[32];
    snprintf(seconds, sizeof seconds, "%.3f", pgb_lag_seconds(state));
    const auto put_time = [&put](const char *name, int64_t time_us) {
        put(name, time_or_null(time_us), false);
    };
    put("state", state.phase, true);
    put("error", text_or_null(state.error), false);
    put_time("error_time", state.error_us);
    put("error_position", position_or_null(state.error_lsn), false);
    put("pid", std::to_string(getpid()), false);
    put("process", process_word(getpid()), true);
    put("version", KESTRO_VERSION, true);
    put_time("started", state.started_us);
    put("updated", fwu_time_word(fwu_now_us()), true);
    put("slot", state.slot, true);
    put("publication", state.publication, true);
    put("system_identifier", state.kept.system.empty() ? state.system : state.kept.system, true);
    put("database", state.kept.database.empty() ? state.database : state.kept.database, true);
    put("timeline", std::to_string(state.kept.timeline), true);
    put("snapshot", state.kept.snapshot, true);
    put("server_lsn", fwu_lsn_text(state.server_lsn), true);
    put("received_lsn", fwu_lsn_text(state.received_lsn), true);
    put("logged_lsn", fwu_lsn_text(state.logged_lsn), true);
    put("told_lsn", fwu_lsn_text(state.kept.told_lsn), true);
    put("lag_bytes", std::to_string(pgb_lag_bytes(state)), false);
    put("lag_seconds", seconds, false);
    put_time("last_commit", state.commit_us);
    put("transactions", std::to_string(state.transactions), false);
    put("changes", std::to_string(state.changes), false);
    put("cut", std::to_string(state.marked.cut), false);
    put("replaced", std::to_string(state.marked.replaced), false);
    put("left_out", std::to_string(state.marked.left_out), false);
    put("unknown", std::to_string(state.marked.unknown), false);
    put("reconnects", std::to_string(state.reconnects), false);
    put("aside", aside_text(state), false);
    put("taking", taking_text(state), false);
    put("untold", untold_text(state), false);
    put("retention", retention_text(state), false);
    return out + "}\n";
}

outcome pgb_state_take(pgb_state &state)
{
    pgb_state_release(state);
    state.held = open(state.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (state.held < 0 || flock(state.held, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK)
        return {}; // not there, or nothing is locked on that file system
    pgb_state_release(state);
    outcome taken = outcome_failed("%s: it is the status file of another bridge that has not "
                                   "ended; name another with --status",
                                   state.path.c_str());
    state.path.clear();
    return taken;
}

void pgb_state_release(pgb_state &state)
{
    if (state.held >= 0)
        (void)close(state.held); // nothing is left to write
    state.held = -1;
}

outcome pgb_state_write(pgb_state &state)
{
    if (state.path.empty() ||
        pgb_put_file(state.path, state.kept.mode, text_of(state), false, &state.held))
        return {};
    return outcome_failed("%s: cannot write the state: %s", state.path.c_str(), strerror(errno));
}

outcome pgb_state_tell(pgb_state &state)
{
    std::string what = std::string(state.phase) + ": logged " + fwu_lsn_text(state.logged_lsn);
    if (!state.error.empty())
        what += "; " + state.error;
    std::string lines = "STATUS=" + notify_value(what);
    const bool ready = strcmp(state.phase, "streaming") == 0;
    if (ready && !state.ready)
        lines += "\nREADY=1";
    if (state.alive)
        lines += "\nWATCHDOG=1";
    if (notify_send(lines)) { // else it comes again
        state.ready = state.ready || ready;
        state.alive = false;
    }
    return pgb_state_write(state);
}

void pgb_state_print(const pgb_state &state)
{
    tell("%s: logged %s, server %s, %" PRIu64 " bytes and %.1f seconds behind; %" PRIu64
         " transactions, %" PRIu64 " changes",
         state.phase, fwu_lsn_text(state.logged_lsn).c_str(),
         fwu_lsn_text(state.server_lsn).c_str(), pgb_lag_bytes(state), pgb_lag_seconds(state),
         state.transactions, state.changes);
    size_t lines = 0;
    for_each(state, PGA_ASIDE,
             [&](const std::string &name, const pga_table &table, const pga_record &record) {
                 if (lines++ < LINES_MAX)
                     tell("table %s is set aside since %s, %" PRIu64 " changes passed over: %s",
                          name.c_str(), fwu_lsn_text(record.since).c_str(), table.missed,
                          record.reason.c_str());
             });
    for_each(state, PGA_TAKING,
             [&](const std::string &name, const pga_table &table, const pga_record &record) {
                 if (lines++ < LINES_MAX)
                     tell("table %s is being taken in (%s): %" PRIu64 " rows%s", name.c_str(),
                          record.why.c_str(), record.rows,
                          table.estimate < 0
                              ? ""
                              : (" of about " + std::to_string(table.estimate)).c_str());
             });
    if (lines > LINES_MAX)
        tell("... and %zu more tables, which %s has", lines - LINES_MAX, state.path.c_str());
}

void pgb_state_tell_aside(const pgb_state &state)
{
    std::string names;
    size_t count = 0;
    for_each(state, PGA_ASIDE, [&](const std::string &name, const pga_table &, const pga_record &) {
        if (count++ < LINES_MAX)
            names += (names.empty() ? "" : ", ") + name;
    });
    if (count == 0)
        return;
    tell("warning: %zu table%s set aside: %s%s; %s has the reasons, and fwlog postgresql --resume "
         "takes them back in",
         count, count == 1 ? " is" : "s are", names.c_str(), count > LINES_MAX ? ", ..." : "",
         state.path.c_str());
}
