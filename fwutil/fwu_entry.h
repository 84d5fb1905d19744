// The bytes of a log file: its header and its entries.  Decoding is safe on any
// input; the layout is described in docs/forward-log.md.
#ifndef FWUTIL_FWU_ENTRY_H
#define FWUTIL_FWU_ENTRY_H

#include "fwutil/fwu_bytes.h"
#include "fwutil/fwu_identity.h"
#include "fwutil/fwu_items.h"
#include "fwutil/fwu_session.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// File header: 64 bytes.
//   0  c[8]  magic       "KFWLOG\r\n"
//   8  u16   version     2; 1 in older files, which have neither identity nor salt
//  10  u16   length      64
//  12  u8    byte order  'L' or 'B': the numbers inside record images
//  13  u8    encoding    0: ISO 8859-1, 'U': UTF-8: the texts inside record images
//  14  c[2]  zero
//  16  i32   generation
//  20  i32   sequence
//  24  i64   created     microseconds since 1970 UTC
//  32  c[16] identity    random, the same in all files of a log
//  48  c[8]  salt        random, this file's own
//  56  c[4]  zero
//  60  u32   CRC of bytes 0 to 59
constexpr size_t FWU_FILE_HEADER_SIZE = 64;
constexpr uint16_t FWU_VERSION_PLAIN = 1;  // without identity and salt
constexpr uint16_t FWU_VERSION_SALTED = 2; // what a writer makes

// Entry header: 24 bytes; the payload stands behind it, zeros up to a multiple
// of 8 behind the payload.
//   0  u32   length       header and payload, without the zeros behind
//   4  u16   kind
//   6  u16   flags        FWU_ENTRY_OPTIONAL or zero; zero in version 1
//   8  i32   tag          1, 2, 3, ... within the file
//  12  u32   CRC of bytes 0 to 11
//  16  u32   CRC of the payload
//  20  c[4]  zero
// From version 2 on both checksums of a commit entry begin with bytes of the
// file's salt (0 to 3, 4 to 7) and the entry's offset in the file (u64): nothing
// that stands inside a record, not even a copy of a real one, passes for it.
constexpr size_t FWU_ENTRY_HEADER_SIZE = 24;
constexpr size_t FWU_ENTRY_MAX = 64 * 1024 * 1024;
constexpr size_t FWU_ENTRY_ALIGN = 8;
constexpr size_t FWU_ENTRY_CRC_AT = 12; // both CRC words: what the chain covers
constexpr size_t FWU_ENTRY_CRC_SIZE = 8;
constexpr size_t FWU_COMMIT_SIZE = 56;     // length of every commit entry
constexpr uint16_t FWU_ENTRY_OPTIONAL = 1; // who does not know the kind passes over the entry

enum fwu_kind : uint16_t {
    FWU_KIND_LAYOUT = 1,
    FWU_KIND_SESSION = 2,
    FWU_KIND_INSERT = 3,
    FWU_KIND_UPDATE = 4,
    FWU_KIND_DELETE = 5,
    FWU_KIND_COMMIT = 6,
    FWU_KIND_SOURCE = 7, // these three are optional
    FWU_KIND_MARK = 8,
    FWU_KIND_VALUE = 9,
};

struct fwu_file_header {
    uint16_t version = FWU_VERSION_PLAIN;
    fwu_identity identity{};             // none in version 1
    std::array<unsigned char, 8> salt{}; // zero in version 1
    bool big_endian = false;
    fwu_encoding encoding = FWU_LATIN1; // of the texts in images
    int32_t generation = 0;
    int32_t sequence = 0;
    int64_t created_us = 0; // microseconds since 1970 UTC
};

// An entry in a buffer that belongs to whoever read it.
struct fwu_entry {
    uint32_t length = 0; // with header, without padding
    uint16_t kind = 0;
    uint16_t flags = 0;
    int32_t tag = 0;
    const unsigned char *payload = nullptr;
    size_t payload_length = 0;
};

// A change; names and images point into the entry, names end with a NUL.
struct fwu_change {
    const char *dbname = nullptr;
    const char *dsetname = nullptr;
    int64_t logtime = 0; // seconds since 1970
    int32_t opcode = 0;  // FWU_OP_INSERT, FWU_OP_UPDATE or FWU_OP_DELETE
    int32_t recnum = 0;
    int32_t reclen = 0;                    // bytes of each image
    const unsigned char *before = nullptr; // null for an insert
    const unsigned char *after = nullptr;  // null for a delete
};

