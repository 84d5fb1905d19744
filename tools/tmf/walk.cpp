// Walking over frames.  A frame that is wrong is passed over to the next one that is whole and
// that a second witness confirms, since bytes of data can look like a frame: the wrong one's own
// length, the end marker right in front of it, or the frame behind it.
#include "tools/tmf/walk.h"

#include "msgfile/tmf.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// Bytes read at once; what a step looks at, and the frame in front of it, fit in often.
static constexpr int64_t window_size = 1024 * 1024;

// A step looks at a frame and the one behind it.
static constexpr int64_t step_size = 2 * int64_t{TMF_MAX_FRAME} + TMF_END_MARK_SIZE;
static_assert(TMF_MAX_FRAME + step_size < window_size);

// ---- bytes

static int be16(std::string_view bytes, size_t at)
{
    return static_cast<unsigned char>(bytes[at]) << 8 | static_cast<unsigned char>(bytes[at + 1]);
}

// Has the bytes from at on that a step may look at; fewer where the file ends.
static outcome view(tmft_walk &walk, int64_t at, std::string_view &bytes)
{
    const int64_t wanted = std::clamp<int64_t>(walk.size - at, 0, step_size);
    const auto held = static_cast<int64_t>(walk.held.size());
    if (at < walk.held_at || at + wanted > walk.held_at + held) {
        // With the frame in front of it.
        walk.held_at = std::max<int64_t>(at - TMF_MAX_FRAME, 0);
        walk.held.resize(window_size);
        const ssize_t got = pread(walk.fd, walk.held.data(), walk.held.size(), walk.held_at);
        const int read_errno = errno;
        walk.held.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
        if (got < 0)
            return outcome_bad("reading at " + std::to_string(at) + ": " + strerror(read_errno));
    }
    // A file that was cut meanwhile has fewer.
    const auto from = std::min(static_cast<size_t>(at - walk.held_at), walk.held.size());
    bytes = std::string_view(walk.held).substr(from, static_cast<size_t>(wanted));
    return {};
}

// ---- frames

static bool is_length(int length)
{
    return length > TMF_FRAME_SIZE && length <= TMF_MAX_FRAME;
}

// Length of the frame that the bytes begin with, where both its lengths agree; else 0.
static int whole_frame(std::string_view bytes)
{
    if (bytes.size() < TMF_FRAME_SIZE)
        return 0;
    const int length = be16(bytes, TMF_FRAME_LENGTH_AT);
    const auto end = static_cast<size_t>(length);
    return is_length(length) && end <= bytes.size() &&
                   be16(bytes, end - TMF_FRAME_TRAILER_SIZE) == length
               ? length
               : 0;
}

static bool is_user(int user)
{
    return user >= 1 && user <= TMF_MAX_READERS + TMF_MAX_WRITERS;
}

// The same of a frame that a user has written: one by which the walk finds its way.
static int sure_frame(std::string_view bytes)
{
    const int length = whole_frame(bytes);
    return length != 0 && is_user(be16(bytes, TMF_FRAME_USER_AT)) ? length : 0;
}

static bool is_mark(std::string_view bytes)
{
    return bytes.size() >= TMF_END_MARK_SIZE && be16(bytes, 0) == TMF_END_MARK;
}

// Whether at is where a record ends that the bytes begin behind.
static bool record_may_end(const tmft_walk &walk, int64_t at, std::string_view behind)
{
    return at == walk.end || (walk.by_mark && is_mark(behind)) ||
           (at < walk.end && sure_frame(behind) != 0);
}

