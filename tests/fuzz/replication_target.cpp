// Replication messages that no server sent.  Taken apart, each is what its bytes say: put together
// again by a second hand it is the same, and with a byte less or more it is none.  As a stream they
// come into a log that stays sound and has as many changes as were counted.
//
// An input is a byte of flags, and messages, each behind its length in two bytes.
#include "feed/postgresql/apply.h"
#include "feed/postgresql/standing.h"
#include "fwutil/fwu_log.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"
#include "tools/fwlog/fwlog.h"

#include <filesystem>

using namespace std::string_literals;

constexpr int FLAG_UTF8 = 1;    // texts of the log
constexpr int FLAG_STRICT = 2;  // a value that does not fit is an error
constexpr int FLAG_BIG = 4;     // byte order of its numbers
constexpr int FLAG_DATASET = 8; // a table is described by the configuration

static constexpr uint64_t EPOCH_2000_US = 946'684'800'000'000;

// ---- the second hand

static std::string tuple_bytes(const pgo_tuple &tuple)
{
    std::string bytes(1, tuple.kind);
    bytes += fuzz_number(tuple.count, 2);
    for (size_t i = 0; i < tuple.count; i++) {
        const pgo_value &value = tuple.values[i];
        bytes += value.kind;
        if (value.kind == 't')
            bytes += fuzz_number(value.text.size(), 4) + std::string(value.text);
    }
    return bytes;
}

static std::string relation_bytes(const pgo_relation &relation)
{
    std::string bytes = fuzz_number(relation.id, 4) + relation.schema + '\0' + relation.name +
                        '\0' + relation.identity + fuzz_number(relation.columns.size(), 2);
    for (const pgo_column &column : relation.columns)
        bytes += std::string(1, column.identity ? 1 : 0) + column.name + '\0' +
                 fuzz_number(column.type, 4) +
                 fuzz_number(static_cast<uint32_t>(column.modifier), 4);
    return bytes;
}

// The message again, with zeros where it keeps nothing.
static std::string message_bytes(const pgo_message &message)
{
    const std::string kind(1, message.kind);
    const std::string time = fuzz_number(static_cast<uint64_t>(message.time_us) - EPOCH_2000_US, 8);
    switch (message.kind) {
    case 'B':
        return kind + fuzz_number(message.lsn, 8) + time + fuzz_number(message.xid, 4);
    case 'C':
        return kind + '\0' + fuzz_number(message.lsn, 8) + fuzz_number(message.end_lsn, 8) + time;
    case 'O':
        return kind + fuzz_number(0, 8) + std::string(message.origin) + '\0';
    case 'R':
        return kind + relation_bytes(message.relation);
    case 'T': {
        std::string bytes = kind + fuzz_number(message.truncated.size(), 4) + '\0';
        for (const uint32_t id : message.truncated)
            bytes += fuzz_number(id, 4);
        return bytes;
    }
    case 'M':
        return kind + (message.transactional ? '\1' : '\0') + fuzz_number(message.lsn, 8) +
               std::string(message.prefix) + '\0' + fuzz_number(message.content.size(), 4) +
               std::string(message.content);
    case 'Y':
        return kind + fuzz_number(0, 4) + "\0\0"s;
    default:
        return kind + fuzz_number(message.relation_id, 4) +
               (message.old_row.kind != 0 ? tuple_bytes(message.old_row) : "") +
               (message.new_row.kind != 0 ? tuple_bytes(message.new_row) : "");
    }
}

// The bytes of a message in memory of their own, so that a sanitizer sees a read past them.
static outcome decode(pgo_message &message, std::string_view bytes)
{
    const std::unique_ptr<char[]> exact(new char[bytes.size()]);
    bytes.copy(exact.get(), bytes.size());
    pgo_message made;
    outcome done = pgo_decode(made, {exact.get(), bytes.size()});
    if (done)
        (void)message_bytes(made); // reads all of it
    outcome again = pgo_decode(message, bytes);
    fuzz_equal(done.text(), again.text(), "pgo_decode twice");
    return again;
}

static void take_apart(std::string_view bytes)
{
    pgo_message message;
    const outcome done = decode(message, bytes);
    if (!done) {
        fuzz_expect(done.kind() == OUTCOME_BAD && !done.text().empty(), "refused without a text");
        return;
    }
    const std::string again = message_bytes(message);
    pgo_message copy;
    const outcome decoded = decode(copy, again);
    fuzz_expect(bool(decoded), "a message put together again is none");
    fuzz_equal(message_bytes(copy), again, "a message put together again is another one");
    pgo_message other;
    fuzz_expect(!decode(other, bytes.substr(0, bytes.size() - 1)), "cut short, and still one");
    fuzz_expect(!decode(other, std::string(bytes) + '\0'), "goes on behind its end, and still one");
    if (message.kind == 'R')
        fuzz_expect(pgo_shape(message.relation) != 0, "a shape of 0");
}

