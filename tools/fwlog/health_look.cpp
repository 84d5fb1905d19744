// A reader that has all of the log is idle, however long ago that was; one that has not and
// does not move is stalled.  A program that is gone may still say that it runs: the process
// is looked at, and whether it is the same one.
#include "tools/fwlog/health_look.h"

#include "fwutil/fwu_behind.h"
#include "fwutil/fwu_boot.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_status.h"
#include "util/json_read.h"
#include "util/process_word.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

constexpr int64_t FRESH_US = 10 * FWU_US_PER_S; // both write every second
constexpr int64_t MOVES_WITHIN_MS = 2000;
constexpr int LOOK_EVERY_MS = 20;
constexpr double LAG_LARGEST_S = 1e10;
constexpr char LAG_NOT_KNOWN[] = "how far it is behind is not known: ";
constexpr size_t FILE_MAX_SIZE = size_t{64} << 20; // a bridge names each table that is set aside

enum process_kind { PROCESS_RUNS, PROCESS_HALTED, PROCESS_GONE, PROCESS_HIDDEN };

// Whether a process still is the one that wrote this word of itself.
static process_kind look_at_process(int64_t pid, const std::string &word)
{
    const auto number = static_cast<pid_t>(pid);
    if (pid <= 0 || number != pid)
        return PROCESS_GONE;
    std::istringstream then(word);
    std::istringstream here(process_word(getpid()));
    std::string boot;
    std::string space;
    std::string boot_here;
    std::string space_here;
    then >> boot >> space;
    here >> boot_here >> space_here;
    if (!boot.empty() && !boot_here.empty() && boot != boot_here)
        return PROCESS_GONE;
    if (!space.empty() && space != space_here)
        return PROCESS_HIDDEN;
    const char letter = process_letter(number);
    if (letter == '\0' && (kill(number, 0) == 0 || errno == EPERM))
        return PROCESS_RUNS; // the system does not tell more
    if (letter == '\0' || letter == 'Z' || letter == 'X' ||
        (!word.empty() && word != process_word(number)))
        return PROCESS_GONE;
    return letter == 'T' || letter == 't' ? PROCESS_HALTED : PROCESS_RUNS;
}

// ---- readers

// Who has a status file for itself; 0: nobody, -1: somebody that has no number here.
static int64_t holder_of(const std::string &path)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return 0;
    const bool held = fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    (void)close(fd); // only looked at
    return !held ? 0 : lock.l_pid > 0 ? lock.l_pid : -1;
}

struct reader_place {
    std::string log_directory; // empty: it has not begun
    fwu_place place;
};

// False with the reason.
static bool read_place(const std::string &path, reader_place &found, std::string &why)
{
    fwu_error_hold errors;
    fwu_status_text text;
    struct stat st = {};
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) { // a pipe would be waited for
        why = path + ": it is no regular file";
        return false;
    }
    if (fwu_status_read(path, text) != 0) {
        why = errors.text;
        return false;
    }
    if (text.fresh) {
        found = {};
        return true;
    }
    found.log_directory = text.log_directory;
    found.place = fwu_status_live_counts(text, fwu_boot()) ? text.live : text.synced.place;
    return true;
}

static bool measure(health_item &item, const reader_place &at, std::string &why)
{
    fwu_error_hold errors;
    fwu_behind behind;
    if (at.log_directory.empty()) {
        why = "it names no log yet";
        return false;
    }
    if (fwu_place_named(at.place))
        item.position = fwu_position_text(at.place.position);
    if (fwu_behind_measure(at.log_directory, at.place, behind) != 0) {
        why = errors.text;
        return false;
    }
    item.measured = true;
    item.records = behind.records;
    item.bytes = behind.bytes;
    const int64_t age_us = behind.first_us == 0 ? 0 : fwu_now_us() - behind.first_us;
    item.seconds =
        static_cast<double>(std::max<int64_t>(age_us, 0)) / static_cast<double>(FWU_US_PER_S);
    return true;
}

// Whether it goes on within a moment.
static bool moves(const std::string &path, const fwu_place &from)
{
    const int64_t end = fwu_monotonic_ms() + MOVES_WITHIN_MS;
    do {
        reader_place now;
        std::string why;
        if (read_place(path, now, why) && !(now.place == from))
            return true;
        (void)poll(nullptr, 0, LOOK_EVERY_MS); // a signal only makes it shorter
    } while (fwu_monotonic_ms() < end);
    return false;
}

static std::string lag_text(const health_item &item)
{
    char seconds[48];
    if (!item.measured)
        return "";
    snprintf(seconds, sizeof seconds, "%.1f seconds behind", item.seconds);
    return (item.records < 0 ? "" : std::to_string(item.records) + " records, ") +
           std::to_string(item.bytes) + " bytes, " + seconds;
}

