// A forward log that nobody wrote: the library's run, the walk of dump, the reader of changes,
// verify and repair have to agree on what it holds, and nothing that was acknowledged goes.
//
// An input is a byte of flags, one that says how much was acknowledged, and log files one behind
// the other (log_files.h).
#include "changes/reader.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_status.h"
#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"
#include "tests/fuzz/log_files.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"
#include "tools/fwlog/fwlog.h"
#include "util/json_read.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <unistd.h>

constexpr int FLAG_RAW = 1;      // checksums stay as they are
constexpr int FLAG_ACKED = 2;    // a part of the log was acknowledged
constexpr int FLAG_PROGRAMS = 4; // dump, tail and info, too
constexpr int FLAG_APPEND = 8;   // a writer goes on
constexpr int FLAG_FORMS = 16;   // csv, sql and layout, too

using changes_of = std::vector<std::string>;

static std::string change_text(const char *dbname, const char *dsetname, int64_t logtime,
                               int32_t opcode, int32_t recnum, int32_t reclen, const void *before,
                               const void *after)
{
    std::string text = std::string(dbname) + "." + dsetname + " " +
                       std::to_string(static_cast<int32_t>(logtime)) + " " +
                       std::to_string(opcode) + " " + std::to_string(recnum) + " <";
    if (before != nullptr)
        text.append(static_cast<const char *>(before), static_cast<size_t>(reclen));
    text += '|';
    if (after != nullptr)
        text.append(static_cast<const char *>(after), static_cast<size_t>(reclen));
    return text + '>';
}

struct read_log {
    int result = 0;
    changes_of changes;
    std::string err;
    std::vector<std::pair<fwu_position, size_t>> commits; // and changes up to them
};

static std::string log_of()
{
    return fuzz_path("log");
}

static std::string cfg_of()
{
    static const std::string path = [] {
        std::string cfg = fuzz_path("log.cfg");
        fuzz_put(cfg, "log-directory log\n");
        return cfg;
    }();
    return path;
}

// ---- readers

static read_log walk()
{
    read_log found;
    const fuzz_said said = fuzz_listen([&] {
        return fwu_log_walk(log_of(), [&](const fwu_walk_item &item) {
            fwu_change change;
            if (item.what == FWU_WALK_ENTRY && fwu_entry_change(item.entry, change))
                found.changes.push_back(change_text(change.dbname, change.dsetname, change.logtime,
                                                    change.opcode, change.recnum, change.reclen,
                                                    change.before, change.after));
            if (item.what == FWU_WALK_ENTRY && item.entry.kind == FWU_KIND_COMMIT)
                found.commits.push_back(
                    {{item.file->generation, item.file->sequence, item.entry.tag},
                     found.changes.size()});
            return 0;
        });
    });
    found.result = said.status;
    found.err = said.err;
    return found;
}

static changes_of *delivered = nullptr;
static bool items_fit = true; // each record that was delivered has the length of its items

static int take(uint32_t, const char *dbname, const char *dsetname, int32_t logtime, int32_t opcode,
                int32_t recnum, int32_t reclen, const void *before, const void *after)
{
    delivered->push_back(
        change_text(dbname, dsetname, logtime, opcode, recnum, reclen, before, after));
    // What a program may ask for meanwhile.
    const char *name = nullptr;
    int32_t type = 0;
    int32_t size = 0;
    int32_t count = 0;
    int64_t length = 0;
    bool any = false;
    while (Fwu_get_item(&name, &type, &size, &count, nullptr) != 0) {
        fuzz_expect(strlen(name) <= 17, "an item's name is too long");
        length += int64_t{size} * count;
        any = true;
    }
    items_fit = items_fit && (!any || length == reclen);
    for (const char *key : {"pname", "user", "login", "pid", "info"})
        if (const char *text = Fwu_get_session_entry(key); text != nullptr)
            (void)strlen(text); // which a sanitizer watches
    for (int i = 0; i < Fwu_get_session_elements(); i++)
        fuzz_expect(Fwu_get_session_data(i) != nullptr, "a data element is missing");
    fuzz_expect(Fwu_CurrentTagSequence() > 0, "a record without a position");
    return 0;
}

