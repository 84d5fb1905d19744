// What is done at a log's end by whoever writes there.
#include "fwutil/fwu_log_end.h"

#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

int fwu_log_end_mode(const std::string &directory, int log_mode, mode_t &mode)
{
    struct stat st = {};
    if (stat(directory.c_str(), &st) != 0)
        return fwu_file_error(directory, "cannot open the log directory");
    mode = log_mode >= 0 ? static_cast<mode_t>(log_mode) : 0600 | (st.st_mode & 0666);
    return 0;
}

int fwu_log_end_directory(fwu_log_end &log, int log_mode)
{
    const auto mode = static_cast<mode_t>(log_mode >= 0 ? log_mode : 0600);
    if (mkdir(log.directory.c_str(), 0700) == 0)
        (void)chmod(log.directory.c_str(), mode | (mode & 0444) >> 2); // who reads may enter
    else if (errno != EEXIST)
        return fwu_file_error(log.directory, "cannot create the log directory");
    return fwu_log_end_mode(log.directory, log_mode, log.file_mode);
}

static int lock_error(const std::string &path, int fd)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (errno != EACCES && errno != EAGAIN)
        return fwu_file_error(path, "cannot lock the log for writing");
    if (fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK)
        return fwu_error("%s: another writer, process %ld, has the log open; stop it first",
                         path.c_str(), static_cast<long>(lock.l_pid));
    return fwu_error("%s: another writer has the log open; stop it first", path.c_str());
}

int fwu_log_end_lock(const std::string &directory, mode_t mode)
{
    const std::string path = directory + "/writer.lock";
    const int fd = fwu_file_open(path, O_RDWR, fwu_file_lock_mode(mode));
    if (fd < 0)
        return fwu_file_error(path, "cannot open the writer's lock file");
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &lock) == 0)
        return fd;
    (void)lock_error(path, fd);
    close(fd);
    return -1;
}

int fwu_log_end_cut_tail(fwu_log_end &log)
{
    if (ftruncate(log.fd, log.end) != 0) {
        log.torn = true;
        return fwu_file_error(log.file.path,
                              "cannot cut the log file back to its last transaction");
    }
    log.torn = false;
    return 0;
}

int fwu_log_end_put_header(fwu_log_end &log, int fd, const fwu_log_file &file,
                           fwu_file_header &header)
{
    unsigned char bytes[FWU_FILE_HEADER_SIZE];
    if (!fwu_identity_known(log.identity) &&
        fwu_random(log.identity.bytes, sizeof log.identity.bytes) != 0)
        return -1;
    if (fwu_random(header.salt.data(), header.salt.size()) != 0)
        return -1;
    header.version = FWU_VERSION_SALTED;
    header.identity = log.identity;
    header.big_endian = log.big_endian;
    header.encoding = log.encoding;
    header.generation = file.generation;
    header.sequence = file.sequence;
    header.created_us = fwu_now_us();
    fwu_file_header_put(bytes, header);
    if (fwu_write_all(fd, bytes, sizeof bytes, 0) != 0)
        return fwu_file_error(file.path, "cannot create the log file");
    return 0;
}

static int put_given_header(int fd, const fwu_log_file &file, const fwu_file_header &header)
{
    unsigned char bytes[FWU_FILE_HEADER_SIZE];
    fwu_file_header_put(bytes, header);
    if (fwu_write_all(fd, bytes, sizeof bytes, 0) != 0)
        return fwu_file_error(file.path, "cannot create the log file");
    return 0;
}

