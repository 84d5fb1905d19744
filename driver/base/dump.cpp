// Hex dumps: four groups of four bytes to a line, in hex and as characters.
#include "driver/base/dump.h"

#include <cstdarg>
#include <cstdio>

constexpr int LINE_BYTES = 16;
constexpr int GROUP_BYTES = 4;
constexpr int TEXT_COLUMN = 55; // where the characters of a short line begin
constexpr int TITLE_SIZE = 256;

static char *put_hex(char *out, unsigned value, int digits)
{
    static const char hex[] = "0123456789abcdef";
    for (int i = digits - 1; i >= 0; i--)
        *out++ = hex[(value >> (4 * i)) & 0xF];
    return out;
}

// Builds the line for the n bytes (1 to 16) at bytes.
static void build_line(char *line, unsigned offset, const unsigned char *bytes, int n)
{
    char *out = put_hex(line, offset % 65536, 4);
    *out++ = ':';
    for (int j = 0; j < n; j++) {
        if (j % GROUP_BYTES == 0)
            *out++ = ' ';
        out = put_hex(out, bytes[j], 2);
        *out++ = ' ';
    }
    while (out - line < TEXT_COLUMN)
        *out++ = ' ';
    for (int j = 0; j < LINE_BYTES; j++) {
        if (j % GROUP_BYTES == 0)
            *out++ = ' ';
        if (j < n)
            *out++ = bytes[j] >= 0x20 && bytes[j] <= 0x7E ? static_cast<char>(bytes[j]) : '.';
    }
    *out = '\0';
}

int hexdump(const char *title, const void *buf, int len)
{
    int result = puts(title);
    if (buf == nullptr)
        return result;
    const auto *bytes = static_cast<const unsigned char *>(buf);
    for (long long off = 0; off < len; off += LINE_BYTES) {
        const long long left = len - off;
        char line[80];
        build_line(line, static_cast<unsigned>(off), bytes + off,
                   left < LINE_BYTES ? static_cast<int>(left) : LINE_BYTES);
        result = puts(line);
    }
    return result;
}

int dumprec(const void *buf, int len, const char *fmt, ...)
{
    char title[TITLE_SIZE];
    va_list args;
    va_start(args, fmt);
    vsnprintf(title, sizeof title, fmt, args);
    va_end(args);
    return hexdump(title, buf, len);
}
