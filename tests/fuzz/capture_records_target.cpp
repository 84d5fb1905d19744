// Capture records, and layouts, that nobody wrote: what is taken of them is JSON, and a file of
// lines is read alike whatever its place in memory.
//
// An input is a byte of flags for the form, one that says what stands behind: a layout file up to
// the next zero, or none (the one below holds); then the records, a text file whole or messages
// each behind its length in two bytes.
#include "changes/json.h"
#include "records/record.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"
#include "tools/capread/capread.h"
#include "util/json_read.h"

#include <algorithm>
#include <memory>

static const std::string layout_line =
    R"({"database":"SALES","dataset":"T","table":"sales.t","position":"1-25.3",)"
    R"("byte_order":"little","text_encoding":"utf-8","items":[)"
    R"({"name":"NO","type":"I","size":4,"count":1,"scale":0,"column":"no","source_type":"integer",)"
    R"("key":1,"null_map":false},)"
    R"({"name":"Q","type":"P","size":3,"count":2,"scale":1,"column":null,"source_type":null,)"
    R"("key":null,"null_map":false},)"
    R"({"name":"Z","type":"Z","size":5,"count":1,"scale":2,"column":null,"key":null,"null_map":false},)"
    R"({"name":"E","type":"E","size":8,"count":1,"scale":0,"column":null,"key":null,"null_map":false},)"
    R"({"name":"S","type":"X","size":7,"count":1,"scale":0,"column":null,"key":null,"null_map":false},)"
    R"({"name":"NULLS","type":"X","size":5,"count":1,"scale":0,"column":null,"key":null,)"
    R"("null_map":true}],"row_length":35})"
    "\n";

