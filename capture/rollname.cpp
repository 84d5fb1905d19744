// Names of the files that a full capture file rolls over to.
#include "capture/rollname.h"

#include "driver/base/mem.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

// Names tried before giving up.
constexpr int MAX_NAMES = 1024;

int file_exists(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0 ? 1 : 0;
}

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

static bool is_word(char c)
{
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

// Position of the "." that starts the extension, or the length when there is none.
static size_t extension_start(const char *name, size_t length)
{
    if (length == 0)
        return 0;
    size_t i = length - 1;
    while (i > 0 && is_word(name[i]))
        i--;
    return name[i] == '.' ? i : length;
}

// A copy of name with c put in at position at.
static char *with_inserted(const char *name, size_t length, size_t at, char c)
{
    char *next = static_cast<char *>(mem_calloc(length + 2, 1));
    memcpy(next, name, at);
    next[at] = c;
    memcpy(next + at + 1, name + at, length - at);
    return next;
}

char *calc_rollfname(const char *name)
{
    const size_t length = strlen(name);
    const size_t stem_end = extension_start(name, length);
    size_t nines = stem_end; // where the nines begin that end the number
    while (nines > 0 && name[nines - 1] == '9')
        nines--;
    char *next;
    if (nines > 0 && is_digit(name[nines - 1])) {
        next = mem_strdup(name);
        next[nines - 1]++;
        memset(next + nines, '0', stem_end - nines);
    } else { // no number, or one of nines only, which grows by a digit
        next = with_inserted(name, length, nines, '1');
        memset(next + nines + 1, '0', stem_end - nines);
    }
    return next;
}

char *rollover_fname(const char *name)
{
    char *current = mem_strdup(name);
    for (int i = 0; i < MAX_NAMES; i++) {
        char *candidate = calc_rollfname(current);
        free(current);
        current = candidate;
        if (file_exists(candidate) == 0)
            return candidate;
    }
    free(current);
    return nullptr;
}
