// A message file that nobody wrote: what the check, the programs and the calls make of it has to
// agree with each other, and with a walk over its frames that knows nothing of them.
//
// An input is two bytes that say how long the file is at most (0: whole), the common area, and the
// data area.  The lock area between them is zeros.
#include "msgfile/tmf.h"
#include "msgfile/tmf_layout.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"
#include "tools/tmf/tmf_tool.h"
#include "util/json_read.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

using records_of = std::vector<std::string>;

static std::string file_bytes(std::string_view input)
{
    fuzz_bytes in = {input};
    const size_t size = in.word();
    std::string bytes(in.text(TMF_COMMON_SIZE));
    bytes.resize(TMF_DATA_START, '\0');
    bytes += in.rest;
    if (size != 0 && size < bytes.size())
        bytes.resize(size);
    return bytes;
}

static std::string seed_of(std::string_view file)
{
    return fuzz_number(0, 2) + std::string(file.substr(0, TMF_COMMON_SIZE)) +
           std::string(file.substr(std::min<size_t>(file.size(), TMF_DATA_START)));
}

// ---- the naive walk

struct walk {
    bool sound = false; // positions, frames and count agree
    records_of records;
};

static uint32_t number_at(std::string_view bytes, size_t at, size_t size, bool reversed)
{
    uint32_t value = 0;
    for (size_t i = 0; i < size; i++)
        value |= uint32_t{static_cast<unsigned char>(bytes[at + i])}
                 << 8 * (reversed ? size - 1 - i : i);
    return value;
}

static walk walk_over(std::string_view bytes)
{
    walk found;
    if (bytes.size() < static_cast<size_t>(TMF_COMMON_SIZE) || bytes.substr(4, 4) != "TM01")
        return found;
    const uint32_t mark = number_at(bytes, 0, 2, false);
    const bool reversed = mark == 0xFFFE;
    const size_t first = number_at(bytes, 36, 4, reversed);
    const size_t end = number_at(bytes, 44, 4, reversed);
    if ((mark != 0xFEFF && !reversed) || number_at(bytes, 28, 4, reversed) != 4352 ||
        number_at(bytes, 74, 2, reversed) != 2 || first < 4352 || first > end)
        return found;
    // Without a record it may end before where the first one comes.
    if (end > bytes.size() && end != 4352)
        return found;
    for (size_t at = first; at < end;) {
        if (end - at < 7)
            return found;
        const size_t length = number_at(bytes, at, 2, true);
        const uint32_t user = number_at(bytes, at + 2, 2, true);
        if (length < 7 || length > 32767 || length > end - at || user < 1 || user > 1024 ||
            number_at(bytes, at + length - 2, 2, true) != length)
            return found;
        found.records.emplace_back(bytes.substr(at + 4, length - 6));
        at += length;
    }
    found.sound = found.records.size() == number_at(bytes, 16, 4, reversed);
    return found;
}

// ---- the check

struct checked {
    int code = 0;
    tmf_check_result result = {};
    bool sound() const
    {
        return code == 0 && result.found == 0;
    }
};

static checked check(const std::string &path)
{
    checked found;
    found.code = tmf_check(path.c_str(), &found.result);
    return found;
}

static checked check_twice(const std::string &path, const std::string &bytes)
{
    const checked once = check(path);
    char text[TMF_ERRMSG_SIZE];
    char again[TMF_ERRMSG_SIZE];
    (void)tmf_geterrmsg(nullptr, text);
    const checked twice = check(path);
    (void)tmf_geterrmsg(nullptr, again);
    fuzz_equal(once.code, twice.code, "tmf_check twice: codes");
    fuzz_equal(std::string(text), std::string(again), "tmf_check twice: texts");
    fuzz_expect(memcmp(&once.result, &twice.result, sizeof once.result) == 0,
                "tmf_check twice: results");
    fuzz_expect(once.code <= 0, "tmf_check: a code above 0");
    fuzz_expect(fuzz_get(path) == bytes, "tmf_check changed the file");
    return once;
}

// ---- programs that look