int fwu_log_end_begin_file(fwu_log_end &log, const fwu_file_number &number,
                           const fwu_file_header *given)
{
    fwu_log_file file;
    file.generation = number.generation;
    file.sequence = number.sequence;
    if (file.generation > FWU_GENERATION_MAX)
        return fwu_error("%s: the log has used all its file numbers", log.directory.c_str());
    file.name = fwu_log_file_name(file.generation, file.sequence);
    file.path = log.directory + "/" + file.name;
    const std::string temporary = log.directory + "/new-log-file";
    if (log.fd >= 0 && fwu_log_end_sync(log) != 0)
        return -1;
    const int fd = fwu_file_anew(temporary, O_RDWR, log.file_mode);
    if (fd < 0)
        return fwu_file_error(temporary, "cannot create a log file");
    fwu_file_header header = given == nullptr ? fwu_file_header() : *given;
    int result = given == nullptr ? fwu_log_end_put_header(log, fd, file, header)
                                  : put_given_header(fd, file, header);
    if (result == 0 && fdatasync(fd) != 0)
        result = fwu_file_error(file.path, "cannot bring the log file to disk");
    if (result == 0 && (!log.have_ack || log.synced.position != log.acked.position))
        result = fwu_log_end_keep(log);
    if (result == 0 && rename(temporary.c_str(), file.path.c_str()) != 0)
        result = fwu_file_error(file.path, "cannot create the log file");
    if (result != 0) {
        close(fd);
        (void)unlink(temporary.c_str()); // the next attempt would truncate it
        return result;
    }
    if (log.fd >= 0)
        close(log.fd);
    log.fd = fd;
    log.file = file;
    log.header = header;
    log.end = FWU_FILE_HEADER_SIZE;
    log.last_tag = 0;
    log.torn = false;
    log.new_name = true;
    fwu_layouts_clear(log.layouts);
    return 0;
}

void fwu_log_end_advance(fwu_log_end &log, int64_t bytes, int32_t tag, const fwu_commit &commit)
{
    log.end += bytes;
    log.last_tag = tag;
    log.last = commit;
    log.here.position = {log.file.generation, log.file.sequence, log.last_tag};
    log.here.end = log.end;
    log.here.commit = commit;
    log.unsynced = true;
}

// Nothing counts as logged any more, neither here nor in the next run before the
// file has been written again.
static int sync_failed(fwu_log_end &log, int result)
{
    log.sync_failed = true;
    const std::string mark = log.directory + "/" + FWU_SYNC_FAILED;
    const int fd = fwu_file_open(mark, O_WRONLY, log.file_mode);
    if (fd >= 0)
        close(fd);
    return result;
}

static int sync_file(fwu_log_end &log)
{
    if (fdatasync(log.fd) == 0)
        return 0;
    return sync_failed(log, fwu_file_error(log.file.path, "cannot bring the log file to disk"));
}

int fwu_log_end_sync(fwu_log_end &log)
{
    if (log.sync_failed)
        return fwu_error("%s: the log file could not be brought to disk before; start anew",
                         log.file.path.c_str());
    if (log.fd >= 0 && sync_file(log) != 0)
        return -1;
    if (log.new_name && fwu_directory_sync(log.directory) != 0)
        return sync_failed(log, -1);
    log.new_name = false;
    log.unsynced = false;
    log.synced = log.here;
    log.synced_lsn = log.last.lsn;
    return 0;
}

int fwu_log_end_keep(fwu_log_end &log)
{
    // A log of version 1 has no identity; the first file of version 2 takes this one.
    if (!fwu_identity_known(log.identity) &&
        fwu_random(log.identity.bytes, sizeof log.identity.bytes) != 0)
        return -1;
    fwu_ack next = log.synced;
    next.identity = log.identity;
    next.number = log.acked.number;
    next.lost = log.acked.lost;
    next.commit.lsn = std::max(next.commit.lsn, log.acked.lost ? log.acked.commit.lsn : 0);
    const int result = log.have_ack ? fwu_ack_write(log.directory, next)
                                    : fwu_ack_create(log.directory, next, log.file_mode);
    if (result != 0)
        return result;
    log.acked = next;
    log.have_ack = true;
    return 0;
}

int fwu_log_end_acknowledge(fwu_log_end &log)
{
    return log.synced.position == log.acked.position ? 0 : fwu_log_end_keep(log);
}
