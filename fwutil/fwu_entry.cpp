// Encoding and decoding of file headers and of the entries that every log has; sources
// and marks are in fwu_entry_source.cpp, whole values in fwu_entry_value.cpp.
#include "fwutil/fwu_entry.h"

#include "fwutil/fwu_bytes.h"
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_entry_payload.h"
#include "fwutil/fwutil.h"

#include <algorithm>
#include <cstring>
#include <string_view>

static constexpr char MAGIC[8] = {'K', 'F', 'W', 'L', 'O', 'G', '\r', '\n'};
constexpr unsigned char HEADER_UTF8 = 'U';
constexpr size_t HEADER_IDENTITY_AT = 32;
constexpr size_t HEADER_SALT_AT = 48;
constexpr size_t HEADER_CRC_AT = 60;
constexpr size_t SALT_OF_PAYLOAD = 4; // the bytes of the salt before it are the header's
constexpr size_t COMMIT_PAYLOAD = FWU_COMMIT_SIZE - FWU_ENTRY_HEADER_SIZE;
constexpr size_t CHANGE_FIXED = 20; // bytes of a change's payload before the names
constexpr size_t LAYOUT_FIXED = 8;  // of a layout's payload before the names
constexpr size_t ITEM_FIXED = 16;   // of an item behind its name
constexpr size_t SESSION_FIXED = 8; // of a session's payload before the texts

static bool all_zero(const unsigned char *p, size_t length)
{
    for (size_t i = 0; i < length; i++)
        if (p[i] != 0)
            return false;
    return true;
}

void fwu_file_header_put(unsigned char *out, const fwu_file_header &header)
{
    memset(out, 0, FWU_FILE_HEADER_SIZE);
    memcpy(out, MAGIC, sizeof MAGIC);
    put_le16(out + 8, header.version);
    put_le16(out + 10, FWU_FILE_HEADER_SIZE);
    out[12] = header.big_endian ? 'B' : 'L';
    out[13] = header.encoding == FWU_UTF8 ? HEADER_UTF8 : 0;
    put_le32(out + 16, static_cast<uint32_t>(header.generation));
    put_le32(out + 20, static_cast<uint32_t>(header.sequence));
    put_le64(out + 24, static_cast<uint64_t>(header.created_us));
    if (header.version != FWU_VERSION_PLAIN) {
        memcpy(out + HEADER_IDENTITY_AT, header.identity.bytes, sizeof header.identity.bytes);
        memcpy(out + HEADER_SALT_AT, header.salt.data(), header.salt.size());
    }
    put_le32(out + HEADER_CRC_AT, fwu_crc32c(0, out, HEADER_CRC_AT));
}

bool fwu_file_header_whole(const unsigned char *in)
{
    return memcmp(in, MAGIC, sizeof MAGIC) == 0 &&
           get_le32(in + HEADER_CRC_AT) == fwu_crc32c(0, in, HEADER_CRC_AT);
}

const char *fwu_file_header_get(fwu_file_header &header, const unsigned char *in)
{
    if (memcmp(in, MAGIC, sizeof MAGIC) != 0)
        return "it does not begin as a log file does";
    if (get_le32(in + HEADER_CRC_AT) != fwu_crc32c(0, in, HEADER_CRC_AT))
        return "the checksum of its file header is wrong";
    const uint16_t version = get_le16(in + 8);
    if ((version != FWU_VERSION_PLAIN && version != FWU_VERSION_SALTED) ||
        get_le16(in + 10) != FWU_FILE_HEADER_SIZE)
        return "it has another format version; a newer libfwutil is needed to read it";
    const size_t zero_at =
        version == FWU_VERSION_PLAIN ? HEADER_IDENTITY_AT : HEADER_SALT_AT + header.salt.size();
    if ((in[12] != 'L' && in[12] != 'B') || (in[13] != 0 && in[13] != HEADER_UTF8) ||
        !all_zero(in + 14, 2) || !all_zero(in + zero_at, HEADER_CRC_AT - zero_at))
        return "its file header holds values that this version does not know";
    header.version = version;
    memcpy(header.identity.bytes, in + HEADER_IDENTITY_AT, sizeof header.identity.bytes);
    memcpy(header.salt.data(), in + HEADER_SALT_AT, header.salt.size());
    header.big_endian = in[12] == 'B';
    header.encoding = in[13] == HEADER_UTF8 ? FWU_UTF8 : FWU_LATIN1;
    header.generation = static_cast<int32_t>(get_le32(in + 16));
    header.sequence = static_cast<int32_t>(get_le32(in + 20));
    header.created_us = static_cast<int64_t>(get_le64(in + 24));
    return nullptr;
}