// The source of the layout that the file has for a dataset.
struct fwu_layout_source {
    std::string dbname;
    std::string dsetname;
    fwu_source source; // indices of items are those of the layout, which the caller compares
};

// A session; the texts point into the entry and end with a NUL.
struct fwu_session_view {
    const char *entry[FWU_SESSION_ENTRIES] = {}; // as FWU_SESSION_KEYS; null when absent
    std::vector<const char *> data;
};

// Something that happened to a dataset, or to all of them, and is no change of a record.
enum fwu_mark_kind : char {
    FWU_MARK_TRUNCATE = 't', // the table was emptied
    FWU_MARK_GAP = 'g',      // changes are missing from here on
};

struct fwu_mark {
    fwu_mark_kind kind = FWU_MARK_GAP;
    std::string dbname = {}; // empty, like dsetname: the table has no dataset, or all are meant
    std::string dsetname = {};
    std::string schema = {}; // of the source, in UTF-8; empty, like table: not known, or all
    std::string table = {};
    std::string reason = {}; // for people, in UTF-8; may be empty
};

// Which of a change's images.
enum fwu_image : char {
    FWU_IMAGE_BEFORE = 'b',
    FWU_IMAGE_AFTER = 'a',
};

// The whole value of an item, which the image of its change does not hold: in UTF-8 as the
// source wrote it, or the source's own bytes where it has no UTF-8.
struct fwu_value {
    int32_t item = 0; // index in the layout
    fwu_image image = FWU_IMAGE_AFTER;
    std::string_view text = {};
};

// What one entry holds of such a value; the bytes are in the entry.
struct fwu_value_piece {
    int32_t item = 0;
    fwu_image image = FWU_IMAGE_AFTER;
    bool more = false; // the next entry goes on with it
    std::string_view bytes = {};
};
constexpr size_t FWU_VALUE_PIECE_MAX = 1024 * 1024; // bytes of a value in one entry

// What a commit entry says of its transaction.
struct fwu_commit {
    int64_t time_us = 0; // commit time, microseconds since 1970 UTC
    uint64_t xid = 0;    // the source's transaction id
    uint64_t lsn = 0;    // the source's log position of the commit; ascends from commit to commit
};

struct fwu_commit_entry {
    fwu_commit commit;
    uint32_t entries = 0; // entries of the transaction before the commit entry
    uint32_t chain = 0;   // CRC over the CRC words of these entries, in order
};

inline size_t fwu_entry_padded(size_t length)
{
    return (length + FWU_ENTRY_ALIGN - 1) & ~(FWU_ENTRY_ALIGN - 1);
}

void fwu_file_header_put(unsigned char *out, const fwu_file_header &header);
// Whether a writer wrote these 64 bytes and nothing changed them since, be it a
// header that this version understands or not.
bool fwu_file_header_whole(const unsigned char *in);
// Null, or what is wrong with the 64 bytes.
const char *fwu_file_header_get(fwu_file_header &header, const unsigned char *in);

// Fills entry from an entry in memory that was checked before.
inline void fwu_entry_fields(fwu_entry &entry, const unsigned char *in)
{
    entry.length = get_le32(in);
    entry.kind = get_le16(in + 4);
    entry.flags = get_le16(in + 6);
    entry.tag = static_cast<int32_t>(get_le32(in + 8));
    entry.payload_length = entry.length - FWU_ENTRY_HEADER_SIZE;
    entry.payload = in + FWU_ENTRY_HEADER_SIZE;
}

// What is said of an entry that a newer version has written, rather than damaged.
extern const char FWU_UNKNOWN_KIND[];

// Checks the 24 bytes of a header and fills entry; null, or what is wrong with
// them.
// Where in which file it stands counts for commit entries.
const char *fwu_entry_header_get(fwu_entry &entry, const unsigned char *in, int32_t expected_tag,
                                 const fwu_file_header &file, int64_t offset);
// Checks the whole entry, all padded bytes of which stand at in, behind a good
// header; null, or what is wrong.
const char *fwu_entry_body_get(fwu_entry &entry, const unsigned char *in,
                               const fwu_file_header &file, int64_t offset);