// What is wrong with the frame that the bytes begin with.
static std::string wrong_frame(int64_t at, std::string_view bytes)
{
    if (bytes.size() < TMF_FRAME_SIZE)
        return "too few bytes for a record";
    const int length = be16(bytes, TMF_FRAME_LENGTH_AT);
    const std::string text = "the length of the record is " + std::to_string(length);
    if (!is_length(length))
        return text + ", which none has";
    const auto end = static_cast<size_t>(length);
    if (end > bytes.size())
        return text + ", the file has " + std::to_string(bytes.size()) + " bytes more";
    return text + ", behind it stands " + std::to_string(be16(bytes, end - 2)) + " at " +
           std::to_string(at + length - TMF_FRAME_TRAILER_SIZE);
}

// Whether an end marker stands right in front of the walk's place, which has been viewed, that
// leads back to the wrong frame, or to another one behind it, whose writer's number stands there.
static bool marker_points_back(const tmft_walk &walk, int64_t wrong_at)
{
    const std::string_view held = walk.held;
    const int64_t marker_at = walk.at - TMF_FRAME_TRAILER_SIZE;
    if (marker_at < std::max(wrong_at, walk.held_at))
        return false;
    const int length = be16(held, static_cast<size_t>(marker_at - walk.held_at));
    const int64_t start = walk.at - length;
    if (!is_length(length) || start < std::max(wrong_at, walk.held_at))
        return false;
    const auto user_at = static_cast<size_t>(start - walk.held_at) + TMF_FRAME_USER_AT;
    return start == wrong_at || is_user(be16(held, user_at));
}

// The first hole at or behind an offset; the file's size for none, or where the system does not
// tell.
static int64_t hole_behind(tmft_walk &walk, int64_t at)
{
    if (walk.hole < at) {
        const off_t hole = lseek(walk.fd, at, SEEK_HOLE);
        walk.hole = hole < 0 ? walk.size : int64_t{hole};
    }
    return walk.hole;
}

// Goes to the last byte of the hole that the walk is in, if it is in one.  Before that byte no
// frame begins: its length would be 0.
static void pass_hole(tmft_walk &walk)
{
    if (hole_behind(walk, walk.at) != walk.at)
        return;
    const off_t data = lseek(walk.fd, walk.at, SEEK_DATA);
    if (data >= 0 || errno == ENXIO) // nothing but the hole
        walk.at = std::max((data < 0 ? walk.size : int64_t{data}) - 1, walk.at);
}

// Goes on from a wrong frame to the next sure one, or to the end.
static outcome resynchronise(tmft_walk &walk)
{
    const int64_t wrong_at = walk.at;
    std::string_view bytes;
    if (outcome seen = view(walk, wrong_at, bytes); !seen)
        return seen;
    if (bytes.size() >= TMF_FRAME_SIZE) {
        const int length = be16(bytes, TMF_FRAME_LENGTH_AT);
        const auto end = static_cast<size_t>(length);
        if (is_length(length) && end <= bytes.size() &&
            record_may_end(walk, wrong_at + length, bytes.substr(end))) {
            walk.at = wrong_at + length;
            return {};
        }
    }
    for (walk.at = wrong_at + 1; walk.at < walk.end; walk.at++) {
        pass_hole(walk);
        if (outcome seen = view(walk, walk.at, bytes); !seen)
            return seen;
        const int length = sure_frame(bytes);
        if (length == 0 || walk.at + length > walk.end)
            continue;
        if (marker_points_back(walk, wrong_at) ||
            record_may_end(walk, walk.at + length, bytes.substr(static_cast<size_t>(length))))
            return {};
    }
    walk.at = walk.end;
    return {};
}

