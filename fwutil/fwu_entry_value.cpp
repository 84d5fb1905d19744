// Encoding and decoding of the optional entries that hold, in pieces, whole values of items.
#include "fwutil/fwu_entry.h"

#include "fwutil/fwu_bytes.h"

#include <cstring>

constexpr size_t VALUE_FIXED = 8; // bytes of a value's payload before its own

bool fwu_entry_value(const fwu_entry &entry, fwu_value_piece &piece)
{
    std::string_view rest = fwu_entry_payload(entry);
    const unsigned char *const p = entry.payload;
    if (entry.kind != FWU_KIND_VALUE || rest.size() < VALUE_FIXED ||
        rest.size() > VALUE_FIXED + FWU_VALUE_PIECE_MAX || get_le32(p) > INT32_MAX ||
        (p[4] != FWU_IMAGE_BEFORE && p[4] != FWU_IMAGE_AFTER) || p[5] > 1 || get_le16(p + 6) != 0)
        return false;
    rest.remove_prefix(VALUE_FIXED);
    piece.item = static_cast<int32_t>(get_le32(p));
    piece.image = p[4] == FWU_IMAGE_BEFORE ? FWU_IMAGE_BEFORE : FWU_IMAGE_AFTER;
    piece.more = p[5] == 1;
    piece.bytes = rest;
    return true;
}

void fwu_entry_put_value(std::vector<unsigned char> &out, int32_t tag, const fwu_value_piece &piece)
{
    const uint64_t length = FWU_ENTRY_HEADER_SIZE + VALUE_FIXED + piece.bytes.size();
    unsigned char *const entry = fwu_entry_add(out, length);
    unsigned char *const p = entry + FWU_ENTRY_HEADER_SIZE;
    put_le32(p, static_cast<uint32_t>(piece.item));
    p[4] = static_cast<unsigned char>(piece.image);
    p[5] = piece.more ? 1 : 0;
    if (!piece.bytes.empty())
        memcpy(p + VALUE_FIXED, piece.bytes.data(), piece.bytes.size());
    fwu_entry_seal(entry, length, FWU_KIND_VALUE, tag);
}
