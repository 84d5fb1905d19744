// The output formats of capture files, a row for each: what sets one format apart from
// the others.  A capture file and its open handle point to their row.  A row stands in
// a file of its own, and format.cpp lists it.  A format whose files are another one's can
// copy that row and put its own functions in.
#ifndef CAPTURE_FORMAT_H
#define CAPTURE_FORMAT_H

#include <cstdint>

struct capfil;
struct dsetinfo;
struct ebmf;
struct log_record;
struct mark_line;

// The images of a log record that a capture record holds, reclen bytes each.
constexpr int MAX_IMAGES = 2;

struct record_images {
    int n;
    const void *image[MAX_IMAGES]; // null where the log record has none
    int32_t reclen;                // as the log gives it
};

struct cap_format {
    const char *name;   // in the mark of what is on disk; at most 7 characters
    uint32_t chosen_by; // ASCII_ bits of which one chooses this format; 0: when no other is chosen
    bool limited;       // by get_cap_maxbytes; only then end and record_end are asked for
    int32_t longest;    // bytes of a record, header included; its write refuses more; 0: any number

    // The record.  fits is null for a format whose build says what is wrong with a length.
    bool (*fits)(const capfil *cf, const record_images &images);
    // Puts the images behind the header and returns the record's length.  A format that
    // converts them sets conversion to 0 or the code of the first message; the others
    // leave it alone.
    int32_t (*build)(capfil *cf, const record_images &images, const dsetinfo *dsets,
                     int *conversion);

    // The file: what ebmf.h says of the functions of these names.
    bool (*open)(ebmf *file, const char *path, int tmf_mode);
    int (*write)(ebmf *file, char *buffer, int32_t length);
    int (*getfnum)(const ebmf *file, int32_t *number);
    int (*close)(ebmf *file); // the handle itself is the caller's
    // Goes on in the file of that name, behind what it holds; false: the open one stays, and
    // detail tells of a failed open.  Null for a format whose files stay open.
    bool (*reopen)(ebmf *file, const char *path);
    int (*end)(const ebmf *file, int32_t *end);
    int (*record_end)(const ebmf *file, int32_t *end);
    void (*detail)(const ebmf *file, char *detail); // a null file: the last failed open
    int (*open_error)(const char *name);            // reports the last failed open

    // Faults.  Null for a format of which a new run cuts nothing off.
    bool (*cut_when_taken_up)(uint32_t ascii_flags);
    // Completes the line of a file's mark; null: its size says it all.  0 or an error code.
    int (*mark)(capfil *cf, mark_line &line, bool none_open);
    // Takes away what a file of size bytes holds behind its mark; false with the detail.
    bool (*resume)(const mark_line &line, int64_t size, char *detail);
};

extern const cap_format text_format;
extern const cap_format message_format;

// The row that ascii_flags choose.
const cap_format *find_format(uint32_t ascii_flags);

// The row of a name in a mark, or null.
const cap_format *find_format_name(const char *name);

#endif
