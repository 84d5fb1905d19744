// Checking a file, and cutting it back to its whole records: first the copy aside,
// on the disk and under its name, then the common area, then the rest, so that at
// no moment neither the file nor the copy is whole.
#include "msgfile/tmf_area.h"
#include "msgfile/tmf_common.h"
#include "msgfile/tmf_error.h"
#include "msgfile/tmf_io.h"
#include "msgfile/tmf_net.h"
#include "msgfile/tmf_survey.h"
#include "msgfile/tmu.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char part_ending[] = ".part";
static constexpr size_t copy_piece = 64 * 1024;

// ---- the copy

// Whether the name is that of another file than the open one, or of none; else false with
// errno set.
static bool names_another(const struct stat &file, const char *name)
{
    struct stat about;
    if (stat(name, &about) != 0)
        return errno == ENOENT;
    const bool same = about.st_dev == file.st_dev && about.st_ino == file.st_ino;
    if (same)
        errno = EEXIST;
    return !same;
}

// Copies the bytes from at to end.  0, or -1 with errno set.
static int copy_bytes(int from, int to, off_t at, off_t end)
{
    unsigned char piece[copy_piece];
    while (at < end) {
        const size_t n = static_cast<size_t>(std::min<off_t>(end - at, copy_piece));
        const ssize_t got = pread(from, piece, n, at);
        if (got <= 0)
            return got < 0 ? -1 : 0; // cut meanwhile: there is no more of it
        const ssize_t written = pwrite(to, piece, static_cast<size_t>(got), at);
        if (written <= 0) {
            errno = written < 0 ? errno : ENOSPC;
            return -1;
        }
        at += written;
    }
    return 0;
}

// Copies the whole file, its holes as holes, to the disk.  0, or -1 with errno set.
static int copy_file(int from, int to, const struct stat &about)
{
    const off_t size = about.st_size;
    for (off_t at = 0; at < size;) {
        off_t data = lseek(from, at, SEEK_DATA);
        if (data < 0 && errno == ENXIO)
            break; // a hole up to the end
        if (data < 0)
            data = at; // the system does not tell
        const off_t hole = lseek(from, data, SEEK_HOLE);
        const off_t end = hole < 0 ? size : hole;
        if (copy_bytes(from, to, data, end) != 0)
            return -1;
        at = end;
    }
    if (ftruncate(to, size) != 0 || fchmod(to, about.st_mode & 0777) != 0)
        return -1;
    return fsync(to);
}

// Has the name of a file on the disk, where the file system can.  0, or -1 with errno
// set.
static int sync_name(const char *name)
{
    const char *slash = strrchr(name, '/');
    char *folder =
        slash == nullptr ? strdup(".") : strndup(name, static_cast<size_t>(slash - name) + 1);
    if (folder == nullptr)
        return -1;
    const int fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    free(folder);
    if (fd < 0)
        return -1;
    int result = fsync(fd);
    if (result != 0 && (errno == EINVAL || errno == EROFS))
        result = 0;
    const int sync_errno = errno;
    (void)close(fd); // nothing was written through it
    errno = sync_errno;
    return result;
}

