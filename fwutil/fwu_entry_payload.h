// Texts in the payloads of entries.  Every length that comes from a file is compared with the
// bytes at hand before anything is read by it.
#ifndef FWUTIL_FWU_ENTRY_PAYLOAD_H
#define FWUTIL_FWU_ENTRY_PAYLOAD_H

#include "fwutil/fwu_items.h"

#include <cstddef>
#include <cstring>
#include <string_view>

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

// The NUL behind each text is there already.
inline unsigned char *fwu_payload_put_text(unsigned char *p, std::string_view text)
{
    memcpy(p, text.data(), text.size());
    return p + text.size() + 1;
}

#endif
