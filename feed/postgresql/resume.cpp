// The request gets its name once it is whole and locked: whoever finds it knows by the lock that
// somebody still waits for the answer.
#include "feed/postgresql/resume.h"

#include "feed/postgresql/answer.h"
#include "feed/postgresql/state.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_file.h"
#include "util/json_text.h"
#include "util/progress_line.h"
#include "util/stop_signal.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int LOOK_MS = 100;

pgr_holder pgr_find_holder(const std::string &directory)
{
    pgr_holder holder;
    const int fd = open((directory + "/writer.lock").c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    struct stat file = {};
    holder.known = fd >= 0 && fcntl(fd, F_GETLK, &lock) == 0 && fstat(fd, &file) == 0;
    if (holder.known) {
        holder.held = lock.l_type != F_UNLCK;
        holder.pid = lock.l_pid;
        holder.mode = file.st_mode & 0666;
        holder.owner = file.st_uid;
        holder.group = file.st_gid;
    }
    if (fd >= 0)
        close(fd);
    return holder;
}

struct asking {
    const std::string &directory;
    const std::string &state_path;
    const pgr_patience &patience;
    pgr_holder holder = {};
    std::string path = {}; // of both files, without what tells them apart
    int fd = -1;           // of the request
    pgr_answer answer = {};
    bool answered = false;
    int64_t news_ms = fwu_monotonic_ms(); // when it began, or the answer was another one
    int64_t held_ms = fwu_monotonic_ms(); // when somebody had the log last
    std::set<std::string> told = {};
    progress_line line = progress_line_open();
};

// ---- the request

static outcome cannot_ask(const std::string &path)
{
    return outcome_failed("%s: cannot leave a request there: %m", path.c_str());
}

static outcome leave_request(asking &a, const std::vector<const char *> &tables)
{
    std::string text;
    for (const char *table : tables) {
        const std::string name = pgr_table_name(table); // no line end is in it; empty: "all"
        text += (name.empty() ? table : name) + "\n";
    }
    std::string path = a.directory + "/" + PGR_PREFIX + "XXXXXX";
    a.fd = mkstemp(path.data());
    if (a.fd < 0)
        return cannot_ask(path);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    // A superuser asks a process that has fewer rights.
    const bool given = geteuid() != 0 || fchown(a.fd, a.holder.owner, a.holder.group) == 0;
    if (!given || fcntl(a.fd, F_SETLK, &lock) != 0 || fchmod(a.fd, a.holder.mode) != 0 ||
        fwu_write_all(a.fd, text.data(), text.size(), 0) != 0 ||
        rename(path.c_str(), (path + PGR_REQUEST).c_str()) != 0) {
        outcome failed = cannot_ask(path);
        (void)unlink(path.c_str());
        return failed;
    }
    a.path = path;
    return {};
}

static void take_away(const asking &a)
{
    for (const char *suffix : {PGR_REQUEST, PGR_ANSWER})
        (void)unlink((a.path + suffix).c_str()); // else the bridge does
}

// ---- the answer

static std::string read_whole(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

static std::string process_of(const asking &a)
{
    return a.holder.pid > 0 ? "process " + std::to_string(a.holder.pid) : "a process";
}

// "120000 of about 500000 rows", where the guess says anything.
static std::string progress_of(const pgr_table &table)
{
    std::string text = table.name + ": " + std::to_string(table.rows);
    if (table.estimate >= 0 && static_cast<uint64_t>(table.estimate) > table.rows)
        text += " of about " + std::to_string(table.estimate);
    return text + " rows" + (table.reason.empty() ? "" : "; " + table.reason);
}

static const pgr_table *find_first(const pgr_answer &answer, pgr_state state)
{
    for (const pgr_table &table : answer.tables)
        if (table.state == state)
            return &table;
    return nullptr;
}

// What is being done at this moment.
static std::string progress_of(const pgr_answer &answer)
{
    const pgr_table *now = nullptr;
    size_t done = 0;
    for (const pgr_table &table : answer.tables) {
        done += table.state >= PGR_FOLLOWED ? 1 : 0;
        if (table.state == PGR_TAKING && (now == nullptr || table.rows > 0))
            now = &table;
    }
    std::string text =
        answer.tables.size() > 1
            ? std::to_string(done) + " of " + std::to_string(answer.tables.size()) + " tables; "
            : "";
    if (now != nullptr)
        return text + progress_of(*now);
    if (const pgr_table *waits = find_first(answer, PGR_ASKED); waits != nullptr)
        return text + waits->name + (waits->reason.empty() ? " is next" : ": " + waits->reason);
    return text;
}

// What has come to an end since the last look.
static void tell_ends(asking &a)
{
    for (const pgr_table &table : a.answer.tables) {
        if (table.state < PGR_FOLLOWED || !a.told.insert(table.name).second)
            continue;
        progress_line_erase(a.line);
        if (table.state == PGR_FOLLOWED)
            tell("table %s is followed; rows taken in: %" PRIu64, table.name.c_str(), table.rows);
        else
            tell("table %s is not taken in: %s", table.name.c_str(), table.reason.c_str());
    }
}

static void take_answer(asking &a)
{
    pgr_answer answer;
    if (!pgr_answer_read(answer, read_whole(a.path + PGR_ANSWER)))
        return;
    if (!a.answered || !(answer == a.answer))
        a.news_ms = fwu_monotonic_ms();
    a.answered = true;
    a.answer = std::move(answer);
    tell_ends(a);
}

// ---- whoever does not answer

// Whether the state file is one of the process that has the log.
static bool is_its_state(const asking &a, const std::string &state)
{
    return a.holder.pid <= 0 ||
           state.find("\"pid\":" + std::to_string(a.holder.pid) + ",") != state.npos;
}

static bool waits_for_server(const asking &a)
{
    const std::string state = read_whole(a.state_path);
    return is_its_state(a, state) && json_text_member(state, "state") == "waiting";
}

static outcome tell_no_answer(asking &a)
{
    progress_line_erase(a.line);
    const std::string state = read_whole(a.state_path);
    const std::string who = process_of(a);
    if (!a.holder.held)
        return outcome_failed("nobody has the log in %s any more: give --resume again, which then "
                              "follows the server itself",
                              a.directory.c_str());
    if (!is_its_state(a, state))
        return outcome_failed("%s has the log in %s and does not answer: it is no fwlog "
                              "postgresql; stop it, and give --resume again",
                              who.c_str(), a.directory.c_str());
    if (json_text_member(state, "state") == "waiting")
        return outcome_failed("%s waits for the server and does not answer: %s; give --resume "
                              "again when the server is back",
                              who.c_str(), json_text_member(state, "error").c_str());
    return outcome_failed("%s has the log in %s and does not answer: it is frozen, or of an older "
                          "version (its state of %s: %s); look at it, or stop it and give "
                          "--resume again",
                          who.c_str(), a.directory.c_str(),
                          json_text_member(state, "updated").c_str(),
                          json_text_member(state, "state").c_str());
}

static outcome tell_ended(asking &a)
{
    progress_line_erase(a.line);
    return outcome_failed("the process that had the log in %s has ended, and no other one has "
                          "taken its place: start fwlog postgresql, which goes on with what was "
                          "begun, and give --resume again for what was not (%s)",
                          a.directory.c_str(), progress_of(a.answer).c_str());
}

// Null as long as there is hope.
static outcome look_at_holder(asking &a)
{
    const int64_t now = fwu_monotonic_ms();
    a.holder = pgr_find_holder(a.directory);
    if (a.holder.held)
        a.held_ms = now;
    if (a.answered)
        return now - a.held_ms < a.patience.answer_ms ? outcome() : tell_ended(a);
    const int64_t limit = waits_for_server(a) ? a.patience.server_ms : a.patience.answer_ms;
    return now - a.news_ms < limit ? outcome() : tell_no_answer(a);
}

static outcome stopped(asking &a)
{
    progress_line_erase(a.line);
    if (a.answered)
        tell("%s goes on with what it has begun (%s); its state file tells how far it is",
             process_of(a).c_str(), progress_of(a.answer).c_str());
    return OUTCOME_STOPPED;
}

static outcome wait_for_end(asking &a)
{
    while (!a.answered || !a.answer.done) {
        (void)stop_signal_wait(-1, LOOK_MS); // a signal is looked at next
        if (stop_signal_get() != 0)
            return stopped(a);
        take_answer(a);
        if (outcome hope = look_at_holder(a); !hope)
            return hope;
        if (a.answered && progress_line_due(a.line))
            progress_line_show(a.line, progress_of(a.answer));
        if (a.answered && fwu_monotonic_ms() - a.news_ms >= a.patience.news_ms) {
            a.news_ms = fwu_monotonic_ms();
            progress_line_erase(a.line);
            tell("%s has no news: %s", process_of(a).c_str(), progress_of(a.answer).c_str());
        }
    }
    if (a.answer.tables.empty())
        tell("no table is set aside");
    return find_first(a.answer, PGR_REFUSED) == nullptr ? OUTCOME_OK : OUTCOME_FAILED;
}

outcome pgr_resume(const std::string &directory, const std::string &state_path,
                   const std::vector<const char *> &tables, const pgr_patience &patience)
{
    asking a = {.directory = directory, .state_path = state_path, .patience = patience};
    a.holder = pgr_find_holder(directory);
    if (outcome left = leave_request(a, tables); !left) {
        if (a.fd >= 0)
            close(a.fd);
        return left;
    }
    outcome done = wait_for_end(a);
    progress_line_erase(a.line);
    take_away(a);
    close(a.fd); // the lock goes with it
    return done;
}
