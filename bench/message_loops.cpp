// The file work of the message-file protocol, bare: lock the common area, read
// it, append or take one record, write it back, unlock.  No registration of the
// user, no wake-up, no checks; every failure aborts.  The order of the calls and
// the bytes that they move are the library's, and so is the file that they leave.
#include "bench/message_queue.h"
#include "msgfile/tmf.h"
#include "msgfile/tmf_layout.h"
#include "msgfile/tmu.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

// The user number of the first writer slot.
static constexpr uint16_t first_writer = TMF_MAX_READERS + 1;

// What a take reads first where it does not read as much as its buffer holds.
static constexpr int first_part = 4096;

struct bare_queue {
    int fd;
    tmf_common common;
    unsigned char frame[TMF_MAX_FRAME + TMF_END_MARK_SIZE];
};

static void must(bool done)
{
    if (!done)
        abort();
}

// Ten system calls an operation: each lock, unlock, read and write first seeks.
struct literal_io {
    static void lock(int fd, int command)
    {
        must(lseek(fd, 0, SEEK_SET) == 0 && lockf(fd, command, TMF_COMMON_SIZE) == 0);
    }
    static ssize_t read_at(int fd, void *bytes, int n, int32_t at)
    {
        must(lseek(fd, at, SEEK_SET) == at);
        return read(fd, bytes, static_cast<size_t>(n));
    }
    static ssize_t write_at(int fd, const void *bytes, int n, int32_t at)
    {
        must(lseek(fd, at, SEEK_SET) == at);
        return write(fd, bytes, static_cast<size_t>(n));
    }
};

// Five: every call names its place.
struct least_io {
    static void lock(int fd, int command)
    {
        struct flock range = {};
        range.l_type = command == F_LOCK ? F_WRLCK : F_UNLCK;
        range.l_whence = SEEK_SET;
        range.l_len = TMF_COMMON_SIZE;
        must(fcntl(fd, F_SETLKW, &range) == 0);
    }
    static ssize_t read_at(int fd, void *bytes, int n, int32_t at)
    {
        return pread(fd, bytes, static_cast<size_t>(n), at);
    }
    static ssize_t write_at(int fd, const void *bytes, int n, int32_t at)
    {
        return pwrite(fd, bytes, static_cast<size_t>(n), at);
    }
};

static void *bare_open(const char *path, bool /*reader*/)
{
    // Opening and closing makes the file where there is none.
    tmf_handle *maker = tmf_fopen(path, 0);
    must(maker != nullptr && tmf_fclose(maker) == 0);
    auto *queue = static_cast<bare_queue *>(malloc(sizeof(bare_queue)));
    must(queue != nullptr);
    queue->fd = open(path, O_RDWR | O_CLOEXEC);
    must(queue->fd >= 0);
    return queue;
}

static void bare_close(void *queue)
{
    must(close(static_cast<bare_queue *>(queue)->fd) == 0);
    free(queue);
}

template <typename io> static void bare_append(void *opaque, const void *record, int size)
{
    auto *queue = static_cast<bare_queue *>(opaque);
    tmf_common &common = queue->common;
    io::lock(queue->fd, F_LOCK);
    must(io::read_at(queue->fd, &common, TMF_COMMON_SIZE, 0) == TMF_COMMON_SIZE);

    const int length = size + TMF_FRAME_SIZE;
    unsigned char *frame = queue->frame;
    put_be16(frame, static_cast<uint16_t>(length));
    put_be16(frame + 2, first_writer);
    memcpy(frame + TMF_FRAME_DATA_AT, record, static_cast<size_t>(size));
    put_be16(frame + TMF_FRAME_DATA_AT + size, static_cast<uint16_t>(length));
    put_be16(frame + length, 0xFFFF);
    const int framed = length + TMF_END_MARK_SIZE;
    must(io::write_at(queue->fd, frame, framed, common.write_offset) == framed);

    common.record_count++;
    common.write_offset += length;
    common.high_water = std::max(common.high_water, common.write_offset);
    must(io::write_at(queue->fd, &common, TMF_COMMON_SIZE, 0) == TMF_COMMON_SIZE);
    io::lock(queue->fd, F_ULOCK);
}

static void empty_file(const bare_queue *queue, tmf_common *common)
{
    common->read_offset = common->data_start;
    common->write_offset = common->data_start;
    if (common->high_water > TMF_EMPTY_SIZE_LIMIT) {
        must(ftruncate(queue->fd, TMF_EMPTY_SIZE_LIMIT) == 0);
        common->high_water = common->write_offset;
    }
}

// The bytes that a take reads first; wanted is what its buffer and the frame hold.
template <bool short_first> static int first_read(const tmf_common &common, int wanted)
{
    if (short_first)
        return std::min({wanted, common.write_offset - common.read_offset, first_part});
    return wanted;
}

template <typename io, bool short_first = false>
static int bare_take(void *opaque, void *buf, int size)
{
    auto *queue = static_cast<bare_queue *>(opaque);
    tmf_common &common = queue->common;
    io::lock(queue->fd, F_LOCK);
    must(io::read_at(queue->fd, &common, TMF_COMMON_SIZE, 0) == TMF_COMMON_SIZE);
    if (common.record_count == 0) {
        io::lock(queue->fd, F_ULOCK);
        return 0;
    }

    unsigned char *frame = queue->frame;
    const int32_t at = common.read_offset;
    const int first = first_read<short_first>(common, size + TMF_FRAME_SIZE);
    const auto got = static_cast<int>(io::read_at(queue->fd, frame, first, at));
    must(got >= TMF_FRAME_SIZE);
    const int length = get_be16(frame);
    const int copied = std::min(length - TMF_FRAME_SIZE, size);
    const int rest = TMF_FRAME_DATA_AT + copied - got;
    if (short_first && rest > 0)
        must(io::read_at(queue->fd, frame + got, rest, at + got) == rest);
    memcpy(buf, frame + TMF_FRAME_DATA_AT, static_cast<size_t>(copied));

    common.read_offset += length;
    common.record_count--;
    if (common.record_count == 0)
        empty_file(queue, &common);
    must(io::write_at(queue->fd, &common, TMF_COMMON_SIZE, 0) == TMF_COMMON_SIZE);
    io::lock(queue->fd, F_ULOCK);
    return copied;
}

const queue_kind literal_queue = {.name = "literal",
                                  .open = bare_open,
                                  .append = bare_append<literal_io>,
                                  .take = bare_take<literal_io>,
                                  .close = bare_close};

const queue_kind least_queue = {.name = "least",
                                .open = bare_open,
                                .append = bare_append<least_io>,
                                .take = bare_take<least_io>,
                                .close = bare_close};

const queue_kind least_short_queue = {.name = "least, 4 KiB first",
                                      .open = bare_open,
                                      .append = bare_append<least_io>,
                                      .take = bare_take<least_io, true>,
                                      .close = bare_close};