// ---- the stream

struct applied {
    fwu_config config;
    feed_transaction tx;
    pgb_relations relations;
    pgb_apply apply;
};

static void describe_dataset(fwu_config &config)
{
    fwu_dataset dataset;
    dataset.layout = {.dbname = "APP",
                      .dsetname = "T",
                      .items = {{.name = "A", .type = 'I', .size = 4},
                                {.name = "B", .type = 'X', .size = 3},
                                {.name = "NULLS", .type = 'X', .size = 2}}};
    dataset.null_map = 2;
    dataset.key = {0};
    dataset.table = "app.t";
    dataset.line = 1;
    config.datasets.push_back(dataset);
    config.has_database = true;
}

static bool open_log(applied &on, int flags)
{
    on.config.path = fuzz_path("replication.cfg");
    on.config.log_directory = fuzz_path("replicated");
    on.config.sync = FWU_SYNC_NONE;
    on.config.big_endian = (flags & FLAG_BIG) != 0;
    on.config.new_log_encoding = (flags & FLAG_UTF8) != 0 ? FWU_UTF8 : FWU_LATIN1;
    if ((flags & FLAG_DATASET) != 0)
        describe_dataset(on.config);
    fuzz_remove(on.config.log_directory);
    if (fwu_writer_open(&on.tx.writer, on.config) != 0)
        return false;
    on.tx.work.settings = {.big_endian = on.config.big_endian,
                           .encoding = on.config.new_log_encoding};
    on.relations.tables.config = &on.config;
    on.relations.tables.default_policy =
        (flags & FLAG_STRICT) != 0 ? FWU_POLICY_ERROR : FWU_POLICY_MARK;
    on.relations.encoding = on.config.new_log_encoding;
    if (!pga_open(on.relations.aside, on.config.log_directory, 0600, 0))
        return false;
    pgi_open(on.apply.intake);
    return true;
}

struct counts {
    uint64_t changes = 0;
    uint64_t commits = 0;
};

static counts count_log(const std::string &directory)
{
    counts found;
    (void)fwu_log_walk(directory, [&](const fwu_walk_item &item) {
        if (item.what == FWU_WALK_ENTRY) {
            found.changes += fwu_entry_is_change(item.entry) ? 1 : 0;
            found.commits += item.entry.kind == FWU_KIND_COMMIT ? 1 : 0;
        }
        return 0;
    });
    return found;
}

static void take_stream(const std::vector<std::string_view> &messages, int flags)
{
    applied on;
    outcome done;
    const fuzz_said said = fuzz_listen([&] {
        if (!open_log(on, flags))
            return 1;
        for (size_t i = 0; i < messages.size() && done; i++)
            done = pgb_apply_message(on.apply, on.tx, on.relations, messages[i]);
        feed_abandon(on.tx);
        return fwu_writer_close(on.tx.writer);
    });
    fuzz_equal(said.status, 0, "the log cannot be opened or closed");
    fuzz_expect(bool(done) || (done.kind() != OUTCOME_BAD && !said.err.empty()),
                "a message was refused and nothing was told");

    fuzz_put(on.config.path, "log-directory replicated\n");
    const fuzz_said verified = fuzz_call(fwlog_program, {"verify", "-cfg", on.config.path});
    if (verified.status != 0)
        fuzz_failed("the log is not sound: " + verified.out + verified.err + said.err);
    counts found;
    (void)fuzz_listen([&] {
        found = count_log(on.config.log_directory);
        return 0;
    });
    const feed_totals &totals = on.tx.totals;
    fuzz_equal(found.changes, totals.inserts + totals.updates + totals.deletes, "changes");
    fuzz_expect(found.commits <= messages.size(), "more transactions than messages");
}

static void run(std::string_view input)
{
    fuzz_bytes in = {input};
    const int flags = in.byte();
    std::vector<std::string_view> messages;
    while (!in.rest.empty()) {
        const size_t length = in.word();
        messages.push_back(in.text(length));
    }
    for (const std::string_view message : messages)
        take_apart(message);
    take_stream(messages, flags);
}

