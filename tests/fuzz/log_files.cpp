// Taking logs apart by lengths alone.
#include "tests/fuzz/log_files.h"

#include "fwutil/fwu_bytes.h"
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"

#include <algorithm>
#include <filesystem>

static constexpr std::string_view FILE_BEGIN = "KFWLOG\r\n";
static constexpr size_t most_files = 3;
static constexpr size_t commit_count_at = 24; // of a commit's payload: entries, chain

std::vector<std::string> fuzz_log_split(std::string_view bytes)
{
    std::vector<std::string> files;
    size_t at = bytes.find(FILE_BEGIN);
    while (at != bytes.npos && files.size() < most_files) {
        const size_t next = bytes.find(FILE_BEGIN, at + FILE_BEGIN.size());
        files.emplace_back(bytes.substr(at, next == bytes.npos ? next : next - at));
        at = next;
    }
    return files;
}

static unsigned char *bytes_of(std::string &text)
{
    return reinterpret_cast<unsigned char *>(text.data());
}

// What the checksums of a commit entry begin with.
static uint32_t salted(const std::string &file, size_t salt_at, size_t offset)
{
    unsigned char place[12];
    file.copy(reinterpret_cast<char *>(place), 4, 48 + salt_at);
    put_le64(place + 4, offset);
    return fwu_crc32c(0, place, sizeof place);
}

// Calls take(at, length) for each entry that has a place in the file.
template <typename Take> static void each_entry(std::string &file, Take take)
{
    for (size_t at = FWU_FILE_HEADER_SIZE; at + FWU_ENTRY_HEADER_SIZE <= file.size();) {
        const size_t length = get_le32(bytes_of(file) + at);
        if (length < FWU_ENTRY_HEADER_SIZE || length > file.size() - at ||
            fwu_entry_padded(length) > file.size() - at)
            return;
        take(at, length);
        at += fwu_entry_padded(length);
    }
}

void fuzz_log_seal(std::string &file, int32_t sequence)
{
    if (file.size() < FWU_FILE_HEADER_SIZE)
        return;
    unsigned char *const head = bytes_of(file);
    put_le32(head + 16, 1);
    put_le32(head + 20, static_cast<uint32_t>(sequence));
    put_le32(head + 60, fwu_crc32c(0, head, 60));
    const bool salts = get_le16(head + 8) != FWU_VERSION_PLAIN;
    uint32_t tag = 0;
    uint32_t entries = 0;
    uint32_t chain = 0;
    each_entry(file, [&](size_t at, size_t length) {
        unsigned char *const entry = bytes_of(file) + at;
        const bool commits = get_le16(entry + 4) == FWU_KIND_COMMIT;
        const bool by_place = commits && salts;
        put_le32(entry + 8, ++tag);
        if (commits && length == FWU_COMMIT_SIZE) {
            put_le32(entry + FWU_ENTRY_HEADER_SIZE + commit_count_at, entries);
            put_le32(entry + FWU_ENTRY_HEADER_SIZE + commit_count_at + 4, chain);
        }
        put_le32(entry + 12, fwu_crc32c(by_place ? salted(file, 0, at) : 0, entry, 12));
        put_le32(entry + 16,
                 fwu_crc32c(by_place ? salted(file, 4, at) : 0, entry + FWU_ENTRY_HEADER_SIZE,
                            length - FWU_ENTRY_HEADER_SIZE));
        put_le32(entry + 20, 0);
        std::fill(entry + length, entry + fwu_entry_padded(length), 0);
        entries = commits ? 0 : entries + 1;
        chain = commits ? 0 : fwu_crc32c(chain, entry + FWU_ENTRY_CRC_AT, FWU_ENTRY_CRC_SIZE);
    });
}

std::vector<fuzz_log_commit> fuzz_log_commits(const std::vector<std::string> &files)
{
    std::vector<fuzz_log_commit> commits;
    for (size_t i = 0; i < files.size(); i++) {
        std::string file = files[i];
        if (file.size() < FWU_FILE_HEADER_SIZE)
            continue;
        each_entry(file, [&](size_t at, size_t length) {
            const unsigned char *const entry = bytes_of(file) + at;
            if (get_le16(entry + 4) != FWU_KIND_COMMIT || length != FWU_COMMIT_SIZE)
                return;
            const unsigned char *const p = entry + FWU_ENTRY_HEADER_SIZE;
            fuzz_log_commit found;
            found.sequence = static_cast<int32_t>(i + 1);
            found.tag = static_cast<int32_t>(get_le32(entry + 8));
            found.end = static_cast<int64_t>(at + FWU_COMMIT_SIZE);
            found.commit = {.time_us = static_cast<int64_t>(get_le64(p)),
                            .xid = get_le64(p + 8),
                            .lsn = get_le64(p + 16)};
            file.copy(reinterpret_cast<char *>(found.identity.bytes), sizeof found.identity.bytes,
                      32);
            commits.push_back(found);
        });
    }
    return commits;
}

