// What encoding and decoding of the entries share, whatever their kind.  Every length that
// comes from a file is compared with the bytes at hand before anything is read by it.
#ifndef FWUTIL_FWU_ENTRY_PAYLOAD_H
#define FWUTIL_FWU_ENTRY_PAYLOAD_H

#include "fwutil/fwu_entry.h"

#include <cstring>
#include <string_view>

inline std::string_view fwu_payload_of(const fwu_entry &entry)
{
    return {reinterpret_cast<const char *>(entry.payload), entry.payload_length};
}

inline bool fwu_payload_name_ok(size_t length)
{
    return length >= 1 && length <= FWU_NAME_MAX;
}

// The text of length bytes and its NUL at the front of rest, which then begins
// behind it; null when there is none.
inline const char *fwu_payload_take_text(std::string_view &rest, size_t length)
{
    if (rest.size() <= length || rest.find('\0') != length)
        return nullptr;
    const char *text = rest.data();
    rest.remove_prefix(length + 1);
    return text;
}

// Makes room for a zero-filled entry; its payload is filled in behind the
// header, then seal writes the header.
inline unsigned char *fwu_payload_add(std::vector<unsigned char> &out, uint64_t length)
{
    const size_t at = out.size();
    out.resize(at + fwu_entry_padded(length));
    return out.data() + at;
}

// The NUL behind each text is there already.
inline unsigned char *fwu_payload_put_text(unsigned char *p, std::string_view text)
{
    memcpy(p, text.data(), text.size());
    return p + text.size() + 1;
}

// Writes the header of an entry whose payload is there.  A commit entry will stand at an
// offset of a file.
void fwu_payload_seal(unsigned char *entry, uint64_t length, fwu_kind kind, int32_t tag,
                      const fwu_file_header &file = {}, int64_t offset = 0);

#endif