// What the checksums of a commit entry begin with: nothing, or part of the salt and
// the entry's place.  A function of its own, so that other entries pay nothing for it.
[[gnu::noinline]] static uint32_t commit_crc_begin(const fwu_file_header &file, size_t salt_at,
                                                   int64_t offset)
{
    if (file.version == FWU_VERSION_PLAIN)
        return 0;
    unsigned char place[SALT_OF_PAYLOAD + 8];
    memcpy(place, file.salt.data() + salt_at, SALT_OF_PAYLOAD);
    put_le64(place + SALT_OF_PAYLOAD, static_cast<uint64_t>(offset));
    return fwu_crc32c(0, place, sizeof place);
}

static inline uint32_t crc_begin(const unsigned char *in, const fwu_file_header &file,
                                 size_t salt_at, int64_t offset)
{
    return get_le16(in + 4) == FWU_KIND_COMMIT ? commit_crc_begin(file, salt_at, offset) : 0;
}

static uint32_t header_crc(const unsigned char *in, const fwu_file_header &file, int64_t offset)
{
    return fwu_crc32c(crc_begin(in, file, 0, offset), in, FWU_ENTRY_CRC_AT);
}

static uint32_t payload_crc(const unsigned char *in, size_t length, const fwu_file_header &file,
                            int64_t offset)
{
    return fwu_crc32c(crc_begin(in, file, SALT_OF_PAYLOAD, offset), in + FWU_ENTRY_HEADER_SIZE,
                      length);
}

const char FWU_UNKNOWN_KIND[] =
    "the entry's kind is unknown; a newer libfwutil may be needed to read it";

const char *fwu_entry_header_get(fwu_entry &entry, const unsigned char *in, int32_t expected_tag,
                                 const fwu_file_header &file, int64_t offset)
{
    const uint32_t length = get_le32(in);
    if (length < FWU_ENTRY_HEADER_SIZE || length > FWU_ENTRY_MAX)
        return "the entry's length is impossible";
    if (get_le32(in + FWU_ENTRY_CRC_AT) != header_crc(in, file, offset))
        return "the checksum of the entry's header is wrong";
    fwu_entry_fields(entry, in);
    const uint16_t flags = file.version == FWU_VERSION_PLAIN ? 0 : FWU_ENTRY_OPTIONAL;
    if ((entry.flags & ~flags) != 0 || get_le32(in + 20) != 0)
        return "reserved bytes of the entry's header are not zero";
    if (!fwu_entry_known(entry) && entry.flags != FWU_ENTRY_OPTIONAL)
        return FWU_UNKNOWN_KIND;
    if (entry.tag != expected_tag || expected_tag < 1)
        return "the entry's tag does not follow the one before it";
    return nullptr;
}

const char *fwu_entry_body_get(fwu_entry &entry, const unsigned char *in,
                               const fwu_file_header &file, int64_t offset)
{
    entry.payload =
        in + FWU_ENTRY_HEADER_SIZE; // the bytes may have moved since the header was read
    if (get_le32(in + FWU_ENTRY_CRC_AT + 4) != payload_crc(in, entry.payload_length, file, offset))
        return "the checksum of the entry's payload is wrong";
    if (!all_zero(in + entry.length, fwu_entry_padded(entry.length) - entry.length))
        return "the bytes behind the entry are not zero";
    return nullptr;
}

bool fwu_entry_is_commit(const unsigned char *in, const fwu_file_header &file, int64_t offset)
{
    return get_le32(in) == FWU_COMMIT_SIZE && get_le16(in + 4) == FWU_KIND_COMMIT &&
           get_le32(in + FWU_ENTRY_CRC_AT) == header_crc(in, file, offset) &&
           get_le32(in + FWU_ENTRY_CRC_AT + 4) == payload_crc(in, COMMIT_PAYLOAD, file, offset);
}

