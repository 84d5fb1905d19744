// The forms of a character of several bytes, as a table.
#include "util/utf8.h"

#include <cstring>

// The bits of the first byte that tell the form, what they are in it, and the least code
// that has to be written so long.
struct utf8_form {
    unsigned char mask;
    unsigned char first;
    size_t length;
    uint32_t smallest;
};
static constexpr utf8_form utf8_forms[] = {
    {0xE0, 0xC0, 2, 0x80},
    {0xF0, 0xE0, 3, 0x800},
    {0xF8, 0xF0, 4, 0x10000},
};

size_t utf8_decode_long(std::string_view text, uint32_t &code)
{
    const auto first = static_cast<unsigned char>(text.front());
    for (const utf8_form &form : utf8_forms) {
        if ((first & form.mask) != form.first || text.size() < form.length)
            continue;
        uint32_t found = first & static_cast<unsigned char>(~form.mask);
        for (size_t i = 1; i < form.length; i++) {
            if (!utf8_continues(text[i]))
                return 0;
            found = found << 6 | (static_cast<unsigned char>(text[i]) & 0x3F);
        }
        const bool surrogate = found >= 0xD800 && found <= 0xDFFF;
        if (found < form.smallest || found > 0x10FFFF || surrogate)
            return 0;
        code = found;
        return form.length;
    }
    return 0;
}

bool utf8_valid(std::string_view text)
{
    while (!text.empty()) {
        uint64_t eight = 0; // most texts are ASCII
        if (text.size() >= sizeof eight) {
            memcpy(&eight, text.data(), sizeof eight);
            if ((eight & 0x8080808080808080) == 0) {
                text.remove_prefix(sizeof eight);
                continue;
            }
        }
        uint32_t code = 0;
        const size_t length = utf8_decode(text, code);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}
