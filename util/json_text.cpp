// Hexadecimal digits and JSON strings.
#include "util/json_text.h"

#include "util/utf8.h"

#include <algorithm>
#include <charconv>
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

// Appends what stands behind a backslash, and takes it away; false: it is nothing of ours.
static bool take_escaped(std::string &value, std::string_view &text)
{
    if (text.starts_with('"') || text.starts_with('\\')) {
        value += text[0];
        text.remove_prefix(1);
        return true;
    }
    unsigned byte = 0;
    if (text.starts_with("u00") && text.size() >= 5 &&
        std::from_chars(text.data() + 3, text.data() + 5, byte, 16).ptr == text.data() + 5)
        value += static_cast<char>(byte);
    else if (text.starts_with("ufffd"))
        value += "\xEF\xBF\xBD";
    else
        return false;
    text.remove_prefix(5);
    return true;
}

bool json_text_take(std::string &value, std::string_view &text)
{
    std::string_view rest = text;
    std::string taken;
    if (!rest.starts_with('"'))
        return false;
    rest.remove_prefix(1);
    for (;;) {
        const size_t plain = std::min(rest.find_first_of("\"\\"), rest.size());
        taken += rest.substr(0, plain);
        rest.remove_prefix(plain);
        if (rest.empty())
            return false;
        const bool ends = rest[0] == '"';
        rest.remove_prefix(1);
        if (ends)
            break;
        if (!take_escaped(taken, rest))
            return false;
    }
    value = std::move(taken);
    text = rest;
    return true;
}

std::string json_text_member(std::string_view json, std::string_view name)
{
    const std::string key = json_text(name) + ":"; // inside a string its quotes would be escaped
    const size_t found = json.find(key);
    std::string text;
    if (found == json.npos)
        return text;
    json.remove_prefix(found + key.size());
    (void)json_text_take(text, json); // stays empty
    return text;
}