void fuzz_log_put(const std::string &directory, const std::vector<std::string> &files)
{
    fuzz_remove(directory);
    std::filesystem::create_directory(directory);
    for (size_t i = 0; i < files.size(); i++)
        fuzz_put(directory + "/" + fwu_log_file_name(1, static_cast<int32_t>(i + 1)), files[i]);
}

std::vector<std::pair<std::string, std::string>> fuzz_log_files(const std::string &directory)
{
    std::vector<std::pair<std::string, std::string>> files;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        int32_t generation = 0;
        int32_t sequence = 0;
        const std::string name = entry.path().filename();
        if (fwu_log_file_parse(name.c_str(), generation, sequence))
            files.emplace_back(name, fuzz_get(entry.path()));
    }
    std::sort(files.begin(), files.end());
    return files;
}

// ---- a log that the writer makes

static fwu_layout orders()
{
    fwu_layout layout;
    layout.dbname = "SALES";
    layout.dsetname = "ORDERS";
    layout.items = {{.name = "NO", .type = 'I', .size = 4},
                    {.name = "NET", .type = 'P', .size = 3, .count = 1, .item_aux = 2},
                    {.name = "NOTE", .type = 'X', .size = 6},
                    {.name = "RATE", .type = 'E', .size = 8},
                    {.name = "QTY", .type = 'Z', .size = 3, .count = 2},
                    {.name = "NULLS", .type = 'X', .size = 5}};
    fwu_source source;
    source.schema = "sales";
    source.table = "orders";
    source.columns = {{.name = "no", .type = "integer", .item = 0, .key = 1},
                      {.name = "net", .type = "numeric(5,2)", .item = 1},
                      {.name = "note", .type = "text", .item = 2}};
    source.null_map = 5;
    layout.source = std::make_shared<const fwu_source>(source);
    return layout;
}

static std::string image(bool big_endian, const char *flags)
{
    using namespace std::string_literals;
    const std::string number = big_endian ? "\0\0\0\x11"s : "\x11\0\0\0"s;
    const std::string rate = big_endian ? "\x3F\xF8\0\0\0\0\0\0"s : "\0\0\0\0\0\0\xF8\x3F"s;
    return number + "\x01\x23\x4C"s + "b\xC3\xA4 ck"s + rate + "12K00{"s + flags;
}

std::vector<std::string> fuzz_log_written(bool big_endian)
{
    const std::string directory = fuzz_path("written");
    fuzz_remove(directory);
    fwu_config config;
    config.path = fuzz_path("written.cfg");
    config.log_directory = directory;
    config.big_endian = big_endian;
    config.new_log_encoding = big_endian ? FWU_LATIN1 : FWU_UTF8;
    config.log_file_size = 1400;
    fwu_writer *writer = nullptr;
    if (fwu_writer_open(&writer, config) != 0)
        fuzz_failed("the writer of a seed");
    const fwu_layout layout = orders();
    const fwu_layout plain = {"DEPOT", "STOCK", {{.name = "KEY", .type = 'X', .size = 4}}};
    const std::string before = image(big_endian, ".....");
    const std::string after = image(big_endian, ".NC..");
    const auto length = static_cast<int32_t>(before.size());
    const std::vector<fwu_value> values = {{.item = 2, .text = "block and more than fits"}};
    for (uint64_t n = 1; n <= 3; n++) {
        fwu_session session;
        session.pname = "/bin/orders";
        session.data = {"xid=" + std::to_string(n), "origin=a"};
        bool good = fwu_writer_begin(writer, n == 2 ? nullptr : &session) == 0;
        good = good && fwu_writer_record(writer, FWU_OP_INSERT, layout, 1700000000, length, nullptr,
                                         after.data(), values) == 0;
        good = good && fwu_writer_record(writer, FWU_OP_UPDATE, layout, 1700000001, length,
                                         before.data(), after.data()) == 0;
        good = good && fwu_writer_record(writer, FWU_OP_DELETE, plain, 1700000002, 4, "k\xFF 1",
                                         nullptr) == 0;
        if (n != 1)
            good =
                good && fwu_writer_mark(writer, {.kind = n == 2 ? FWU_MARK_TRUNCATE : FWU_MARK_GAP,
                                                 .dbname = "SALES",
                                                 .dsetname = "ORDERS",
                                                 .schema = "sales",
                                                 .table = "orders",
                                                 .reason = "emptied"}) == 0;
        good = good && fwu_writer_commit(writer, {.time_us = 1700000000'000000 + 5 * int64_t(n),
                                                  .xid = 700 + n,
                                                  .lsn = 0x1000 * n}) == 0;
        if (!good)
            fuzz_failed("a transaction of a seed");
    }
    (void)fwu_writer_close(writer); // all of it is read below
    std::vector<std::string> files;
    for (const auto &[name, bytes] : fuzz_log_files(directory))
        files.push_back(bytes);
    return files;
}
