// Reading a message file without the library, and judging it.
#include "tests/procs/message_view.h"

#include "tests/msgfile/other_process.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

static uint32_t be16_at(const std::string &bytes, size_t at)
{
    return static_cast<uint32_t>(static_cast<unsigned char>(bytes[at])) << 8 |
           static_cast<unsigned char>(bytes[at + 1]);
}

static bool bit(const unsigned char *map, int b)
{
    return (map[b / 8] >> b % 8 & 1) != 0;
}

static bool is_registered(const tmf_common &common, int slot)
{
    return slot < TMF_MAX_READERS ? bit(common.reader_map, slot)
                                  : bit(common.writer_map, slot - TMF_MAX_READERS);
}

static off_t slot_offset(int slot)
{
    return off_t{TMF_LOCK_AREA_OFFSET} + off_t{slot} * TMF_SLOT_SIZE;
}

// The process id in a slot.  A file whose making was interrupted may end before it.
static pid_t slot_pid(const message_view &view, int slot)
{
    const off_t at = slot_offset(slot);
    int32_t pid = 0;
    if (static_cast<off_t>(view.bytes.size()) >= at + TMF_SLOT_SIZE)
        memcpy(&pid, view.bytes.data() + at, sizeof(pid));
    return pid;
}

// ---- looking

static pid_t holder(int fd, off_t at, off_t length)
{
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = at;
    range.l_len = length;
    if (fcntl(fd, F_GETLK, &range) != 0)
        throw std::runtime_error("cannot test a lock");
    return range.l_type == F_UNLCK ? 0 : range.l_pid;
}

static void lock_common(int fd)
{
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_len = TMF_COMMON_SIZE;
    if (fcntl(fd, F_SETLKW, &range) != 0)
        throw std::runtime_error("cannot lock the common area");
}

static std::string all_bytes(int fd)
{
    struct stat info;
    if (fstat(fd, &info) != 0)
        throw std::runtime_error("no file");
    std::string bytes(static_cast<size_t>(info.st_size), '\0');
    if (pread(fd, bytes.data(), bytes.size(), 0) != info.st_size)
        throw std::runtime_error("cannot read the file");
    return bytes;
}

message_view look(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        throw std::runtime_error("cannot open " + path);
    message_view view = {};
    lock_common(fd);
    view.bytes = all_bytes(fd);
    view.holders.reserve(SLOTS);
    for (int slot = 0; slot < SLOTS; slot++)
        view.holders.push_back(holder(fd, slot_offset(slot), TMF_SLOT_SIZE));
    close(fd); // which unlocks it
    memcpy(&view.common, view.bytes.data(), std::min(view.bytes.size(), sizeof(view.common)));
    return view;
}

std::vector<pid_t> registered(const message_view &view)
{
    std::vector<pid_t> pids;
    for (int slot = 0; slot < SLOTS; slot++)
        if (is_registered(view.common, slot))
            pids.push_back(slot_pid(view, slot));
    return pids;
}

std::vector<std::string> records_of(const message_view &view)
{
    std::vector<std::string> records;
    size_t at = static_cast<size_t>(view.common.read_offset);
    while (at < static_cast<size_t>(view.common.write_offset)) {
        const size_t length = be16_at(view.bytes, at);
        records.push_back(view.bytes.substr(at + TMF_FRAME_DATA_AT, length - TMF_FRAME_SIZE));
        at += length;
    }
    return records;
}

bool is_waiting(const std::string &path, int slot)
{
    const message_view view = look(path);
    // From its entry in the list on nothing but the wait puts a reader to sleep.
    return bit(view.common.wait_list, slot) && is_asleep(view.holders[static_cast<size_t>(slot)]);
}

// ---- judging

struct judge {
    const message_view &view;
    const killed_users &killed;
    std::ostringstream faults;

    void expect(bool sound, const std::string &fault)
    {
        if (!sound)
            faults << fault << '\n';
    }
};

static void judge_header(judge &j)
{
    const tmf_common &c = j.view.common;
    j.expect(j.view.bytes.size() >= sizeof(c), "file shorter than the common area");
    j.expect(c.byte_order_mark == 0xFEFF && memcmp(c.magic, "TM01", 4) == 0 &&
                 c.common_size == 256 && c.lock_area_size == 4096 && c.data_start == 4352 &&
                 c.lock_area_offset == 256 && c.max_readers == 16 && c.max_writers == 1008 &&
                 c.format_version == 2 && c.writer_slot_size == 4 && c.reader_slot_size == 4,
             "fixed fields changed");
    j.expect(std::all_of(c.file_stamp, c.file_stamp + TMF_STAMP_SIZE,
                         [](char digit) { return strchr("0123456789abcdef", digit) != nullptr; }),
             "no stamp");
}

