// Encoding and checking the text of a status file.
#include "fwutil/fwu_status_text.h"

#include "fwutil/fwu_boot.h"
#include "fwutil/fwu_crc32c.h"

#include <string_view>

static constexpr std::string_view FIRST_LINE = "fwutil status 2\n";
static constexpr std::string_view FIRST_LINE_1 = "fwutil status 1\n";
static constexpr std::string_view LOG_WORD = "log ";

std::string fwu_status_prefix(const std::string &log_directory)
{
    std::string prefix(FIRST_LINE);
    prefix.append(LOG_WORD).append(log_directory).append("\n");
    return prefix;
}

bool fwu_status_fits(const std::string &log_directory)
{
    return log_directory.find('\n') == log_directory.npos &&
           fwu_status_prefix(log_directory).size() + FWU_STATUS_LINES_SIZE <= FWU_STATUS_HEAD_MAX;
}

std::string fwu_status_put(const std::string &log_directory, const fwu_place &live,
                           const std::string &synced_text)
{
    std::string bytes = fwu_status_prefix(log_directory);
    fwu_status_line line;
    line.prefix_crc = fwu_crc32c(0, bytes.data(), bytes.size());
    const fwu_pointer pointer = {bytes.size() + FWU_STATUS_LINES_SIZE, synced_text.size(),
                                 fwu_crc32c(0, synced_text.data(), synced_text.size())};
    for (int number = 0; number < FWU_STATUS_LINES; number++) {
        fwu_status_line_set(line, number, live);
        bytes.append(line.text, sizeof line.text);
    }
    for (int number = 0; number < FWU_STATUS_LINES; number++)
        bytes += fwu_pointer_line(pointer, number, line.prefix_crc);
    return bytes + synced_text;
}

// The two lines of a kind, as far as they are whole.
template <typename T> struct line_pair {
    int number[FWU_STATUS_LINES] = {-1, -1}; // -1: not whole
    T value[FWU_STATUS_LINES];
    bool torn = false; // one of them is neither whole nor being changed

    // Index of the one written last; -1: none is whole.  What cannot be told from the
    // numbers is left to older(a, b).
    template <typename F> int newest(F older) const
    {
        if (number[0] < 0 || number[1] < 0)
            return number[0] >= 0 ? 0 : number[1] >= 0 ? 1 : -1;
        if ((number[0] + 1) % 10 == number[1])
            return 1;
        if ((number[1] + 1) % 10 == number[0])
            return 0;
        return older(value[0], value[1]) ? 0 : 1;
    }
    // Whether the numbers tell which one was written last.
    bool in_turn() const
    {
        return number[0] < 0 || number[1] < 0 || (number[0] + 1) % 10 == number[1] ||
               (number[1] + 1) % 10 == number[0];
    }
};

template <typename T, typename F>
static line_pair<T> get_pair(std::string_view bytes, size_t at, size_t size, uint32_t prefix_crc,
                             F get)
{
    line_pair<T> pair;
    for (size_t i = 0; i < FWU_STATUS_LINES; i++, at += size) {
        const std::string_view line =
            at < bytes.size() ? bytes.substr(at, size) : std::string_view();
        if (get(line, prefix_crc, pair.value[i]))
            pair.number[i] = line[0] - '0';
        else if (line.empty() || line[0] != FWU_STATUS_CHANGING)
            pair.torn = true;
    }
    pair.torn = pair.torn || !pair.in_turn();
    return pair;
}

static bool older_place(const fwu_place &a, const fwu_place &b)
{
    return a.position < b.position;
}

static void get_live(fwu_status_text &text, const line_pair<fwu_place> &pair)
{
    const int newest = pair.newest(older_place);
    text.have_live = newest >= 0;
    text.torn = text.torn || pair.torn;
    text.distrusted = newest < 0 && !pair.torn; // a kill leaves one line being changed
    if (newest < 0)
        return;
    text.live = pair.value[newest];
    text.live_number = pair.number[newest];
}

// Takes the newest synced text that is whole.  Each line is written a second time
// once the text is on disk, so that both name it; before that the older one does.
static void get_synced(fwu_status_text &text, std::string_view bytes,
                       const line_pair<fwu_pointer> &pair)
{
    const auto get = [&bytes](const fwu_pointer &pointer, fwu_synced &synced) {
        if (pointer.at > bytes.size() || pointer.length > bytes.size() - pointer.at)
            return false;
        const std::string_view part = bytes.substr(pointer.at, pointer.length);
        return fwu_crc32c(0, part.data(), part.size()) == pointer.crc &&
               fwu_synced_get(synced, part);
    };
    int newest = pair.newest([](const fwu_pointer &, const fwu_pointer &) { return true; });
    text.torn = text.torn || pair.torn;
    if (newest < 0)
        return;
    const int other = 1 - newest;
    fwu_synced before;
    const bool have_before = pair.number[other] >= 0 && get(pair.value[other], before);
    text.have_synced = get(pair.value[newest], text.synced);
    if (!text.have_synced && have_before) {
        text.synced = before;
        text.have_synced = true;
        newest = other;
    }
    text.pointer = pair.value[newest];
    text.pointer_number = pair.number[newest];
    text.on_disk = have_before ? before.place : text.synced.place;
}

// What stands before the lines, of either version; the size of it, or 0.
static size_t get_prefix(fwu_status_text &text, std::string_view bytes)
{
    const size_t fixed = FIRST_LINE.size() + LOG_WORD.size();
    const std::string_view first = bytes.substr(0, FIRST_LINE.size());
    const size_t end = bytes.size() > fixed ? bytes.find('\n', fixed) : bytes.npos;
    if ((first != FIRST_LINE && first != FIRST_LINE_1) || end == bytes.npos ||
        bytes.substr(FIRST_LINE.size(), LOG_WORD.size()) != LOG_WORD)
        return 0;
    text.version = first == FIRST_LINE ? 2 : 1;
    text.log_directory = bytes.substr(fixed, end - fixed);
    return end + 1;
}

int fwu_status_get(fwu_status_text &text, const std::string &bytes)
{
    text = fwu_status_text();
    if (bytes.empty())
        return 0;
    text.fresh = false;
    const std::string_view all = bytes;
    const size_t at = get_prefix(text, all);
    if (at == 0)
        return -1;
    const uint32_t prefix_crc = fwu_crc32c(0, all.data(), at);
    if (text.version == 1) {
        get_live(text, get_pair<fwu_place>(all, at, FWU_STATUS_LINE_SIZE_1, prefix_crc,
                                           fwu_status_line_get_1));
        return text.have_live ? 0 : -1;
    }
    get_live(text,
             get_pair<fwu_place>(all, at, FWU_STATUS_LINE_SIZE, prefix_crc, fwu_status_line_get));
    get_synced(text, all,
               get_pair<fwu_pointer>(all, at + fwu_status_pointer_at(0), FWU_POINTER_SIZE,
                                     prefix_crc, fwu_pointer_line_get));
    // Without the synced text nothing tells whether the live line is ahead.
    return text.have_synced ? 0 : -1;
}

bool fwu_status_live_counts(const fwu_status_text &text, const std::string &boot)
{
    if (text.version == 1 || !text.have_live)
        return text.have_live;
    const std::string &kept = text.synced.boot;
    return kept == FWU_BOOT_ANY || (kept == boot && boot != FWU_BOOT_UNKNOWN);
}