outcome tmft_next_piece(tmft_walk &walk, tmft_piece &piece)
{
    piece = {};
    piece.at = walk.at;
    if (walk.at >= walk.end)
        return {};
    std::string_view bytes;
    if (outcome seen = view(walk, walk.at, bytes); !seen)
        return seen;
    if (walk.by_mark && is_mark(bytes))
        return {};
    const int length = whole_frame(bytes);
    if (length == 0) {
        piece.kind = TMFT_PIECE_LOST;
        piece.wrong = wrong_frame(walk.at, bytes);
        outcome found = resynchronise(walk);
        piece.length = walk.at - piece.at;
        return found;
    }
    piece.length = length;
    walk.at += length;
    if (const int64_t hole = hole_behind(walk, piece.at); hole < walk.at) {
        piece.kind = TMFT_PIECE_LOST;
        piece.wrong = "a hole in the record, at " + std::to_string(std::max(hole, piece.at)) +
                      ", which never came to the disk";
        return {};
    }
    piece.kind = TMFT_PIECE_RECORD;
    piece.data = bytes.substr(TMF_FRAME_DATA_AT, static_cast<size_t>(length - TMF_FRAME_SIZE));
    if (const int user = be16(bytes, TMF_FRAME_USER_AT); !is_user(user))
        piece.wrong = "the record's writer is " + std::to_string(user) + ", which is none";
    if (walk.at > walk.end) {
        piece.wrong = "the record ends at " + std::to_string(walk.at) +
                      ", behind the end of the records, " + std::to_string(walk.end);
        walk.end = walk.size;
        walk.by_mark = true;
    }
    return {};
}

outcome tmft_walk_uncounted(tmft_walk &walk)
{
    if (walk.by_mark || walk.at != walk.end || walk.end <= TMF_DATA_START)
        return {};
    for (int64_t at = walk.end;;) {
        std::string_view bytes;
        if (outcome seen = view(walk, at, bytes); !seen)
            return seen;
        if (is_mark(bytes)) {
            walk.end = at;
            return {};
        }
        const int length = sure_frame(bytes);
        if (length == 0)
            return {};
        at += length;
    }
}

// ---- the beginning

int64_t tmft_stated_end(const tmft_facts &facts)
{
    // A file that has passed 2 GiB shows it as a negative number.
    const int32_t stated = facts.common.write_offset;
    const auto end = int64_t{static_cast<uint32_t>(stated)};
    return stated >= 0 || end <= facts.size ? end : stated;
}

tmft_walk tmft_walk_by_area(int fd, const tmft_facts &facts)
{
    tmft_walk walk;
    walk.fd = fd;
    walk.size = facts.size;
    walk.end = tmft_stated_end(facts);
    if (walk.end < TMF_DATA_START) {
        walk.by_mark = true;
        walk.end = walk.size;
    }
    walk.end = std::min(walk.end, walk.size);
    const int64_t first = facts.common.read_offset;
    walk.at = first >= TMF_DATA_START && first <= walk.end ? first : int64_t{TMF_DATA_START};
    return walk;
}

outcome tmft_walk_without_area(tmft_walk &walk, int fd, int64_t size)
{
    walk = {};
    walk.fd = fd;
    walk.size = walk.end = size;
    walk.at = TMF_DATA_START;
    walk.by_mark = true;
    std::string_view bytes;
    if (outcome seen = view(walk, walk.at, bytes); !seen)
        return seen;
    const int length = sure_frame(bytes);
    if (length != 0 &&
        record_may_end(walk, walk.at + length, bytes.substr(static_cast<size_t>(length))))
        return {};
    return outcome_bad(tmf_strerror(TMF_ENOTMSG));
}

outcome tmft_open_still(int &fd, const char *file)
{
    // Not to wait for the writer of a pipe.
    fd = open(file, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat about;
    if (fd < 0 || fstat(fd, &about) != 0)
        return outcome_bad(strerror(errno));
    if (!S_ISREG(about.st_mode))
        return outcome_bad(tmf_strerror(TMF_ENOTMSG));
    // The users lock it for writing, a reading lock keeps them out and needs no right to write.
    struct flock range = {};
    range.l_type = F_RDLCK;
    range.l_whence = SEEK_SET;
    range.l_len = TMF_COMMON_SIZE;
    return fcntl(fd, F_SETLKW, &range) == 0 ? outcome() : outcome_bad(strerror(errno));
}
