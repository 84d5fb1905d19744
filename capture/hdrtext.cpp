// Text routines of the capture record header: database names of three parts
// and program names.
#include "capture/hdrtext.h"

#include <cctype>
#include <cstring>

// Fills out with the parts of the name; false when it does not have the form.
static bool split_fga(char *out, const char *name)
{
    int part = 0;
    int at = 0;
    for (; *name != '\0'; name++) {
        if (*name == '.') {
            if (++part * FGA_PART >= FGA_WIDTH)
                return false;
            at = 0;
        } else {
            if (at == FGA_PART)
                return false;
            out[part * FGA_PART + at++] = *name;
        }
    }
    return true;
}

int movefga(char *out, const char *name)
{
    memset(out, ' ', FGA_WIDTH);
    if (split_fga(out, name)) {
        // Kept: the NUL goes past byte 24, which stays as it was; callers read 24.
        out[FGA_WIDTH + 1] = '\0';
        return 0;
    }
    memset(out, ' ', FGA_WIDTH);
    memcpy(out, name, strnlen(name, FGA_WIDTH));
    return 1;
}

void movefgadots(char *out, const char *name)
{
    char parts[FGA_SIZE];
    if (movefga(parts, name) == 0) {
        memcpy(out, parts, FGA_PART);
        out[FGA_PART] = '.';
        memcpy(out + FGA_PART + 1, parts + FGA_PART, FGA_PART);
        out[2 * FGA_PART + 1] = '.';
        memcpy(out + 2 * FGA_PART + 2, parts + 2 * FGA_PART, FGA_PART);
    } else {
        out[0] = '"';
        memcpy(out + 1, parts, FGA_WIDTH);
        out[FGA_WIDTH + 1] = '"';
    }
    out[FGADOTS_SIZE - 1] = '\0';
}

void moveprogname(char *out, const char *pname, int width)
{
    const char *base = pname;
    const char *end = pname;
    for (; *end != '\0' && isspace(static_cast<unsigned char>(*end)) == 0; end++) {
        if (*end == '/')
            base = end + 1;
    }
    const auto length = end - base;
    if (length >= width) {
        memcpy(out, base, static_cast<size_t>(width));
        return;
    }
    // Kept: the character that ended the name is copied with it; a NUL ends the
    // header value, a tab stays in the field.
    memcpy(out, base, static_cast<size_t>(length) + 1);
    memset(out + length + 1, ' ', static_cast<size_t>(width - length - 1));
}

void mov_progterm(const char *pname, const char *term, char *out, int width)
{
    int start = 0;
    int end = str_find(term, pname);
    if (end >= 0) {
        start = backfind(' ', pname, end - 1) + 1;
    } else {
        end = str_find(" ", pname);
        if (end < 0)
            end = static_cast<int>(strlen(pname));
        start = backfind('/', pname, end - 1) + 1;
    }
    const int n = substr(out, width, pname, start, end - start);
    memset(out + n, ' ', static_cast<size_t>(width - n));
}

int str_find(const char *needle, const char *hay)
{
    const char *found = strstr(hay, needle);
    return found == nullptr ? -1 : static_cast<int>(found - hay);
}

int substr(char *out, int outmax, const char *src, int start, int count)
{
    int n = 0;
    while (n < outmax && n < count && src[start + n] != '\0') {
        out[n] = src[start + n];
        n++;
    }
    return n;
}

int backfind(char ch, const char *str, int pos)
{
    while (pos >= 0 && str[pos] != ch)
        pos--;
    return pos;
}
