// Hexadecimal digits and JSON strings.
#include "util/json_text.h"

#include <algorithm>
#include <cstdint>

static const char digits[] = "0123456789abcdef";

void json_text_hex(std::string &out, std::string_view bytes)
{
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        out += digits[value >> 4];
        out += digits[value & 0x0F];
    }
}

bool json_text_printable(std::string_view bytes)
{
    return std::all_of(bytes.begin(), bytes.end(),
                       [](char byte) { return byte >= ' ' && byte <= '~'; });
}

// The forms of a character of more than one byte: its first byte, and the least
// code that has to be written so long.
struct utf8_form {
    unsigned char mask;
    unsigned char first;
    size_t length;
    uint32_t smallest;
};
static const utf8_form utf8_forms[] = {
    {0xE0, 0xC0, 2, 0x80},
    {0xF0, 0xE0, 3, 0x800},
    {0xF8, 0xF0, 4, 0x10000},
};

// Length of the character of several bytes that text begins with, 0 when it
// begins with none.
static size_t utf8_length(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    for (const utf8_form &form : utf8_forms) {
        if ((first & form.mask) != form.first || text.size() < form.length)
            continue;
        uint32_t code = first & static_cast<unsigned char>(~form.mask);
        for (size_t i = 1; i < form.length; i++) {
            const auto next = static_cast<unsigned char>(text[i]);
            if ((next & 0xC0) != 0x80)
                return 0;
            code = code << 6 | (next & 0x3F);
        }
        const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
        return code >= form.smallest && code <= 0x10FFFF && !surrogate ? form.length : 0;
    }
    return 0;
}

void json_text_append(std::string &out, std::string_view text)
{
    out += '"';
    while (!text.empty()) {
        const char byte = text[0];
        size_t length = 1;
        if (byte == '"' || byte == '\\') {
            out += '\\';
            out += byte;
        } else if (byte >= ' ' && byte <= '~') {
            out += byte;
        } else if (static_cast<unsigned char>(byte) < 0x80) {
            out += "\\u00";
            json_text_hex(out, text.substr(0, 1));
        } else {
            length = utf8_length(text);
            if (length == 0) {
                out += "\\ufffd";
                length = 1;
            } else {
                out += text.substr(0, length);
            }
        }
        text.remove_prefix(length);
    }
    out += '"';
}
