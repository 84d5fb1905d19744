// The status file is changed by stores into its mapped page: one line for each
// record, the two lines in turn, so that a process killed at any moment leaves a
// line that is whole.  Where the file cannot be mapped, or has lost its place,
// it is written instead.  When it is brought to disk, what the callback wrote is there
// already, and a text says so; behind a power cut that text counts, not the lines, which
// the system may have brought to disk at any moment.
#include "fwutil/fwu_status.h"

#include "fwutil/fwu_boot.h"
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_status_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

// A reader without the lock may see a line in the middle of a change.
constexpr int READ_TRIES = 100;

static int damaged(const std::string &path)
{
    return fwu_error("%s: the status file is damaged; give the position that you know as start "
                     "position, or remove the file to begin with the log's oldest record%s",
                     path.c_str(), FWU_KEEP_FIRST);
}

int fwu_status_read(const std::string &path, fwu_status_text &text)
{
    // A pipe that has the name is not waited for: reading it fails.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return fwu_error("%s: cannot open the status file: %s", path.c_str(), strerror(errno));
    std::string bytes;
    int result = -1;
    int bad = -1;
    for (int i = 0; i < READ_TRIES && (bad != 0 || text.torn); i++) {
        result = fwu_status_file_read(path, fd, bytes);
        if (result != 0)
            break;
        bad = fwu_status_get(text, bytes);
    }
    close(fd);
    if (result != 0)
        return result;
    return bad != 0 ? damaged(path) : 0;
}

static size_t head_size(const fwu_status &status)
{
    return status.prefix.size() + FWU_STATUS_LINES_SIZE;
}

// Writes everything, lines of each kind saying the same, and maps the lines.
static int write_whole(fwu_status &status, int fd)
{
    const std::string bytes = fwu_status_put(status.log_directory, status.place, status.synced);
    if (fwu_status_file_write(status.path, fd, bytes, 0) != 0 ||
        fwu_status_file_cut(status.path, fd, bytes.size()) != 0)
        return -1;
    status.number = FWU_STATUS_LINES - 1;
    status.pointer_number = FWU_STATUS_LINES - 1;
    status.pointer = {head_size(status), status.synced.size(),
                      fwu_crc32c(0, status.synced.data(), status.synced.size())};
    status.written = true;
    status.unsynced = true;
    fwu_status_line_set(status.line, status.number, status.place);
    if (status.map.at == nullptr)
        (void)fwu_map_open(status.map, fd, head_size(status)); // else each line is written
    return 0;
}

// Both lines, for the place acknowledged last.
static int write_lines(fwu_status &status)
{
    for (int i = 0; i < FWU_STATUS_LINES; i++) {
        status.number = (status.number + 1) % 10;
        fwu_status_line_set(status.line, status.number, status.place);
        if (fwu_status_file_write(status.path, status.fd,
                                  {status.line.text, sizeof status.line.text},
                                  status.prefix.size() + fwu_status_live_at(status.number)) != 0)
            return -1;
    }
    return 0;
}

// Goes on writing in a good file of this version.
static int take_over(fwu_status &status)
{
    status.number = status.found.live_number;
    status.pointer = status.found.pointer;
    status.pointer_number = status.found.pointer_number;
    status.synced = fwu_synced_put(status.found.synced);
    fwu_status_line_set(status.line, status.number, status.place);
    if ((!status.found.have_live || status.found.torn || status.place != status.found.live) &&
        write_lines(status) != 0)
        return -1;
    status.written = true;
    (void)fwu_map_open(status.map, status.fd, head_size(status)); // else each line is written
    return 0;
}

static void warn_of_torn(const fwu_status &status)
{
    if (status.found.have_live && status.found.torn)
        fwu_warn("%s: one of the status file's lines is damaged; the other one is taken, which "
                 "names %s",
                 status.path.c_str(),
                 fwu_place_named(status.found.live)
                     ? fwu_position_text(status.found.live.position).c_str()
                     : "no record yet");
}