static read_log process(const std::string &status)
{
    read_log found;
    delivered = &found.changes;
    Fwu_synconly(1);
    const fuzz_said said =
        fuzz_listen([&] { return Fwu_process(take, cfg_of().c_str(), status.c_str(), nullptr); });
    found.result = said.status;
    found.err = said.err;
    fuzz_expect(found.result == 0 || !found.err.empty(), "Fwu_process failed and said nothing");
    return found;
}

static read_log process_anew()
{
    const std::string status = fuzz_path("anew.status");
    (void)unlink(status.c_str()); // need not be there
    return process(status);
}

// The changes of the reader that tail, dump, csv and sql stand on.
static read_log read_changes()
{
    read_log found;
    const fuzz_said said = fuzz_listen([&] {
        fwu_config config;
        change_reader reader;
        if (fwu_config_read(config, cfg_of().c_str()) != 0 || change_open(reader, config, {}) != 0)
            return -1;
        change next;
        change_found what = CHANGE_FOUND;
        while (what == CHANGE_FOUND || what == CHANGE_COMMITTED || what == CHANGE_PASSED) {
            what = change_next(reader, next);
            if (what == CHANGE_FOUND && next.mark == nullptr)
                found.changes.push_back(std::to_string(next.record));
        }
        change_close(reader);
        return what == CHANGE_FAILED ? -1 : 0;
    });
    found.result = said.status;
    found.err = said.err;
    return found;
}

static bool begins_with(const changes_of &all, const changes_of &first)
{
    return first.size() <= all.size() && std::equal(first.begin(), first.end(), all.begin());
}

static bool all_json(std::string_view lines)
{
    while (!lines.empty()) {
        json_node node;
        std::string_view line = lines.substr(0, lines.find('\n'));
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
        if (!json_read(node, line) || !line.empty())
            return false;
    }
    return true;
}

// ---- what has to agree

static void programs(const read_log &walked, const read_log &changes)
{
    const fuzz_said dumped = fuzz_call(fwlog_program, {"dump", "-cfg", cfg_of()});
    fuzz_equal(dumped.status == 0, walked.result == 0, "dump and the walk");
    (void)fuzz_call(fwlog_program, {"tail", "-cfg", cfg_of(), "-n", "2"});
    const fuzz_said json = fuzz_call(fwlog_program, {"dump", "-cfg", cfg_of(), "--json"});
    fuzz_expect(all_json(json.out), "dump --json: no JSON");
    fuzz_equal(json.status == 0, changes.result == 0, "dump --json and the reader of changes");
    const fuzz_said info = fuzz_call(fwlog_program, {"info", "-cfg", cfg_of(), "--json"});
    fuzz_expect(all_json(info.out), "info --json: no JSON");
    (void)fuzz_call(fwlog_program, {"info", "-cfg", cfg_of()});
}

static void forms()
{
    const fuzz_said layout = fuzz_call(fwlog_program, {"layout", "-cfg", cfg_of(), "--json"});
    fuzz_expect(all_json(layout.out), "layout --json: no JSON");
    (void)fuzz_call(fwlog_program, {"sql", "-cfg", cfg_of()});
    (void)fuzz_call(fwlog_program, {"layout", "-cfg", cfg_of(), "--copybook"});
}

static void read_all(const read_log &walked, const read_log &processed)
{
    fuzz_expect(begins_with(walked.changes, processed.changes),
                "Fwu_process gave what the walk does not");
    fuzz_expect(processed.result != 0 || processed.changes.size() == walked.changes.size(),
                "Fwu_process ended well before the walk's end");
    fuzz_expect(walked.result == 0 || processed.result != 0 || walked.changes.empty(),
                "the walk finds damage, Fwu_process none");

    // Once more, and with the position that it left.
    const std::string status = fuzz_path("run.status");
    (void)unlink(status.c_str()); // need not be there
    const read_log again = process(status);
    fuzz_expect(again.changes == processed.changes && again.result == processed.result,
                "Fwu_process twice");
    fuzz_equal(again.err, processed.err, "Fwu_process twice: texts");
    if (access(status.c_str(), F_OK) != 0)
        return;
    const read_log more = process(status);
    fuzz_expect(more.changes.empty(), "records come twice");
    fuzz_equal(more.result == 0, processed.result == 0, "a run and the next one");
    const fuzz_said told = fuzz_listen([&] { return Fwu_status(status.c_str(), 1); });
    fuzz_expect(told.status == 0 || (processed.result != 0 && !told.err.empty()),
                "Fwu_status of a status file that the library wrote");
}

