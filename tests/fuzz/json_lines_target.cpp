// A change stream in JSON that no server wrote: what is taken of it comes into a log that stays
// sound and has as many changes as were counted, and a line that is refused is refused again.
//
// An input is a byte of flags, and the lines.
#include "feed/wal2json/parse.h"
#include "feed/wal2json/stream.h"
#include "fwutil/fwu_log.h"
#include "tests/feed/wal2json/line_shown.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"
#include "tools/fwlog/fwlog.h"
#include "util/json_read.h"
#include "util/utf8.h"

constexpr int FLAG_UTF8 = 1;     // texts of the log
constexpr int FLAG_TRUNCATE = 2; // texts are cut to their items
constexpr int FLAG_BIG = 4;      // byte order of numbers

static const char config_lines[] = "log-directory loaded\n"
                                   "truncate mark\n"
                                   "database SALES\n"
                                   "dataset T\n"
                                   "item A I 4 key\n"
                                   "item B X 6\n"
                                   "item C P 5 scale=2\n"
                                   "item D E 8\n"
                                   "item E X 19\n"
                                   "item F I 2 x3\n"
                                   "item G Z 4 scale=1\n"
                                   "item H X 1\n"
                                   "item NULL-MAP X 8 null-map\n";

static void parse(w2j_line &line, std::string_view text)
{
    const std::unique_ptr<char[]> exact(new char[text.size()]);
    text.copy(exact.get(), text.size());
    const outcome once = w2j_parse(line, {exact.get(), text.size()});
    const char action = line.action;
    const outcome twice = w2j_parse(line, text);
    fuzz_equal(once.text(), twice.text(), "w2j_parse twice");
    w2j_line plain;
    const outcome by_plain = w2j_parse_plain(plain, text);
    w2j_line fresh;
    fresh.swift = std::move(line.swift); // whose memory has had the lines before
    const outcome by_both = w2j_parse(fresh, text);
    fuzz_equal(shown_line(fresh, by_both), shown_line(plain, by_plain), "both parsers");
    line.swift = std::move(fresh.swift);
    if (!once) {
        fuzz_expect(once.kind() == OUTCOME_BAD && !once.text().empty(), "refused without a text");
        return;
    }
    fuzz_equal(action, line.action, "w2j_parse twice: actions");
    fuzz_expect(std::string_view("BIUDCMT").find(action) != std::string_view::npos,
                "an action of no kind");
    json_node node;
    std::string_view rest = text;
    if (json_read(node, rest))
        fuzz_expect(rest.empty() && node.kind == JSON_OBJECT, "two readers of JSON");
}

static void load(std::string_view lines, int flags)
{
    const std::string path = fuzz_path("load.cfg");
    fuzz_put(path, config_lines);
    fwu_config config;
    w2j_stream stream;
    outcome done;
    uint64_t number = 0;
    const fuzz_said said = fuzz_listen([&] {
        if (fwu_config_read(config, path.c_str()) != 0)
            return 1;
        fuzz_remove(config.log_directory);
        config.sync = FWU_SYNC_NONE;
        config.big_endian = (flags & FLAG_BIG) != 0;
        config.encoding = (flags & FLAG_UTF8) != 0 ? FWU_UTF8 : FWU_LATIN1;
        config.new_log_encoding = *config.encoding;
        if (fwu_writer_open(&stream.tx.writer, config) != 0)
            return 2;
        stream.tables.config = &config;
        stream.tx.work.settings = {.big_endian = config.big_endian,
                                   .encoding = *config.encoding,
                                   .truncate = (flags & FLAG_TRUNCATE) != 0};
        while (!lines.empty() && done) {
            const std::string_view line = lines.substr(0, lines.find('\n'));
            lines.remove_prefix(std::min(line.size() + 1, lines.size()));
            done = w2j_stream_line(stream, line, ++number);
            stream.tx.work.notes.clear();
        }
        feed_abandon(stream.tx);
        return fwu_writer_close(stream.tx.writer);
    });
    if (said.status != 0)
        fuzz_failed("the log cannot be opened or closed: " + said.err);
    fuzz_expect(bool(done) || done.kind() != OUTCOME_BAD || !done.text().empty(),
                "a line was refused without a text");
    fuzz_expect(bool(done) || done.kind() == OUTCOME_BAD, "the writer refused a change");
    const fuzz_said verified = fuzz_call(fwlog_program, {"verify", "-cfg", path});
    if (verified.status != 0)
        fuzz_failed("the log is not sound: " + verified.out + verified.err);
    uint64_t changes = 0;
    (void)fuzz_listen([&] {
        return fwu_log_walk(config.log_directory, [&](const fwu_walk_item &item) {
            changes += item.what == FWU_WALK_ENTRY && fwu_entry_is_change(item.entry) ? 1 : 0;
            return 0;
        });
    });
    const feed_totals &totals = stream.tx.totals;
    fuzz_equal(changes, totals.inserts + totals.updates + totals.deletes, "changes");
    const fuzz_said dumped = fuzz_call(fwlog_program, {"dump", "-cfg", path, "--json"});
    fuzz_equal(dumped.status, 0, "dump --json of what was loaded");
}

