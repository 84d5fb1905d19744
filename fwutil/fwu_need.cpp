// Reading a status file for what it keeps of the log.  What the callback wrote for the last
// record of all may not be on disk: behind a power cut the run goes on behind the one before
// which everything is.
#include "fwutil/fwu_need.h"

#include "fwutil/fwu_boot.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_status.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

static void wrong(fwu_need &need, fwu_need_kind kind, std::string why)
{
    need.kind = kind;
    need.why = std::move(why);
}

// False: that is all there is to say.
static bool read_file(fwu_need &need, const std::string &path, fwu_status_text &text)
{
    struct stat about = {};
    const int there = stat(path.c_str(), &about);
    need.absent = there != 0 && errno == ENOENT;
    if (there == 0 && !S_ISREG(about.st_mode)) {
        wrong(need, FWU_NEED_UNKNOWN, path + ": it is not a regular file");
        return false;
    }
    const fwu_error_hold hold;
    if (fwu_status_read(path, text) == 0)
        return true;
    wrong(need, FWU_NEED_UNKNOWN, hold.text);
    return false;
}

// The place behind which the run may have to go on, and what it is.  Whether it is the last one.
static bool choose_place(fwu_need &need, const fwu_status_text &text)
{
    const bool live = text.version == 1 || (text.have_live && text.synced.boot == FWU_BOOT_ANY);
    need.has_live = fwu_place_named(text.live);
    need.which = live ? "position" : "position on disk";
    need.place = live ? text.live : text.on_disk;
    return live;
}

// Whether the last position stays what it is behind a power cut, as the synced one does by itself:
// what may go by it is gone then.
static bool last_stays(fwu_need &need, const std::string &path)
{
    if (!fwu_place_named(need.place) || fwu_path_sync(path) == 0 || errno == EROFS ||
        errno == EINVAL)
        return true;
    wrong(need, FWU_NEED_UNKNOWN,
          path + ": cannot bring the status file to disk: " + strerror(errno));
    return false;
}

// Whether the file that the place is in belongs to its log.
static bool same_log(const fwu_log_file &file, const fwu_place &place)
{
    fwu_file_header header;
    if (fwu_log_header(file, header) != FWU_FOUND)
        return false; // reported, or damaged
    return !place.full || header.identity == place.identity;
}

fwu_need fwu_need_of(const std::string &path, const std::string &directory,
                     const std::vector<fwu_log_file> &files, bool checked)
{
    fwu_need need;
    fwu_status_text text;
    if (!read_file(need, path, text))
        return need;
    need.log_directory = text.log_directory;
    if (choose_place(need, text) && checked && !last_stays(need, path))
        return need;
    if (!fwu_place_named(need.place)) {
        need.kind = FWU_NEED_NO_PLACE;
        if (!text.fresh && text.log_directory != directory)
            wrong(need, FWU_NEED_FOREIGN, "");
    } else if (text.log_directory != directory) {
        wrong(need, FWU_NEED_FOREIGN, "");
    }
    if (need.kind == FWU_NEED_FOREIGN)
        need.why = path + ": the status file belongs to the log in " + text.log_directory +
                   ", not to the one in " + directory;
    if (need.kind == FWU_NEED_FOREIGN || need.kind == FWU_NEED_NO_PLACE)
        return need;
    const fwu_error_hold hold;
    const std::string what =
        path + ": " + need.which + " " + fwu_position_text(need.place.position);
    fwu_position position = need.place.position;
    const fwu_log_file *file = fwu_start_look(files, position);
    const bool there = file != nullptr && !checked
                           ? same_log(*file, need.place)
                           : fwu_place_check(directory, need.place, what) == 0;
    if (!there) {
        wrong(need, FWU_NEED_LOST,
              hold.text.empty() ? what + ": the log has another record there" : hold.text);
        return need;
    }
    need.kind = FWU_NEED_FROM;
    // One that came after the log was listed is behind all the others.
    need.file = file != nullptr ? *file : files.empty() ? fwu_log_file() : files.back();
    return need;
}

size_t fwu_need_free(const fwu_need &need, const std::vector<fwu_log_file> &files)
{
    size_t count = 0;
    if (need.kind == FWU_NEED_FROM)
        while (count < files.size() && files[count].name < need.file.name)
            count++;
    return count;
}

std::string fwu_need_text(const fwu_need &need)
{
    if (need.kind == FWU_NEED_FROM)
        return std::string(need.which) + " " + fwu_position_text(need.place.position);
    if (need.kind == FWU_NEED_NO_PLACE)
        return need.has_live ? "no position on disk yet" : "no position yet";
    return need.absent ? "no status file yet" : need.why;
}