static int read_locked(fwu_status &status, bool overridden)
{
    std::string bytes;
    if (fwu_status_file_read(status.path, status.fd, bytes) != 0)
        return -1;
    fwu_status_text text;
    const int bad = fwu_status_get(text, bytes);
    if (overridden) { // it stays as it is until there is something better to say
        status.damaged = bad != 0 || text.fresh;
        if (!status.damaged)
            status.overridden = text;
        return 0;
    }
    if (bad != 0)
        return damaged(status.path);
    if (text.fresh)
        fwu_warn("%s: the status file is empty and taken as a new one: the log's oldest record "
                 "comes first",
                 status.path.c_str());
    else if (text.log_directory != status.log_directory)
        return fwu_error("%s: the status file belongs to the log in %s, the configuration names "
                         "%s; use another status file, or give a start position%s",
                         status.path.c_str(), text.log_directory.c_str(),
                         status.log_directory.c_str(), FWU_KEEP_FIRST);
    status.found = text;
    status.place = text.live;
    if (!text.fresh)
        warn_of_torn(status);
    return 0;
}

int fwu_status_open(fwu_status &status, const std::string &path, const std::string &log_directory,
                    bool overridden)
{
    status = fwu_status();
    status.path = path;
    status.log_directory = log_directory;
    if (!fwu_status_fits(log_directory))
        return fwu_error("%s: the log directory's path is too long or holds a line end",
                         log_directory.c_str());
    status.prefix = fwu_status_prefix(log_directory);
    status.line.prefix_crc = fwu_crc32c(0, status.prefix.data(), status.prefix.size());
    status.synced = fwu_synced_put({{}, fwu_boot(), ""});
    bool created = false;
    status.fd = fwu_status_file_open(
        path, [&status](int fd) { return write_whole(status, fd); }, created);
    if (status.fd >= 0 && (created || read_locked(status, overridden) == 0))
        return 0;
    fwu_status_close(status);
    return -1;
}

static int cut_or_changed(fwu_status &status)
{
    fwu_warn("%s: the status file was cut or changed while in use: written anew",
             status.path.c_str());
    return write_whole(status, status.fd);
}

// Stores the line, or writes it where the file is not mapped.
static int put_line(fwu_status &status)
{
    const size_t at = status.prefix.size() + fwu_status_live_at(status.number);
    if (status.map.at == nullptr)
        return fwu_status_file_write(status.path, status.fd,
                                     {status.line.text, sizeof status.line.text}, at);
    if (fwu_map_replace(status.map, at, status.line.text, sizeof status.line.text,
                        FWU_STATUS_CHANGING))
        return 0;
    // Somebody has cut the file, or there is no room for its page: writing it anew
    // mends the one and reports the other.
    return cut_or_changed(status);
}

int fwu_status_acknowledge(fwu_status &status, const fwu_place &place)
{
    status.place = place;
    status.unsynced = true;
    if (!status.written)
        return 0;
    status.number = status.number == 9 ? 0 : status.number + 1;
    fwu_status_line_set(status.line, status.number, place);
    if (put_line(status) == 0)
        return 0;
    status.written = false; // told; nothing more is tried
    status.unsynced = false;
    return -1;
}

// The next run looks for the file by its name.
static int check_name(fwu_status &status)
{
    if (status.lost)
        return -1;
    if (fwu_status_file_named(status.path, status.fd))
        return 0;
    if (errno != 0 && errno != ENOENT && errno != ENOTDIR)
        return fwu_error("%s: cannot read the status file: %s", status.path.c_str(),
                         strerror(errno));
    status.lost = true;
    return fwu_error("%s: the status file was removed or replaced while in use; the position is "
                     "%s, give it as start position%s",
                     status.path.c_str(),
                     fwu_place_named(status.place)
                         ? fwu_position_text(status.place.position).c_str()
                         : "that of the oldest record",
                     FWU_KEEP_FIRST);
}