static void run(std::string_view input)
{
    fuzz_bytes in = {input};
    const int flags = in.byte();
    w2j_line one;
    for (std::string_view lines = in.rest; !lines.empty();) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
        parse(one, line);
    }
    load(in.rest, flags);
}

static std::vector<std::string> seeds()
{
    const std::string begin =
        R"({"action":"B","xid":7,"timestamp":"2026-11-20 22:08:36.077609+00","lsn":"0/10"})"
        "\n";
    const std::string commit =
        R"({"action":"C","xid":7,"timestamp":"2026-11-20 22:08:36.077609+00","lsn":"0/10"})"
        "\n";
    const std::string row =
        R"x([{"name":"a","type":"integer","value":-17},)x"
        R"x({"name":"b","type":"text","value":"b\u00e4r \"q\""},)x"
        R"x({"name":"c","type":"numeric(9,2)","value":123.45},)x"
        R"x({"name":"d","type":"double precision","value":1.5e3},)x"
        R"x({"name":"e","type":"timestamp without time zone","value":"2026-11-20 22:08:36.5"},)x"
        R"x({"name":"f","type":"smallint[]","value":"{1,NULL,3}"},)x"
        R"x({"name":"g","type":"numeric(4,1)","value":"12.5"},)x"
        R"x({"name":"h","type":"boolean","value":true}])x";
    const std::string small =
        R"([{"name":"a","type":"integer","value":1},{"name":"b","type":"text","value":null}])";
    const auto change = [](char action, const std::string &columns, const std::string &identity) {
        return std::string(R"({"action":")") + action +
               R"(","xid":7,"schema":"sales","table":"t")" +
               (columns.empty() ? "" : ",\"columns\":" + columns) +
               (identity.empty() ? "" : ",\"identity\":" + identity) +
               R"(,"pk":[{"name":"a","type":"integer"}]})" + "\n";
    };
    const std::string message =
        R"({"action":"M","xid":7,"transactional":true,"prefix":"session","content":"pid=1;user=x"})"
        "\n";
    const std::string empty = R"({"action":"T","xid":7,"schema":"sales","table":"t"})"
                              "\n";
    return {std::string(1, FLAG_UTF8) + begin + message + change('I', row, "") +
                change('U', row, row) + change('D', "", row) + commit,
            std::string(1, FLAG_TRUNCATE) + begin + change('I', row, "") + empty + commit,
            std::string(1, FLAG_BIG) + begin + change('U', small, small) + commit,
            std::string(1, '\0') + begin + commit};
}

static std::vector<std::string> words()
{
    return {"\"action\":",
            "\"xid\":",
            "\"columns\":",
            "\"identity\":",
            "\"pk\":",
            "\"name\":",
            "\"type\":",
            "\"value\":",
            "\"schema\":",
            "\"table\":",
            "null",
            "true",
            "\\u0000",
            "\\ud83d\\ude00",
            "\\ud800",
            "integer",
            "numeric(9,2)",
            "bytea",
            "infinity",
            "NaN",
            "1e400",
            "-0",
            "{\"",
            "\"}",
            "[]"};
}

constinit const fuzz_target fuzz_json_lines = {
    .name = "json_lines", .longest = 4096, .run = run, .seeds = seeds, .words = words};