bool fwu_entry_change(const fwu_entry &entry, fwu_change &change)
{
    std::string_view rest = fwu_entry_payload(entry);
    const unsigned char *p = entry.payload;
    if (rest.size() < CHANGE_FIXED || get_le16(p + 18) != 0)
        return false;
    change.logtime = static_cast<int64_t>(get_le64(p));
    change.recnum = static_cast<int32_t>(get_le32(p + 8));
    change.reclen = static_cast<int32_t>(get_le32(p + 12));
    if (change.recnum < 1 || change.reclen < 0 || !fwu_payload_name_ok(p[16]) ||
        !fwu_payload_name_ok(p[17]))
        return false;
    rest.remove_prefix(CHANGE_FIXED);
    change.dbname = fwu_payload_take_text(rest, p[16]);
    if (change.dbname == nullptr)
        return false;
    change.dsetname = fwu_payload_take_text(rest, p[17]);
    if (change.dsetname == nullptr)
        return false;

    const auto *images = reinterpret_cast<const unsigned char *>(rest.data());
    const auto length = static_cast<uint64_t>(change.reclen);
    change.before = nullptr;
    change.after = nullptr;
    switch (entry.kind) {
    case FWU_KIND_INSERT:
        change.opcode = FWU_OP_INSERT;
        change.after = images;
        return rest.size() == length;
    case FWU_KIND_DELETE:
        change.opcode = FWU_OP_DELETE;
        change.before = images;
        return rest.size() == length;
    case FWU_KIND_UPDATE:
        change.opcode = FWU_OP_UPDATE;
        if (rest.size() != 2 * length)
            return false;
        change.before = images;
        change.after = images + length;
        return true;
    default:
        return false;
    }
}

bool fwu_entry_layout(const fwu_entry &entry, fwu_layout &layout)
{
    std::string_view rest = fwu_entry_payload(entry);
    const unsigned char *p = entry.payload;
    if (entry.kind != FWU_KIND_LAYOUT || rest.size() < LAYOUT_FIXED || get_le16(p + 2) != 0 ||
        !fwu_payload_name_ok(p[0]) || !fwu_payload_name_ok(p[1]))
        return false;
    uint32_t items = get_le32(p + 4);
    rest.remove_prefix(LAYOUT_FIXED);
    const char *dbname = fwu_payload_take_text(rest, p[0]);
    const char *dsetname = dbname != nullptr ? fwu_payload_take_text(rest, p[1]) : nullptr;
    if (dsetname == nullptr)
        return false;
    layout.dbname = dbname;
    layout.dsetname = dsetname;
    layout.items.clear();
    layout.source = nullptr; // an entry of its own tells of it
    for (; items > 0; items--) {
        if (rest.empty())
            return false;
        const size_t length = static_cast<unsigned char>(rest[0]);
        rest.remove_prefix(1);
        if (length < 1 || length > FWU_ITEM_NAME_MAX || rest.size() < length + ITEM_FIXED ||
            rest.substr(0, length).find('\0') != rest.npos)
            return false;
        fwu_item item;
        item.name = rest.substr(0, length);
        const auto *words = reinterpret_cast<const unsigned char *>(rest.data() + length);
        item.type = static_cast<int32_t>(get_le32(words));
        item.size = static_cast<int32_t>(get_le32(words + 4));
        item.count = static_cast<int32_t>(get_le32(words + 8));
        item.item_aux = static_cast<int32_t>(get_le32(words + 12));
        if (item.size < 1 || item.count < 1)
            return false;
        layout.items.push_back(std::move(item));
        rest.remove_prefix(length + ITEM_FIXED);
    }
    return rest.empty();
}