// ---- seeds

static std::string column(const char *name, uint32_t type, int32_t modifier, bool key)
{
    return std::string(1, key ? 1 : 0) + name + '\0' + fuzz_number(type, 4) +
           fuzz_number(static_cast<uint32_t>(modifier), 4);
}

static std::string text_value(const std::string &text)
{
    return "t" + fuzz_number(text.size(), 4) + text;
}

static std::string stream_of(int flags, const std::vector<std::string> &messages)
{
    std::string input(1, static_cast<char>(flags));
    for (const std::string &message : messages)
        input += fuzz_number(message.size(), 2) + message;
    return input;
}

static std::string begin(uint64_t lsn, uint32_t xid)
{
    return "B" + fuzz_number(lsn, 8) + fuzz_number(830'000'000'000'000 + xid, 8) +
           fuzz_number(xid, 4);
}

static std::string commit(uint64_t lsn, uint32_t xid)
{
    return "C"s + '\0' + fuzz_number(lsn, 8) + fuzz_number(lsn + 8, 8) +
           fuzz_number(830'000'000'000'000 + xid, 8);
}

static std::vector<std::string> seeds()
{
    const std::string id = fuzz_number(16401, 4);
    const std::string table = "R" + id + "app\0t\0d"s + fuzz_number(2, 2) +
                              column("a", 23, -1, true) + column("b", 25, -1, false);
    const std::string wide = "R" + fuzz_number(16402, 4) + "app\0wide\0f"s + fuzz_number(8, 2) +
                             column("n", 1700, 589'830, true) + column("c", 1042, 9, false) +
                             column("v", 1043, 14, false) + column("ts", 1184, -1, false) +
                             column("ok", 16, -1, false) + column("d", 701, -1, false) +
                             column("l", 1007, -1, false) + column("by", 17, -1, false);
    const std::string insert =
        "I" + id + "N" + fuzz_number(2, 2) + text_value("17") + text_value("b\xC3\xA4r");
    const std::string update = "U" + id + "K" + fuzz_number(2, 2) + text_value("17") + "n" + "N" +
                               fuzz_number(2, 2) + text_value("18") + "u";
    const std::string remove = "D" + id + "K" + fuzz_number(2, 2) + text_value("18") + "n";
    const std::string row = fuzz_number(8, 2) + text_value("123.456789") + text_value("char  ") +
                            text_value("longer than ten") + text_value("2026-03-09 08:18:01.5+01") +
                            text_value("t") + text_value("-1.5e300") + text_value("{1,NULL,-3}") +
                            text_value("\\xdeadbeef");
    const std::string wide_update = "U" + fuzz_number(16402, 4) + "O" + row + "N" + row;
    const std::string truncate = "T" + fuzz_number(1, 4) + '\0' + id;
    const std::string message =
        "M\1"s + fuzz_number(0x20, 8) + "session\0"s + fuzz_number(11, 4) + "pid=1;user=";
    const std::string origin = "O" + fuzz_number(1, 8) + "node_b" + '\0';
    const std::string type = "Y" + fuzz_number(90'000, 4) + "app\0mood\0"s;
    return {stream_of(FLAG_UTF8,
                      {begin(0x1000, 7), message, table, insert, update, remove, commit(0x1000, 7),
                       begin(0x2000, 8), origin, truncate, insert, commit(0x2000, 8)}),
            stream_of(FLAG_BIG, {begin(0x1000, 7), type, wide, wide_update, commit(0x1000, 7)}),
            stream_of(FLAG_DATASET | FLAG_STRICT,
                      {begin(0x1000, 7), table, insert, update, commit(0x1000, 7)}),
            stream_of(FLAG_DATASET | FLAG_UTF8, {begin(0x1000, 7), table, wide, remove, truncate,
                                                 wide_update, commit(0x1000, 7)})};
}

static std::vector<std::string> words()
{
    std::vector<std::string> all = {"app\0"s, "session\0"s, "pid=1", "{1,2}", "NULL", "\\x00"};
    for (const uint32_t type :
         {16U,   17U,   20U,   21U,   23U,   25U,   700U,  701U,  1007U, 1009U,
          1042U, 1043U, 1082U, 1083U, 1114U, 1184U, 1700U, 2950U, 3802U, 90'000U})
        all.push_back(fuzz_number(type, 4));
    return all;
}

constinit const fuzz_target fuzz_replication = {
    .name = "replication", .longest = 4096, .run = run, .seeds = seeds, .words = words};