// How many changes were acknowledged, as far as the walk comes.
static size_t acknowledged(const read_log &walked, const fuzz_log_commit &last)
{
    for (const auto &[position, changes] : walked.commits)
        if (position.sequence == last.sequence && position.tag == last.tag)
            return changes;
    return 0;
}

static void mend(const read_log &processed, bool sound, size_t acked)
{
    const auto before = fuzz_log_files(log_of());
    const fuzz_said dry = fuzz_call(fwlog_program, {"repair", "-cfg", cfg_of(), "--dry-run"});
    fuzz_expect(fuzz_log_files(log_of()) == before, "repair --dry-run changed the log");
    const fuzz_said said = fuzz_call(fwlog_program, {"repair", "-cfg", cfg_of()});
    if (sound)
        fuzz_expect(said.status == 0 && fuzz_log_files(log_of()) == before,
                    "repair of a sound log");
    if (said.status != 0) {
        fuzz_expect(fuzz_log_files(log_of()) == before,
                    "a repair that was refused changed the log");
        const fuzz_said accepted =
            fuzz_call(fwlog_program, {"repair", "-cfg", cfg_of(), "--accept-loss"});
        if (accepted.status != 0) {
            fuzz_expect(fuzz_log_files(log_of()) == before, "a repair that failed changed the log");
            return;
        }
        acked = 0;
    }
    fuzz_equal(fuzz_call(fwlog_program, {"verify", "-cfg", cfg_of()}).status, 0,
               "verify of a repaired log");
    const read_log after = process_anew();
    fuzz_equal(after.result, 0, "Fwu_process of a repaired log");
    fuzz_expect(begins_with(processed.changes, after.changes) ||
                    begins_with(after.changes, processed.changes),
                "a repaired log has other changes");
    fuzz_expect(after.changes.size() >= acked, "acknowledged changes are gone");
    fuzz_equal(fuzz_call(fwlog_program, {"repair", "-cfg", cfg_of()}).status, 0, "a second repair");
}

// A writer that goes on behind the log's end.
static void append(size_t acked)
{
    const read_log before = process_anew();
    fwu_config config;
    config.path = cfg_of();
    config.log_directory = log_of();
    const auto old = fuzz_log_files(log_of());
    size_t added = 0;
    const fuzz_said said = fuzz_listen([&] {
        fwu_writer *writer = nullptr;
        fwu_config wanted = config;
        for (int i = 0; i < 4 && writer == nullptr; i++) { // what the log's images are written in
            wanted.big_endian = (i & 1) != 0;
            wanted.new_log_encoding = (i & 2) != 0 ? FWU_UTF8 : FWU_LATIN1;
            if (fwu_writer_open(&writer, wanted) != 0)
                writer = nullptr;
        }
        if (writer == nullptr)
            return -1;
        const fwu_layout layout = {"NEW", "SET", {{.name = "KEY", .type = 'X', .size = 4}}};
        fwu_commit commit = fwu_writer_last_commit(writer);
        commit.lsn += 8;
        if (commit.lsn > 8 && fwu_writer_begin(writer, nullptr) == 0 &&
            fwu_writer_record(writer, FWU_OP_INSERT, layout, 1, 4, nullptr, "new!") == 0 &&
            fwu_writer_commit(writer, commit) == 0)
            added = 1;
        return fwu_writer_close(writer);
    });
    if (said.status != 0 && added == 0) {
        fuzz_expect(!said.err.empty(), "a writer failed and said nothing");
        return;
    }
    const read_log after = process_anew();
    fuzz_expect(before.result != 0 || after.result == 0, "a log is damaged by a writer");
    if (before.result != 0)
        return;
    fuzz_expect(begins_with(after.changes, before.changes), "a writer has changed the log");
    fuzz_equal(after.changes.size(), before.changes.size() + added, "changes behind a writer");
    fuzz_expect(after.changes.size() >= acked, "a writer cut off what was acknowledged");
}