static void look(const std::string &path, const std::string &bytes, const checked &found,
                 const walk &model)
{
    const fuzz_said verified = fuzz_call(tmf_program, {"verify", "--json", path});
    if (bytes.size() % 8 == 1)
        fuzz_expect(verified == fuzz_call(tmf_program, {"verify", "--json", path}),
                    "tmf verify twice");
    const fuzz_said info = fuzz_call(tmf_program, {"info", "--json", path});
    if (bytes.size() % 8 == 0) { // of what is only text
        (void)fuzz_call(tmf_program, {"verify", path});
        (void)fuzz_call(tmf_program, {"info", path});
    }
    for (const fuzz_said *said : {&verified, &info}) {
        json_node node;
        std::string_view rest = said->out;
        fuzz_expect(said->status == 0 || said->status == 1, "exit status of a look");
        fuzz_expect(said->out.empty() || (json_read(node, rest) && rest.empty()), "no JSON");
        fuzz_expect(said->status == 0 || !said->out.empty() || !said->err.empty(),
                    "a look failed and said nothing");
    }
    if (verified.status == 0 && !bytes.empty()) {
        fuzz_expect(model.sound, "verify: sound, and the frames are not");
        fuzz_expect(found.code == 0 && (found.result.found & ~TMF_FOUND_HOLE) == 0,
                    "verify: sound, and tmf_check is of another opinion");
        const std::string count = "\"records\":" + std::to_string(model.records.size()) + ",";
        fuzz_expect(verified.out.find(count) != std::string::npos, "verify: another count");
    }
    fuzz_expect(fuzz_get(path) == bytes, "a program that only looks changed the file");
}

// ---- calls

static void told(tmf_handle *h, int code)
{
    char text[TMF_ERRMSG_SIZE];
    (void)tmf_geterrmsg(h, text);
    fuzz_expect(memchr(text, 0, sizeof text) != nullptr && *text != '\0', "a code without a text");
    fuzz_expect(code == 1 || (code >= TMF_ESIGNAL && code <= TMF_EDELETE), "a code of no list");
}

static constexpr int most_reads = 100;

// Records in copy mode, count by count (0: one by one), up to an end or a code.
static int copies_of(tmf_handle *h, int count, records_of &copies)
{
    std::vector<char> room(TMF_MAX_DATA);
    std::vector<tmf_item> items(static_cast<size_t>(count));
    int got = 1;
    while (copies.size() < most_reads && got > 0) {
        if (count == 0) {
            got = tmf_fread(h, room.data(), TMF_MAX_DATA, 0);
            if (got > 0)
                copies.emplace_back(room.data(), static_cast<size_t>(got));
            continue;
        }
        got = tmf_fread_many(h, items.data(), count, room.data(), TMF_MAX_DATA, 0);
        for (int i = 0; i < got; i++)
            copies.emplace_back(static_cast<const char *>(items[static_cast<size_t>(i)].data),
                                static_cast<size_t>(items[static_cast<size_t>(i)].length));
    }
    return std::min(got, 0);
}