bool fwu_entry_session(const fwu_entry &entry, fwu_session_view &session)
{
    std::string_view rest = fwu_entry_payload(entry);
    const unsigned char *p = entry.payload;
    if (entry.kind != FWU_KIND_SESSION || rest.size() < SESSION_FIXED ||
        p[0] >= 1 << FWU_SESSION_ENTRIES || !all_zero(p + 1, 3))
        return false;
    const unsigned present = p[0];
    uint32_t elements = get_le32(p + 4);
    rest.remove_prefix(SESSION_FIXED);
    const auto take = [&rest]() -> const char * {
        if (rest.size() < 4)
            return nullptr;
        const uint32_t length = get_le32(reinterpret_cast<const unsigned char *>(rest.data()));
        rest.remove_prefix(4);
        return fwu_payload_take_text(rest, length);
    };
    for (unsigned i = 0; i < FWU_SESSION_ENTRIES; i++) {
        session.entry[i] = nullptr;
        if ((present >> i & 1) != 0 && (session.entry[i] = take()) == nullptr)
            return false;
    }
    session.data.clear();
    for (; elements > 0; elements--) {
        const char *text = take();
        if (text == nullptr)
            return false;
        session.data.push_back(text);
    }
    return rest.empty();
}

bool fwu_entry_commit(const fwu_entry &entry, fwu_commit_entry &commit)
{
    const unsigned char *p = entry.payload;
    if (entry.kind != FWU_KIND_COMMIT || entry.payload_length != COMMIT_PAYLOAD)
        return false;
    commit.commit.time_us = static_cast<int64_t>(get_le64(p));
    commit.commit.xid = get_le64(p + 8);
    commit.commit.lsn = get_le64(p + 16);
    commit.entries = get_le32(p + 24);
    commit.chain = get_le32(p + 28);
    return true;
}

uint64_t fwu_entry_layout_length(const fwu_layout &layout)
{
    uint64_t length =
        FWU_ENTRY_HEADER_SIZE + LAYOUT_FIXED + layout.dbname.size() + layout.dsetname.size() + 2;
    for (const fwu_item &item : layout.items)
        length += 1 + item.name.size() + ITEM_FIXED;
    return length;
}

uint64_t fwu_entry_session_length(const fwu_session &session)
{
    uint64_t length = FWU_ENTRY_HEADER_SIZE + SESSION_FIXED;
    for (const char *key : FWU_SESSION_KEYS)
        if (const std::optional<std::string> &text = *fwu_session_entry(session, key))
            length += 4 + text->size() + 1;
    for (const std::string &text : session.data)
        length += 4 + text.size() + 1;
    return length;
}

uint64_t fwu_entry_change_length(const fwu_change &change)
{
    const unsigned images = change.opcode == FWU_OP_UPDATE ? 2 : 1;
    return FWU_ENTRY_HEADER_SIZE + CHANGE_FIXED + strlen(change.dbname) + strlen(change.dsetname) +
           2 + images * static_cast<uint64_t>(change.reclen);
}

unsigned char *fwu_entry_add(std::vector<unsigned char> &out, uint64_t length)
{
    const size_t at = out.size();
    out.resize(at + fwu_entry_padded(static_cast<size_t>(length))); // FWU_ENTRY_MAX at most
    return out.data() + at;
}

void fwu_entry_seal(unsigned char *entry, uint64_t length, fwu_kind kind, int32_t tag,
                    const fwu_file_header &file, int64_t offset)
{
    put_le32(entry, static_cast<uint32_t>(length));
    put_le16(entry + 4, kind);
    put_le16(entry + 6, fwu_kind_optional(kind) ? FWU_ENTRY_OPTIONAL : 0);
    put_le32(entry + 8, static_cast<uint32_t>(tag));
    put_le32(entry + FWU_ENTRY_CRC_AT, header_crc(entry, file, offset));
    put_le32(entry + FWU_ENTRY_CRC_AT + 4,
             payload_crc(entry, static_cast<size_t>(length) - FWU_ENTRY_HEADER_SIZE, file, offset));
}

