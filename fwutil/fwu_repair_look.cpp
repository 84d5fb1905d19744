// Entries behind damage.  Where one entry ends and the next one begins is not known
// there: each place where one may stand is looked at.
#include "fwutil/fwu_repair_look.h"

#include "fwutil/fwu_bytes.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_log.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr size_t WINDOW_SIZE = size_t{1} << 20;

struct scan {
    int fd = -1;
    int64_t size = 0; // of the file
    std::vector<unsigned char> window;
    int64_t at = 0;  // offset of the window
    size_t held = 0; // bytes in it
};

// The length bytes at an offset; null: the file ends there, or errno says why not.
static const unsigned char *look_at(scan &s, int64_t at, size_t length)
{
    errno = 0;
    if (at + static_cast<int64_t>(length) > s.size)
        return nullptr;
    if (at < s.at || at + static_cast<int64_t>(length) > s.at + static_cast<int64_t>(s.held)) {
        s.window.resize(std::max({s.window.size(), length, WINDOW_SIZE}));
        s.at = at;
        s.held = 0;
        while (s.held < length) {
            const ssize_t n = pread(s.fd, s.window.data() + s.held, s.window.size() - s.held,
                                    at + static_cast<int64_t>(s.held));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return nullptr;
            s.held += static_cast<size_t>(n);
        }
    }
    return s.window.data() + (at - s.at);
}

static void add_entry(fwu_lost &lost, const fwu_log_file &file, const fwu_entry &entry)
{
    fwu_change change;
    fwu_commit_entry commit;
    if (fwu_entry_change(entry, change))
        lost.records++;
    if (!fwu_entry_commit(entry, commit))
        return;
    lost.last = {file.generation, file.sequence, entry.tag};
    lost.last_lsn = commit.commit.lsn;
    if (lost.transactions++ == 0) {
        lost.first = lost.last;
        lost.first_lsn = lost.last_lsn;
    }
}

static int scan_entries(scan &s, fwu_lost &lost, const fwu_log_file &file,
                        const fwu_file_header &header, int64_t at)
{
    constexpr size_t tag_at = 8;
    const unsigned char *p = nullptr;
    while ((p = look_at(s, at, FWU_ENTRY_HEADER_SIZE)) != nullptr) {
        fwu_entry entry;
        const auto tag = static_cast<int32_t>(get_le32(p + tag_at)); // any will do
        const bool header_good = fwu_entry_header_get(entry, p, tag, header, at) == nullptr;
        if (header_good)
            p = look_at(s, at, fwu_entry_padded(entry.length));
        if (p == nullptr && errno != 0)
            break;
        if (header_good && p != nullptr && fwu_entry_body_get(entry, p, header, at) == nullptr) {
            add_entry(lost, file, entry);
            at += static_cast<int64_t>(fwu_entry_padded(entry.length));
        } else {
            at += FWU_ENTRY_ALIGN;
        }
    }
    return errno == 0 ? 0 : fwu_file_error(file.path, "cannot read the log file");
}

int fwu_lost_add(fwu_lost &lost, const fwu_log_file &file, int64_t offset)
{
    // Without its header a file of version 2 shows no commit: their checksums need it.
    fwu_file_header header;
    if (fwu_log_header(file, header) == FWU_FAILED)
        return -1;
    scan s;
    struct stat about = {};
    // As in fwu_cursor_try_open.
    s.fd = open(file.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    int result = 0;
    if (s.fd < 0 || fstat(s.fd, &about) != 0)
        result = fwu_file_error(file.path, "cannot open the log file");
    s.size = about.st_size;
    const int64_t from = std::max(offset, static_cast<int64_t>(FWU_FILE_HEADER_SIZE));
    if (result == 0)
        result = scan_entries(s, lost, file, header, from);
    if (s.fd >= 0)
        close(s.fd);
    return result;
}