static void judge_users(judge &j)
{
    const tmf_common &c = j.view.common;
    int readers = 0;
    int writers = 0;
    for (int slot = 0; slot < SLOTS; slot++) {
        const std::string name = "slot " + std::to_string(slot);
        const pid_t pid = slot_pid(j.view, slot);
        const pid_t holder = j.view.holders[static_cast<size_t>(slot)];
        if (is_registered(c, slot)) {
            (slot < TMF_MAX_READERS ? readers : writers)++;
            j.expect(holder != 0, name + " is taken and not locked");
            j.expect(holder == pid, name + " holds " + std::to_string(pid) + ", locked by " +
                                        std::to_string(holder));
            continue;
        }
        j.expect(holder == 0, name + " is free and locked by " + std::to_string(holder));
        // A user that dies between its slot and its registration leaves its
        // process id there until somebody takes the slot.
        const auto &dead = j.killed.pids;
        j.expect(pid == 0 || std::find(dead.begin(), dead.end(), pid) != dead.end(),
                 name + " is free and holds " + std::to_string(pid));
        j.expect(slot >= TMF_MAX_READERS || !bit(c.wait_list, slot), name + " is free and waits");
    }
    j.expect(c.num_readers == readers,
             "num_readers " + std::to_string(c.num_readers) + " of " + std::to_string(readers));
    j.expect(c.num_writers == writers,
             "num_writers " + std::to_string(c.num_writers) + " of " + std::to_string(writers));
    // At most the one who asked for it is registered behind an exclusive flag.
    j.expect((c.flags & TMF_FLAG_READER_EXCLUSIVE) == 0 || readers == 1, "readers' flag left");
    j.expect((c.flags & TMF_FLAG_WRITER_EXCLUSIVE) == 0 || writers == 1, "writers' flag left");
}

// Behind the newest record: the end mark, or what a killed writer had begun to
// write over it, up to the end of some page at least.
static bool is_end(const message_view &view, size_t at, const std::vector<std::string> &records)
{
    const size_t there = std::min(view.bytes.size() - at, 4096 - at % 4096);
    const std::string rest = view.bytes.substr(at, there);
    if (rest.compare(0, 2, std::string("\xFF\xFF").substr(0, rest.size())) == 0)
        return !rest.empty();
    return std::any_of(records.begin(), records.end(), [&](const std::string &data) {
        const size_t length = data.size() + TMF_FRAME_SIZE;
        const char frame[2] = {static_cast<char>(length >> 8), static_cast<char>(length)};
        std::string expected = std::string(frame, 2) + rest.substr(std::min<size_t>(2, there), 2) +
                               data + std::string(frame, 2) + "\xFF\xFF";
        expected.resize(std::min(expected.size(), there));
        return rest.compare(0, expected.size(), expected) == 0;
    });
}

static void judge_records(judge &j)
{
    const tmf_common &c = j.view.common;
    const std::string &bytes = j.view.bytes;
    if (c.record_count == 0) {
        j.expect(c.read_offset == 4352 && c.write_offset == 4352, "empty, but positions not reset");
        return;
    }
    if (c.read_offset < 4352 || c.write_offset < c.read_offset ||
        static_cast<size_t>(c.write_offset) > bytes.size()) {
        j.expect(false, "positions " + std::to_string(c.read_offset) + " and " +
                            std::to_string(c.write_offset) + " in a file of " +
                            std::to_string(bytes.size()));
        return;
    }
    j.expect(c.high_water >= c.write_offset, "high_water below the newest record");
    size_t at = static_cast<size_t>(c.read_offset);
    const size_t end = static_cast<size_t>(c.write_offset);
    int count = 0;
    while (at < end) {
        const size_t length = end - at < 7 ? 0 : be16_at(bytes, at);
        if (length < 7 || length > 32767 || at + length > end ||
            be16_at(bytes, at + length - 2) != length) {
            j.expect(false, "no record at " + std::to_string(at));
            return;
        }
        const uint32_t user = be16_at(bytes, at + 2);
        j.expect(user >= 17 && user <= 1024, "no writer's record at " + std::to_string(at));
        at += length;
        count++;
    }
    j.expect(count == c.record_count,
             std::to_string(count) + " records, count " + std::to_string(c.record_count));
    j.expect(is_end(j.view, end, j.killed.records), "no end mark at " + std::to_string(end));
}

std::string faults_of(const message_view &view, const killed_users &killed)
{
    judge j = {view, killed, {}};
    judge_header(j);
    judge_users(j);
    judge_records(j);
    return j.faults.str();
}
