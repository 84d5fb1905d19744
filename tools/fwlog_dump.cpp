// fwlog dump: a line for each entry of a log, with its position in front, and
// indented lines for what the entry holds.
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwutil.h"
#include "tools/dump_value.h"
#include "tools/fwlog.h"
#include "tools/pg_time.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

static constexpr int64_t MICROS_PER_SECOND = 1'000'000;

// What an option names: a log file or an entry in it.
struct dump_position {
    bool given = false;
    int32_t generation = 0; // 0: any
    int32_t sequence = 0;
    int32_t tag = 0; // 0: the whole file
};

struct dump_options {
    const char *cfg = nullptr;
    bool hex = false;
    dump_position from;
    dump_position to;
};

struct dump_state {
    dump_options options;
    bool big_endian = false;
    std::map<std::pair<std::string, std::string>, fwu_layout> layouts; // of the present file
    std::string out;
};

static bool take_number(std::string_view &text, int32_t smallest, int32_t &number)
{
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (code != std::errc() || number < smallest)
        return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

// "25", "1-25" or "1-25.340".
static bool parse_position(dump_position &position, std::string_view text)
{
    position = {.given = true};
    if (!take_number(text, 1, position.sequence))
        return false;
    if (text.starts_with('-')) {
        text.remove_prefix(1);
        position.generation = position.sequence;
        if (!take_number(text, 1, position.sequence))
            return false;
    }
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        if (position.generation == 0 || !take_number(text, 0, position.tag))
            return false;
    }
    return text.empty();
}

static int scan_options(dump_options &options, int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        const char *const word = argv[i];
        const bool is_from = strcmp(word, "--from") == 0;
        if (strcmp(word, "-cfg") == 0) {
            if (++i == argc)
                return fwlog_usage_error("option lacks its file name", word);
            options.cfg = argv[i];
        } else if (is_from || strcmp(word, "--to") == 0) {
            if (++i == argc)
                return fwlog_usage_error("option lacks its position", word);
            if (!parse_position(is_from ? options.from : options.to, argv[i]))
                return fwlog_usage_error("not a position (25, 1-25 or 1-25.340)", argv[i]);
        } else if (strcmp(word, "--hex") == 0) {
            options.hex = true;
        } else {
            return fwlog_usage_error(word[0] == '-' ? "unknown option" : "unexpected word", word);
        }
    }
    return FWLOG_EXIT_OK;
}

// Below 0: file and tag stand before position; above 0: behind it.  A position
// without a tag holds every tag of its file.
static int compare(const fwu_log_file &file, int32_t tag, const dump_position &position)
{
    if (position.generation != 0 && file.generation != position.generation)
        return file.generation < position.generation ? -1 : 1;
    if (file.sequence != position.sequence)
        return file.sequence < position.sequence ? -1 : 1;
    if (position.tag == 0 || tag == position.tag)
        return 0;
    return tag < position.tag ? -1 : 1;
}

static bool before_range(const dump_state &state, const fwu_log_file &file, int32_t tag)
{
    return state.options.from.given && compare(file, tag, state.options.from) < 0;
}

static bool behind_range(const dump_state &state, const fwu_log_file &file, int32_t tag)
{
    return state.options.to.given && compare(file, tag, state.options.to) > 0;
}

static std::string time_text(int64_t seconds, int32_t micros, int decimals)
{
    std::string text;
    const pgt_stamp stamp{.seconds = seconds, .micros = micros};
    return pgt_stamp_format(text, stamp, decimals) ? text : std::to_string(seconds) + " s";
}

static std::string micros_text(int64_t micros)
{
    int64_t seconds = micros / MICROS_PER_SECOND;
    int64_t rest = micros % MICROS_PER_SECOND;
    if (rest < 0) {
        rest += MICROS_PER_SECOND;
        seconds--;
    }
    return time_text(seconds, static_cast<int32_t>(rest), 6);
}

static bool put_layout(dump_state &state, const fwu_entry &entry)
{
    fwu_layout layout;
    if (!fwu_entry_layout(entry, layout))
        return false;
    state.out += "layout " + layout.dbname + "." + layout.dsetname + ": " +
                 std::to_string(layout.items.size()) + " items, " +
                 std::to_string(fwu_layout_image_length(layout)) + " bytes\n";
    for (const fwu_item &item : layout.items) {
        state.out += "    " + item.name + " " + static_cast<char>(item.type) + " " +
                     std::to_string(item.size);
        if (item.count != 1)
            state.out += " x" + std::to_string(item.count);
        if (item.item_aux != 0)
            state.out += " scale=" + std::to_string(item.item_aux);
        state.out += "\n";
    }
    state.layouts[{layout.dbname, layout.dsetname}] = std::move(layout);
    return true;
}

static void put_session_line(std::string &out, const char *name, const char *text)
{
    out += std::string("    ") + name + " ";
    dump_text(out, text);
    out += "\n";
}

static bool put_session(dump_state &state, const fwu_entry &entry)
{
    fwu_session_view session;
    if (!fwu_entry_session(entry, session))
        return false;
    state.out += "session\n";
    for (int i = 0; i < FWU_SESSION_ENTRIES; i++) {
        if (session.entry[i] != nullptr)
            put_session_line(state.out, FWU_SESSION_KEYS[i], session.entry[i]);
    }
    for (const char *text : session.data)
        put_session_line(state.out, "data", text);
    return true;
}

