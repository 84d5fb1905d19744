// What tells one log from another that has the same names and numbers: random
// bytes in the header of each of its files.
#ifndef FWUTIL_FWU_IDENTITY_H
#define FWUTIL_FWU_IDENTITY_H

#include <cstddef>
#include <string>
#include <string_view>

// All zero: none, as in logs of format version 1.
struct fwu_identity {
    unsigned char bytes[16] = {};
    bool operator==(const fwu_identity &) const = default;
};

inline bool fwu_identity_known(const fwu_identity &identity)
{
    return identity != fwu_identity();
}

// 32 lower-case hexadecimal digits, or "none".
std::string fwu_identity_text(const fwu_identity &identity);
// The reverse; false when the text is neither.
bool fwu_identity_parse(fwu_identity &identity, std::string_view text);

// Fills length bytes with random ones of the system; 0 or -1 (reported).
int fwu_random(void *bytes, size_t length);

#endif
