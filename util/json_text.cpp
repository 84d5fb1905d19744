// Hexadecimal digits and JSON strings.
#include "util/json_text.h"

#include "util/utf8.h"

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
            uint32_t code = 0;
            length = utf8_decode(text, code);
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

std::string json_text(std::string_view text)
{
    std::string out;
    json_text_append(out, text);
    return out;
}