// Makes the copy as part and gives it its name.  0, or -1 with errno set.
static int make_copy(int fd, const char *part, const char *aside)
{
    struct stat about;
    if (fstat(fd, &about) != 0)
        return -1;
    if (!names_another(about, part) || !names_another(about, aside))
        return -1;
    (void)unlink(part); // left by a call that was killed
    const int copy = open(part, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (copy < 0)
        return -1;
    int result = copy_file(fd, copy, about);
    int copy_errno = errno;
    if (close(copy) != 0 && result == 0) {
        result = -1;
        copy_errno = errno;
    }
    if (result == 0 && (rename(part, aside) != 0 || sync_name(aside) != 0)) {
        result = -1;
        copy_errno = errno;
    }
    if (result != 0)
        (void)unlink(part); // the copy's error is the one to report
    errno = copy_errno;
    return result;
}

static int copy_aside(int fd, const char *aside, tmf_check_result *result)
{
    const size_t size = strlen(aside) + sizeof(part_ending);
    char *part = static_cast<char *>(malloc(size));
    if (part == nullptr)
        return TMF_EINTERNAL;
    (void)snprintf(part, size, "%s%s", aside, part_ending);
    const bool made = make_copy(fd, part, aside) == 0;
    const int copy_errno = errno;
    free(part);
    result->aside = made ? TMF_ASIDE_MADE : TMF_ASIDE_FAILED;
    return made ? 0 : tmf_os_error(nullptr, TMF_EOPEN, copy_errno);
}

// ---- the repair

// Puts what was found into the common area, in the file's byte order.
static void mend_common(tmf_survey *survey)
{
    const tmf_check_result &r = survey->result;
    tmf_common &common = survey->common;
    const bool empty = r.records == 0;
    common.record_count = r.records;
    common.read_offset = empty ? common.data_start : static_cast<int32_t>(r.first);
    common.write_offset = empty ? common.data_start : static_cast<int32_t>(r.sound);
    common.high_water = common.write_offset;
    common.num_readers = static_cast<int16_t>(r.readers);
    common.num_writers = static_cast<int16_t>(r.writers);
}

static int mend_file(int fd, tmf_survey *survey)
{
    tmf_check_result *r = &survey->result;
    if ((r->found & TMF_FOUND_ZEROS) != 0) {
        if (ftruncate(fd, 0) != 0)
            return TMF_ETRUNCATE;
        r->changed = 1;
        return fdatasync(fd) == 0 ? 0 : TMF_EWRITE_DATA;
    }
    mend_common(survey);
    tmf_common area = survey->common;
    if (r->other_order != 0)
        tmfc_reverse_common_byte_order(&area);
    area.flags = survey->flags;
    const ssize_t written = pwrite(fd, &area, sizeof(area), 0);
    if (written < 0)
        return TMF_EWRITE_COMMON;
    r->changed = 1;
    if (written < TMF_COMMON_SIZE)
        return TMF_EWRITE_COMMON_EOF;
    // From here on the file is sound, whatever becomes of the bytes behind its end.
    if (fdatasync(fd) != 0)
        return TMF_EWRITE_DATA;
    const off_t end = static_cast<uint32_t>(survey->common.write_offset);
    unsigned char mark[TMF_END_MARK_SIZE];
    put_be16(mark, TMF_END_MARK);
    if (ftruncate(fd, end) != 0)
        return TMF_ETRUNCATE;
    if (pwrite(fd, mark, sizeof(mark), end) != ssize_t{sizeof(mark)} || fdatasync(fd) != 0)
        return TMF_EWRITE_DATA;
    return 0;
}

static int repair_file(int fd, const char *aside, tmf_survey *survey)
{
    const tmf_check_result &r = survey->result;
    if (r.found == 0 && r.sound == r.end)
        return 0;
    const int code = aside == nullptr ? 0 : copy_aside(fd, aside, &survey->result);
    return code != 0 ? code : mend_file(fd, survey);
}

// ---- the calls

// Runs the survey, and then the repair, with the common lock held.
static int on_locked_file(const char *path, int keep_end, const char *aside, bool repair,
                          tmf_check_result *result)
{
    tmf_check_result unwanted;
    if (result == nullptr)
        result = &unwanted;
    *result = tmf_check_result{};
    if (path == nullptr || *path == '\0' || (aside != nullptr && *aside == '\0'))
        return TMF_ENONAME;
    // Not to wait for the writer of a pipe.
    int fd = open(path, O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd >= 0)
        fd = tmf_above_standard(fd);
    if (fd < 0)
        return tmf_os_error(nullptr, TMF_EOPEN, errno);
    tmf_survey survey = {};
    int code = tmf_wait_common(fd, tmf_seeking_row);
    struct stat about = {};
    if (code == TMF_EHANDLE && fstat(fd, &about) == 0 && !S_ISREG(about.st_mode))
        code = TMF_ENOTMSG; // a pipe has no places to lock
    if (code == 0) {
        code = tmf_survey_file(fd, keep_end, &survey);
        if (code == 0 && repair)
            code = repair_file(fd, aside, &survey);
        *result = survey.result;
        const int unlock_code = tmf_seeking_row.unlock(fd, 0, TMF_COMMON_SIZE);
        if (code == 0)
            code = unlock_code;
    }
    (void)close(fd); // what was changed is on the disk
    return code;
}

int tmf_check(const char *path, tmf_check_result *result)
{
    const int code = on_locked_file(path, 0, nullptr, false, result);
    if (code != 0)
        tmf_set_error(nullptr, code);
    return code;
}

int tmf_repair(const char *path, int keep_end, const char *aside, tmf_check_result *result)
{
    const int code = on_locked_file(path, keep_end, aside, true, result);
    if (code != 0)
        tmf_set_error(nullptr, code);
    return code;
}