static rec_form form_of(int bits, int more)
{
    rec_form form;
    form.text = (bits & 1) != 0;
    form.exthdr = (bits & 2) != 0;
    form.recnum = (bits & 4) != 0;
    form.yyyy = (bits & 8) != 0;
    form.bwfmt = form.text && (bits & 16) != 0;
    form.dirty = form.text && (bits & 32) != 0;
    form.asciirev = form.text && (bits & 64) != 0;
    form.fga = (bits & 128) != 0;
    static constexpr int32_t infos[] = {HDRKIND_NONE, HDRKIND_NONE, HDRKIND_PROG, HDRKIND_DBUSER};
    form.info = infos[more >> 1 & 3];
    return form;
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

// What a record is taken for, begun as capread does; in memory of its own length.
static std::string take(rec_record &record, std::string_view text)
{
    const size_t head = record.header.length;
    if (text.size() < head)
        return "short";
    const std::unique_ptr<char[]> begin(new char[head]);
    text.copy(begin.get(), head);
    outcome done = rec_record_begin(record, {begin.get(), head});
    if (!done) {
        fuzz_expect(done.kind() == OUTCOME_BAD && !done.text().empty(), "refused without a text");
        return done.text();
    }
    if (record.dataset == nullptr)
        return "passed over";
    const std::unique_ptr<char[]> whole(new char[text.size()]);
    text.copy(whole.get(), text.size());
    done = rec_record_take(record, {whole.get(), text.size()});
    if (!done) {
        fuzz_expect(done.kind() == OUTCOME_BAD && !done.text().empty(), "refused without a text");
        return done.text();
    }
    fuzz_expect(record.made.dataset != nullptr, "a change of no dataset");
    const bool has_before = record.made.before.image != nullptr;
    const bool has_after = record.made.after.image != nullptr;
    fuzz_expect(has_before == (record.made.op != CHANGE_CREATE) &&
                    has_after == (record.made.op != CHANGE_DELETE),
                "the images are not those of the change");
    std::string out;
    change_json json;
    change_json_put(json, out, record.made, record.transaction);
    change_json_end(json, out, true);
    fuzz_expect(all_json(out), "no JSON");
    return out;
}

static void messages(rec_record &record, std::string_view bytes)
{
    for (fuzz_bytes in = {bytes}; !in.rest.empty();) {
        const size_t length = in.word();
        const std::string_view text = in.text(length);
        const std::string once = take(record, text);
        fuzz_equal(take(record, text), once, "a record twice");
    }
}

// The whole file, as capread goes through it.
static fuzz_said lines(const rec_form &form, const std::string &layouts, const std::string &path)
{
    capread_run run;
    run.file = path.c_str();
    rec_record_open(run.record, form);
    return fuzz_listen([&] {
        outcome done = rec_layouts_read(run.record.layouts, layouts.c_str());
        run.output.json.emplace();
        if (done)
            done = capread_text(run);
        const outcome flushed = capread_flush(run.output);
        if (!done.text().empty())
            fprintf(stderr, "%s\n", done.text().c_str());
        return static_cast<int>(done ? flushed.kind() : done.kind());
    });
}

static void run(std::string_view input)
{
    fuzz_bytes in = {input};
    const int bits = in.byte();
    const int more = in.byte();
    const rec_form form = form_of(bits, more);
    std::string layout = layout_line;
    if ((more & 1) != 0) {
        layout = in.text(in.rest.find('\0'));
        (void)in.byte();
    }
    const std::string layouts = fuzz_path("layouts.json");
    fuzz_put(layouts, layout);
    rec_record record;
    rec_record_open(record, form);
    const outcome read = rec_layouts_read(record.layouts, layouts.c_str());
    rec_record other;
    rec_record_open(other, form);
    fuzz_equal(rec_layouts_read(other.layouts, layouts.c_str()).text(), read.text(),
               "layouts read twice");
    if (!read) {
        fuzz_expect(!read.text().empty(), "layouts refused without a text");
        return;
    }
    if (!form.text)
        return messages(record, in.rest);
    const std::string path = fuzz_path("capture.txt");
    fuzz_put(path, in.rest);
    const fuzz_said once = lines(form, layouts, path);
    fuzz_expect(all_json(once.out), "capread: no JSON");
    fuzz_expect(once.status == OUTCOME_OK || !once.err.empty(), "capread failed and said nothing");
    fuzz_expect(once == lines(form, layouts, path), "capread twice");
}

// ---- seeds

static std::string padded(std::string text, size_t width)
{
    text.resize(width, ' ');
    return text;
}

static std::string header(const rec_form &form, const char *op)
{
    return "000001" + padded("SALES", 24) + padded("T", 16) +
           (form.yyyy ? "2026112217:05:13" : "26112217:05:13") + op +
           (form.exthdr ? padded("till", 24) + padded("KASSE1", 8) + padded("cash", 24) + " 04711"
                        : "") +
           (form.recnum ? "000000000000001" : "");
}

static std::string image()
{
    using namespace std::string_literals;
    return "\x11\0\0\0\x01\x23\x4C\x12\x34\x5D"s + "1234K" + "\0\0\0\0\0\0\xF8\x3F"s +
           "caf\xC3\xA9  " + ".....";
}

static std::string columns()
{
    return "            17"
           "+00123"
           "-12345"
           "-12342"
           "                      1.5"
           "cafe   "
           ".....";
}

static std::vector<std::string> seeds()
{
    const auto messages_of = [](int bits) {
        const rec_form form = form_of(bits, 0);
        std::string input = {static_cast<char>(bits), 0};
        for (const auto &[op, images] :
             std::vector<std::pair<const char *, int>>{{"IP", 1}, {"IU", 2}, {"ID", 1}}) {
            const std::string text =
                header(form, op) + image() + (images == 2 ? image() : std::string());
            input += fuzz_number(text.size(), 2) + text;
        }
        return input;
    };
    const auto lines_of = [](int bits, const std::string &more) {
        const rec_form form = form_of(bits, 0);
        return std::string(1, static_cast<char>(bits)) + more + header(form, "IP") + columns() +
               "\n" + header(form, "IU") + columns() + columns() + "\n" + header(form, "ID") +
               columns() + "\n";
    };
    using namespace std::string_literals;
    return {messages_of(0),
            messages_of(2 | 4 | 8),
            lines_of(1, "\0"s),
            lines_of(1 | 2 | 4, "\0"s),
            lines_of(1, "\1"s + layout_line + "\0"s),
            lines_of(1 | 32, "\0"s)};
}

static std::vector<std::string> words()
{
    return {"IP",
            "IU",
            "ID",
            "\"type\":\"",
            "\"size\":",
            "\"count\":",
            "\"scale\":",
            "\"key\":",
            "\"null_map\":true",
            "\"row_length\":",
            "\"items\":[",
            "\"byte_order\":\"big\"",
            "\"text_encoding\":\"iso-8859-1\"",
            "\"column\":",
            "null",
            "SALES",
            "2147483647",
            "-1"};
}

constinit const fuzz_target fuzz_capture_records = {
    .name = "capture_records", .longest = 4096, .run = run, .seeds = seeds, .words = words};
