// UTF-8, decoded strictly: no overlong forms, no surrogates, nothing above U+10FFFF.
#ifndef UTIL_UTF8_H
#define UTIL_UTF8_H

#include <cstddef>
#include <cstdint>
#include <string_view>

// utf8_decode for characters of several bytes.
size_t utf8_decode_long(std::string_view text, uint32_t &code);

// The code of the character that text, which is not empty, begins with, and its length
// in bytes; 0, and code as it was, when it begins with none.
inline size_t utf8_decode(std::string_view text, uint32_t &code)
{
    const auto first = static_cast<unsigned char>(text.front());
    if (first >= 0x80)
        return utf8_decode_long(text, code);
    code = first;
    return 1;
}

// Whether the byte is one of a character's, and not its first.
constexpr bool utf8_continues(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// Whether all of a text is UTF-8.
bool utf8_valid(std::string_view text);

#endif