// Whether a whole commit entry, tag unknown, stands in these 56 bytes at an offset
// of a file.
bool fwu_entry_is_commit(const unsigned char *in, const fwu_file_header &file, int64_t offset);

// Whether entries of a kind always are optional.
constexpr bool fwu_kind_optional(uint16_t kind)
{
    return kind == FWU_KIND_SOURCE || kind == FWU_KIND_MARK || kind == FWU_KIND_VALUE;
}

// Whether this version knows what the entry says; what it does not know is optional.
inline bool fwu_entry_known(const fwu_entry &entry)
{
    return entry.kind >= FWU_KIND_LAYOUT &&
           (entry.kind <= FWU_KIND_COMMIT ||
            (fwu_kind_optional(entry.kind) && entry.flags == FWU_ENTRY_OPTIONAL));
}

inline bool fwu_entry_is_change(const fwu_entry &entry)
{
    return entry.kind >= FWU_KIND_INSERT && entry.kind <= FWU_KIND_DELETE;
}

// Record number of a change; 0: it has none, being malformed.
inline int32_t fwu_entry_recnum(const fwu_entry &entry)
{
    constexpr size_t recnum_at = 8;
    const uint32_t recnum =
        entry.payload_length < recnum_at + 4 ? 0 : get_le32(entry.payload + recnum_at);
    return recnum <= INT32_MAX ? static_cast<int32_t>(recnum) : 0;
}

// Decode a payload; false when the entry is of another kind or malformed.
bool fwu_entry_layout(const fwu_entry &entry, fwu_layout &layout);
bool fwu_entry_source(const fwu_entry &entry, fwu_layout_source &of);
bool fwu_entry_mark(const fwu_entry &entry, fwu_mark &mark);
bool fwu_entry_value(const fwu_entry &entry, fwu_value_piece &piece);
bool fwu_entry_session(const fwu_entry &entry, fwu_session_view &session);
bool fwu_entry_change(const fwu_entry &entry, fwu_change &change);
bool fwu_entry_commit(const fwu_entry &entry, fwu_commit_entry &commit);

// Append a whole padded entry to a buffer.  The caller has checked names, texts
// (no NUL inside) and lengths.
void fwu_entry_put_layout(std::vector<unsigned char> &out, int32_t tag, const fwu_layout &layout);
// The source of a layout, which must be there.
void fwu_entry_put_source(std::vector<unsigned char> &out, int32_t tag, const fwu_layout &layout);
void fwu_entry_put_mark(std::vector<unsigned char> &out, int32_t tag, const fwu_mark &mark);
// At most FWU_VALUE_PIECE_MAX bytes.
void fwu_entry_put_value(std::vector<unsigned char> &out, int32_t tag,
                         const fwu_value_piece &piece);
void fwu_entry_put_session(std::vector<unsigned char> &out, int32_t tag,
                           const fwu_session &session);
void fwu_entry_put_change(std::vector<unsigned char> &out, int32_t tag, const fwu_change &change);
// The commit entry will stand at an offset of a file with this header.
void fwu_entry_put_commit(std::vector<unsigned char> &out, int32_t tag,
                          const fwu_commit_entry &commit, const fwu_file_header &file,
                          int64_t offset);

// Lengths that these entries will have, without padding.
uint64_t fwu_entry_session_length(const fwu_session &session);
uint64_t fwu_entry_change_length(const fwu_change &change);
uint64_t fwu_entry_layout_length(const fwu_layout &layout);
uint64_t fwu_entry_source_length(const fwu_layout &layout);
uint64_t fwu_entry_mark_length(const fwu_mark &mark);

// What encoding and decoding of all kinds share.
inline std::string_view fwu_entry_payload(const fwu_entry &entry)
{
    return {reinterpret_cast<const char *>(entry.payload), entry.payload_length};
}
// Makes room for a zero-filled entry; its payload is filled in behind the header, then seal
// writes the header.  A commit entry will stand at an offset of a file.
unsigned char *fwu_entry_add(std::vector<unsigned char> &out, uint64_t length);
void fwu_entry_seal(unsigned char *entry, uint64_t length, fwu_kind kind, int32_t tag,
                    const fwu_file_header &file = {}, int64_t offset = 0);

#endif
