// Dataset patterns: checking what -dset gives, its stored form, and whether a
// record's dataset matches.  "@" stands for any run of characters.
#ifndef CAPTURE_DSETPAT_H
#define CAPTURE_DSETPAT_H

#include <cstddef>

struct capfil;
struct log_record;

// Longest part of a record's names that is matched.
constexpr int PAT_DBNAME_MAX = 256;
constexpr int PAT_DSETNAME_MAX = 16;
constexpr int PAT_SUBJECT_SIZE = PAT_DBNAME_MAX + 1 + PAT_DSETNAME_MAX + 1;

// 0 when the pattern is acceptable, else the code of the message reported.
int dset_valid(const char *pattern);

// The stored form DATABASE:DATASET of an accepted pattern, upper case, "@" for
// an omitted part; the caller owns it.
char *copy_dset_parm(const char *pattern);

// 1 when the whole subject matches the pattern, without regard to case.
int patmatches(const char *pattern, const char *subject);

// What patterns are compared with: DATABASE:DATASET of these names, each cut at its longest part
// and empty when null, into subject of PAT_SUBJECT_SIZE bytes.  Returns its length.
size_t put_dset_subject(char *subject, const char *dbname, const char *dsetname);

// 1 when any of the file's patterns matches.
int find_dset(const capfil *cf, const char *dbname, const char *dsetname);

// 1 when the record belongs in the file; a file without patterns takes all.
int dset_qualifies(const capfil *cf, const log_record *record);

#endif
