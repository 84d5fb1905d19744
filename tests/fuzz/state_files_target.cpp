// The small files beside a log that nobody wrote: what is taken of one is taken again from what
// would be written of it, and what is refused is refused again, with the file's name.
//
// An input is a byte that chooses the file (and whether its checksum is made right), and its text.
#include "feed/names.h"
#include "feed/postgresql/aside.h"
#include "feed/postgresql/aside_file.h"
#include "feed/postgresql/kept.h"
#include "feed/postgresql/state.h"
#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_readers.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/health_look.h"
#include "util/json_read.h"
#include "util/json_text.h"
#include "util/utf8.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <unistd.h>

constexpr int FLAG_RAW = 0x80; // checksums stay as they are

static const std::string &directory()
{
    static const std::string path = [] {
        std::string made = fuzz_path("beside");
        (void)std::filesystem::create_directory(made);
        return made;
    }();
    return path;
}

static std::string with_sum(std::string text, const char *word)
{
    char line[32];
    (void)snprintf(line, sizeof line, "%s %08x\n", word, fwu_crc32c(0, text.data(), text.size()));
    return text + line;
}

// ---- JSON

static std::string json_of(const json_node &node)
{
    std::string text;
    switch (node.kind) {
    case JSON_NULL:
        return "null";
    case JSON_FALSE:
        return "false";
    case JSON_TRUE:
        return "true";
    case JSON_NUMBER:
        return node.text;
    case JSON_STRING:
        return json_text(node.text);
    case JSON_ARRAY:
        for (const json_node &child : node.children)
            text += (text.empty() ? "" : ",") + json_of(child);
        return "[" + text + "]";
    case JSON_OBJECT:
        for (const json_node &child : node.children)
            text += (text.empty() ? "" : ",") + json_text(child.name) + ":" + json_of(child);
        return "{" + text + "}";
    }
    return text;
}

static void read_json(std::string_view bytes)
{
    const std::unique_ptr<char[]> exact(new char[bytes.size()]);
    bytes.copy(exact.get(), bytes.size());
    std::string_view text(exact.get(), bytes.size());
    json_node node;
    if (!json_read(node, text)) {
        fuzz_expect(text.size() <= bytes.size(), "wrong outside of the text");
        return;
    }
    const std::string again = json_of(node);
    std::string_view rest = again;
    json_node copy;
    fuzz_expect(json_read(copy, rest) && rest.empty(), "JSON written again is none");
    if (utf8_valid(bytes)) // else characters stand for what is none
        fuzz_equal(json_of(copy), again, "JSON written again is another");
}

// ---- files

// A state file, as monitors read it.
static void health(std::string_view text)
{
    read_json(text);
    const std::string path = directory() + "/postgresql.json";
    fuzz_put(path, text);
    const health_item item = fwlog_health_look(path, 60);
    fuzz_expect(item.bytes >= 0 && item.seconds >= 0 && item.records >= -1, "below 0");
    const bool tells = json_text_member(text, "state") == "failed";
    fuzz_expect(!tells || item.verdict != HEALTH_OK, "failed, and in good health");
    const fuzz_said said = fuzz_call(fwlog_program, {"health", "--json", "--state", path});
    fuzz_expect(said.status >= 0 && said.status <= 3, "an exit status of no monitor");
    json_node node;
    std::string_view rest = said.out;
    fuzz_expect(json_read(node, rest) && rest.empty(), "health --json: no JSON");
    const outcome may = [&] {
        outcome done;
        (void)fuzz_listen([&] {
            done = pgb_state_check_path(path, directory());
            return 0;
        });
        return done;
    }();
    fuzz_expect(bool(may), "the file's own name is refused");
}

static void kept(std::string_view text)
{
    const std::string path = directory() + "/source";
    fuzz_put(path, text);
    pgb_kept first;
    first.path = path;
    fuzz_expect(bool(pgb_kept_read(first, path + ".older")), "a damaged file ends the run");
    fuzz_expect(fuzz_get(path) == text, "reading changed the file");
    fuzz_expect(bool(pgb_kept_write(first, false)), "cannot be written");
    pgb_kept second;
    second.path = path;
    fuzz_expect(bool(pgb_kept_read(second, path + ".older")), "cannot be read again");
    fuzz_equal(second.timeline, first.timeline, "time lines");
    fuzz_equal(second.told_lsn, first.told_lsn, "positions told");
    for (std::string pgb_kept::*const member :
         {&pgb_kept::system, &pgb_kept::database, &pgb_kept::slot, &pgb_kept::snapshot})
        if (utf8_valid(first.*member))
            fuzz_equal(second.*member, first.*member, "what the log belongs to");
}