static void judge(health_item &item, health_verdict verdict, const char *state,
                  const std::string &more)
{
    item.verdict = verdict;
    item.state = state;
    item.detail = state;
    if (!item.position.empty())
        item.detail += " at " + item.position;
    if (item.records > 0 || (item.records < 0 && item.bytes > 0))
        item.detail += ", " + lag_text(item);
    if (!more.empty())
        item.detail += ": " + more;
}

static std::string number_text(const health_item &item)
{
    return item.pid > 0 ? "process " + std::to_string(item.pid) : std::string("its process");
}

static void judge_lag(health_item &item, const char *state, double max_lag)
{
    const bool late = max_lag >= 0 && item.seconds > max_lag;
    judge(item, late ? HEALTH_WARNING : HEALTH_OK, state, late ? "more than --max-lag" : "");
}

// One that reads, and has not said why it does not; silent: for how long it has told nothing, 0
// where it need not tell anything.
static void judge_reading(health_item &item, const std::string &status, const reader_place &at,
                          process_kind process, int64_t silent_us, double max_lag)
{
    if (process == PROCESS_HALTED)
        return judge(item, HEALTH_CRITICAL, "stalled",
                     number_text(item) + " was stopped (SIGCONT)");
    if (silent_us > FRESH_US)
        return judge(item, HEALTH_CRITICAL, "stalled",
                     number_text(item) + " has told nothing for " +
                         std::to_string(silent_us / FWU_US_PER_S) + " seconds");
    if (item.records == 0)
        return judge_lag(item, "idle", max_lag);
    if (moves(status, at.place))
        return judge_lag(item, "progressing", max_lag);
    judge(item, HEALTH_CRITICAL, "stalled", number_text(item) + " does not go on");
}

// One that does not read: what waits for it tells, or why that is not known.
static void judge_stopped(health_item &item, const std::string &why)
{
    if (!item.measured)
        judge(item, HEALTH_UNKNOWN, "stopped", LAG_NOT_KNOWN + why);
    else if (item.records > 0)
        judge(item, HEALTH_CRITICAL, "stopped", "nobody reads what waits");
    else
        judge(item, HEALTH_OK, "stopped", "nothing waits");
}

static void look_at_reader(health_item &item, double max_lag)
{
    reader_place at;
    std::string why;
    item.kind = "reader";
    const int64_t holder = holder_of(item.path);
    const bool held = holder != 0;
    item.pid = std::max<int64_t>(holder, 0);
    if (!read_place(item.path, at, why))
        return judge(item, HEALTH_UNKNOWN, "unknown", why);
    if (at.log_directory.empty())
        return judge(item, held ? HEALTH_OK : HEALTH_WARNING, held ? "starting" : "stopped",
                     "it names no log yet");
    if (!measure(item, at, why))
        return judge(item, HEALTH_UNKNOWN, "unknown", why);
    if (!held)
        return judge_stopped(item, why);
    const process_kind process = item.pid > 0 ? look_at_process(item.pid, "") : PROCESS_HIDDEN;
    judge_reading(item, item.path, at, process, 0, max_lag);
}

// ---- what tells of itself in JSON

static std::string text_of(const json_node &node, const char *name)
{
    const json_node *member = json_member(node, name);
    return member != nullptr && member->kind == JSON_STRING ? member->text : "";
}

static int64_t integer_of(const json_node &node, const char *name)
{
    int64_t value = 0;
    return json_integer(value, json_member(node, name)) ? value : 0;
}

// How long ago it was written.
static int64_t silence_of(const json_node &node)
{
    std::string text = text_of(node, "updated");
    if (text.size() != FWU_TIME_SIZE + 1 || text[10] != 'T')
        return 0;
    text[10] = ' ';
    return std::max<int64_t>(fwu_now_us() - fwu_time_get(text.substr(0, FWU_TIME_SIZE)), 0);
}

// The process of one that says it runs.  False: it is gone, and that is told.
static bool has_process(health_item &item, const json_node &node, process_kind &process)
{
    item.pid = integer_of(node, "pid");
    process = look_at_process(item.pid, text_of(node, "process"));
    if (process != PROCESS_GONE)
        return true;
    judge(item, HEALTH_CRITICAL, "dead",
          number_text(item) +
              " is gone and has not said why; it said last: " + text_of(node, "state"));
    return false;
}