static void put_image(dump_state &state, const char *title, const fwu_change &change,
                      const unsigned char *image)
{
    if (image == nullptr)
        return;
    const auto length = static_cast<size_t>(change.reclen);
    const auto found = state.layouts.find({change.dbname, change.dsetname});
    state.out += title;
    if (state.options.hex || found == state.layouts.end() ||
        !dump_image(state.out, found->second, state.big_endian, image, length)) {
        state.out += " ";
        dump_hex(state.out, image, length);
    }
    state.out += "\n";
}

static bool put_change(dump_state &state, const fwu_entry &entry)
{
    fwu_change change;
    if (!fwu_entry_change(entry, change))
        return false;
    const char *const kind = change.opcode == FWU_OP_INSERT   ? "insert "
                             : change.opcode == FWU_OP_UPDATE ? "update "
                                                              : "delete ";
    state.out += std::string(kind) + change.dbname + "." + change.dsetname + " " +
                 time_text(change.logtime, 0, 0) + " record " + std::to_string(change.recnum) +
                 ", " + std::to_string(change.reclen) + " bytes\n";
    put_image(state, "    before", change, change.before);
    put_image(state, "    after", change, change.after);
    return true;
}

static bool put_commit(dump_state &state, const fwu_entry &entry)
{
    fwu_commit_entry commit;
    if (!fwu_entry_commit(entry, commit))
        return false;
    char lsn[32];
    snprintf(lsn, sizeof lsn, "%X/%X", static_cast<unsigned>(commit.commit.lsn >> 32),
             static_cast<unsigned>(commit.commit.lsn & UINT32_MAX));
    state.out += "commit " + micros_text(commit.commit.time_us) + " xid " +
                 std::to_string(commit.commit.xid) + " lsn " + lsn + ", " +
                 std::to_string(commit.entries) + " entries\n";
    return true;
}

static bool put_entry(dump_state &state, const fwu_entry &entry)
{
    switch (entry.kind) {
    case FWU_KIND_LAYOUT:
        return put_layout(state, entry);
    case FWU_KIND_SESSION:
        return put_session(state, entry);
    case FWU_KIND_INSERT:
    case FWU_KIND_UPDATE:
    case FWU_KIND_DELETE:
        return put_change(state, entry);
    case FWU_KIND_COMMIT:
        return put_commit(state, entry);
    default:
        return false;
    }
}

static void put_unknown(dump_state &state, const fwu_entry &entry)
{
    state.out += "entry of kind " + std::to_string(entry.kind) + "\n    ";
    dump_hex(state.out, entry.payload, entry.payload_length);
    state.out += "\n";
}

static void put_item(dump_state &state, const fwu_walk_item &item)
{
    const fwu_log_file &file = *item.file;
    const std::string number =
        std::to_string(file.generation) + "-" + std::to_string(file.sequence);
    const std::string at = " @" + std::to_string(item.offset) + " ";
    switch (item.what) {
    case FWU_WALK_FILE:
        state.layouts.clear();
        state.big_endian = item.header.big_endian;
        state.out += number + " file " + file.name + ", " +
                     (item.header.big_endian ? "big-endian" : "little-endian") + ", created " +
                     micros_text(item.header.created_us) + "\n";
        break;
    case FWU_WALK_ENTRY:
        state.out += number + "." + std::to_string(item.entry.tag) + at;
        if (!put_entry(state, item.entry))
            put_unknown(state, item.entry);
        break;
    case FWU_WALK_TAIL:
        state.out +=
            number + at + "tail: " + std::to_string(item.length) + " bytes behind the last commit";
        state.out += item.reason == nullptr ? "\n" : std::string(", ") + item.reason + "\n";
        break;
    case FWU_WALK_DAMAGE:
        state.out += number + at + "damage: " + (item.reason == nullptr ? "" : item.reason) + "\n";
        break;
    }
}

// Layouts before the range are read, for the images inside it, but not printed.
static int visit(dump_state &state, const fwu_walk_item &item)
{
    const bool is_entry = item.what == FWU_WALK_ENTRY;
    const int32_t first = is_entry ? item.entry.tag : item.what == FWU_WALK_FILE ? 0 : INT32_MAX;
    if (behind_range(state, *item.file, first))
        return 1;
    state.out.clear();
    put_item(state, item);
    if (before_range(state, *item.file, is_entry ? item.entry.tag : INT32_MAX))
        return 0;
    fwrite(state.out.data(), 1, state.out.size(), stdout);
    return ferror(stdout) != 0 ? 1 : 0;
}

int fwlog_dump_main(int argc, char **argv)
{
    dump_state state;
    const int usage = scan_options(state.options, argc, argv);
    if (usage != FWLOG_EXIT_OK)
        return usage;
    fwu_config config;
    if (fwu_config_read(config, state.options.cfg) != 0)
        return FWLOG_EXIT_FAILED;
    const int walked = fwu_log_walk(
        config.log_directory, [&state](const fwu_walk_item &item) { return visit(state, item); });
    return fwlog_flush_output(walked < 0 ? FWLOG_EXIT_FAILED : FWLOG_EXIT_OK);
}