// What a record of that standing says; other members of its line are dropped.
static bool says_the_same(const pga_record &a, const pga_record &b)
{
    if (a.standing != b.standing || a.at != b.at || a.standing == PGA_FOLLOWED)
        return a.standing == b.standing && a.at == b.at;
    if (a.since != b.since || a.since_us != b.since_us || a.reason != b.reason)
        return false;
    return a.standing == PGA_ASIDE || a == b;
}

static bool say_the_same(const pga_registry &a, const pga_registry &b)
{
    return std::equal(a.tables.begin(), a.tables.end(), b.tables.begin(), b.tables.end(),
                      [](const auto &one, const auto &other) {
                          const std::vector<pga_record> &records = one.second.records;
                          const std::vector<pga_record> &others = other.second.records;
                          return one.first == other.first &&
                                 std::equal(records.begin(), records.end(), others.begin(),
                                            others.end(), says_the_same);
                      });
}

static void aside(std::string_view text, bool raw)
{
    pga_registry registry;
    if (pga_take_lines(registry, text)) {
        const std::string lines = pga_lines(registry);
        pga_registry copy;
        fuzz_expect(pga_take_lines(copy, lines), "standings written again are none");
        fuzz_equal(pga_lines(copy), lines, "standings written again are others");
        fuzz_expect(say_the_same(copy, registry), "tables stand elsewhere");
        fuzz_expect(copy.ids == registry.ids && copy.leaves == registry.leaves, "numbers");
    }
    const std::string first = "fwlog aside 1\n";
    fuzz_put(directory() + "/aside",
             raw ? std::string(text) : with_sum(first + std::string(text), "checksum"));
    pga_registry opened;
    outcome done;
    const fuzz_said said = fuzz_listen([&] {
        done = pga_open(opened, directory(), 0600, 0x1000);
        return 0;
    });
    fuzz_equal(bool(done), said.err.empty(), "refused, and nothing said");
    pga_registry replaced;
    (void)fuzz_listen([&] {
        done = pga_open(replaced, directory(), 0600, 0x1000, true);
        return 0;
    });
    fuzz_expect(bool(done), "a damaged file cannot be replaced");
    for (const auto &[name, table] : replaced.tables)
        fuzz_expect(!table.records.empty() && table.records.back().at <= 0x1000,
                    "a standing of behind the log's end");
}

static void names(std::string_view text, bool raw)
{
    const std::string first = "fwlog names 1\n";
    fuzz_put(directory() + "/names",
             raw ? std::string(text) : with_sum(first + std::string(text), "checksum"));
    feed_names opened;
    outcome done;
    const fuzz_said said = fuzz_listen([&] {
        done = feed_names_open(opened, directory(), 0600);
        return 0;
    });
    fuzz_equal(bool(done), said.err.empty(), "refused, and nothing said");
    if (!done)
        return;
    opened.is_new = true;
    feed_names again;
    (void)fuzz_listen([&] {
        done = feed_names_keep(opened, true);
        if (done)
            done = feed_names_open(again, directory(), 0600);
        return 0;
    });
    fuzz_expect(bool(done), "names that were kept are none");
    fuzz_expect(again.tables == opened.tables && again.items == opened.items, "other names");
}

static void readers(std::string_view text, bool raw)
{
    const std::string head = "fwutil readers 1\n";
    const std::string path = directory() + "/readers";
    fuzz_put(path, raw ? std::string(text) : with_sum(head + std::string(text), "crc"));
    std::vector<std::string> paths;
    std::vector<std::string> again;
    fwu_found found = FWU_FAILED;
    const fuzz_said said = fuzz_listen([&] {
        found = fwu_readers_read(directory(), paths);
        if (found == FWU_FOUND && fwu_readers_write(directory(), paths) == 0)
            (void)fwu_readers_read(directory(), again);
        return 0;
    });
    fuzz_equal(found == FWU_FAILED, !said.err.empty(), "refused, and nothing said");
    if (found == FWU_FOUND)
        fuzz_expect(paths == again, "other readers");
    (void)unlink(path.c_str()); // so that no other look takes it
}

