// Looking at a message file from outside: no lock is taken, so that a file can be looked at
// that somebody holds.  Numbers of the file are checked before they place a read.
#include "tools/tmf/look.h"

#include "msgfile/tmf.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// Looks at a file that is being written until two agree; a file that never rests
// so long is shown as it was last.
static constexpr int most_looks = 100;

// ---- the format

bool tmft_bit(const unsigned char *map, int i)
{
    return (map[i / 8] >> (i % 8) & 1) != 0;
}

int tmft_slots(int stated, int most)
{
    return std::clamp(stated, 0, most);
}

int tmft_port(const tmf_common &common, int i)
{
    const int stored = common.signal_ports[i][0] << 8 | common.signal_ports[i][1];
    return stored != 0 ? stored : TMF_PORT_BASE + i;
}

static void reverse(void *bytes, size_t n)
{
    auto *const first = static_cast<unsigned char *>(bytes);
    std::reverse(first, first + n);
}

// Brings an area of the other byte order into this host's.
static void turn_around(tmf_common &common)
{
    for (const tmf_word &word : TMF_HOST_WORDS)
        reverse(reinterpret_cast<unsigned char *>(&common) + word.at, word.width);
}

// What an open would say of an area in this host's order.  0 or a code.
static int check_area(const tmf_common &common, bool was_other_order)
{
    if (memcmp(common.magic, TMF_MAGIC, sizeof(TMF_MAGIC)) != 0)
        return TMF_ENOTMSG;
    if (common.byte_order_mark != TMF_BYTE_ORDER_MARK)
        return TMF_EINCOMPATIBLE;
    return was_other_order || common.format_version == TMF_FORMAT_VERSION ? 0 : TMF_EFORMAT;
}

// ---- locks

struct lock_test {
    tmft_lock lock;
    pid_t holder;
};

// Asks who would keep this process from locking the bytes; takes no lock.
static lock_test test_lock(int fd, int64_t at, int64_t length)
{
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = at;
    range.l_len = length;
    if (fcntl(fd, F_GETLK, &range) != 0)
        return {TMFT_LOCK_UNKNOWN, 0};
    if (range.l_type == F_UNLCK)
        return {TMFT_LOCK_FREE, 0};
    return {TMFT_LOCK_HELD, std::max<pid_t>(range.l_pid, 0)};
}

// ---- users

// The slot's place in the file, or -1 when it is outside the bytes between the
// common area and the records.
static int64_t slot_offset(const tmf_common &common, int id, bool is_reader)
{
    // A writer's slot, too, is found by the size of a reader's; the sum wraps.
    const int64_t slot = is_reader ? id : int64_t{common.max_readers} + id;
    const auto at = static_cast<int32_t>(common.lock_area_offset + slot * common.reader_slot_size);
    const int64_t width = is_reader ? common.reader_slot_size : common.writer_slot_size;
    return width > 0 && at >= TMF_COMMON_SIZE && at + width <= common.data_start ? at : -1;
}

static tmft_user look_at_user(int fd, const tmft_facts &facts, int id, bool is_reader)
{
    tmft_user user;
    user.slot = id;
    const int64_t at = slot_offset(facts.common, id, is_reader);
    if (at < 0)
        return user;
    const int64_t width = is_reader ? facts.common.reader_slot_size : facts.common.writer_slot_size;
    const lock_test test = test_lock(fd, at, width);
    user.lock = test.lock;
    user.holder = test.holder;
    int32_t pid = 0;
    if (width >= int64_t{sizeof(pid)} && pread(fd, &pid, sizeof(pid), at) == ssize_t{sizeof(pid)}) {
        if (facts.other_order)
            reverse(&pid, sizeof(pid));
        user.pid = pid;
    }
    return user;
}

static std::vector<tmft_user> look_at_users(int fd, const tmft_facts &facts,
                                            const unsigned char *map, int slots, bool is_reader)
{
    std::vector<tmft_user> users;
    for (int id = 0; id < slots; id++) {
        if (tmft_bit(map, id))
            users.push_back(look_at_user(fd, facts, id, is_reader));
    }
    return users;
}

// ---- damage

static std::string range_text(int64_t from, int64_t to)
{
    return std::to_string(from) + " to " + std::to_string(to);
}

