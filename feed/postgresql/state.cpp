// The state file is written beside its name and renamed into place, so that who reads
// it finds the old one or the new one, whole.
#include "feed/postgresql/state.h"

#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_start.h"
#include "fwutil/fwu_time.h"
#include "util/json_text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

// The text of a member that pgb_state_write has written; empty when it is not there.
static std::string member(const std::string &json, const char *name)
{
    const std::string key = std::string("\"") + name + "\":\"";
    const size_t found = json.find(key);
    std::string text;
    if (found == std::string::npos)
        return text;
    for (size_t at = found + key.size(); at < json.size() && json[at] != '"'; at++) {
        if (json.compare(at, 4, "\\u00") == 0) {
            text += static_cast<char>(strtol(json.substr(at + 4, 2).c_str(), nullptr, 16));
            at += 5;
            continue;
        }
        if (json[at] == '\\' && at + 1 < json.size())
            at++;
        text += json[at];
    }
    return text;
}

void pgb_state_read(pgb_state &state)
{
    std::ifstream file(state.path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    const std::string json = text.str();
    if (json.empty() || json.back() != '\n')
        return;
    state.system = member(json, "system_identifier");
    state.database = member(json, "database");
    const std::string timeline = member(json, "timeline");
    (void)std::from_chars(timeline.data(), timeline.data() + timeline.size(),
                          state.timeline); // stays 0
    if (member(json, "slot") != state.slot)
        return;
    state.snapshot = member(json, "snapshot");
    (void)fwu_lsn_parse(state.told_lsn, member(json, "told_lsn")); // stays 0
}

uint64_t pgb_lag_bytes(const pgb_state &state)
{
    const uint64_t reached = std::max(state.logged_lsn, state.told_lsn);
    return state.server_lsn > reached ? state.server_lsn - reached : 0;
}

double pgb_lag_seconds(const pgb_state &state)
{
    if (pgb_lag_bytes(state) == 0 || state.commit_us == 0)
        return 0;
    return static_cast<double>(std::max<int64_t>(fwu_now_us() - state.commit_us, 0)) /
           static_cast<double>(FWU_US_PER_S);
}

static std::string json_text(const pgb_state &state)
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
    put("state", state.phase, true);
    put("pid", std::to_string(getpid()), false);
    put("updated", fwu_time_word(fwu_now_us()), true);
    put("slot", state.slot, true);
    put("publication", state.publication, true);
    put("system_identifier", state.system, true);
    put("database", state.database, true);
    put("timeline", std::to_string(state.timeline), true);
    put("snapshot", state.snapshot, true);
    put("server_lsn", fwu_lsn_text(state.server_lsn), true);
    put("received_lsn", fwu_lsn_text(state.received_lsn), true);
    put("logged_lsn", fwu_lsn_text(state.logged_lsn), true);
    put("told_lsn", fwu_lsn_text(state.told_lsn), true);
    put("lag_bytes", std::to_string(pgb_lag_bytes(state)), false);
    put("lag_seconds", seconds, false);
    put("last_commit", state.commit_us == 0 ? "null" : '"' + fwu_time_word(state.commit_us) + '"',
        false);
    put("transactions", std::to_string(state.transactions), false);
    put("changes", std::to_string(state.changes), false);
    put("reconnects", std::to_string(state.reconnects), false);
    return out + "}\n";
}

outcome pgb_state_write(const pgb_state &state, bool durable)
{
    const std::string text = json_text(state);
    const std::string fresh = state.path + ".new";
    const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, state.mode);
    bool good = fd >= 0 && fchmod(fd, state.mode) == 0 && // whatever the umask says
                write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    good = good && (!durable || fsync(fd) == 0);
    const int code = errno;
    if (fd >= 0)
        close(fd);
    if (good && rename(fresh.c_str(), state.path.c_str()) == 0 &&
        (!durable || fwu_path_sync(fwu_directory_of(state.path)) == 0))
        return {};
    return outcome_failed("%s: cannot write the state: %s", state.path.c_str(),
                          strerror(good ? errno : code));
}

void pgb_state_print(const pgb_state &state)
{
    tell("%s: logged %s, server %s, %" PRIu64 " bytes and %.1f seconds behind; %" PRIu64
         " transactions, %" PRIu64 " changes",
         state.phase, fwu_lsn_text(state.logged_lsn).c_str(),
         fwu_lsn_text(state.server_lsn).c_str(), pgb_lag_bytes(state), pgb_lag_seconds(state),
         state.transactions, state.changes);
}
