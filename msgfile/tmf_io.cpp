// File work: the two rows.
#include "msgfile/tmf_io.h"

#include "msgfile/tmf_lock.h"

#include <unistd.h>

// ---- seeking

// Goes to offset at: 0, or a code.
static int seek(int fd, int32_t at, const tmf_io_codes &codes)
{
    const off_t reached = lseek(fd, at, SEEK_SET);
    if (reached < 0)
        return codes.no_place;
    return reached == at ? 0 : codes.elsewhere;
}

static ssize_t seek_and_read(int fd, int32_t at, void *buf, size_t n, const tmf_io_codes &codes)
{
    const int code = seek(fd, at, codes);
    if (code != 0)
        return code;
    const ssize_t got = read(fd, buf, n);
    return got < 0 ? codes.failed : got;
}

static ssize_t seek_and_write(int fd, int32_t at, const void *buf, size_t n,
                              const tmf_io_codes &codes)
{
    const int code = seek(fd, at, codes);
    if (code != 0)
        return code;
    const ssize_t written = write(fd, buf, n);
    return written < 0 ? codes.failed : written;
}

const tmf_file_row tmf_seeking_row = {
    .lock_wait = tf_lock_file_wait,
    .unlock = tf_unlock_file,
    .read = seek_and_read,
    .write = seek_and_write,
};

// ---- positioned

static ssize_t read_positioned(int fd, int32_t at, void *buf, size_t n, const tmf_io_codes &codes)
{
    if (at < 0)
        return codes.no_place;
    const ssize_t got = pread(fd, buf, n, at);
    return got < 0 ? codes.failed : got;
}

static ssize_t write_positioned(int fd, int32_t at, const void *buf, size_t n,
                                const tmf_io_codes &codes)
{
    if (at < 0)
        return codes.no_place;
    const ssize_t written = pwrite(fd, buf, n, at);
    return written < 0 ? codes.failed : written;
}

const tmf_file_row tmf_positioned_row = {
    .lock_wait = tf_lock_range_wait,
    .unlock = tf_unlock_range,
    .read = read_positioned,
    .write = write_positioned,
};