static void run(std::string_view input)
{
    fuzz_bytes in = {input};
    const int flags = in.byte();
    const size_t part = in.byte();
    std::vector<std::string> files = fuzz_log_split(in.rest);
    for (size_t i = 0; i < files.size() && (flags & FLAG_RAW) == 0; i++)
        fuzz_log_seal(files[i], static_cast<int32_t>(i + 1));
    fuzz_log_put(log_of(), files);

    const std::vector<fuzz_log_commit> commits = fuzz_log_commits(files);
    fuzz_log_commit last;
    if ((flags & FLAG_ACKED) != 0 && !commits.empty()) {
        last = commits[part % commits.size()];
        fwu_ack ack;
        ack.identity = last.identity;
        ack.position = {1, last.sequence, last.tag};
        ack.end = last.end;
        ack.commit = last.commit;
        if (last.tag > 0 &&
            fuzz_listen([&] { return fwu_ack_create(log_of(), ack, 0600); }).status != 0)
            return;
    }

    items_fit = true;
    const read_log walked = walk();
    const read_log processed = process_anew();
    const read_log changes = read_changes();
    const size_t acked = acknowledged(walked, last);
    read_all(walked, processed);
    fuzz_expect(changes.result != 0 || changes.changes.size() == walked.changes.size(),
                "the reader of changes ended well before the walk's end");
    const fuzz_said verified = fuzz_call(fwlog_program, {"verify", "-cfg", cfg_of()});
    const bool sound = verified.status == 0;
    if (sound) {
        fuzz_equal(walked.result, 0, "verify: sound, and the walk finds damage");
        fuzz_equal(processed.result, 0, "verify: sound, and Fwu_process fails");
        fuzz_expect(items_fit, "verify: sound, and a record is not as long as its items");
        fuzz_equal(changes.result, 0, "verify: sound, and the reader of changes fails");
    }
    if ((flags & FLAG_PROGRAMS) != 0)
        programs(walked, changes);
    if ((flags & FLAG_FORMS) != 0)
        forms();
    if ((flags & FLAG_APPEND) != 0)
        append(acked);
    else
        mend(processed, sound, acked);
}

static std::string joined(int flags, int part, const std::vector<std::string> &files)
{
    std::string input = {static_cast<char>(flags), static_cast<char>(part)};
    for (const std::string &file : files)
        input += file;
    return input;
}

static std::vector<std::string> seeds()
{
    const std::vector<std::string> little = fuzz_log_written(false);
    const std::vector<std::string> big = fuzz_log_written(true);
    std::vector<std::string> torn = {little.front().substr(0, little.front().size() - 30)};
    return {joined(FLAG_PROGRAMS | FLAG_FORMS, 0, little),
            joined(FLAG_ACKED | FLAG_PROGRAMS, 1, big),
            joined(FLAG_APPEND | FLAG_ACKED, 0, {little.front()}),
            joined(FLAG_RAW, 0, little),
            joined(FLAG_RAW | FLAG_ACKED, 0, torn),
            joined(FLAG_APPEND, 0, torn)};
}

static std::vector<std::string> words()
{
    return {"KFWLOG\r\n",
            std::string("\x38\0\0\0\6\0\0\0", 8),
            std::string("\7\0\1\0", 4),
            std::string("\x8\0\1\0", 4),
            std::string("\x9\0\1\0", 4),
            "SALES",
            "ORDERS",
            "\xFF\xFF\xFF\x7F",
            std::string("\0\0\0\x80", 4)};
}

constinit const fuzz_target fuzz_forward_log = {
    .name = "forward_log", .longest = 8192, .run = run, .seeds = seeds, .words = words};