static void look_at_run(health_item &item, const json_node &node, double max_lag)
{
    const std::string state = text_of(node, "state");
    const std::string status = text_of(node, "status");
    process_kind process = PROCESS_GONE;
    reader_place at;
    std::string why;
    item.kind = "run";
    item.pid = integer_of(node, "pid");
    item.position = text_of(node, "position");
    if (read_place(status, at, why))
        (void)measure(item, at, why); // says why not
    const bool hidden = access(status.c_str(), R_OK) != 0 && errno == EACCES;
    if (state == "failed")
        return judge(item, HEALTH_CRITICAL, "failed", text_of(node, "error"));
    if (state == "stopped")
        return judge_stopped(item, why);
    if (!has_process(item, node, process))
        return;
    const int64_t silent_us = silence_of(node);
    if (state == "starting" && process != PROCESS_HALTED)
        return judge(item, silent_us > FRESH_US ? HEALTH_WARNING : HEALTH_OK, "starting",
                     silent_us > FRESH_US
                         ? "for " + std::to_string(silent_us / FWU_US_PER_S) + " seconds"
                         : "");
    // Of another library, which keeps its position elsewhere and has no looks to tell; or ours,
    // and it is not for whoever looks.
    const bool ours = hidden || !at.log_directory.empty();
    if (!item.measured && process != PROCESS_HALTED &&
        (silent_us <= FRESH_US || (state != "waiting" && !ours)))
        return judge(item, ours ? HEALTH_UNKNOWN : HEALTH_OK, "running", LAG_NOT_KNOWN + why);
    judge_reading(item, status, at, process, silent_us, max_lag);
}

static void look_at_bridge(health_item &item, const json_node &node, double max_lag)
{
    const std::string state = text_of(node, "state");
    const std::string error = text_of(node, "error");
    process_kind process = PROCESS_GONE;
    item.kind = "bridge";
    item.pid = integer_of(node, "pid");
    item.position = text_of(node, "logged_lsn");
    item.measured = true;
    item.bytes = std::max<int64_t>(integer_of(node, "lag_bytes"), 0);
    const json_node *lag = json_member(node, "lag_seconds");
    if (lag != nullptr && lag->kind == JSON_NUMBER)
        item.seconds = std::clamp(strtod(lag->text.c_str(), nullptr), 0.0, LAG_LARGEST_S);
    if (state == "failed")
        return judge(item, HEALTH_CRITICAL, "failed", error);
    if (state == "stopped")
        return judge(item, HEALTH_WARNING, "stopped", "nobody follows the server");
    if (!has_process(item, node, process))
        return;
    if (process == PROCESS_HALTED)
        return judge(item, HEALTH_CRITICAL, "stalled",
                     number_text(item) + " was stopped (SIGCONT)");
    if (state == "waiting")
        return judge(item, HEALTH_CRITICAL, "waiting", error);
    const int64_t silent_us = silence_of(node);
    if (state == "starting")
        return judge(item, silent_us > FRESH_US ? HEALTH_WARNING : HEALTH_OK, "starting", "");
    if (silent_us > FRESH_US)
        return judge(item, HEALTH_CRITICAL, "stalled",
                     number_text(item) + " has told nothing for " +
                         std::to_string(silent_us / FWU_US_PER_S) + " seconds");
    judge_lag(item, item.bytes == 0 ? "idle" : "progressing", max_lag);
    const json_node *aside = json_member(node, "aside");
    if (aside != nullptr && !aside->children.empty())
        judge(item, HEALTH_WARNING, item.state,
              std::to_string(aside->children.size()) + " tables are set aside");
}

// ---- which of them it is

static bool read_file(const std::string &path, std::string &bytes, std::string &why)
{
    struct stat st = {};
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    bool good = fd >= 0 && fstat(fd, &st) == 0;
    if (good && !S_ISREG(st.st_mode)) {
        why = "it is no regular file";
        (void)close(fd); // only looked at
        return false;
    }
    char block[65536];
    ssize_t n = 0;
    while (good && bytes.size() < FILE_MAX_SIZE && (n = read(fd, block, sizeof block)) != 0) {
        good = n > 0 || errno == EINTR;
        bytes.append(block, n > 0 ? static_cast<size_t>(n) : 0);
    }
    if (!good)
        why = strerror(errno);
    if (fd >= 0)
        (void)close(fd); // only read
    return good;
}

health_item fwlog_health_look(const std::string &path, double max_lag)
{
    health_item item;
    item.path = path;
    std::string bytes;
    std::string why;
    if (!read_file(path, bytes, why)) {
        judge(item, HEALTH_UNKNOWN, "unknown", "cannot be read: " + why);
        return item;
    }
    json_node node;
    std::string_view text = bytes;
    if (bytes.rfind("# HELP kestro_", 0) == 0)
        judge(item, HEALTH_UNKNOWN, "unknown",
              "it is for Prometheus; name a KESTRO_STATUS file in JSON, or the file of -stat");
    else if (bytes.empty() || bytes[0] != '{')
        look_at_reader(item, max_lag);
    else if (!json_read(node, text) || !text.empty() || text_of(node, "state").empty())
        judge(item, HEALTH_UNKNOWN, "unknown", "it is none of the files that tell of a program");
    else if (text_of(node, "program") == "Kestro")
        look_at_run(item, node, max_lag);
    else
        look_at_bridge(item, node, max_lag);
    return item;
}