// What calls for many records give is what calls for one give, up to the first record of no data,
// which these cannot tell from the end.
static void compare_batches(const std::string &path, int count)
{
    records_of singles;
    records_of batches;
    int codes[2] = {};
    for (const bool many : {false, true}) {
        tmf_handle *const h =
            tmf_fopen(path.c_str(), TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
        if (h == nullptr)
            return;
        codes[many] = copies_of(h, many ? count : 0, many ? batches : singles);
        (void)tmf_fclose(h);
    }
    const auto empty = std::find(batches.begin(), batches.end(), "");
    const bool all = empty == batches.end() && singles.size() < most_reads;
    batches.erase(empty, batches.end());
    batches.resize(std::min<size_t>(batches.size(), most_reads));
    fuzz_expect(singles == batches, "records read many at once are other ones");
    if (all)
        fuzz_equal(codes[0], codes[1], "records read many at once end with another code");
}

// Copy mode: each record once, nothing removed.
static void read_copies(const std::string &path, const walk &model)
{
    tmf_handle *const h =
        tmf_fopen(path.c_str(), TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
    if (h == nullptr)
        return told(nullptr, tmf_geterrno(nullptr));
    std::vector<char> room(TMF_MAX_DATA);
    size_t n = 0;
    int got = 1;
    while (n < most_reads && (got = tmf_fread(h, room.data(), TMF_MAX_DATA, 0)) > 0) {
        if (model.sound && n < model.records.size())
            fuzz_equal(std::string(room.data(), static_cast<size_t>(got)), model.records[n],
                       "a copy of a record");
        n++;
    }
    if (got < 0)
        told(h, got);
    if (model.sound)
        fuzz_equal(n, std::min<size_t>(model.records.size(), most_reads), "copies");
    (void)tmf_fclose(h);
}

// Reading: a record that is kept is the one that is taken then, and the count goes down.
static void take_records(const std::string &path, const walk &model)
{
    tmf_handle *const h = tmf_fopen(path.c_str(), TMF_MODE_READ);
    if (h == nullptr)
        return told(nullptr, tmf_geterrno(nullptr));
    std::string kept(TMF_MAX_DATA, '\0');
    std::string taken(TMF_MAX_DATA, '\0');
    size_t n = 0;
    for (int got = 1; got > 0 && n < most_reads; n++) {
        int before = 0;
        int after = 0;
        const bool counts = tmf_getinfo(h, TMF_INFO_RECORDS, &before, 0) == 0;
        const int looked = tmf_freadx(h, kept.data(), TMF_MAX_DATA, TMF_READ_KEEP, 1);
        got = tmf_freadx(h, taken.data(), TMF_MAX_DATA, 0, 1);
        if (got < 0)
            told(h, got);
        if (got <= 0)
            break;
        fuzz_equal(looked, got, "a kept record and the taken one: lengths");
        const auto length = static_cast<size_t>(got);
        fuzz_expect(kept.compare(0, length, taken, 0, length) == 0, "a kept record, then another");
        if (model.sound && n < model.records.size())
            fuzz_equal(taken.substr(0, length), model.records[n], "a record");
        if (counts && tmf_getinfo(h, TMF_INFO_RECORDS, &after, 0) == 0)
            fuzz_expect(int64_t{after} == int64_t{before} - 1, "the count did not go down by one");
    }
    if (model.sound)
        fuzz_equal(n, std::min<size_t>(model.records.size(), most_reads), "records");
    (void)tmf_fclose(h);
    if (model.sound && model.records.size() < most_reads)
        fuzz_equal(check(path).result.records, 0, "records are left");
}

// A record that was written is the last one of a file that stays sound.
static void append_record(const std::string &path, const checked &before)
{
    tmf_handle *const h = tmf_fopen(path.c_str(), 0);
    if (h == nullptr)
        return told(nullptr, tmf_geterrno(nullptr));
    const int code = tmf_fwrite(h, "appended", 8);
    if (code != 0)
        told(h, code);
    (void)tmf_fclose(h);
    if (!before.sound() || code != 0)
        return;
    const checked after = check(path);
    fuzz_expect(after.sound(), "a sound file is not after a write");
    fuzz_equal(after.result.records, before.result.records + 1, "records after a write");
    const walk model = walk_over(fuzz_get(path));
    fuzz_expect(model.sound && model.records.back() == "appended", "another last record");
}

// ---- mending

static void repair(const std::string &path, const std::string &bytes, const checked &before)
{
    const std::string aside = path + ".damaged";
    (void)unlink(aside.c_str()); // need not be there
    tmf_check_result result;
    const int code = tmf_repair(path.c_str(), 0, aside.c_str(), &result);
    fuzz_equal(code, before.code, "tmf_repair refuses other files than tmf_check");
    if (code != 0) {
        fuzz_expect(fuzz_get(path) == bytes, "a repair that failed changed the file");
        return;
    }
    fuzz_equal(result.found, before.result.found, "tmf_repair finds something else");
    fuzz_expect((result.changed != 0) == (result.found != 0), "changed without damage, or not");
    const checked after = check(path);
    fuzz_expect(after.sound(), "a repaired file is not sound");
    if (result.changed != 0) {
        fuzz_equal(result.aside, TMF_ASIDE_MADE, "no copy");
        fuzz_expect(fuzz_get(aside) == bytes, "the copy is another file");
    } else {
        fuzz_expect(fuzz_get(path) == bytes, "a sound file was changed");
    }
    if (before.result.size == 0)
        return;
    fuzz_equal(after.result.records, before.result.records, "whole records lost by a repair");
    const std::string mended = fuzz_get(path);
    fuzz_expect(mended.empty() || walk_over(mended).sound, "the frames of a repaired file");
}

static void salvage(const std::string &path, const std::string &bytes, const checked &found,
                    const walk &model)
{
    const std::string out = fuzz_path("salvaged");
    (void)unlink(out.c_str()); // need not be there
    const fuzz_said said = fuzz_call(tmf_program, {"salvage", path, out});
    fuzz_expect(fuzz_get(path) == bytes, "tmf salvage changed the file");
    if (said.status != 0) {
        fuzz_expect(!said.err.empty() && access(out.c_str(), F_OK) != 0, "a failed salvage");
        fuzz_expect(!found.sound() || found.result.size == 0, "a sound file cannot be salvaged");
        return;
    }
    const checked made = check(out);
    fuzz_expect(made.sound(), "what was salvaged is not sound");
    if (!found.sound())
        return;
    const walk saved = walk_over(fuzz_get(out));
    fuzz_expect(saved.records.size() >= model.records.size() &&
                    std::equal(model.records.begin(), model.records.end(), saved.records.begin()),
                "records of a sound file are missing in what was salvaged");
    fuzz_equal(saved.records.size(),
               model.records.size() + static_cast<size_t>(found.result.uncounted),
               "records salvaged");
}

static void run(std::string_view input)
{
    const std::string bytes = file_bytes(input);
    const std::string path = fuzz_path("queue");
    const walk model = walk_over(bytes);

    fuzz_put(path, bytes);
    const checked found = check_twice(path, bytes);
    if (found.sound() && !bytes.empty())
        fuzz_expect(model.sound, "tmf_check: sound, and the frames are not");
    look(path, bytes, found, model);
    salvage(path, bytes, found, model);
    repair(path, bytes, found);
    for (void (*const read)(const std::string &, const walk &) : {read_copies, take_records}) {
        fuzz_put(path, bytes);
        // A file whose lock area or users are none may be refused, or hold the reader up.
        read(path, found.sound() ? model : walk());
    }
    fuzz_put(path, bytes);
    compare_batches(path, 1 + static_cast<int>(bytes.size() % 9));
    append_record(path, found);
}

// ---- seeds

static std::string written(const records_of &records, size_t taken)
{
    const std::string path = fuzz_path("seed");
    (void)unlink(path.c_str()); // need not be there
    tmf_handle *h = tmf_fopen(path.c_str(), 0);
    for (const std::string &record : records)
        (void)tmf_fwrite(h, record.data(), static_cast<int>(record.size()));
    (void)tmf_fclose(h);
    h = tmf_fopen(path.c_str(), TMF_MODE_READ);
    char room[64];
    for (; taken > 0; taken--)
        (void)tmf_fread(h, room, sizeof room, 0);
    (void)tmf_fclose(h);
    return fuzz_get(path);
}

static std::string other_order(std::string file)
{
    for (const tmf_word &word : TMF_HOST_WORDS)
        std::reverse(file.begin() + word.at, file.begin() + word.at + word.width);
    return file;
}

static std::vector<std::string> seeds()
{
    const records_of three = {"first", std::string(300, 'x'), "third"};
    std::string uncounted = written(three, 0);
    uncounted[16] = 2; // of three, and the end in front of the third
    const auto end = static_cast<uint16_t>(uncounted.size() - 2 - 11);
    uncounted[44] = static_cast<char>(end & 0xFF);
    uncounted[45] = static_cast<char>(end >> 8);
    std::string users = written(three, 0);
    users[68] = users[70] = 1;
    users[126] = 1;
    users[128] = 1;
    return {seed_of(written({}, 0)),
            seed_of(written(three, 0)),
            seed_of(written(three, 1)),
            seed_of(written(three, 3)),
            seed_of(uncounted),
            seed_of(users),
            seed_of(other_order(written(three, 1))),
            "\0\0"};
}

static std::vector<std::string> words()
{
    return {"TM01",
            "\xFF\xFE",
            "\xFE\xFF",
            std::string("\0\x11\0\0", 4),
            "\xFF\xFF",
            std::string("\0\x07\0\x11?\0\x07", 7),
            "\xFF\xFF\xFF\x7F",
            std::string("\0\0\0\x80", 4)};
}

constinit const fuzz_target fuzz_message_file = {
    .name = "message_file", .longest = 16384, .run = run, .seeds = seeds, .words = words};
