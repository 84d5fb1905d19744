// The file is one line of JSON with texts only.  It is written beside its name and renamed into
// place, so that it is the old one or the new one, whole.
#include "feed/postgresql/kept.h"

#include "feed/postgresql/server.h"
#include "feed/whole_file.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_start.h"
#include "util/json_text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

// A state file that is nothing but that has this member.
static const char for_monitors[] = "\"error_time\":";

// False for a file that is not whole.
static bool take(pgb_kept &kept, const std::string &json)
{
    if (json.empty() || json.back() != '\n' || json.find(for_monitors) != json.npos)
        return false;
    kept.system = json_text_member(json, "system_identifier");
    kept.database = json_text_member(json, "database");
    kept.slot = json_text_member(json, "slot");
    const std::string snapshot = json_text_member(json, "snapshot");
    if (!snapshot.empty())
        kept.snapshot = snapshot;
    (void)pgs_number(kept.timeline, json_text_member(json, "timeline"));    // stays 0
    (void)fwu_lsn_parse(kept.told_lsn, json_text_member(json, "told_lsn")); // likewise
    return true;
}

// What is there and cannot be read may say anything: a run that took it for nothing would go on
// from where the slot stands, or have it dropped.
static outcome unreadable(const std::string &path)
{
    return outcome_failed("%s: cannot read what the log belongs to: %s", path.c_str(),
                          strerror(errno));
}

outcome pgb_kept_read(pgb_kept &kept, const std::string &older)
{
    std::string text;
    if (feed_file_read(text, kept.path) == 0) {
        (void)take(kept, text); // else nothing is known
        return {};
    }
    if (errno != ENOENT)
        return unreadable(kept.path);
    if (older.empty())
        return {};
    if (feed_file_read(text, older) != 0)
        return errno == ENOENT ? outcome() : unreadable(older);
    return take(kept, text) ? pgb_kept_write(kept, true) : outcome();
}

bool pgb_put_file(const std::string &path, mode_t mode, const std::string &text, bool durable,
                  int *held)
{
    const std::string fresh = path + PGB_FRESH;
    int fd = fwu_file_anew(fresh, O_WRONLY, mode);
    if (fd >= 0 && held != nullptr)
        (void)flock(fd, LOCK_EX | LOCK_NB); // without it all is well, too
    bool good = fd >= 0 && fwu_write_all(fd, text.data(), text.size(), 0) == 0 &&
                (!durable || fsync(fd) == 0) && rename(fresh.c_str(), path.c_str()) == 0;
    const int code = errno;
    if (good && held != nullptr)
        std::swap(*held, fd);
    if (fd >= 0)
        close(fd);
    if (!good)
        errno = code;
    return good && (!durable || fwu_path_sync(fwu_directory_of(path)) == 0);
}

outcome pgb_kept_write(const pgb_kept &kept, bool durable)
{
    const std::string text = "{\"system_identifier\":" + json_text(kept.system) +
                             ",\"database\":" + json_text(kept.database) + ",\"timeline\":\"" +
                             std::to_string(kept.timeline) + "\",\"slot\":" + json_text(kept.slot) +
                             ",\"snapshot\":" + json_text(kept.snapshot) + ",\"told_lsn\":\"" +
                             fwu_lsn_text(kept.told_lsn) + "\"}\n";
    if (pgb_put_file(kept.path, kept.mode, text, durable))
        return {};
    return outcome_failed("%s: cannot write what the log belongs to: %s", kept.path.c_str(),
                          strerror(errno));
}