void fwu_entry_put_layout(std::vector<unsigned char> &out, int32_t tag, const fwu_layout &layout)
{
    const uint64_t length = fwu_entry_layout_length(layout);
    unsigned char *entry = fwu_entry_add(out, length);
    unsigned char *p = entry + FWU_ENTRY_HEADER_SIZE;
    p[0] = static_cast<unsigned char>(layout.dbname.size());
    p[1] = static_cast<unsigned char>(layout.dsetname.size());
    put_le32(p + 4, static_cast<uint32_t>(layout.items.size()));
    p = fwu_payload_put_text(p + LAYOUT_FIXED, layout.dbname);
    p = fwu_payload_put_text(p, layout.dsetname);
    for (const fwu_item &item : layout.items) {
        *p++ = static_cast<unsigned char>(item.name.size());
        p = std::copy(item.name.begin(), item.name.end(), p);
        put_le32(p, static_cast<uint32_t>(item.type));
        put_le32(p + 4, static_cast<uint32_t>(item.size));
        put_le32(p + 8, static_cast<uint32_t>(item.count));
        put_le32(p + 12, static_cast<uint32_t>(item.item_aux));
        p += ITEM_FIXED;
    }
    fwu_entry_seal(entry, length, FWU_KIND_LAYOUT, tag);
}

void fwu_entry_put_session(std::vector<unsigned char> &out, int32_t tag, const fwu_session &session)
{
    const uint64_t length = fwu_entry_session_length(session);
    unsigned char *entry = fwu_entry_add(out, length);
    unsigned char *payload = entry + FWU_ENTRY_HEADER_SIZE;
    unsigned char *p = payload + SESSION_FIXED;
    const auto put = [&p](const std::string &text) {
        put_le32(p, static_cast<uint32_t>(text.size()));
        p = fwu_payload_put_text(p + 4, text);
    };
    for (unsigned i = 0; i < FWU_SESSION_ENTRIES; i++) {
        if (const std::optional<std::string> &text =
                *fwu_session_entry(session, FWU_SESSION_KEYS[i])) {
            payload[0] = static_cast<unsigned char>(payload[0] | 1U << i);
            put(*text);
        }
    }
    put_le32(payload + 4, static_cast<uint32_t>(session.data.size()));
    for (const std::string &text : session.data)
        put(text);
    fwu_entry_seal(entry, length, FWU_KIND_SESSION, tag);
}

void fwu_entry_put_change(std::vector<unsigned char> &out, int32_t tag, const fwu_change &change)
{
    const std::string_view dbname = change.dbname;
    const std::string_view dsetname = change.dsetname;
    const auto image = static_cast<size_t>(change.reclen);
    const uint64_t length = fwu_entry_change_length(change);
    unsigned char *entry = fwu_entry_add(out, length);
    unsigned char *p = entry + FWU_ENTRY_HEADER_SIZE;
    put_le64(p, static_cast<uint64_t>(change.logtime));
    put_le32(p + 8, static_cast<uint32_t>(change.recnum));
    put_le32(p + 12, static_cast<uint32_t>(change.reclen));
    p[16] = static_cast<unsigned char>(dbname.size());
    p[17] = static_cast<unsigned char>(dsetname.size());
    p = fwu_payload_put_text(p + CHANGE_FIXED, dbname);
    p = fwu_payload_put_text(p, dsetname);
    if (change.opcode != FWU_OP_INSERT && image > 0)
        memcpy(p, change.before, image);
    if (change.opcode != FWU_OP_INSERT)
        p += image;
    if (change.opcode != FWU_OP_DELETE && image > 0)
        memcpy(p, change.after, image);
    const fwu_kind kind = change.opcode == FWU_OP_INSERT   ? FWU_KIND_INSERT
                          : change.opcode == FWU_OP_UPDATE ? FWU_KIND_UPDATE
                                                           : FWU_KIND_DELETE;
    fwu_entry_seal(entry, length, kind, tag);
}

void fwu_entry_put_commit(std::vector<unsigned char> &out, int32_t tag,
                          const fwu_commit_entry &commit, const fwu_file_header &file,
                          int64_t offset)
{
    unsigned char *entry = fwu_entry_add(out, FWU_COMMIT_SIZE);
    unsigned char *p = entry + FWU_ENTRY_HEADER_SIZE;
    put_le64(p, static_cast<uint64_t>(commit.commit.time_us));
    put_le64(p + 8, commit.commit.xid);
    put_le64(p + 16, commit.commit.lsn);
    put_le32(p + 24, commit.entries);
    put_le32(p + 28, commit.chain);
    fwu_entry_seal(entry, FWU_COMMIT_SIZE, FWU_KIND_COMMIT, tag, file, offset);
}