static void acknowledged(std::string_view text)
{
    fuzz_put(directory() + "/" + FWU_ACK_NAME, text);
    fwu_ack ack;
    fwu_ack again;
    fwu_found found = FWU_FAILED;
    const fuzz_said said = fuzz_listen([&] {
        found = fwu_ack_read(directory(), ack);
        return 0;
    });
    fuzz_equal(found == FWU_FAILED, !said.err.empty(), "refused, and nothing said");
    if (found != FWU_FOUND)
        return;
    (void)fuzz_listen([&] {
        if (fwu_ack_write(directory(), ack) == 0)
            found = fwu_ack_read(directory(), again);
        return 0;
    });
    fuzz_expect(found == FWU_FOUND, "what was acknowledged, written again, is nothing");
    fuzz_expect(again.position == ack.position && again.end == ack.end &&
                    again.commit.lsn == ack.commit.lsn && again.lost == ack.lost &&
                    again.identity == ack.identity,
                "something else was acknowledged");
}

static void run(std::string_view input)
{
    fuzz_bytes in = {input};
    const int chosen = in.byte();
    const bool raw = (chosen & FLAG_RAW) != 0;
    switch (chosen % 6) {
    case 0:
        return health(in.rest);
    case 1:
        return kept(in.rest);
    case 2:
        return aside(in.rest, raw);
    case 3:
        return names(in.rest, raw);
    case 4:
        return readers(in.rest, raw);
    default:
        return acknowledged(in.rest);
    }
}

static std::string written_state()
{
    pgb_state state;
    state.path = fuzz_path("state.json");
    state.phase = "streaming";
    state.started_us = 1'773'044'281'000'000;
    state.slot = "kestro";
    state.publication = "pub \"x\"";
    state.kept.system = "7710567567421338994";
    state.kept.database = "shop";
    state.server_lsn = 0x100000040;
    state.logged_lsn = 0x100000030;
    (void)pgb_state_write(state); // else the seed is empty
    return fuzz_get(state.path);
}

static std::string written_ack()
{
    fwu_ack ack;
    ack.position = {1, 25, 340};
    ack.end = 5000;
    ack.commit = {.time_us = 1'700'000'004'000'005, .xid = 0, .lsn = 0x1BC8080};
    ack.identity.bytes[0] = 7;
    (void)fwu_ack_create(directory(), ack, 0600); // else the seed is empty
    return fuzz_get(directory() + "/" + FWU_ACK_NAME);
}

static std::vector<std::string> seeds()
{
    const auto made = [](int chosen, const std::string &text) {
        return std::string(1, static_cast<char>(chosen)) + text;
    };
    return {made(0, written_state()),
            made(0, "{\"program\":\"Kestro\",\"state\":\"waiting\",\"pid\":1,\"status\":\"x\","
                    "\"position\":\"1-25.340\",\"updated\":\"2026-03-09T08:18:01.000000Z\"}\n"),
            made(0, "[1,-2.5e+3,\"\\u00e4\\ud83d\\ude00\",null,{\"a\":[true,false]}]"),
            made(1, "{\"system_identifier\":\"7710567567421338994\",\"database\":\"shop\","
                    "\"timeline\":\"3\",\"slot\":\"kestro\",\"snapshot\":\"done\","
                    "\"told_lsn\":\"1/28\"}\n"),
            made(2, "skipped app.audit\nid 16401 app t at=0/10 guessed=0/0\nid 16401 app u at=0/20 "
                    "guessed=0/8 lost\nlacking 16402 at=0/30\nleaves 700\nsent 0/40 701 5\n"
                    "leaf 16403 16401 app t_1 node=16403 at=0/10\nleaf 16403 16401 app t_1 "
                    "node=0 at=0/18 gone\ntable app t\nfollowed at=0/8\naside at=0/10 since=0/10 "
                    "since_us=5 reason=a%20b\ntaking at=0/20 since=0/10 since_us=5 reason=% "
                    "replaces=1 why=resume rows=7 shape=99 key=a key=b reached=1 reached=%\n"),
            made(3, "table app.t APP T\ntable app.\"a b\" APP A-B\ncolumn app.t.long_name LONG\n"),
            made(4, "/var/lib/orders/orders.status\n/tmp/a b.status\n"),
            made(5, written_ack())};
}

static std::vector<std::string> words()
{
    return {"\"state\":",
            "\"failed\"",
            "\"stopped\"",
            "\"waiting\"",
            "\"starting\"",
            "\"program\":",
            "\"Kestro\"",
            "\"pid\":",
            "\"lag_seconds\":",
            "\"lag_bytes\":",
            "\"aside\":[",
            "\"told_lsn\":\"",
            "\"timeline\":\"",
            "table ",
            "column ",
            "aside ",
            "taking ",
            "followed ",
            " at=0/",
            "leaf ",
            "id ",
            "\\u",
            "%",
            "1e308"};
}

constinit const fuzz_target fuzz_state_files = {
    .name = "state_files", .longest = 2048, .run = run, .seeds = seeds, .words = words};
