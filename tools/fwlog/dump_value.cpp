// The values of a dump are read by people: decimal numbers, floating point with
// as many digits as tell it from its neighbours, text as it was.
#include "tools/fwlog/dump_value.h"

#include "changes/value.h"
#include "fwutil/fwu_source_name.h"
#include "util/utf8.h"

#include <cstdint>

static constexpr char HEX[] = "0123456789ABCDEF";

void dump_hex(std::string &out, const unsigned char *bytes, size_t length)
{
    for (size_t i = 0; i < length; i++) {
        out.push_back(HEX[bytes[i] >> 4]);
        out.push_back(HEX[bytes[i] & 0x0F]);
    }
}

// What gets a backslash in front of it.
static constexpr std::string_view IN_QUOTES = "\\\"";
static constexpr std::string_view WITHOUT_QUOTES = "\\";
static constexpr std::string_view NOTHING;

static void put_escaped(std::string &out, std::string_view text, std::string_view marked)
{
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || (byte >= 0x7F && byte < 0xA0)) {
            out += "\\x";
            dump_hex(out, &byte, 1);
        } else if (byte >= 0xA0) {
            out.push_back(static_cast<char>(0xC0 | byte >> 6));
            out.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
        } else {
            if (marked.find(c) != marked.npos)
                out.push_back('\\');
            out.push_back(c);
        }
    }
}

void dump_text(std::string &out, std::string_view text)
{
    out.push_back('"');
    put_escaped(out, text, IN_QUOTES);
    out.push_back('"');
}

void dump_name(std::string &out, std::string_view name)
{
    put_escaped(out, name, WITHOUT_QUOTES);
}

static void put_utf8(std::string &out, std::string_view text, std::string_view marked)
{
    constexpr uint32_t first_printable = 0xA0; // of the characters of several bytes
    while (!text.empty()) {
        uint32_t code = 0;
        const size_t length = utf8_decode(text, code);
        const std::string_view next = text.substr(0, length == 0 ? 1 : length);
        text.remove_prefix(next.size());
        if (length == 1)
            put_escaped(out, next, marked);
        else if (code >= first_printable)
            out += next;
        else
            for (const char c : next) {
                const auto byte = static_cast<unsigned char>(c);
                out += "\\x";
                dump_hex(out, &byte, 1);
            }
    }
}

void dump_utf8(std::string &out, std::string_view text)
{
    put_utf8(out, text, WITHOUT_QUOTES);
}

void dump_table(std::string &out, std::string_view schema, std::string_view table)
{
    std::string name;
    if (!schema.empty())
        fwu_source_name_put(name, schema);
    name += schema.empty() ? "" : ".";
    fwu_source_name_put(name, table);
    put_utf8(out, name, NOTHING);
}

void dump_utf8_text(std::string &out, std::string_view text)
{
    out.push_back('"');
    put_utf8(out, text, IN_QUOTES);
    out.push_back('"');
}

// Special numbers as the C library prints them, a NaN's sign included.
static void put_special(std::string &out, std::string_view text, bool negative)
{
    if (negative)
        out.push_back('-');
    out += text == "NaN" ? "nan" : "inf";
}

static void put_element(std::string &out, std::string &work, const fwu_item &item, bool big_endian,
                        fwu_encoding encoding, const unsigned char *in)
{
    const auto size = static_cast<size_t>(item.size);
    std::string_view text;
    switch (change_value_get(text, work, item, big_endian, encoding, in)) {
    case CHANGE_NUMBER:
        out += text;
        break;
    case CHANGE_SPECIAL:
        put_special(out, text, (in[big_endian ? 0 : size - 1] & 0x80) != 0);
        break;
    case CHANGE_LATIN1:
        dump_text(out, text);
        break;
    case CHANGE_UTF8:
        dump_utf8_text(out, text);
        break;
    case CHANGE_BYTES:
        out += "0x";
        dump_hex(out, in, size);
        break;
    }
}

bool dump_image(std::string &out, const fwu_layout &layout, bool big_endian, fwu_encoding encoding,
                const unsigned char *image, size_t length)
{
    for (const fwu_item &item : layout.items) {
        if (item.size < 1 || item.count < 1)
            return false;
    }
    if (fwu_layout_image_length(layout) != static_cast<int64_t>(length))
        return false;
    std::string work;
    for (const fwu_item &item : layout.items) {
        out += " ";
        dump_name(out, item.name);
        out += item.count > 1 ? "={" : "=";
        for (int32_t i = 0; i < item.count; i++) {
            if (i > 0)
                out.push_back(',');
            put_element(out, work, item, big_endian, encoding, image);
            image += item.size;
        }
        if (item.count > 1)
            out.push_back('}');
    }
    return true;
}

bool dump_time(std::string &out, int64_t second, int32_t micros, size_t length)
{
    char text[FWU_TIME_SIZE];
    if (!fwu_time_put(text, second, micros) || std::string_view(text, 4) == "0000")
        return false;
    out.append(text, length);
    return true;
}