int fwu_status_look(fwu_status &status)
{
    if (!status.written)
        return 0;
    if (check_name(status) != 0)
        return -1;
    std::string bytes(head_size(status), '\0');
    if (fwu_read_all(status.fd, bytes.data(), bytes.size(), 0) < 0)
        return fwu_error("%s: cannot read the status file: %s", status.path.c_str(),
                         strerror(errno));
    const std::string pointer =
        fwu_pointer_line(status.pointer, status.pointer_number, status.line.prefix_crc);
    const size_t prefix = status.prefix.size();
    const auto stands = [&bytes](size_t at, std::string_view text) {
        return std::string_view(bytes).substr(at, text.size()) == text;
    };
    if (stands(0, status.prefix) &&
        stands(prefix + fwu_status_live_at(status.number),
               {status.line.text, sizeof status.line.text}) &&
        stands(prefix + fwu_status_pointer_at(status.pointer_number), pointer) &&
        lseek(status.fd, 0, SEEK_END) >=
            static_cast<off_t>(status.pointer.at) + static_cast<off_t>(status.pointer.length))
        return 0;
    return cut_or_changed(status);
}

// Writes the text beside the one that counts, and a line that says where.  Once both
// are on disk the other line says the same: then it is known.
static int write_synced(fwu_status &status, const std::string &text)
{
    const size_t first = head_size(status);
    const bool fits_before = text.size() <= status.pointer.at - first;
    const fwu_pointer pointer = {fits_before ? first : status.pointer.at + status.pointer.length,
                                 text.size(), fwu_crc32c(0, text.data(), text.size())};
    const auto point = [&] {
        status.pointer_number = (status.pointer_number + 1) % 10;
        return fwu_status_file_write(
            status.path, status.fd,
            fwu_pointer_line(pointer, status.pointer_number, status.line.prefix_crc),
            status.prefix.size() + fwu_status_pointer_at(status.pointer_number));
    };
    if (fwu_status_file_write(status.path, status.fd, text, pointer.at) != 0 || point() != 0)
        return -1;
    status.pointer = pointer;
    status.synced = text;
    if (fwu_status_file_force(status.path, status.fd) != 0)
        return -1;
    return point();
}

int fwu_status_force(fwu_status &status, const std::string &boot, const char *mark)
{
    if (check_name(status) != 0)
        return -1;
    const std::string text = fwu_synced_put({status.place, boot, mark});
    if (text.size() > FWU_SYNCED_MAX)
        return fwu_error("%s: what the program keeps with the position is too long: %zu bytes",
                         status.path.c_str(), text.size());
    const bool anew = !status.written && (status.found.fresh || status.found.version == 1);
    int result = 0;
    if (anew) {
        status.synced = text;
        result = write_whole(status, status.fd);
        if (result == 0)
            result = fwu_status_file_force(status.path, status.fd);
    } else {
        result = status.written ? fwu_status_look(status) : take_over(status);
        if (result == 0)
            result = write_synced(status, text);
    }
    status.unsynced = status.unsynced && result != 0;
    return result;
}

// Both lines say that they are being changed, which no kill leaves.
void fwu_status_distrust(fwu_status &status)
{
    const fwu_status_text &text = status.overridden.fresh ? status.found : status.overridden;
    if (!status.written && !text.have_synced)
        return; // there is no other place to go by
    const size_t prefix =
        status.written ? status.prefix.size() : fwu_status_prefix(text.log_directory).size();
    const std::string mark(1, FWU_STATUS_CHANGING);
    int result = 0;
    for (int i = 0; i < FWU_STATUS_LINES; i++)
        if (fwu_status_file_write(status.path, status.fd, mark, prefix + fwu_status_live_at(i)) !=
            0)
            result = -1;
    (void)fdatasync(status.fd); // as far as it can be; the failure before is what is told
    fwu_synced synced = text.synced;
    if (status.written)
        (void)fwu_synced_get(synced, status.synced); // it was made by this run
    if (result != 0)
        fwu_error("%s: what the status file says may be ahead of what is on disk; give %s as start "
                  "position%s",
                  status.path.c_str(),
                  fwu_place_named(synced.place) ? fwu_position_text(synced.place.position).c_str()
                                                : "that of the oldest record",
                  FWU_KEEP_FIRST);
    status.written = false;
    status.unsynced = false;
}

void fwu_status_close(fwu_status &status)
{
    fwu_map_close(status.map);
    if (status.fd >= 0)
        close(status.fd);
    status.fd = -1;
}
