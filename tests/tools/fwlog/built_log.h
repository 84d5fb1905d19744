// Log files, of version 1 unless said, put together entry by entry, so that every byte of what
// is printed of them is known.
#ifndef TESTS_TOOLS_FWLOG_BUILT_LOG_H
#define TESTS_TOOLS_FWLOG_BUILT_LOG_H

#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_entry.h"
#include "fwutil/fwutil.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <filesystem>

// A log file being put together; images are those of dataset SALES.ORDERS.
struct log_file {
    explicit log_file(int32_t sequence, bool big_endian, uint16_t version = FWU_VERSION_PLAIN,
                      fwu_encoding encoding = FWU_LATIN1)
        : header{.version = version,
                 .identity = {},
                 .salt = {},
                 .big_endian = big_endian,
                 .encoding = encoding,
                 .generation = 1,
                 .sequence = sequence,
                 .created_us = 86'401'500'000} // 1.5 seconds behind 1970-01-02 00:00:00
    {
        bytes.resize(FWU_FILE_HEADER_SIZE);
        fwu_file_header_put(bytes.data(), header);
    }

    void layout()
    {
        fwu_layout orders{.dbname = "SALES", .dsetname = "ORDERS", .items = {}};
        orders.items.push_back({.name = "NO", .type = 'I', .size = 2});
        orders.items.push_back({.name = "NET", .type = 'P', .size = 2, .item_aux = 1});
        orders.items.push_back({.name = "TAG", .type = 'X', .size = 2, .count = 2});
        fwu_entry_put_layout(bytes, next_tag(), orders);
        added();
    }

    void session()
    {
        fwu_session session;
        session.user = "J\xFCrg";
        session.info = "";
        session.data = {"xid=7"};
        fwu_entry_put_session(bytes, next_tag(), session);
        added();
    }

    void change(int32_t opcode, const char *before, const char *after,
                const char *dsetname = "ORDERS", int32_t recnum = 12)
    {
        const fwu_change change{.dbname = "SALES",
                                .dsetname = dsetname,
                                .logtime = 86'461,
                                .opcode = opcode,
                                .recnum = recnum,
                                .reclen = 8,
                                .before = reinterpret_cast<const unsigned char *>(before),
                                .after = reinterpret_cast<const unsigned char *>(after)};
        fwu_entry_put_change(bytes, next_tag(), change);
        added();
    }

    void commit()
    {
        fwu_entry_put_commit(bytes, next_tag(),
                             {.commit = {.time_us = 86'461'000'250, .xid = 7, .lsn = 0x1A0000002B},
                              .entries = entries,
                              .chain = chain},
                             header, static_cast<int64_t>(bytes.size()));
        entries = 0;
        chain = 0;
        counted = bytes.size();
    }

    // The commit entry covers both CRC words of each entry before it.
    void added()
    {
        chain = fwu_crc32c(chain, bytes.data() + counted + FWU_ENTRY_CRC_AT, FWU_ENTRY_CRC_SIZE);
        counted = bytes.size();
        entries++;
    }

    void value(const fwu_value_piece &piece)
    {
        fwu_entry_put_value(bytes, next_tag(), piece);
        added();
    }

    fwu_file_header header;
    std::vector<unsigned char> bytes;
    int32_t tag = 0;

    // The largest is followed by what comes of adding 1 in 32 bits.
    int32_t next_tag()
    {
        tag = static_cast<int32_t>(static_cast<uint32_t>(tag) + 1);
        return tag;
    }
    uint32_t entries = 0;
    uint32_t chain = 0;
    size_t counted = FWU_FILE_HEADER_SIZE;
};

inline const char NEW_IMAGE[] = "\x05\x00\x12\x3C"
                                "a b "; // 5, 12.3, "a", "b"
inline const char OLD_IMAGE[] = "\xFF\xFF\x00\x5D"
                                "    "; // -1, -0.5, "", ""

// A directory with a configuration and log files.
struct place {
    place()
    {
        write_file(dir.file("fwutil.cfg"), "log-directory log\n");
        std::filesystem::create_directory(dir.file("log"));
    }

    void add(int32_t sequence, const std::vector<unsigned char> &bytes)
    {
        write_file(dir.file("log/") + fwu_log_file_name(1, sequence), {bytes.begin(), bytes.end()});
    }

    run_result dump(const std::vector<std::string> &more = {})
    {
        std::vector<std::string> words = {KESTRO_BUILD_DIR "/bin/fwlog", "dump", "-cfg",
                                          dir.file("fwutil.cfg")};
        words.insert(words.end(), more.begin(), more.end());
        return run_program(words);
    }

    tempdir dir;
};

// One transaction with every kind of entry.
inline log_file whole_file(int32_t sequence)
{
    log_file file(sequence, false);
    file.session();
    file.layout();
    file.change(FWU_OP_INSERT, nullptr, NEW_IMAGE);
    file.change(FWU_OP_UPDATE, OLD_IMAGE, NEW_IMAGE);
    file.change(FWU_OP_DELETE, OLD_IMAGE, nullptr);
    file.commit();
    return file;
}

#endif