static void check_records(tmft_facts &facts)
{
    const tmf_common &common = facts.common;
    if (common.read_offset < common.data_start || common.read_offset > common.write_offset) {
        facts.damage.push_back("the oldest record at " + std::to_string(common.read_offset) +
                               " is outside the records from " +
                               range_text(common.data_start, common.write_offset));
        return;
    }
    // Without a record nothing is missing: its maker was killed before the slots were there.
    if (common.write_offset > facts.size && common.write_offset > common.data_start)
        facts.damage.push_back("cut off: the records end at " +
                               std::to_string(common.write_offset) + ", the file at " +
                               std::to_string(facts.size));
    const int64_t used = int64_t{common.write_offset} - common.read_offset;
    const int64_t count = common.record_count;
    if (count < 0 || (count == 0) != (used == 0) || count * TMF_FRAME_SIZE > used)
        facts.damage.push_back(std::to_string(count) + " records cannot be " +
                               std::to_string(used) + " bytes");
}

static void check_users(tmft_facts &facts, const char *kind, int count,
                        const std::vector<tmft_user> &users)
{
    if (count != static_cast<int>(users.size()))
        facts.damage.push_back(std::to_string(count) + " " + kind + " are counted, " +
                               std::to_string(users.size()) + " have a slot");
    const bool lost = std::any_of(users.begin(), users.end(), [](const tmft_user &user) {
        return user.lock == TMFT_LOCK_UNKNOWN;
    });
    if (lost)
        facts.damage.push_back(std::string("slots of ") + kind + " are outside the lock area");
}

static void find_damage(tmft_facts &facts)
{
    const tmf_common &common = facts.common;
    if (common.format_version != TMF_FORMAT_VERSION)
        facts.damage.push_back("records in the unknown format " +
                               std::to_string(common.format_version));
    check_records(facts);
    check_users(facts, "readers", common.num_readers, facts.readers);
    check_users(facts, "writers", common.num_writers, facts.writers);
}

// ---- the file

// Reads the common area and the file's size.  The number of bytes of the area,
// or -1 with errno set.
static ssize_t read_area(int fd, tmft_facts &facts)
{
    struct stat about;
    tmf_common again = {};
    ssize_t got = pread(fd, &facts.common, sizeof(facts.common), 0);
    for (int looks = 0; got >= 0; looks++) {
        if (fstat(fd, &about) != 0)
            return -1;
        facts.size = about.st_size;
        got = pread(fd, &again, sizeof(again), 0);
        if (looks == most_looks || memcmp(&again, &facts.common, sizeof(again)) == 0)
            break;
        facts.common = again;
    }
    return got;
}

outcome tmft_look_at(int fd, tmft_facts &facts)
{
    struct stat about;
    if (fstat(fd, &about) != 0)
        return outcome_bad(strerror(errno));
    if (!S_ISREG(about.st_mode))
        return outcome_bad(tmf_strerror(TMF_ENOTMSG));
    const ssize_t got = read_area(fd, facts);
    if (got < 0)
        return outcome_bad(strerror(errno));
    facts.other_order = facts.common.byte_order_mark == TMF_BYTE_ORDER_OTHER;
    if (facts.other_order)
        turn_around(facts.common);
    int code = check_area(facts.common, facts.other_order);
    if (code == 0 && got < TMF_COMMON_SIZE)
        code = TMF_EREAD_COMMON_EOF;
    if (code != 0)
        return outcome_bad(tmf_strerror(code));
    const tmf_common &common = facts.common;
    const lock_test test = test_lock(fd, 0, TMF_COMMON_SIZE);
    facts.common_locked = test.lock == TMFT_LOCK_HELD;
    facts.common_holder = test.holder;
    facts.readers = look_at_users(fd, facts, common.reader_map,
                                  tmft_slots(common.max_readers, TMF_MAX_READERS), true);
    facts.writers = look_at_users(fd, facts, common.writer_map,
                                  tmft_slots(common.max_writers, TMF_MAX_WRITERS), false);
    find_damage(facts);
    return {};
}

outcome tmft_look(tmft_facts &facts, const char *path)
{
    // Not to wait for the writer of a pipe.
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return outcome_bad(strerror(errno));
    outcome looked = tmft_look_at(fd, facts);
    close(fd);
    return looked;
}
