// Dataset patterns and record selection.
#include "capture/dsetpat.h"

#include "capture/capfil.h"
#include "driver/base/log.h"
#include "driver/base/logrec.h"
#include "driver/base/mem.h"

#include <cctype>
#include <cstring>

static bool is_letter_or_any(char c)
{
    return isalpha(static_cast<unsigned char>(c)) != 0 || c == '@';
}

// Characters that a name may hold behind its first one.
static bool is_later_char(char c, const char *specials)
{
    return isdigit(static_cast<unsigned char>(c)) != 0 || strchr(specials, c) != nullptr;
}

static int dbname_valid(const char *begin, const char *end)
{
    for (const char *p = begin; p < end; p++) {
        if (is_letter_or_any(*p))
            continue;
        if (!is_later_char(*p, ".-"))
            return set_error("Invalid character in database name in -dset parameter.");
        if (p == begin)
            return set_error("Database name must begin with letter in -dset paramter.");
    }
    return 0;
}

static int dsetname_valid(const char *begin)
{
    const char *p = begin;
    for (; *p != '\0'; p++) {
        if (is_letter_or_any(*p))
            continue;
        if (!is_later_char(*p, "+-*/?'#%&"))
            return set_error("Invalid character in dataset name in -dset parameter.");
        if (p == begin)
            return set_error("Dataset name must begin with letter in -dset paramter.");
    }
    if (p - begin > PAT_DSETNAME_MAX)
        return set_error("Dataset name too long in -dset parameter.");
    return 0;
}

int dset_valid(const char *pattern)
{
    const char *colon = strchr(pattern, ':');
    // Kept: a pattern without a colon names a dataset, but is held to the rules
    // for database names.
    const int rc = dbname_valid(pattern, colon != nullptr ? colon : pattern + strlen(pattern));
    if (rc != 0 || colon == nullptr)
        return rc;
    return dsetname_valid(colon + 1);
}

char *copy_dset_parm(const char *pattern)
{
    const size_t length = strlen(pattern);
    const char *colon = strrchr(pattern, ':');
    // Up to three characters are added: "@", ":" and "@".
    auto *result = static_cast<char *>(mem_calloc(length + 4, 1));
    char *out = result;
    if (colon == nullptr || colon == pattern)
        *out++ = '@';
    if (colon == nullptr)
        *out++ = ':';
    for (size_t i = 0; i < length; i++)
        *out++ = static_cast<char>(toupper(static_cast<unsigned char>(pattern[i])));
    if (colon != nullptr && colon[1] == '\0')
        *out++ = '@';
    return result;
}

// The recursive definition (an "@" takes the shortest run that lets the rest
// match) is worked without recursion: only the last "@" met ever needs to take
// more, since an earlier one could only leave less for the rest.
int patmatches(const char *pattern, const char *subject)
{
    const char *after_any = nullptr; // pattern behind the last "@" met
    const char *retry = nullptr;     // where in the subject that rest is tried next
    for (;;) {
        if (*pattern == '@') {
            after_any = ++pattern;
            retry = subject;
        } else if (*subject == '\0') {
            return *pattern == '\0' ? 1 : 0;
        } else if (toupper(static_cast<unsigned char>(*pattern)) ==
                   toupper(static_cast<unsigned char>(*subject))) {
            pattern++;
            subject++;
        } else if (after_any != nullptr) {
            pattern = after_any;
            subject = ++retry;
        } else {
            return 0;
        }
    }
}

size_t put_dset_subject(char *subject, const char *dbname, const char *dsetname)
{
    char *out = subject;
    const size_t dblen = dbname == nullptr ? 0 : strnlen(dbname, PAT_DBNAME_MAX);
    if (dblen != 0)
        memcpy(out, dbname, dblen);
    out += dblen;
    *out++ = ':';
    const size_t setlen = dsetname == nullptr ? 0 : strnlen(dsetname, PAT_DSETNAME_MAX);
    if (setlen != 0)
        memcpy(out, dsetname, setlen);
    out += setlen;
    *out = '\0';
    return static_cast<size_t>(out - subject);
}

int find_dset(const capfil *cf, const char *dbname, const char *dsetname)
{
    char subject[PAT_SUBJECT_SIZE];
    put_dset_subject(subject, dbname, dsetname);
    for (int i = 0; i < cf->npats; i++) {
        if (patmatches(cf->pats[i], subject) != 0)
            return 1;
    }
    return 0;
}

int dset_qualifies(const capfil *cf, const log_record *record)
{
    if (cf->npats == 0)
        return 1;
    return find_dset(cf, record->dbname, record->dsetname);
}
