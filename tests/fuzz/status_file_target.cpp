// A status file that no run left: what is read of it is read again from what would be written of
// it, and the report, the reader and a run's start take or refuse it alike.
//
// An input is a byte of flags, and the file; its checksums can be made right.
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_status.h"
#include "fwutil/fwutil.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

constexpr int FLAG_RAW = 1; // checksums stay as they are

static std::string hex(uint32_t value)
{
    char text[16];
    (void)snprintf(text, sizeof text, "%08x", value);
    return text;
}

// Lines end with the checksum of what stands in front of them and of their own text, those that
// name a record in another order; the lines that say where a text stands have that one's, too.
static void seal(std::string &file)
{
    static constexpr std::string_view crc = " crc ";
    size_t lines = file.find('\n');
    lines = lines == file.npos ? lines : file.find('\n', lines + 1);
    if (lines == file.npos)
        return;
    const uint32_t prefix = fwu_crc32c(0, file.data(), lines + 1);
    for (size_t at = lines + 1, end = 0; end != file.npos && at < file.size(); at = end + 1) {
        end = file.find('\n', at);
        const std::string_view line = std::string_view(file).substr(at, end - at);
        const size_t word = line.rfind(crc);
        if (word == line.npos || line.size() != word + crc.size() + 8)
            continue;
        if (const size_t where = line.find(" at "), length = line.find(" length "),
            text = line.find(" text ");
            where != line.npos && length != line.npos && text != line.npos &&
            text + 14 <= line.size()) {
            const size_t from = strtoul(file.c_str() + at + where + 4, nullptr, 10);
            const size_t size = strtoul(file.c_str() + at + length + 8, nullptr, 10);
            if (from <= file.size() && size <= file.size() - from)
                file.replace(at + text + 6, 8, hex(fwu_crc32c(0, file.data() + from, size)));
        }
        uint32_t sum = 0;
        static constexpr size_t time_at = sizeof "0 position 0001-00000025.0000000340" - 1;
        if (line.substr(1, 10) == " position " && line.size() + 1 == FWU_STATUS_LINE_SIZE) {
            sum = fwu_crc32c(prefix, file.data() + at + time_at, word - time_at);
            sum = fwu_crc32c(sum, file.data() + at, time_at);
        } else {
            sum = fwu_crc32c(prefix, file.data() + at, word);
        }
        file.replace(at + word + crc.size(), 8, hex(sum));
    }
}

static void round_trip(const std::string &bytes)
{
    fwu_status_text text;
    if (fwu_status_get(text, bytes) != 0)
        return;
    if (text.version != 2 || !text.have_live || !text.have_synced ||
        !fwu_status_fits(text.log_directory))
        return;
    const std::string mark = fwu_synced_put(text.synced);
    const std::string again = fwu_status_put(text.log_directory, text.live, mark);
    fwu_status_text copy;
    fuzz_equal(fwu_status_get(copy, again), 0, "a status file written again is none");
    fuzz_equal(copy.log_directory, text.log_directory, "log directories");
    fuzz_expect(copy.have_live && copy.live == text.live, "the live place");
    fuzz_expect(copy.have_synced && copy.synced.place == text.synced.place, "the synced place");
    fuzz_equal(copy.synced.mark, text.synced.mark, "the mark");
    fuzz_equal(copy.synced.boot, text.synced.boot, "the boot");
}

static int none(uint32_t, const char *, const char *, int32_t, int32_t, int32_t, int32_t,
                const void *, const void *)
{
    return 0;
}

static void run(std::string_view input)
{
    fuzz_bytes in = {input};
    const int flags = in.byte();
    std::string bytes(in.rest);
    if ((flags & FLAG_RAW) == 0)
        seal(bytes);
    round_trip(bytes);

    const std::string path = fuzz_path("some.status");
    fuzz_put(path, bytes);
    fwu_status_text text;
    const fuzz_said read = fuzz_listen([&] { return fwu_status_read(path, text); });
    const fuzz_said again = fuzz_listen([&] {
        fwu_status_text other;
        return fwu_status_read(path, other);
    });
    fuzz_expect(read == again, "read twice");
    fwu_status_text decoded;
    fuzz_equal(fwu_status_get(decoded, bytes) == 0, read.status == 0, "bytes and file");
    fuzz_expect(read.status == 0 || read.err.find(path) != std::string::npos,
                "refused without the file's name");
    const fuzz_said report = fuzz_listen([&] { return Fwu_status(path.c_str(), 1); });
    fuzz_expect(read.status == 0 || report.status != 0, "reported, and cannot be read");
    fuzz_expect(report.status == 0 || !report.err.empty(), "no report, and nothing said");
    fuzz_expect(fuzz_get(path) == bytes, "a look changed the file");

    // A run over an empty log that begins with it: an old position is never taken for none.
    static const std::string cfg = [] {
        fuzz_put(fuzz_path("status.cfg"), "log-directory emptylog\n");
        (void)std::filesystem::create_directory(fuzz_path("emptylog"));
        return fuzz_path("status.cfg");
    }();
    Fwu_synconly(1);
    const fuzz_said started =
        fuzz_listen([&] { return Fwu_process(none, cfg.c_str(), path.c_str(), nullptr); });
    if (read.status != 0)
        fuzz_expect(started.status != 0 && fuzz_get(path) == bytes,
                    "a run began with a damaged status file");
    if (read.status == 0 && text.have_live && fwu_place_named(text.live) && text.have_synced &&
        fwu_place_named(text.synced.place))
        fuzz_expect(started.status != 0, "a run over an empty log, and a position in it");
}

static std::vector<std::string> seeds()
{
    fwu_place place;
    place.position = {1, 25, 340};
    place.time_us = 1'700'000'004'000'005;
    place.lsn = 0x1BC8080;
    for (unsigned char i = 0; i < sizeof place.identity.bytes; i++)
        place.identity.bytes[i] = i;
    const std::string synced = fwu_synced_put({.place = place,
                                               .boot = "6fb41e2e-1b1f-4c2e-9d3a-5a7c0c9be001",
                                               .mark = "file text 1234 5000 0 cap.txt\n"});
    const std::string made(1, '\0');
    const std::string whole = fwu_status_put("/var/log/sales", place, synced);
    return {made + whole, made + fwu_status_put("/var/log/sales", fwu_place(), synced),
            std::string(1, FLAG_RAW) + whole,
            made + "fwutil status 1\nlog /var/log/sales\n0 position 0001-00000025.0000000340 time "
                   "2026-11-21 03:33:52.123456 UTC crc 00000000\n1 position "
                   "0001-00000025.0000000341 time 2026-11-21 03:33:52.123456 UTC crc 00000000\n",
            made};
}

static std::vector<std::string> words()
{
    return {"fwutil status 2\n",
            "log /",
            " position none",
            " synced at ",
            " crc ",
            "boot ",
            " time ",
            " lsn ",
            " log ",
            "*"};
}

constinit const fuzz_target fuzz_status_file = {
    .name = "status_file", .longest = 4096, .run = run, .seeds = seeds, .words = words};
